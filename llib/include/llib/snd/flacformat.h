// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// What the FLAC reader and writer share: the header tables of the published format, its two
// CRCs (CRC-8 of frame headers, CRC-16 of whole frames; both polynomial-MSB-first with an initial
// value of 0), the UTF-8-like coding of frame and sample numbers, and the STREAMINFO block.
// Pure functions over caller buffers; nothing here reads or writes files.

#include <array>
#include <cstddef>
#include <cstdint>

// Sample rates of header codes 1 to 11 (code 0 means "from STREAMINFO", 12 to 14 are read from
// the header's end, 15 is invalid).
inline constexpr std::array<int, 12> arFLACRateTable = {0,     88200, 176400, 192000, 8000,  16000,
                                                        22050, 24000, 32000,  44100,  48000, 96000};
// Bits per sample of header codes 0 to 7; 0 means "from STREAMINFO" (codes 0, 3 and 7).
inline constexpr std::array<int, 8> arFLACBitDepthTable = {0, 8, 12, 0, 16, 20, 24, 0};

inline constexpr std::uint32_t kLFLACMarker = 0x664C6143; // "fLaC"
inline constexpr int kLFLACStreamInfoBytes = 34;
inline constexpr int kLFLACMaxBlockFrames = 65535;

// CRC-8 (polynomial 0x07) and CRC-16 (polynomial 0x8005) of `bytes` bytes, continuing from `crc`.
[[nodiscard]] std::uint8_t LFLACCrc8(unsigned char const* data, std::size_t bytes,
                                     std::uint8_t crc = 0);
[[nodiscard]] std::uint16_t LFLACCrc16(unsigned char const* data, std::size_t bytes,
                                       std::uint16_t crc = 0);

// The UTF-8-like coding of a frame or sample number (up to 36 bits in 1 to 7 bytes). Encode
// returns the bytes written into `out` (7 at most), 0 for a value beyond 36 bits. Decode reads
// from `data` (at most `bytes`), sets `used`, and returns false for a malformed or truncated
// coding.
[[nodiscard]] int LFLACEncodeNumber(std::uint64_t value, unsigned char* out);
[[nodiscard]] bool LFLACDecodeNumber(unsigned char const* data, std::size_t bytes,
                                     std::uint64_t& value, int& used);

struct LFLACMetaDataBlockStreamInfo {
    std::uint16_t minBlockFrames = 0;
    std::uint16_t maxBlockFrames = 0;
    std::uint32_t minFrameBytes = 0; // 24 bits; 0 unknown
    std::uint32_t maxFrameBytes = 0; // 24 bits; 0 unknown
    std::uint32_t sampleRateHz = 0;  // 20 bits
    unsigned channels = 0;           // 1 to 8
    unsigned bitsPerSample = 0;      // 4 to 32
    std::uint64_t totalFrames = 0;   // 36 bits; 0 unknown
    std::array<unsigned char, 16> md5{};

    // From the block's 34 bytes; false when a field is out of the format's range (no channels,
    // a rate of 0, fewer than 4 bits, a minimum block size above the maximum).
    [[nodiscard]] bool Parse(unsigned char const* data);
    // Into the block's 34 bytes (fields are cut to their widths).
    void Serialise(unsigned char* out) const;
};
