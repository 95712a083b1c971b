// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/gen/md5.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace {

// The sine-derived constants of the definition, computed rather than transcribed: the digest
// tests catch any that would come out wrong.
struct LMD5Constants {
    std::uint32_t k[64];
    LMD5Constants() {
        for (int i = 0; i < 64; ++i) {
            k[i] =
                static_cast<std::uint32_t>(std::floor(std::fabs(std::sin(i + 1.0)) * 4294967296.0));
        }
    }
};

LMD5Constants const kConstants;

constexpr int kShift[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

inline std::uint32_t Rotl(std::uint32_t v, int s) {
    return (v << s) | (v >> (32 - s));
}

inline std::uint32_t LoadLe32(unsigned char const* p) {
    return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
           static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

} // namespace

void LMD5::Reset() {
    m_state[0] = 0x67452301;
    m_state[1] = 0xefcdab89;
    m_state[2] = 0x98badcfe;
    m_state[3] = 0x10325476;
    m_totalBytes = 0;
    m_pendingBytes = 0;
}

void LMD5::Transform(unsigned char const* block, std::size_t blocks) {
    std::uint32_t const* const k = kConstants.k;
    for (; blocks > 0; --blocks, block += 64) {
        std::uint32_t x[16];
        for (int i = 0; i < 16; ++i) {
            x[i] = LoadLe32(block + 4 * i);
        }
        std::uint32_t a = m_state[0];
        std::uint32_t b = m_state[1];
        std::uint32_t c = m_state[2];
        std::uint32_t d = m_state[3];
        // The four rounds differ in their mixing function and in the order the words are taken;
        // written as one loop the compiler unrolls it and folds the constants.
        for (int i = 0; i < 64; ++i) {
            std::uint32_t f = 0;
            int g = 0;
            switch (i >> 4) {
            case 0:
                f = d ^ (b & (c ^ d));
                g = i;
                break;
            case 1:
                f = c ^ (d & (b ^ c));
                g = (5 * i + 1) & 15;
                break;
            case 2:
                f = b ^ c ^ d;
                g = (3 * i + 5) & 15;
                break;
            default:
                f = c ^ (b | ~d);
                g = (7 * i) & 15;
                break;
            }
            std::uint32_t const t = d;
            d = c;
            c = b;
            b = b + Rotl(a + f + k[i] + x[g], kShift[i >> 4][i & 3]);
            a = t;
        }
        m_state[0] += a;
        m_state[1] += b;
        m_state[2] += c;
        m_state[3] += d;
    }
}

void LMD5::Update(void const* data, std::size_t bytes) {
    auto const* p = static_cast<unsigned char const*>(data);
    m_totalBytes += bytes;
    if (m_pendingBytes > 0) {
        std::size_t const take = std::min<std::size_t>(64 - m_pendingBytes, bytes);
        std::memcpy(m_pending + m_pendingBytes, p, take);
        m_pendingBytes += take;
        p += take;
        bytes -= take;
        if (m_pendingBytes < 64) {
            return;
        }
        Transform(m_pending, 1);
        m_pendingBytes = 0;
    }
    std::size_t const whole = bytes / 64;
    Transform(p, whole);
    p += whole * 64;
    bytes -= whole * 64;
    std::memcpy(m_pending, p, bytes);
    m_pendingBytes = bytes;
}

std::array<unsigned char, 16> LMD5::Finish() {
    std::uint64_t const bits = m_totalBytes * 8;
    unsigned char tail[72] = {0x80};
    std::size_t const pad = (m_pendingBytes < 56 ? 56 : 120) - m_pendingBytes;
    for (int i = 0; i < 8; ++i) {
        tail[pad + i] = static_cast<unsigned char>(bits >> (8 * i));
    }
    Update(tail, pad + 8);
    std::array<unsigned char, 16> digest{};
    for (int i = 0; i < 4; ++i) {
        for (int j = 0; j < 4; ++j) {
            digest[4 * i + j] = static_cast<unsigned char>(m_state[i] >> (8 * j));
        }
    }
    return digest;
}

std::string LMD5::ToHex(std::array<unsigned char, 16> const& digest) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string out;
    for (unsigned char b : digest) {
        out += kDigits[b >> 4];
        out += kDigits[b & 15];
    }
    return out;
}
