// SPDX-License-Identifier: GPL-3.0-or-later
// ID3v2 text frames: the tag and frame headers of versions 2.2 to 2.4, unsynchronisation, and the
// four text encodings.
#include "llib/snd/id3v2.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr std::size_t kHeaderBytes = 10;

std::uint32_t Big32(unsigned char const* p) {
    return static_cast<std::uint32_t>(p[0]) << 24 | static_cast<std::uint32_t>(p[1]) << 16 |
           static_cast<std::uint32_t>(p[2]) << 8 | p[3];
}

// A 28-bit size stored 7 bits to the byte; false when a byte has its top bit set.
bool SyncSafe(unsigned char const* p, std::uint32_t& value) {
    value = 0;
    for (int i = 0; i < 4; ++i) {
        if ((p[i] & 0x80) != 0) {
            return false;
        }
        value = value << 7 | p[i];
    }
    return true;
}

// Undoes unsynchronisation: every 0xFF 0x00 pair was written for a lone 0xFF.
void Resync(std::vector<unsigned char>& data) {
    std::size_t out = 0;
    for (std::size_t i = 0; i < data.size(); ++i) {
        data[out++] = data[i];
        if (data[i] == 0xFF && i + 1 < data.size() && data[i + 1] == 0x00) {
            ++i;
        }
    }
    data.resize(out);
}

void AppendUtf8(std::string& s, std::uint32_t c) {
    // Control characters would break the one-line display every caller gives a value.
    if (c < 0x20 || c == 0x7F) {
        c = ' ';
    }
    if (c < 0x80) {
        s += static_cast<char>(c);
    } else if (c < 0x800) {
        s += static_cast<char>(0xC0 | c >> 6);
        s += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        s += static_cast<char>(0xE0 | c >> 12);
        s += static_cast<char>(0x80 | (c >> 6 & 0x3F));
        s += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        s += static_cast<char>(0xF0 | c >> 18);
        s += static_cast<char>(0x80 | (c >> 12 & 0x3F));
        s += static_cast<char>(0x80 | (c >> 6 & 0x3F));
        s += static_cast<char>(0x80 | (c & 0x3F));
    }
}

constexpr std::uint32_t kReplacement = 0xFFFD;

// UTF-8 as stored, with each byte that starts no valid sequence replaced.
std::string FromUtf8(unsigned char const* p, std::size_t n) {
    std::string s;
    std::size_t i = 0;
    while (i < n) {
        unsigned char const b = p[i];
        int const more = b < 0x80                ? 0
                         : b >= 0xC2 && b < 0xE0 ? 1
                         : b >= 0xE0 && b < 0xF0 ? 2
                         : b >= 0xF0 && b < 0xF5 ? 3
                                                 : -1;
        std::uint32_t c = more == 0 ? b : more == 1 ? b & 0x1Fu : more == 2 ? b & 0x0Fu : b & 0x07u;
        bool ok = more >= 0 && static_cast<std::size_t>(more) < n - i;
        for (int k = 1; ok && k <= more; ++k) {
            unsigned char const t = p[i + static_cast<std::size_t>(k)];
            ok = (t & 0xC0) == 0x80;
            c = c << 6 | (t & 0x3Fu);
        }
        // Overlong forms, surrogates and values past U+10FFFF are not characters.
        ok = ok && !(more == 2 && c < 0x800) && !(more == 3 && (c < 0x10000 || c > 0x10FFFF)) &&
             !(c >= 0xD800 && c < 0xE000);
        AppendUtf8(s, ok ? c : kReplacement);
        i += ok ? static_cast<std::size_t>(more) + 1 : 1;
    }
    return s;
}

// UTF-16 in the given byte order, or in the order of a leading byte order mark.
std::string FromUtf16(unsigned char const* p, std::size_t n, bool bigEndian) {
    if (n >= 2 && ((p[0] == 0xFE && p[1] == 0xFF) || (p[0] == 0xFF && p[1] == 0xFE))) {
        bigEndian = p[0] == 0xFE;
        p += 2;
        n -= 2;
    }
    auto unit = [&](std::size_t i) -> std::uint32_t {
        return bigEndian ? static_cast<std::uint32_t>(p[i] << 8 | p[i + 1])
                         : static_cast<std::uint32_t>(p[i + 1] << 8 | p[i]);
    };
    std::string s;
    for (std::size_t i = 0; i + 1 < n; i += 2) {
        std::uint32_t c = unit(i);
        if (c >= 0xD800 && c < 0xDC00 && i + 3 < n && unit(i + 2) >= 0xDC00 &&
            unit(i + 2) < 0xE000) {
            c = 0x10000 + ((c - 0xD800) << 10) + (unit(i + 2) - 0xDC00);
            i += 2;
        } else if (c >= 0xD800 && c < 0xE000) {
            c = kReplacement;
        }
        AppendUtf8(s, c);
    }
    return s;
}

std::string Decode(int encoding, unsigned char const* p, std::size_t n) {
    switch (encoding) {
    case 0: {
        std::string s;
        for (std::size_t i = 0; i < n; ++i) {
            AppendUtf8(s, p[i]); // ISO-8859-1 is the first 256 code points
        }
        return s;
    }
    case 1:
        return FromUtf16(p, n, false);
    case 2:
        return FromUtf16(p, n, true);
    default:
        return FromUtf8(p, n);
    }
}

// The end of the string that starts at `at`: its terminator (one zero byte, or two at an even
// distance in UTF-16), or `n`.
std::size_t StringEnd(int encoding, unsigned char const* p, std::size_t n, std::size_t at) {
    bool const wide = encoding == 1 || encoding == 2;
    for (std::size_t i = at; i < n; i += wide ? 2 : 1) {
        if (p[i] == 0 && (!wide || (i + 1 < n && p[i + 1] == 0))) {
            return i;
        }
    }
    return n;
}

// A text frame's body: its encoding byte, then values separated by terminators. Comments put a
// language and a description before the text; those with a description give nothing.
std::string FrameText(unsigned char const* p, std::size_t n, bool comment) {
    if (n < 1 || p[0] > 3) {
        return {};
    }
    int const encoding = p[0];
    std::size_t const step = encoding == 1 || encoding == 2 ? 2 : 1;
    std::size_t at = 1;
    if (comment) {
        if (n < 4) {
            return {};
        }
        std::size_t const end = StringEnd(encoding, p, n, 4);
        if (!Decode(encoding, p + 4, end - 4).empty()) {
            return {};
        }
        at = std::min(n, end + step);
    }
    std::string joined;
    std::string pending; // separators wait until a value follows them
    while (at < n) {
        std::size_t const end = StringEnd(encoding, p, n, at);
        std::string const value = Decode(encoding, p + at, end - at);
        if (!value.empty()) {
            joined += (joined.empty() ? "" : pending) + value;
            pending = " / ";
        }
        at = end + step;
    }
    return joined;
}

bool IsFrameIdChar(unsigned char c) {
    return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

} // namespace

std::string LID3v2Tag::Find(std::initializer_list<char const*> ids) const {
    for (char const* id : ids) {
        for (LID3v2Text const& t : text) {
            if (t.id == id) {
                return t.value;
            }
        }
    }
    return {};
}

std::uint64_t LID3v2TagBytes(unsigned char const* h) {
    std::uint32_t size = 0;
    if (std::memcmp(h, "ID3", 3) != 0 || h[3] == 0xFF || h[4] == 0xFF || !SyncSafe(h + 6, size)) {
        return 0;
    }
    bool const footer = h[3] >= 4 && (h[5] & 0x10) != 0;
    return kHeaderBytes + size + (footer ? kHeaderBytes : 0);
}

bool LID3v2Read(LID3v2ReadAt const& read, std::uint64_t offset, LID3v2Tag& tag) {
    tag = LID3v2Tag();
    unsigned char h[kHeaderBytes];
    if (read(h, kHeaderBytes, offset) != kHeaderBytes) {
        return false;
    }
    tag.bytes = LID3v2TagBytes(h);
    if (tag.bytes == 0) {
        return false;
    }
    int const version = h[3];
    unsigned const flags = h[5];
    tag.version = version;
    // Version 2.2 compression has no defined scheme; later versions are unknown.
    if (version < 2 || version > 4 || (version == 2 && (flags & 0x40) != 0)) {
        return true;
    }
    std::uint64_t end = tag.bytes - (version >= 4 && (flags & 0x10) != 0 ? kHeaderBytes : 0);
    // A tag unsynchronised as a whole is resynchronised in memory before its frames are walked;
    // in version 2.4 the flag only says that every frame is, and frames carry their own.
    std::vector<unsigned char> whole;
    bool const inMemory = (flags & 0x80) != 0 && version < 4;
    if (inMemory) {
        if (end - kHeaderBytes > kLID3v2MaxUnsyncTagBytes) {
            return true;
        }
        whole.resize(static_cast<std::size_t>(end - kHeaderBytes));
        whole.resize(read(whole.data(), whole.size(), offset + kHeaderBytes));
        Resync(whole);
        end = kHeaderBytes + whole.size();
    }
    // Bytes at `pos` from the tag's start, inside the tag.
    auto fetch = [&](unsigned char* data, std::size_t bytes, std::uint64_t pos) {
        if (pos > end || bytes > end - pos) {
            return false;
        }
        if (inMemory) {
            std::memcpy(data, whole.data() + (pos - kHeaderBytes), bytes);
            return true;
        }
        return read(data, bytes, offset + pos) == bytes;
    };
    std::uint64_t pos = kHeaderBytes;
    if (version >= 3 && (flags & 0x40) != 0) {
        unsigned char e[4];
        std::uint32_t extended = 0;
        if (!fetch(e, 4, pos)) {
            return true;
        }
        if (version == 3) {
            extended = Big32(e) + 4; // the stored size leaves out its own four bytes
        } else if (!SyncSafe(e, extended)) {
            return true;
        }
        pos += extended;
    }
    std::size_t const frameHeaderBytes = version == 2 ? 6 : 10;
    std::size_t const idBytes = version == 2 ? 3 : 4;
    std::vector<unsigned char> body;
    for (int frames = 0; frames < kLID3v2MaxFrames; ++frames) {
        unsigned char f[10];
        if (!fetch(f, frameHeaderBytes, pos)) {
            break;
        }
        bool validId = true;
        for (std::size_t i = 0; i < idBytes; ++i) {
            validId = validId && IsFrameIdChar(f[i]);
        }
        if (!validId) {
            break; // padding, or damage
        }
        std::uint32_t size = 0;
        if (version == 2) {
            size = static_cast<std::uint32_t>(f[3] << 16 | f[4] << 8 | f[5]);
        } else if (version == 3 || !SyncSafe(f + 4, size)) {
            size = Big32(f + 4); // some version 2.4 writers store plain sizes
        }
        std::uint64_t const start = pos + frameHeaderBytes;
        if (start > end || size > end - start) {
            break;
        }
        pos = start + size;
        std::string const id(reinterpret_cast<char const*>(f), idBytes);
        bool const comment = id == "COMM" || id == "COM";
        bool const text = f[0] == 'T' && id != "TXXX" && id != "TXX";
        unsigned const frameFlags = version >= 3 ? static_cast<unsigned>(f[8] << 8 | f[9]) : 0;
        // Compressed or encrypted: nothing to read.
        bool const sealed = version == 3 ? (frameFlags & 0x00C0) != 0 : (frameFlags & 0x000C) != 0;
        if (!(comment || text) || sealed || size > kLID3v2MaxTextBytes) {
            continue;
        }
        body.resize(size);
        if (!fetch(body.data(), size, start)) {
            break;
        }
        std::size_t skip = 0; // a grouping byte, then version 2.4's data length
        if (version == 3 && (frameFlags & 0x0020) != 0) {
            skip = 1;
        } else if (version == 4) {
            skip = ((frameFlags & 0x0040) != 0 ? 1 : 0) + ((frameFlags & 0x0001) != 0 ? 4 : 0);
        }
        if (skip > body.size()) {
            continue;
        }
        body.erase(body.begin(), body.begin() + static_cast<std::ptrdiff_t>(skip));
        if (version == 4 && ((frameFlags & 0x0002) != 0 || (flags & 0x80) != 0)) {
            Resync(body);
        }
        std::string value = FrameText(body.data(), body.size(), comment);
        if (!value.empty()) {
            tag.text.push_back({id, std::move(value)});
        }
    }
    return true;
}
