// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// What the WAV tag reader and writer share: the limits that keep hostile files bounded, the INFO
// table, the field layouts of the broadcast-wave and cart chunks, byte helpers and the search
// for the RIFF/WAVE chunk.

#include "llib/snd/wavtags.h"
#include "llib/unix/fd.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

namespace llib::wavtag {

// Tag chunks are read whole; no real one comes near this, and a hostile size stays bounded.
constexpr std::uint32_t kMaxTagChunkBytes = 16u << 20;
constexpr std::size_t kMaxSlots = 4096;
constexpr std::int64_t kMaxMarkers = 100000;
constexpr std::uint32_t kRiffBytesMax = 0xFFFFFFFE;
constexpr std::size_t kBextBytes = 602;
constexpr std::size_t kCartBytes = 2048;
constexpr char kNoInfoId[] = "    ";

// The INFO table, the same both ways. "ENCODEDBY" under ISRC and "CATEGORY" under ISBJ are
// kept on purpose: files written by earlier versions carry them there.
struct InfoMapping {
    char const* key;
    char const* id;
};
constexpr InfoMapping kInfoMap[] = {
    {"TITLE", "INAM"},     {"ARTIST", "IART"},    {"ALBUMARTIST", "ISTR"}, {"ALBUM", "IPRD"},
    {"DATE", "ICRD"},      {"COMMENT", "ICMT"},   {"TRACKNUMBER", "ITRK"}, {"GENRE", "IGNR"},
    {"COPYRIGHT", "ICOP"}, {"ENCODEDBY", "ISRC"}, {"ENCODER", "ISFT"},     {"CATEGORY", "ISBJ"}};

// Fixed text fields of the EBU broadcast extension and of the AES46 cart chunk.
struct TextField {
    char const* key;
    unsigned offset;
    unsigned bytes;
};
constexpr TextField kBextText[] = {{"COMMENT", 0, 256},
                                   {"ORIGINATOR", 256, 32},
                                   {"REFERENCE", 288, 32},
                                   {"DATE", 320, 10},
                                   {"TIME", 330, 8}};
constexpr unsigned kBextTimeRefLow = 338;
constexpr unsigned kBextTimeRefHigh = 342;
constexpr unsigned kBextVersion = 346;
constexpr unsigned kBextUmid = 348;
constexpr unsigned kBextUmidBytes = 64;
constexpr char const* kBextOwnKeys[] = {"ORIGINATOR", "REFERENCE", "TIMEREFLOW",    "TIMEREFHIGH",
                                        "BWFVERSION", "UMID",      "CODINGHISTORY", "TIME"};

constexpr TextField kCartText[] = {{"CARTVERSION", 0, 4},       {"TITLE", 4, 64},
                                   {"ARTIST", 68, 64},          {"CUTID", 132, 64},
                                   {"CLIENTID", 196, 64},       {"CATEGORY", 260, 64},
                                   {"CLASSIFICATION", 324, 64}, {"OUTCUE", 388, 64},
                                   {"DATE", 452, 10},           {"TIME", 462, 8},
                                   {"ENDDATE", 470, 10},        {"ENDTIME", 480, 8},
                                   {"ENCODER", 488, 64},        {"PRODUCERAPPVERSION", 552, 64},
                                   {"USERDEF", 616, 64},        {"URL", 1024, 1024}};
constexpr unsigned kCartLevelReference = 680;
constexpr unsigned kCartPostTimers = 684; // eight of (usage FOURCC, value u32)
constexpr char const* kCartOwnKeys[] = {
    "CARTVERSION",        "CUTID",   "CLIENTID", "CLASSIFICATION", "OUTCUE", "ENDDATE", "ENDTIME",
    "PRODUCERAPPVERSION", "USERDEF", "URL",      "LEVELREFERENCE", "TAGTEXT"};

constexpr char const* kPriority[] = {"cue ", "id3 ", "cart", "bext", "LIST", "CSET", "DISP"};
constexpr char const* kAppendOrder[] = {"cue ", "id3 ", "LIST", "DISP", "bext", "cart"};

inline std::uint32_t Get32(unsigned char const* p) {
    return std::uint32_t{p[0]} | std::uint32_t{p[1]} << 8 | std::uint32_t{p[2]} << 16 |
           std::uint32_t{p[3]} << 24;
}

inline void Put32(unsigned char* p, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        p[i] = static_cast<unsigned char>(value >> (8 * i));
    }
}

inline void Append32(std::vector<unsigned char>& out, std::uint32_t value) {
    unsigned char raw[4];
    Put32(raw, value);
    out.insert(out.end(), raw, raw + 4);
}

inline bool IdIs(char const* id, char const* text) {
    return std::memcmp(id, text, 4) == 0;
}

inline bool KeyIs(char const* key, char const* upper) {
    return ::strcasecmp(key, upper) == 0;
}

// Text of a fixed field: up to its first zero byte.
inline std::string FieldText(unsigned char const* p, std::size_t bytes) {
    auto const* end = static_cast<unsigned char const*>(std::memchr(p, 0, bytes));
    return {reinterpret_cast<char const*>(p),
            end != nullptr ? static_cast<std::size_t>(end - p) : bytes};
}

// Copies `text` into a fixed field, cut at a character boundary so no half character remains.
inline void FieldPut(unsigned char* p, std::size_t bytes, char const* text) {
    std::size_t n = std::strlen(text);
    if (n > bytes) {
        n = bytes;
        while (n > 0 && (static_cast<unsigned char>(text[n]) & 0xC0) == 0x80) {
            --n;
        }
    }
    std::memcpy(p, text, n);
}

// The numeric fields of bext and cart hold what a u32/i32 can; longer or non-numeric text is
// dropped rather than guessed at.
inline bool EncodeNumberTagIfValid(char const* text, std::int64_t low, std::int64_t high,
                                   std::int64_t& value) {
    std::size_t const n = std::strlen(text);
    if (n == 0 || n > 11) {
        return false;
    }
    for (std::size_t i = 0; i < n; ++i) {
        if ((text[i] < '0' || text[i] > '9') && !(i == 0 && text[i] == '-' && n > 1)) {
            return false;
        }
    }
    value = std::strtoll(text, nullptr, 10);
    return value >= low && value <= high;
}

inline std::string Number(std::int64_t value) {
    char text[24];
    std::snprintf(text, sizeof(text), "%lld", static_cast<long long>(value));
    return text;
}

// The first RIFF/WAVE header; foreign top-level chunks before it are stepped over the way the
// audio reader steps over them.
inline bool RiffWaveFind(LFileDescriptor& fd, std::uint64_t fileBytes, std::uint64_t& riffOffset) {
    std::uint64_t at = 0;
    for (;;) {
        unsigned char header[12];
        if (at + 12 > fileBytes || fd.PReadFull(header, 12, at) != 12) {
            return false;
        }
        if (std::memcmp(header, "RIFF", 4) == 0 && std::memcmp(header + 8, "WAVE", 4) == 0) {
            riffOffset = at;
            return true;
        }
        std::uint64_t const padded = (std::uint64_t{Get32(header + 4)} + 1) & ~std::uint64_t{1};
        if (padded < 5) {
            return false;
        }
        at += 8 + padded;
    }
}

// Walks top-level chunks to the end of the file rather than to the end the RIFF size gives:
// past 4 GB the size cannot describe the file, and writers that append tags do not always fix it.
class ChunkWalker {
public:
    ChunkWalker(LFileDescriptor& fd, std::uint64_t fileBytes, std::uint64_t start)
        : m_fd(fd), m_fileBytes(fileBytes), m_at(start) {}

    // False at the end, or at a chunk running past the end of the file (Overran()).
    [[nodiscard]] bool Next(LRiffChunkHeader& header) {
        if (m_at + 8 > m_fileBytes) {
            return false;
        }
        unsigned char raw[8];
        if (m_fd.PReadFull(raw, 8, m_at) != 8) {
            m_overran = true;
            return false;
        }
        std::memcpy(header.id, raw, 4);
        header.bytes = Get32(raw + 4);
        header.offset = m_at;
        std::uint64_t const end = m_at + 8 + header.bytes;
        if (end > m_fileBytes) {
            m_overran = true;
            return false;
        }
        m_at = end + (header.bytes & 1);
        return true;
    }
    [[nodiscard]] bool Overran() const { return m_overran; }
    // Where a chunk appended after the last one starts (one past the file for a missing pad).
    [[nodiscard]] std::uint64_t End() const { return m_at; }

private:
    LFileDescriptor& m_fd;
    std::uint64_t m_fileBytes;
    std::uint64_t m_at;
    bool m_overran = false;
};

// The body of a chunk, at most `maxBytes` of it, then zero-filled up to `minBytes` so fixed
// layouts can be read at their offsets even from a short chunk.
inline bool BodyRead(LFileDescriptor& fd, LRiffChunkHeader const& header,
                     std::vector<unsigned char>& body, std::size_t minBytes = 0) {
    std::size_t const bytes = std::min(header.bytes, kMaxTagChunkBytes);
    body.assign(std::max(bytes, minBytes), 0);
    return fd.PReadFull(body.data(), bytes, header.offset + 8) == static_cast<std::int64_t>(bytes);
}

inline void PushText(std::vector<std::pair<std::string, std::string>>& out, char const* key,
                     std::string text) {
    if (!text.empty()) {
        out.emplace_back(key, std::move(text));
    }
}

// The file's size and where its first chunk inside RIFF/WAVE starts; false when the file is not
// a RIFF/WAVE file.
inline bool RiffContentFind(LFileDescriptor& fd, std::uint64_t& fileBytes,
                            std::uint64_t& firstChunk) {
    std::int64_t const size = fd.GetSize();
    std::uint64_t riffOffset = 0;
    if (size < 0 || !RiffWaveFind(fd, static_cast<std::uint64_t>(size), riffOffset)) {
        return false;
    }
    fileBytes = static_cast<std::uint64_t>(size);
    firstChunk = riffOffset + 12;
    return true;
}

} // namespace llib::wavtag
