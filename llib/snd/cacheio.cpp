// SPDX-License-Identifier: GPL-3.0-or-later
// Writing and reading an item's samples and peaks, and adding an item from a source.
#include "cacheinfo.h"

#include "llib/gen/filestream.h"
#include "llib/gen/sdf.h"
#include "llib/gen/stringlong.h"
#include "llib/snd/prsourcesink.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

namespace {

constexpr float kGrfCeiling = 15.848932f; // +24 dBFS
constexpr float kGrfScale = 4134.916f;    // codes per unit of full scale
constexpr std::size_t kGrfFlushBytes = 64 * 1024;
constexpr long long kWritebackBytes = 8LL << 20;
constexpr unsigned long long kHeadroomBytes = 104857600; // 100 MB
constexpr double kBytesPerMB = 1048576.0;

constexpr bool kLanesFit(unsigned channels) {
    return channels == 1 || channels == 2 || channels == 4 || channels == 8;
}

int OpenForWriting(std::string const& path) {
    return open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
}

// Four-float vectors are native to every x86-64 machine; written out as vectors because the
// compiler leaves the same loop over plain arrays scalar.
using Lanes = float __attribute__((vector_size(4 * sizeof(float))));

// Folds `frames` interleaved frames into each channel's running maximum and minimum. When the
// channel count divides 8, sample i of every run of eight belongs to channel i % channels, so
// runs of eight are folded lane by lane and the lanes combined at the end. A lane takes a
// sample only when it is strictly beyond, so NaN never enters, as in the plain loop.
void FoldPeaks(float const* samples, long long frames, unsigned channels, float* top,
               float* bottom) {
    long long const count = frames * channels;
    long long i = 0;
    if (kLanesFit(channels)) {
        Lanes high0 = {}, high1 = {}, low0 = {}, low1 = {};
        for (; i + 8 <= count; i += 8) {
            Lanes a;
            Lanes b;
            std::memcpy(&a, samples + i, sizeof a);
            std::memcpy(&b, samples + i + 4, sizeof b);
            high0 = a > high0 ? a : high0;
            high1 = b > high1 ? b : high1;
            low0 = a < low0 ? a : low0;
            low1 = b < low1 ? b : low1;
        }
        for (unsigned l = 0; l < 8; ++l) {
            unsigned const c = l % channels;
            float const high = l < 4 ? high0[l] : high1[l - 4];
            float const low = l < 4 ? low0[l] : low1[l - 4];
            top[c] = std::max(top[c], high);
            bottom[c] = std::min(bottom[c], low);
        }
    }
    // What is left (or every sample, for other channel counts), frame-aligned since whole
    // vectors are whole frames.
    for (; i < count; ++i) {
        unsigned const c = static_cast<unsigned>(i % channels);
        float const v = samples[i];
        top[c] = v > top[c] ? v : top[c];
        bottom[c] = v < bottom[c] ? v : bottom[c];
    }
}

} // namespace

std::uint16_t LSoundCacheGrfCode(float value) {
    float const magnitude = std::fabs(value);
    if (magnitude == 0.0f) {
        return 0;
    }
    if (!(magnitude <= kGrfCeiling)) { // also NaN
        return 65535;
    }
    auto const code = static_cast<std::uint16_t>(magnitude * kGrfScale);
    return code == 0 ? 1 : code;
}

// ---- LSoundCacheSink ----

LSoundCacheSink::LSoundCacheSink(unsigned short item, int sampleRateHz, unsigned char channels)
    : LSoundSinkBase(sampleRateHz, channels), m_item(item) {
    if (item > kLSoundCacheItemLast || channels == 0) {
        SetFailed();
        return;
    }
    m_aud.Reset(OpenForWriting(LSoundCache::GetFilePath(item, kLSoundCacheExtAud)));
    m_grf = OpenForWriting(LSoundCache::GetFilePath(item, kLSoundCacheExtGrf));
    if (!m_aud.IsOpen() || m_grf < 0) {
        m_systemError = errno;
        SetFailed();
        return;
    }
}

void LSoundCacheSink::Start(long long expectedFrames) {
    if (m_started || IsFailed()) {
        return;
    }
    m_started = true;
    // An item that fits in what the kernel keeps dirty anyway is left to its writeback: the
    // cache needs no durability, and starting the disk costs the writing thread a third of its
    // time. Past that, the disk is started on each stretch written, so that decoding and
    // writing overlap and an hour of audio does not pile up as dirty memory.
    m_audWriter.SetWritebackInterval(kWritebackBytes, LWriteBehind::GetDirtyAllowance());
    if (expectedFrames > 0) {
        m_audWriter.SetExpectedBytes(static_cast<std::uint64_t>(expectedFrames) * GetChannels() *
                                     sizeof(float));
    }
    m_audWriter.Start(m_aud);
}

LSoundCacheSink::~LSoundCacheSink() {
    (void)Finish();
}

bool LSoundCacheSink::WriteAll(int fd, void const* data, std::size_t bytes) {
    auto const* p = static_cast<unsigned char const*>(data);
    while (bytes > 0) {
        ssize_t const n = write(fd, p, bytes);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            FailWith(n < 0 ? errno : ENOSPC);
            return false;
        }
        p += n;
        bytes -= static_cast<std::size_t>(n);
    }
    return true;
}

void LSoundCacheSink::FailWith(int systemError) {
    m_systemError = m_systemError != 0 ? m_systemError : (systemError != 0 ? systemError : EIO);
    SetFailed();
}

void LSoundCacheSink::FlushGrf() {
    if (!m_grfPending.empty() && !IsFailed()) {
        (void)WriteAll(m_grf, m_grfPending.data(), m_grfPending.size());
    }
    m_grfPending.clear();
}

void LSoundCacheSink::WriteGrfFrame() {
    unsigned const channels = GetChannels();
    for (unsigned c = 0; c < channels; ++c) {
        std::uint16_t const top = LSoundCacheGrfCode(m_max[c]);
        std::uint16_t const bottom = LSoundCacheGrfCode(m_min[c]);
        unsigned char const record[kLSoundCacheGrfRecordBytes] = {
            static_cast<unsigned char>(top & 0xff), static_cast<unsigned char>(top >> 8),
            static_cast<unsigned char>(bottom & 0xff), static_cast<unsigned char>(bottom >> 8)};
        m_grfPending.insert(m_grfPending.end(), record, record + sizeof record);
        m_max[c] = 0.0f;
        m_min[c] = 0.0f;
    }
    m_groupFrames = 0;
    if (m_grfPending.size() >= kGrfFlushBytes) {
        FlushGrf();
    }
}

void LSoundCacheSink::Write(float const* buffer, long long frames) {
    if (IsFailed() || m_finished || buffer == nullptr || frames <= 0) {
        return;
    }
    Start(0);
    unsigned const channels = GetChannels();
    std::size_t const bytes = static_cast<std::size_t>(frames) * channels * sizeof(float);
    if (!m_audWriter.Write(buffer, bytes)) {
        (void)m_audWriter.Finish();
        FailWith(m_audWriter.GetSystemError());
        return;
    }
    AddFramesWritten(frames);
    long long done = 0;
    while (done < frames) {
        long long const n = std::min(frames - done, kLSoundCacheGrfFrames - m_groupFrames);
        FoldPeaks(buffer + done * channels, n, channels, m_max, m_min);
        m_groupFrames += n;
        done += n;
        if (m_groupFrames == kLSoundCacheGrfFrames) {
            WriteGrfFrame();
        }
    }
}

void LSoundCacheSink::Flush() {
    Start(0);
    if (!IsFailed() && !m_finished && !m_audWriter.Flush()) {
        (void)m_audWriter.Finish();
        FailWith(m_audWriter.GetSystemError());
    }
}

bool LSoundCacheSink::Finish() {
    if (m_finished) {
        return m_finishResult;
    }
    m_finished = true;
    if (!IsFailed() && m_groupFrames > 0) {
        WriteGrfFrame();
    }
    FlushGrf();
    if (!m_audWriter.Finish()) {
        FailWith(m_audWriter.GetSystemError());
    }
    if (m_aud.IsOpen() && !m_aud.Close()) {
        FailWith(errno);
    }
    if (m_grf >= 0 && close(m_grf) != 0) {
        FailWith(errno);
    }
    m_grf = -1;
    if (!IsFailed()) {
        // The information file comes last: an item is valid only once it exists.
        LOutputStreamFile stream;
        LSDFWriter<LOutputStreamFile> writer;
        std::string const path = LSoundCache::GetFilePath(m_item, kLSoundCacheExtAudInfo);
        bool const ok = stream.Open(path.c_str()) &&
                        writer.Open(stream, kLSDFFileCacheItemInfo, 1) &&
                        writer.WriteInt(kLSoundCacheInfoSampleRate, GetSampleRate()) &&
                        writer.WriteInt(kLSoundCacheInfoChannels, GetChannels()) &&
                        writer.Close() && stream.Close();
        if (!ok) {
            m_systemError = errno != 0 ? errno : EIO;
            (void)unlink(path.c_str());
            SetFailed();
        }
    }
    m_finishResult = !IsFailed();
    return m_finishResult;
}

// ---- LSoundCacheSource ----

LSoundCacheSource::LSoundCacheSource(unsigned short item, int sampleRateHz, unsigned char channels)
    : LSoundSourceBase(sampleRateHz, channels), m_item(item) {
    LSoundCache::IncRef(item);
    if (channels == 0) {
        return;
    }
    std::string const path = LSoundCache::GetFilePath(item, kLSoundCacheExtAud);
    m_fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat st {};
    if (m_fd >= 0 && fstat(m_fd, &st) == 0) {
        m_frames = static_cast<long long>(st.st_size) / (static_cast<long long>(channels) * 4);
    }
}

LSoundCacheSource::~LSoundCacheSource() {
    if (m_fd >= 0) {
        close(m_fd);
    }
    LSoundCache::DecRef(m_item);
}

void LSoundCacheSource::Read(float* buffer, long long frames) {
    if (buffer == nullptr || frames <= 0) {
        return;
    }
    long long const channels = GetChannels();
    long long done = 0;
    if (m_position < 0) {
        long long const silent = std::min(frames, -m_position);
        std::fill_n(buffer, silent * channels, 0.0f);
        done = silent;
    }
    long long const from = m_position + done;
    long long const available = m_fd >= 0 ? std::clamp(m_frames - from, 0LL, frames - done) : 0;
    auto* bytes = reinterpret_cast<unsigned char*>(buffer + done * channels);
    std::size_t const wanted = static_cast<std::size_t>(available * channels) * sizeof(float);
    std::size_t got = 0;
    while (got < wanted) {
        ssize_t const n =
            pread(m_fd, bytes + got, wanted - got,
                  static_cast<off_t>(from * channels * 4 + static_cast<long long>(got)));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break; // the file shrank or cannot be read: what is missing is silence
        }
        got += static_cast<std::size_t>(n);
    }
    // Whole samples read stay; the rest of the request is silence.
    std::size_t const keptSamples = got / sizeof(float);
    float* const rest = buffer + done * channels + static_cast<long long>(keptSamples);
    std::fill(rest, buffer + frames * channels, 0.0f);
    m_position += frames;
}

void LSoundCacheSource::Seek(long long frame) {
    m_position = std::min(frame, m_frames);
}

LSoundSource LSoundCacheOpenSource(unsigned short item) {
    llib::detail::CacheItemInfo info;
    if (!llib::detail::CacheItemInfoRead(item, info) || info.channels == 0 ||
        info.sampleRate <= 0) {
        return LMakeErrorSource(LSoundSourceErrorCode::kCannotOpen);
    }
    return LMakeSource<LSoundCacheSource>(item, info.sampleRate, info.channels);
}

// ---- adding an item ----

LProcessResult LSoundCacheItemAdd(LProcessInterface& process, LSoundSource& source,
                                  LSoundCacheItemHandle& handle, long long& frames) {
    handle.item = kLSoundCacheItemFailed;
    frames = 0;
    if (!source->IsOk() || source->GetChannels() == 0) {
        process.SetErrorF("The audio could not be read (%s).",
                          LSoundSourceErrorCodeText(source->GetError()));
        return LProcessResult::kFailed;
    }
    unsigned long long freeBytes = 0;
    std::string volume;
    unsigned long long const required =
        static_cast<unsigned long long>(source->GetRemainingFrames()) * source->GetChannels() * 4 +
        kHeadroomBytes;
    if (llib::detail::CacheFreeSpace(freeBytes, volume) && freeBytes < required) {
        process.SetError(LSoundCacheSpaceMessage(static_cast<double>(required) / kBytesPerMB,
                                                 volume.c_str(),
                                                 static_cast<double>(freeBytes) / kBytesPerMB)
                             .c_str());
        return LProcessResult::kFailed;
    }
    unsigned short const item = LSoundCache::ItemCreateNewAndIncRef();
    if (item == kLSoundCacheItemFailed) {
        process.SetError("The sound cache has no free item number left.");
        return LProcessResult::kFailed;
    }
    LSoundSink sink =
        LMakeSink<LSoundCacheSink>(item, source->GetSampleRate(), source->GetChannels());
    LProcessResult result = LProcessResult::kFailed;
    if (!sink->IsFailed()) {
        sink.GetAs<LSoundCacheSink>()->Start(source->GetRemainingFrames());
        LPRSourceToSink copy("", source, sink, false);
        result = Process(process, copy);
    }
    auto* const cacheSink = sink.GetAs<LSoundCacheSink>();
    bool const finished = cacheSink->Finish();
    int const writeError = cacheSink->GetSystemError();
    frames = sink->GetFramesWritten();
    sink.Close();
    if (result == LProcessResult::kCompleted && !finished) {
        result = LProcessResult::kFailed;
    }
    if (result != LProcessResult::kCompleted) {
        if (!finished) {
            process.SetErrorF("The audio could not be written to the sound cache in \"%s\" (%s).",
                              LSoundCache::GetFolder().c_str(),
                              writeError != 0 ? std::strerror(writeError) : "write failed");
        }
        // No record of an original file, so the release deletes whatever was written.
        LSoundCache::DecRef(item);
        frames = 0;
        return result;
    }
    (void)LSoundCacheItemLastAccessTimeUpdate(item);
    handle.item = item;
    LSoundCacheItemAnalyzerManager::Get().SignalChange(item);
    return LProcessResult::kCompleted;
}
