// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/flacformat.h"

namespace {

template <class T, unsigned kPoly>
constexpr std::array<T, 256> MakeCrcTable() {
    constexpr unsigned kBits = sizeof(T) * 8;
    constexpr T kTop = static_cast<T>(T{1} << (kBits - 1));
    std::array<T, 256> table{};
    for (unsigned i = 0; i < 256; ++i) {
        T crc = static_cast<T>(i << (kBits - 8));
        for (int bit = 0; bit < 8; ++bit) {
            crc = static_cast<T>((crc & kTop) != 0 ? (crc << 1) ^ kPoly : crc << 1);
        }
        table[i] = crc;
    }
    return table;
}

constexpr auto kCrc8 = MakeCrcTable<std::uint8_t, 0x07>();
constexpr auto kCrc16 = MakeCrcTable<std::uint16_t, 0x8005>();

// Slice k holds the CRC of a byte followed by k zero bytes. The CRC is linear, so eight bytes
// are folded at once as the sum of each byte's contribution, with the running CRC added into the
// first two: the decoder checks every frame, and one table step per byte was a seventh of its
// time.
constexpr std::array<std::array<std::uint16_t, 256>, 8> MakeCrc16Slices() {
    std::array<std::array<std::uint16_t, 256>, 8> slices{};
    slices[0] = kCrc16;
    for (std::size_t k = 1; k < 8; ++k) {
        for (unsigned b = 0; b < 256; ++b) {
            std::uint16_t const prev = slices[k - 1][b];
            slices[k][b] = static_cast<std::uint16_t>((prev << 8) ^ kCrc16[prev >> 8]);
        }
    }
    return slices;
}

constexpr auto kCrc16Slices = MakeCrc16Slices();

} // namespace

std::uint8_t LFLACCrc8(unsigned char const* data, std::size_t bytes, std::uint8_t crc) {
    for (std::size_t i = 0; i < bytes; ++i) {
        crc = kCrc8[crc ^ data[i]];
    }
    return crc;
}

std::uint16_t LFLACCrc16(unsigned char const* data, std::size_t bytes, std::uint16_t crc) {
    auto const& t = kCrc16Slices;
    std::size_t i = 0;
    for (; i + 8 <= bytes; i += 8) {
        unsigned char const* const d = data + i;
        crc = static_cast<std::uint16_t>(t[7][d[0] ^ (crc >> 8)] ^ t[6][d[1] ^ (crc & 0xFF)] ^
                                         t[5][d[2]] ^ t[4][d[3]] ^ t[3][d[4]] ^ t[2][d[5]] ^
                                         t[1][d[6]] ^ t[0][d[7]]);
    }
    for (; i < bytes; ++i) {
        crc = static_cast<std::uint16_t>((crc << 8) ^ kCrc16[(crc >> 8) ^ data[i]]);
    }
    return crc;
}

int LFLACEncodeNumber(std::uint64_t value, unsigned char* out) {
    if (value < 0x80) {
        out[0] = static_cast<unsigned char>(value);
        return 1;
    }
    // n bytes carry 5n + 1 bits (n from 2 to 7): a lead byte of n ones, a zero and 6 - n bits.
    int n = 2;
    while (n <= 7 && value >= (std::uint64_t{1} << (5 * n + 1))) {
        ++n;
    }
    if (n > 7) {
        return 0;
    }
    for (int i = n - 1; i >= 1; --i) {
        out[i] = static_cast<unsigned char>(0x80 | (value & 0x3F));
        value >>= 6;
    }
    out[0] = static_cast<unsigned char>((0xFF00 >> n) | value);
    return n;
}

bool LFLACDecodeNumber(unsigned char const* data, std::size_t bytes, std::uint64_t& value,
                       int& used) {
    if (bytes == 0) {
        return false;
    }
    unsigned const lead = data[0];
    int n = 0;
    while (n < 8 && (lead & (0x80u >> n)) != 0) {
        ++n;
    }
    if (n == 0) {
        value = lead;
        used = 1;
        return true;
    }
    if (n == 1 || n > 7 || static_cast<std::size_t>(n) > bytes) {
        return false;
    }
    std::uint64_t v = lead & (0x7Fu >> n);
    for (int i = 1; i < n; ++i) {
        if ((data[i] & 0xC0) != 0x80) {
            return false;
        }
        v = (v << 6) | (data[i] & 0x3F);
    }
    value = v;
    used = n;
    return true;
}

bool LFLACMetaDataBlockStreamInfo::Parse(unsigned char const* d) {
    minBlockFrames = static_cast<std::uint16_t>(d[0] << 8 | d[1]);
    maxBlockFrames = static_cast<std::uint16_t>(d[2] << 8 | d[3]);
    minFrameBytes = static_cast<std::uint32_t>(d[4] << 16 | d[5] << 8 | d[6]);
    maxFrameBytes = static_cast<std::uint32_t>(d[7] << 16 | d[8] << 8 | d[9]);
    sampleRateHz = static_cast<std::uint32_t>(d[10] << 12 | d[11] << 4 | d[12] >> 4);
    channels = ((d[12] >> 1) & 0x7u) + 1;
    bitsPerSample = (((d[12] & 1u) << 4) | (d[13] >> 4)) + 1;
    totalFrames = (std::uint64_t{d[13] & 0x0Fu} << 32) | std::uint64_t{d[14]} << 24 |
                  std::uint64_t{d[15]} << 16 | std::uint64_t{d[16]} << 8 | d[17];
    for (int i = 0; i < 16; ++i) {
        md5[static_cast<std::size_t>(i)] = d[18 + i];
    }
    return sampleRateHz != 0 && bitsPerSample >= 4 && minBlockFrames <= maxBlockFrames;
}

void LFLACMetaDataBlockStreamInfo::Serialise(unsigned char* out) const {
    auto put = [&out](int at, std::uint64_t value, int bytes) {
        for (int i = bytes - 1; i >= 0; --i) {
            out[at + i] = static_cast<unsigned char>(value & 0xFF);
            value >>= 8;
        }
    };
    put(0, minBlockFrames, 2);
    put(2, maxBlockFrames, 2);
    put(4, minFrameBytes & 0xFFFFFF, 3);
    put(7, maxFrameBytes & 0xFFFFFF, 3);
    // 20 bits of rate, 3 of channels - 1, 5 of bits - 1, 36 of total frames: 64 bits.
    std::uint64_t packed = std::uint64_t{sampleRateHz & 0xFFFFFu} << 44;
    packed |= std::uint64_t{(channels - 1) & 0x7u} << 41;
    packed |= std::uint64_t{(bitsPerSample - 1) & 0x1Fu} << 36;
    packed |= totalFrames & 0xFFFFFFFFFull;
    put(10, packed, 8);
    for (int i = 0; i < 16; ++i) {
        out[18 + i] = md5[static_cast<std::size_t>(i)];
    }
}
