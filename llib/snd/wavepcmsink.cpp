// SPDX-License-Identifier: GPL-3.0-or-later
// Writing WAV files: PCM and float behind a header finalised on close, with the chunk layout that
// carries files beyond 4 GB, dither for the small integer containers, and G.711.
#include "wavepcm.h"

#include <fcntl.h>

#include <algorithm>
#include <cstring>
#include <type_traits>

namespace llib::detail {

namespace {

constexpr std::size_t kPcmHeaderBytes = 46;
constexpr std::size_t kG711HeaderBytes = 58;
// The RIFF size counts everything after its own 8 bytes up to the end of the first data chunk.
constexpr std::uint32_t kPcmRiffOverhead = kPcmHeaderBytes - 8;
constexpr std::uint32_t kG711RiffOverhead = kG711HeaderBytes - 8;

void PutU16(unsigned char*& p, unsigned v) {
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
    p += 2;
}

void PutU32(unsigned char*& p, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        p[i] = static_cast<unsigned char>(v >> (8 * i));
    }
    p += 4;
}

void PutId(unsigned char*& p, char const* id) {
    std::memcpy(p, id, 4);
    p += 4;
}

// RIFF, WAVE and an 18-byte fmt chunk: the first 38 bytes of both header layouts.
void PutRiffFmt(unsigned char*& p, std::uint32_t riffBytes, std::uint16_t tag, unsigned channels,
                std::uint32_t rate, std::uint32_t avgBytes, unsigned blockAlign, unsigned bits) {
    PutId(p, "RIFF");
    PutU32(p, riffBytes);
    PutId(p, "WAVE");
    PutId(p, "fmt ");
    PutU32(p, 18);
    PutU16(p, tag);
    PutU16(p, channels);
    PutU32(p, rate);
    PutU32(p, avgBytes);
    PutU16(p, blockAlign);
    PutU16(p, bits);
    PutU16(p, 0);
}

// Opened under a shared lock, so a tool that rewrites a file under the exclusive one (the tag
// writer) waits for the audio to be complete instead of editing a file still being written.
bool OpenForWriting(LFileDescriptor& fd, LFileLock& lock, char const* path) {
    return path != nullptr && fd.Open(path, O_RDWR | O_CREAT, 0666) &&
           lock.Lock(fd, LFileLockMode::kShared);
}

} // namespace

// ---- LSNKPCMFileBase ----

namespace {
constexpr std::uint64_t kWritebackBytes = std::uint64_t{8} << 20;
} // namespace

LSNKPCMFileBase::LSNKPCMFileBase(char const* path, int rateHz, unsigned char channels,
                                 int bytesPerSample, std::uint16_t formatTag)
    : LSoundSinkBase(rateHz, channels), m_formatTag(formatTag), m_bytesPerSample(bytesPerSample) {
    if (IsFailed() || rateHz < 1 || !OpenForWriting(m_fd, m_lock, path) ||
        !WriteHeader(kWaveProvisionalDataBytes) || !m_fd.Truncate(kPcmHeaderBytes) ||
        !m_fd.SeekTo(kPcmHeaderBytes)) {
        SetFailed();
        return;
    }
    // The disk starts on the audio while it is being written: an hour's file then never sits
    // in memory as dirty pages, and the rename that puts a saved file in place of an older
    // one (which makes the file system allocate and flush all it has not yet) finds little
    // left to do.
    m_writer.SetWritebackInterval(kWritebackBytes);
    m_writer.Start(m_fd);
}

LSNKPCMFileBase::~LSNKPCMFileBase() {
    Finalise();
}

bool LSNKPCMFileBase::WriteHeader(std::uint32_t firstChunkBytes) {
    unsigned char header[kPcmHeaderBytes];
    unsigned char* p = header;
    std::uint32_t const frameBytes = GetChannels() * static_cast<std::uint32_t>(m_bytesPerSample);
    // The provisional header claims the largest RIFF size, as a reader of a file that was never
    // finalised should take everything that is there.
    std::uint32_t const riffBytes = firstChunkBytes == kWaveProvisionalDataBytes
                                        ? 0xFFFFFFFFu
                                        : firstChunkBytes + kPcmRiffOverhead;
    PutRiffFmt(p, riffBytes, m_formatTag, GetChannels(),
               static_cast<std::uint32_t>(GetSampleRate()),
               static_cast<std::uint32_t>(GetSampleRate()) * frameBytes, frameBytes,
               8 * static_cast<unsigned>(m_bytesPerSample));
    PutId(p, "data");
    PutU32(p, firstChunkBytes);
    return m_fd.PWriteAll(header, sizeof header, 0);
}

void LSNKPCMFileBase::WriteData(unsigned char const* data, std::uint64_t bytes) {
    while (bytes > 0 && !IsFailed()) {
        std::uint64_t const limit =
            m_inFirstChunk ? kWaveFirstChunkMaxBytes : kWaveLaterChunkMaxBytes;
        if (m_chunkBytes == limit) {
            // The size is patched on close; until then 0 tells a reader it was not finalised.
            unsigned char header[8] = {'d', 'a', 't', 'a', 0, 0, 0, 0};
            if (!m_writer.Write(header, sizeof header)) {
                SetFailed();
                return;
            }
            m_inFirstChunk = false;
            m_chunkBytes = 0;
            continue;
        }
        std::uint64_t const n = std::min(bytes, limit - m_chunkBytes);
        if (!m_writer.Write(data, static_cast<std::size_t>(n))) {
            SetFailed();
            return;
        }
        m_chunkBytes += n;
        m_dataBytes += n;
        data += n;
        bytes -= n;
    }
}

bool LSNKPCMFileBase::Finish() {
    Finalise();
    return !IsFailed();
}

void LSNKPCMFileBase::Finalise() {
    if (!m_fd.IsOpen()) {
        return;
    }
    // The audio still on its way goes first; the header is patched behind it.
    if (!m_writer.Finish()) {
        SetFailed();
    }
    // Even after a failed write the header is made to describe what did reach the file. A write
    // cut short part-way leaves bytes we did not count; they fall outside the data chunk.
    auto const first =
        static_cast<std::uint32_t>(std::min<std::uint64_t>(m_dataBytes, kWaveFirstChunkMaxBytes));
    bool ok = WriteHeader(first);
    std::uint64_t remaining = m_dataBytes - first;
    std::uint64_t offset = kPcmHeaderBytes + std::uint64_t{first};
    while (remaining > 0) {
        auto const size =
            static_cast<std::uint32_t>(std::min<std::uint64_t>(remaining, kWaveLaterChunkMaxBytes));
        unsigned char field[4];
        unsigned char* p = field;
        PutU32(p, size);
        ok = ok && m_fd.PWriteAll(field, sizeof field, offset + 4);
        offset += 8 + std::uint64_t{size};
        remaining -= size;
    }
    if ((m_dataBytes & 1) != 0) {
        unsigned char const pad = 0;
        ok = ok && m_fd.PWriteAll(&pad, 1, offset);
    }
    m_lock.Unlock(); // before the descriptor closes and its number may be reused
    if (!m_fd.Close() || !ok) {
        SetFailed();
    }
}

// ---- Dither ----

void LWaveDither::Apply(float* out, float const* in, long long count, unsigned channels,
                        double scale, double offset) {
    constexpr double kUnit = 1.0 / 4294967296.0;
    auto const step = static_cast<float>(1.0 / scale);
    auto const bias = static_cast<float>(offset / scale);
    unsigned c = 0;
    for (long long i = 0; i < count; ++i) {
        auto const u = static_cast<float>(Next() * kUnit);
        float const d = u - m_previous[c];
        m_previous[c] = u;
        out[i] = in[i] + (d * step + bias);
        c = c + 1 == channels ? 0 : c + 1;
    }
}

// ---- LSNKPCMFile ----

template <class T>
LSNKPCMFile<T>::LSNKPCMFile(char const* path, int rateHz, unsigned char channels, bool dither,
                            std::uint16_t formatTag)
    : LSNKPCMFileBase(path, rateHz, channels, sizeof(T), formatTag),
      m_dither(dither && GetChannels() <= LWaveDither::kMaxChannels) {
    if (!IsFailed()) {
        m_buffer.resize(static_cast<std::size_t>(kBlockFrames) * GetChannels());
        if (m_dither) {
            m_dithered.resize(m_buffer.size());
        }
    }
}

template <class T>
void LSNKPCMFile<T>::Write(float const* buffer, long long frames) {
    if (IsFailed() || buffer == nullptr || frames <= 0) {
        return;
    }
    unsigned const channels = GetChannels();
    while (frames > 0 && !IsFailed()) {
        long long const n = std::min(frames, kBlockFrames);
        long long const count = n * channels;
        float const* in = buffer;
        if constexpr (std::is_same_v<T, LSFU8> || std::is_same_v<T, LSF16>) {
            if (m_dither) {
                // The 8-bit conversion truncates; half a step up makes the dithered result
                // centre on the input instead of half a step below it.
                bool const eight = std::is_same_v<T, LSFU8>;
                m_ditherState.Apply(m_dithered.data(), buffer, count, channels,
                                    eight ? 127.0 : 32767.0, eight ? 0.5 : 0.0);
                in = m_dithered.data();
            }
        }
        ConvertSamplesOut<T>(m_buffer.data(), in, count);
        WriteData(reinterpret_cast<unsigned char const*>(m_buffer.data()),
                  static_cast<std::uint64_t>(count) * sizeof(T));
        if (!IsFailed()) {
            AddFramesWritten(n);
        }
        buffer += count;
        frames -= n;
    }
}

template class LSNKPCMFile<LSFU8>;
template class LSNKPCMFile<LSF16>;
template class LSNKPCMFile<LSFLE24>;
template class LSNKPCMFile<LSF32>;
template class LSNKPCMFile<LSFF32>;

// ---- LSNKG711WaveFile ----

template <class T>
LSNKG711WaveFile<T>::LSNKG711WaveFile(char const* path, int rateHz, unsigned char channels)
    : LSoundSinkBase(rateHz, channels) {
    if (IsFailed() || rateHz < 1 || !OpenForWriting(m_fd, m_lock, path) || !WriteHeader() ||
        !m_fd.Truncate(kG711HeaderBytes) || !m_fd.SeekTo(kG711HeaderBytes)) {
        SetFailed();
        return;
    }
    m_buffer.resize(8192 * static_cast<std::size_t>(GetChannels()));
}

template <class T>
LSNKG711WaveFile<T>::~LSNKG711WaveFile() {
    (void)Finish();
}

template <class T>
bool LSNKG711WaveFile<T>::Finish() {
    if (!m_fd.IsOpen()) {
        return !IsFailed();
    }
    bool ok = WriteHeader();
    if ((m_dataBytes & 1) != 0) {
        unsigned char const pad = 0;
        ok = ok && m_fd.PWriteAll(&pad, 1, kG711HeaderBytes + m_dataBytes);
    }
    m_lock.Unlock(); // before the descriptor closes and its number may be reused
    if (!m_fd.Close() || !ok) {
        SetFailed();
    }
    return !IsFailed();
}

template <class T>
bool LSNKG711WaveFile<T>::WriteHeader() {
    unsigned char header[kG711HeaderBytes];
    unsigned char* p = header;
    auto const data = static_cast<std::uint32_t>(m_dataBytes);
    // The average byte rate and block align are written for one channel, as files of this kind
    // always have been; readers take the layout from the channel count and the 8-bit samples.
    std::uint16_t const tag = std::is_same_v<T, LSFALAW> ? kLWaveFormatALaw : kLWaveFormatMuLaw;
    PutRiffFmt(p, data + kG711RiffOverhead, tag, GetChannels(),
               static_cast<std::uint32_t>(GetSampleRate()),
               static_cast<std::uint32_t>(GetSampleRate()), 8, 8);
    PutId(p, "fact");
    PutU32(p, 4);
    PutU32(p, data / GetChannels());
    PutId(p, "data");
    PutU32(p, data);
    return m_fd.PWriteAll(header, sizeof header, 0);
}

template <class T>
void LSNKG711WaveFile<T>::Write(float const* buffer, long long frames) {
    if (IsFailed() || buffer == nullptr || frames <= 0) {
        return;
    }
    std::size_t const channels = GetChannels();
    long long const blockFrames = static_cast<long long>(m_buffer.size() / channels);
    while (frames > 0) {
        long long const n = std::min(frames, blockFrames);
        std::uint64_t const bytes = static_cast<std::uint64_t>(n) * channels;
        // This header has one data chunk and no convention beyond it: stop at the RIFF limit.
        if (m_dataBytes + bytes > 0xFFFFFFFFu - kG711RiffOverhead - 1) {
            SetFailed();
            return;
        }
        ConvertSamplesOut<T>(m_buffer.data(), buffer, static_cast<long long>(bytes));
        if (!m_fd.WriteAll(m_buffer.data(), bytes)) {
            SetFailed();
            return;
        }
        m_dataBytes += bytes;
        AddFramesWritten(n);
        buffer += bytes;
        frames -= n;
    }
}

template class LSNKG711WaveFile<LSFALAW>;
template class LSNKG711WaveFile<LSFULAW>;

} // namespace llib::detail
