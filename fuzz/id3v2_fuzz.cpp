// SPDX-License-Identifier: GPL-3.0-or-later
// Any input as the start of a file holding an ID3v2 tag: read its text. Nothing may crash, loop
// without end, read outside the input or allocate from an unchecked size, and every value must
// come out as valid UTF-8 without control characters.
#include "llib/snd/id3v2.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

// Checks that `s` is well-formed UTF-8 for printing: shortest forms, no surrogates, nothing past
// U+10FFFF, no control characters.
bool PrintableUtf8(std::string const& s) {
    auto const* p = reinterpret_cast<unsigned char const*>(s.data());
    std::size_t const n = s.size();
    for (std::size_t i = 0; i < n;) {
        unsigned char const b = p[i];
        int const more = b < 0x80             ? 0
                         : (b & 0xE0) == 0xC0 ? 1
                         : (b & 0xF0) == 0xE0 ? 2
                         : (b & 0xF8) == 0xF0 ? 3
                                              : -1;
        if (more < 0 || static_cast<std::size_t>(more) >= n - i) {
            return false;
        }
        std::uint32_t c = more == 0 ? b : b & (0x3Fu >> more);
        for (int k = 1; k <= more; ++k) {
            if ((p[i + k] & 0xC0) != 0x80) {
                return false;
            }
            c = c << 6 | (p[i + k] & 0x3Fu);
        }
        std::uint32_t const least[4] = {0, 0x80, 0x800, 0x10000};
        if (c < least[more] || c > 0x10FFFF || (c >= 0xD800 && c < 0xE000) || c < 0x20 ||
            c == 0x7F) {
            return false;
        }
        i += static_cast<std::size_t>(more) + 1;
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::size_t largestRead = 0;
    auto const read = [&](unsigned char* out, std::size_t bytes, std::uint64_t offset) {
        largestRead = std::max(largestRead, bytes);
        if (offset >= size) {
            return std::size_t{0};
        }
        std::size_t const n = std::min<std::size_t>(bytes, size - offset);
        std::memcpy(out, data + offset, n);
        return n;
    };
    LID3v2Tag tag;
    if (!LID3v2Read(read, 0, tag)) {
        return 0;
    }
    // The tag's size may claim up to 256 MB; a read never asks for more than the bounds allow.
    if (largestRead > std::max(kLID3v2MaxTextBytes, kLID3v2MaxUnsyncTagBytes) ||
        tag.bytes != LID3v2TagBytes(data)) {
        std::abort();
    }
    for (LID3v2Text const& t : tag.text) {
        if (t.value.empty() || !PrintableUtf8(t.value)) {
            std::abort();
        }
    }
    return 0;
}
