// SPDX-License-Identifier: GPL-3.0-or-later
// The walk from the start of a WAV file to its audio, and the map of the audio over the "data"
// chunks. Every size here comes from the file, so each is checked before it moves the walk, and
// nothing is allocated from one beyond the fixed bound of the fmt chunk.
#include "wavepcm.h"

#include <algorithm>
#include <cstring>

namespace llib::detail {

namespace {

constexpr std::uint64_t kMaxSkipBytes = std::uint64_t{1} << 31;
// More "data" chunks than this (each up to 4 GB) are not a file we wrote; the rest is ignored so
// that a file of tiny chunks cannot make the region list grow without bound.
constexpr std::size_t kMaxRegions = 4096;

// The sub-format GUIDs of WAVE_FORMAT_EXTENSIBLE share these last twelve bytes; the first four
// hold the plain tag.
constexpr unsigned char kSubFormatTail[12] = {0x00, 0x00, 0x10, 0x00, 0x80, 0x00,
                                              0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};

std::uint16_t U16(unsigned char const* p) {
    return static_cast<std::uint16_t>(p[0] | p[1] << 8);
}

std::uint32_t U32(unsigned char const* p) {
    return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
           static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

bool IsId(unsigned char const* p, char const* id) {
    return std::memcmp(p, id, 4) == 0;
}

bool ReadAt(LFileDescriptor& fd, void* data, std::uint64_t bytes, std::uint64_t offset) {
    return fd.PReadFull(data, bytes, offset) == static_cast<std::int64_t>(bytes);
}

// Moves `offset` past a chunk of `bytes` (header not included) padded to even; false when the
// chunk is too long to be anything but damage.
bool SkipChunk(std::uint64_t& offset, std::uint32_t bytes) {
    std::uint64_t const padded = (std::uint64_t{bytes} + 1) & ~std::uint64_t{1};
    if (padded >= kMaxSkipBytes) {
        return false;
    }
    offset += 8 + padded;
    return true;
}

void ParseFmt(unsigned char const* fmt, std::uint32_t bytes, LWaveFormatEx& format) {
    format.formatTag = U16(fmt);
    format.channels = U16(fmt + 2);
    format.samplesPerSec = U32(fmt + 4);
    format.avgBytesPerSec = U32(fmt + 8);
    format.blockAlign = U16(fmt + 12);
    format.bitsPerSample = U16(fmt + 14);
    format.extraSize = bytes >= 18 ? U16(fmt + 16) : 0;
    if (format.formatTag == kLWaveFormatExtensible && format.extraSize >= 22 && bytes >= 40) {
        unsigned char const* guid = fmt + 24;
        std::uint32_t const sub = U32(guid);
        bool const known = sub == 1 || sub == 2 || sub == 3 || sub == 6 || sub == 7;
        if (known && std::memcmp(guid + 4, kSubFormatTail, sizeof kSubFormatTail) == 0) {
            format.formatTag = static_cast<std::uint16_t>(sub);
            format.extraSize = 0;
        }
    }
    std::uint32_t const present = bytes > 18 ? bytes - 18 : 0;
    std::uint32_t const kept = std::min<std::uint32_t>(format.extraSize, present);
    format.extra.assign(fmt + 18, fmt + 18 + kept);
}

} // namespace

LSoundSourceErrorCode LReadWaveHeader(LFileDescriptor& fd, LWaveHeader& header) {
    constexpr auto kCorrupt = LSoundSourceErrorCode::kCorrupt;
    std::uint64_t offset = 0;
    unsigned char head[12];
    // Foreign top-level chunks may come before the RIFF/WAVE one.
    for (;;) {
        if (!ReadAt(fd, head, 12, offset)) {
            return kCorrupt;
        }
        if (IsId(head, "RIFF") && IsId(head + 8, "WAVE")) {
            offset += 12;
            break;
        }
        std::uint64_t const padded = (std::uint64_t{U32(head + 4)} + 1) & ~std::uint64_t{1};
        if (padded < 5) {
            return kCorrupt;
        }
        offset += 8 + padded;
    }
    for (;;) {
        if (!ReadAt(fd, head, 8, offset)) {
            return kCorrupt;
        }
        std::uint32_t const bytes = U32(head + 4);
        if (IsId(head, "fmt ")) {
            if (bytes < 16 || bytes > kWaveMaxFmtBytes) {
                return kCorrupt;
            }
            unsigned char fmt[kWaveMaxFmtBytes];
            if (!ReadAt(fd, fmt, bytes, offset + 8)) {
                return kCorrupt;
            }
            ParseFmt(fmt, bytes, header.format);
            header.fmtRead = true;
            (void)SkipChunk(offset, bytes);
            break;
        }
        if (!SkipChunk(offset, bytes)) {
            return kCorrupt;
        }
    }
    for (;;) {
        if (!ReadAt(fd, head, 8, offset)) {
            return kCorrupt;
        }
        std::uint32_t const bytes = U32(head + 4);
        if (IsId(head, "data")) {
            header.dataStart = offset + 8;
            header.dataBytes = bytes;
            break;
        }
        if (!SkipChunk(offset, bytes)) {
            return kCorrupt;
        }
    }
    LWaveFormatEx const& format = header.format;
    if (format.channels < 1 || format.channels > 255 || format.samplesPerSec < 1 ||
        format.samplesPerSec > static_cast<std::uint32_t>(kWaveMaxRate)) {
        return kCorrupt;
    }
    return LSoundSourceErrorCode::kNone;
}

std::vector<LWaveDataRegion> LScanWaveDataRegions(LFileDescriptor& fd, std::uint64_t dataStart,
                                                  std::uint32_t dataBytes) {
    std::int64_t const size = fd.GetSize();
    std::uint64_t const fileBytes = size > 0 ? static_cast<std::uint64_t>(size) : 0;
    std::vector<LWaveDataRegion> regions;
    auto add = [&regions](std::uint64_t start, std::uint64_t end) {
        std::uint64_t const before =
            regions.empty()
                ? 0
                : regions.back().dataOffset + regions.back().fileEnd - regions.back().fileStart;
        regions.push_back({start, std::max(start, end), before});
    };
    auto isDataHeaderAt = [&fd](std::uint64_t offset, std::uint32_t& bytes) {
        unsigned char head[8];
        if (!ReadAt(fd, head, 8, offset) || !IsId(head, "data")) {
            return false;
        }
        bytes = U32(head + 4);
        return true;
    };

    bool openEnded = false;
    std::uint32_t next = 0;
    std::uint64_t here = 0;
    // A provisional size comes from a writer that stopped before finalising: the chunk is full
    // when another "data" header follows where it would end, and reaches the end of the file
    // otherwise.
    if (dataBytes == kWaveProvisionalDataBytes) {
        here = dataStart + kWaveFirstChunkMaxBytes;
        if (isDataHeaderAt(here, next)) {
            add(dataStart, here);
        } else {
            add(dataStart, fileBytes);
            openEnded = true;
        }
    } else {
        here = dataStart + dataBytes;
        add(dataStart, here);
        openEnded = !isDataHeaderAt(here, next) && dataBytes >= kWaveUnknownLengthFrom;
        if (openEnded) {
            regions.back().fileEnd = std::max(dataStart, fileBytes);
        }
    }
    while (!openEnded && regions.size() < kMaxRegions && isDataHeaderAt(here, next)) {
        std::uint64_t const start = here + 8;
        if (next == 0) {
            // Written as "data" + 0 and patched on close; not patched means not finalised.
            std::uint32_t following = 0;
            here = start + kWaveLaterChunkMaxBytes;
            if (isDataHeaderAt(here, following)) {
                add(start, here);
                continue;
            }
            add(start, fileBytes);
            break;
        }
        here = start + next;
        add(start, here);
    }
    return regions;
}

} // namespace llib::detail
