// SPDX-License-Identifier: GPL-3.0-or-later
// Writing FLAC files: blocks of 4096 frames, the MD5 of the samples, and the STREAMINFO block
// rewritten with the totals when the sink finishes.
#include "flacstream.h"

#include "llib/snd/sampleformats.h"
#include "wavepcm.h"

#include <fcntl.h>

#include <algorithm>
#include <bit>
#include <cstring>

using namespace llib::detail;

namespace {

constexpr int kBlockFrames = 4096;
// Blocks handed to the worker at a time: enough to make the hand-over rare, few enough that
// the two batches stay in the cache.
constexpr long long kBatchFrames = 8 * kBlockFrames;
constexpr char kVendor[] = "Tessel";
// "fLaC", the STREAMINFO block, and a comment block holding only the vendor string.
constexpr std::size_t kStreamInfoAt = 8;
constexpr std::size_t kHeaderBytes =
    4 + 4 + kLFLACStreamInfoBytes + 4 + 4 + (sizeof kVendor - 1) + 4;
constexpr std::uint64_t kWritebackBytes = std::uint64_t{8} << 20;

void PutBlockHeader(unsigned char* p, bool last, int type, std::uint32_t bytes) {
    p[0] = static_cast<unsigned char>((last ? 0x80 : 0) | type);
    p[1] = static_cast<unsigned char>(bytes >> 16);
    p[2] = static_cast<unsigned char>(bytes >> 8);
    p[3] = static_cast<unsigned char>(bytes);
}

void PutLe32(unsigned char* p, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        p[i] = static_cast<unsigned char>(v >> (8 * i));
    }
}

} // namespace

template <class T>
LFLACSink<T>::LFLACSink(char const* path, int rateHz, unsigned char channels, int bits,
                        int compression)
    : LSoundSinkBase(rateHz, channels), m_bits(bits),
      m_compression(std::clamp(compression, 0, kLFLACMaxCompression)) {
    bool const depthFits = sizeof(T) == 2 ? (bits == 8 || bits == 16) : (bits == 24 || bits == 32);
    if (IsFailed() || !depthFits || channels > 8 || rateHz < 1 || rateHz > 655350 ||
        path == nullptr || !m_fd.Open(path, O_RDWR | O_CREAT, 0666) ||
        !m_lock.Lock(m_fd, LFileLockMode::kShared)) {
        SetFailed();
        return;
    }
    m_info.minBlockFrames = kBlockFrames;
    m_info.maxBlockFrames = kBlockFrames;
    m_info.sampleRateHz = static_cast<std::uint32_t>(rateHz);
    m_info.channels = channels;
    m_info.bitsPerSample = static_cast<unsigned>(bits);
    unsigned char header[kHeaderBytes] = {};
    std::memcpy(header, "fLaC", 4);
    PutBlockHeader(header + 4, false, 0, kLFLACStreamInfoBytes);
    m_info.Serialise(header + kStreamInfoAt);
    unsigned char* p = header + kStreamInfoAt + kLFLACStreamInfoBytes;
    PutBlockHeader(p, true, 4, static_cast<std::uint32_t>(4 + sizeof kVendor - 1 + 4));
    PutLe32(p + 4, sizeof kVendor - 1);
    std::memcpy(p + 8, kVendor, sizeof kVendor - 1);
    PutLe32(p + 8 + sizeof kVendor - 1, 0);
    if (!m_fd.PWriteAll(header, sizeof header, 0) || !m_fd.Truncate(sizeof header) ||
        !m_fd.SeekTo(sizeof header)) {
        SetFailed();
        return;
    }
    for (Batch& batch : m_batches) {
        batch.samples.resize(static_cast<std::size_t>(kBatchFrames) * channels);
    }
    m_md5Bytes.resize(static_cast<std::size_t>(kBatchFrames) * channels * 4);
    m_frame.resize(LFLACFrame::GetBound(channels, kBlockFrames));
    m_encoder = std::make_unique<LFLACFrame>(channels, bits, m_compression);
    m_writer.SetWritebackInterval(kWritebackBytes);
    m_writer.Start(m_fd);
    // Without a worker the batches are encoded on the caller's thread.
    (void)m_thread.Start([this] { RunWorker(); });
}

template <class T>
LFLACSink<T>::~LFLACSink() {
    (void)Finish();
}

template <class T>
void LFLACSink<T>::Quantise(float const* in, std::int32_t* out, long long count) {
    // The same rounding as the WAV writer of the same depth, through its own conversions.
    auto const n = static_cast<std::size_t>(count);
    if (m_scratch.size() < n * 4) {
        m_scratch.resize(n * 4);
    }
    unsigned char const* const b = m_scratch.data();
    if (m_bits == 8) {
        ConvertSamplesOut<LSFS8>(reinterpret_cast<LSFS8*>(m_scratch.data()), in, count);
        for (std::size_t i = 0; i < n; ++i) {
            out[i] = static_cast<signed char>(b[i]);
        }
    } else if (m_bits == 16) {
        ConvertSamplesOut<LSF16>(reinterpret_cast<LSF16*>(m_scratch.data()), in, count);
        for (std::size_t i = 0; i < n; ++i) {
            out[i] = static_cast<std::int16_t>(b[2 * i] | b[2 * i + 1] << 8);
        }
    } else {
        ConvertSamplesOut<LSF32>(reinterpret_cast<LSF32*>(m_scratch.data()), in, count);
        int const drop = 32 - m_bits;
        for (std::size_t i = 0; i < n; ++i) {
            auto const v = static_cast<std::uint32_t>(b[4 * i]) |
                           static_cast<std::uint32_t>(b[4 * i + 1]) << 8 |
                           static_cast<std::uint32_t>(b[4 * i + 2]) << 16 |
                           static_cast<std::uint32_t>(b[4 * i + 3]) << 24;
            out[i] = static_cast<std::int32_t>(v) >> drop;
        }
    }
}

template <class T>
void LFLACSink<T>::Write(float const* buffer, long long frames) {
    if (IsFailed() || m_finished || buffer == nullptr || frames <= 0) {
        return;
    }
    int const channels = GetChannels();
    while (frames > 0 && !IsFailed()) {
        Batch& batch = m_batches[m_filling];
        long long const n = std::min(frames, kBatchFrames - batch.frames);
        Quantise(buffer, batch.samples.data() + static_cast<std::size_t>(batch.frames) * channels,
                 n * channels);
        batch.frames += n;
        AddFramesWritten(n);
        buffer += n * channels;
        frames -= n;
        if (batch.frames == kBatchFrames) {
            Submit();
        }
    }
}

template <class T>
void LFLACSink<T>::Digest(Batch const& batch) {
    // The digest covers the samples as little-endian integers of their byte width.
    std::size_t const count = static_cast<std::size_t>(batch.frames) * GetChannels();
    int const width = (m_bits + 7) / 8;
    unsigned char* const p = m_md5Bytes.data();
    std::int32_t const* const in = batch.samples.data();
    if (width == 2 && std::endian::native == std::endian::little) {
        for (std::size_t i = 0; i < count; ++i) {
            auto const v = static_cast<std::int16_t>(in[i]);
            std::memcpy(p + 2 * i, &v, 2);
        }
    } else {
        for (std::size_t i = 0; i < count; ++i) {
            auto const v = static_cast<std::uint32_t>(in[i]);
            for (int b = 0; b < width; ++b) {
                p[i * static_cast<std::size_t>(width) + static_cast<std::size_t>(b)] =
                    static_cast<unsigned char>(v >> (8 * b));
            }
        }
    }
    m_md5.Update(p, count * static_cast<std::size_t>(width));
}

template <class T>
bool LFLACSink<T>::EncodeBatch(Batch const& batch) {
    std::size_t const channels = GetChannels();
    for (long long at = 0; at < batch.frames; at += kBlockFrames) {
        int const frames = static_cast<int>(std::min<long long>(kBlockFrames, batch.frames - at));
        std::size_t const bytes =
            m_encoder->WriteFrame(batch.samples.data() + static_cast<std::size_t>(at) * channels,
                                  frames, m_frameNumber++, m_info, m_frame.data());
        auto const frameBytes = static_cast<std::uint32_t>(bytes);
        m_info.minFrameBytes =
            m_info.minFrameBytes == 0 ? frameBytes : std::min(m_info.minFrameBytes, frameBytes);
        m_info.maxFrameBytes = std::max(m_info.maxFrameBytes, frameBytes);
        m_info.totalFrames += static_cast<std::uint64_t>(frames);
        if (!m_writer.Write(m_frame.data(), bytes)) {
            return false;
        }
    }
    return true;
}

template <class T>
void LFLACSink<T>::RunWorker() {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_changed.wait(lock, [this] { return m_queued >= 0 || m_stop; });
        if (m_queued < 0) {
            return;
        }
        Batch const& batch = m_batches[m_queued];
        m_busy = true;
        lock.unlock();
        bool const ok = EncodeBatch(batch);
        lock.lock();
        m_workerFailed = m_workerFailed || !ok;
        m_busy = false;
        m_queued = -1;
        m_changed.notify_all();
    }
}

template <class T>
void LFLACSink<T>::Submit() {
    Batch& batch = m_batches[m_filling];
    if (batch.frames == 0) {
        return;
    }
    if (!m_thread.IsStarted()) {
        Digest(batch);
        if (!EncodeBatch(batch)) {
            SetFailed();
        }
        batch.frames = 0;
        return;
    }
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_queued < 0 && !m_busy; });
        if (m_workerFailed) {
            SetFailed();
        }
        m_queued = m_filling;
        m_changed.notify_all();
    }
    Digest(batch);
    // The other batch is free: the worker finished it before taking this one.
    m_filling = 1 - m_filling;
    m_batches[m_filling].frames = 0;
}

template <class T>
bool LFLACSink<T>::Finish() {
    if (m_finished) {
        return m_finishResult;
    }
    m_finished = true;
    if (!IsFailed()) {
        Submit();
    }
    if (m_thread.IsStarted()) {
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_changed.wait(lock, [this] { return m_queued < 0 && !m_busy; });
            m_stop = true;
            m_changed.notify_all();
            if (m_workerFailed) {
                SetFailed();
            }
        }
        m_thread.Join();
    }
    if (m_fd.IsOpen()) {
        bool ok = m_writer.Finish() && !IsFailed();
        m_info.md5 = m_md5.Finish();
        unsigned char si[kLFLACStreamInfoBytes];
        m_info.Serialise(si);
        ok = ok && m_fd.PWriteAll(si, sizeof si, kStreamInfoAt);
        m_lock.Unlock();
        ok = m_fd.Close() && ok;
        if (!ok) {
            SetFailed();
        }
    }
    m_finishResult = !IsFailed();
    return m_finishResult;
}

template class LFLACSink<short>;
template class LFLACSink<int>;

// ---- LFLACSinkWithDither ----

LFLACSinkWithDither::LFLACSinkWithDither(char const* path, int rateHz, unsigned char channels,
                                         int bits, int compression)
    : LFLACSink<short>(path, rateHz, channels, bits, compression),
      m_dither(std::make_unique<LWaveDither>()) {}

LFLACSinkWithDither::~LFLACSinkWithDither() = default;

void LFLACSinkWithDither::Quantise(float const* in, std::int32_t* out, long long count) {
    if (static_cast<long long>(m_dithered.size()) < count) {
        m_dithered.resize(static_cast<std::size_t>(kBlockFrames) * GetChannels());
    }
    // The 8-bit rounding centres on the input as the 16-bit one does, so no offset is needed.
    m_dither->Apply(m_dithered.data(), in, count, GetChannels(), GetBits() == 8 ? 127.0 : 32767.0,
                    0.0);
    LFLACSink<short>::Quantise(m_dithered.data(), out, count);
}

namespace LFLACFile {

LSoundSink OpenSink(char const* path, int rate, unsigned char channels, int bits, bool dither,
                    int compression) {
    if (bits == 24 || bits == 32) {
        return LMakeSink<LFLACSink<int>>(path, rate, channels, bits, compression);
    }
    if (dither && channels <= LWaveDither::kMaxChannels) {
        return LMakeSink<LFLACSinkWithDither>(path, rate, channels, bits, compression);
    }
    return LMakeSink<LFLACSink<short>>(path, rate, channels, bits, compression);
}

} // namespace LFLACFile
