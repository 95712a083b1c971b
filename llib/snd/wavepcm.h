// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The pieces behind LWaveFile: the header walk, the map of the audio bytes over one or more
// "data" chunks, and the PCM sources and sinks. Shared by wavefile.cpp, the tests and the fuzzer
// only through the public header; nothing here is public surface.

#include "llib/snd/sampleformats.h"
#include "llib/snd/soundsink.h"
#include "llib/snd/soundsource.h"
#include "llib/snd/wavefile.h"
#include "llib/unix/fd.h"
#include "llib/unix/filelock.h"
#include "llib/unix/writebehind.h"

#include <cstdint>
#include <utility>
#include <vector>

namespace llib::detail {

// Size fields with a meaning of their own in the large-file convention.
inline constexpr std::uint32_t kWaveFirstChunkMaxBytes = 0xFFFFFFD8;
inline constexpr std::uint32_t kWaveLaterChunkMaxBytes = 0xFFFFFFF0;
inline constexpr std::uint32_t kWaveProvisionalDataBytes = 0xFFFFFFD9;
inline constexpr std::uint32_t kWaveUnknownLengthFrom = 0xFFFFFF01;
inline constexpr std::uint32_t kWaveMaxFmtBytes = 8192;
inline constexpr int kWaveMaxRate = 196000;

// The "fmt " chunk as read, EXTENSIBLE already mapped to the plain tag, and where "data" begins.
struct LWaveFormatEx {
    std::uint16_t formatTag = 0;
    std::uint16_t channels = 0;
    std::uint32_t samplesPerSec = 0;
    std::uint32_t avgBytesPerSec = 0;
    std::uint16_t blockAlign = 0;
    std::uint16_t bitsPerSample = 0;
    std::uint16_t extraSize = 0;
    std::vector<unsigned char> extra; // the extra bytes actually present, at most extraSize
};

struct LWaveHeader {
    LWaveFormatEx format;
    bool fmtRead = false;        // the fmt chunk was found and read whole
    std::uint64_t dataStart = 0; // offset of the first audio byte
    std::uint32_t dataBytes = 0; // the first "data" chunk's size field
};

// Walks the file to its first "data" chunk: kNone, or kCorrupt for a malformed header or a
// channel count or rate out of range. `header.fmtRead` tells how far the walk got.
[[nodiscard]] LSoundSourceErrorCode LReadWaveHeader(LFileDescriptor& fd, LWaveHeader& header);

// One stretch of audio bytes in the file; `dataOffset` is its place in the audio as a whole.
struct LWaveDataRegion {
    std::uint64_t fileStart;
    std::uint64_t fileEnd;
    std::uint64_t dataOffset;
};

// The audio bytes of a file: the first "data" chunk and those that follow it directly. A length
// that the header leaves open (never finalised) extends to the end of the file as it is now.
[[nodiscard]] std::vector<LWaveDataRegion>
LScanWaveDataRegions(LFileDescriptor& fd, std::uint64_t dataStart, std::uint32_t dataBytes);

// Integer, float and G.711 audio over the data regions. Read is positioned (pread), so the
// descriptor's offset is never relied on; a short read or a read error delivers silence for the
// frames it misses. Frames may straddle regions.
class LSRCPCMFileBase : public LSoundSourceBase {
public:
    using Converter = void (*)(float* out, unsigned char const* in, long long count);

    LSRCPCMFileBase(LFileDescriptor fd, int rateHz, unsigned char channels, float level,
                    int bytesPerSample, std::uint64_t dataStart, std::uint32_t dataBytes,
                    Converter convert);

    void Read(float* buffer, long long frames) final;
    [[nodiscard]] long long GetPositionSample() const final { return m_position; }
    [[nodiscard]] long long GetEndSample() const final { return m_endFrames; }
    void Seek(long long frame) final;

    [[nodiscard]] std::uint64_t GetDataBytes() const { return m_dataBytes; }
    [[nodiscard]] std::size_t GetRegionCount() const { return m_regions.size(); }

private:
    // Reads up to `frames` whole frames at `frame` into m_buffer; returns the frames read.
    long long ReadFramesAt(long long frame, long long frames);

    LFileDescriptor m_fd;
    long long m_position = 0;
    long long m_endFrames = 0;
    std::vector<LWaveDataRegion> m_regions;
    std::uint64_t m_dataBytes = 0;
    std::size_t m_bytesPerFrame;
    long long m_bufferFrames;
    std::vector<unsigned char> m_buffer;
    long long m_heldFrame = 0;  // the frames in m_buffer: from here
    long long m_heldFrames = 0; // and this many
    Converter m_convert;
};

template <class T>
class LSRCPCMFile final : public LSRCPCMFileBase {
public:
    LSRCPCMFile(LFileDescriptor fd, int rateHz, unsigned char channels, float level,
                std::uint64_t dataStart, std::uint32_t dataBytes)
        : LSRCPCMFileBase(std::move(fd), rateHz, channels, level, sizeof(T), dataStart, dataBytes,
                          &Convert) {}

private:
    static void Convert(float* out, unsigned char const* in, long long count) {
        ConvertSamplesIn<T>(out, reinterpret_cast<T const*>(in), count);
    }
};

// Writes the audio into one "data" chunk, or several beyond 4 GB, behind a 46-byte header that is
// provisional until the destructor finalises it.
class LSNKPCMFileBase : public LSoundSinkBase {
public:
    LSNKPCMFileBase(char const* path, int rateHz, unsigned char channels, int bytesPerSample,
                    std::uint16_t formatTag);
    ~LSNKPCMFileBase() override;
    [[nodiscard]] bool Finish() override;

protected:
    // Appends audio bytes, opening a further "data" chunk where the current one is full.
    void WriteData(unsigned char const* data, std::uint64_t bytes);
    [[nodiscard]] int GetBytesPerSample() const { return m_bytesPerSample; }

private:
    [[nodiscard]] bool WriteHeader(std::uint32_t firstChunkBytes);
    void Finalise();

    LFileDescriptor m_fd;
    LFileLock m_lock;
    LWriteBehind m_writer; // the audio, written while the next block is converted
    std::uint16_t m_formatTag;
    int m_bytesPerSample;
    std::uint64_t m_dataBytes = 0;  // audio bytes written, over all chunks
    std::uint64_t m_chunkBytes = 0; // audio bytes in the current chunk
    bool m_inFirstChunk = true;
};

// TPDF dither for the 8- and 16-bit containers: the difference of successive uniform values
// (one generator per channel), which is triangular over +-1 step and tilted toward high
// frequencies, where it is least audible. Deterministic, so a file renders the same every time.
class LWaveDither {
public:
    static constexpr unsigned kMaxChannels = 16;

    // Adds dither of one step of `scale` (127 or 32767) plus `offset` steps to `count` samples.
    void Apply(float* out, float const* in, long long count, unsigned channels, double scale,
               double offset);

private:
    std::uint32_t Next() {
        m_state ^= m_state << 13;
        m_state ^= m_state >> 17;
        m_state ^= m_state << 5;
        return m_state;
    }

    std::uint32_t m_state = 0x9E3779B9u;
    float m_previous[kMaxChannels] = {};
};

template <class T>
class LSNKPCMFile final : public LSNKPCMFileBase {
public:
    LSNKPCMFile(char const* path, int rateHz, unsigned char channels, bool dither,
                std::uint16_t formatTag = 1);
    void Write(float const* buffer, long long frames) override;

private:
    static constexpr long long kBlockFrames = 8192;

    std::vector<T> m_buffer;
    std::vector<float> m_dithered;
    bool m_dither;
    LWaveDither m_ditherState;
};

// G.711 A-law or mu-law behind the 58-byte header with a "fact" chunk, rewritten on close.
template <class T>
class LSNKG711WaveFile final : public LSoundSinkBase {
public:
    LSNKG711WaveFile(char const* path, int rateHz, unsigned char channels);
    ~LSNKG711WaveFile() override;
    void Write(float const* buffer, long long frames) override;
    [[nodiscard]] bool Finish() override;

private:
    [[nodiscard]] bool WriteHeader();

    LFileDescriptor m_fd;
    LFileLock m_lock;
    std::vector<T> m_buffer;
    std::uint64_t m_dataBytes = 0;
};

} // namespace llib::detail
