// SPDX-License-Identifier: GPL-3.0-or-later
// MPEG audio frame headers, and the VBR and LAME headers of a stream's first frame.
#include "llib/snd/mp3file.h"

#include <algorithm>
#include <cstring>

namespace {

// kbit/s by [MPEG-1 or not][layer - 1][index].
constexpr int kBitrates[2][3][15] = {
    {{0, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448},
     {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384},
     {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320}},
    {{0, 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256},
     {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160},
     {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160}},
};
constexpr int kRates[9] = {44100, 48000, 32000, 22050, 24000, 16000, 11025, 12000, 8000};

std::uint32_t BigEndian32(unsigned char const* p) {
    return static_cast<std::uint32_t>(p[0]) << 24 | static_cast<std::uint32_t>(p[1]) << 16 |
           static_cast<std::uint32_t>(p[2]) << 8 | p[3];
}

} // namespace

bool LMP3FrameHeader::Read(unsigned char const* b) {
    if (b[0] != 0xFF || (b[1] & 0xE0) != 0xE0) {
        return false;
    }
    int const versionBits = (b[1] >> 3) & 3;
    int const layerBits = (b[1] >> 1) & 3;
    int const rateBits = (b[2] >> 2) & 3;
    int const bitrateBits = b[2] >> 4;
    if (versionBits == 1 || layerBits == 0 || rateBits == 3 || bitrateBits == 15 ||
        (b[3] & 3) == 2) {
        return false;
    }
    version = versionBits == 3 ? kMpeg1 : versionBits == 2 ? kMpeg2 : kMpeg25;
    layer = 4 - layerBits;
    crc = (b[1] & 1) == 0;
    bitrateIndex = bitrateBits;
    bitrateKbps = kBitrates[version == kMpeg1 ? 0 : 1][layer - 1][bitrateBits];
    sampleRateIndex = static_cast<int>(version) * 3 + rateBits;
    sampleRateHz = kRates[sampleRateIndex];
    padding = ((b[2] >> 1) & 1) != 0;
    mode = static_cast<Mode>(b[3] >> 6);
    modeExtension = (b[3] >> 4) & 3;
    copyright = ((b[3] >> 3) & 1) != 0;
    original = ((b[3] >> 2) & 1) != 0;
    emphasis = b[3] & 3;
    return true;
}

int LMP3FrameHeader::GetFrameSamples() const {
    if (layer == 1) {
        return 384;
    }
    return layer == 3 && version != kMpeg1 ? 576 : 1152;
}

int LMP3FrameHeader::GetSideInfoBytes() const {
    if (layer != 3) {
        return 0;
    }
    if (version == kMpeg1) {
        return mode == kMono ? 17 : 32;
    }
    return mode == kMono ? 9 : 17;
}

int LMP3FrameHeader::GetFrameBytes() const {
    if (bitrateKbps == 0) {
        return 0;
    }
    int const pad = padding ? 1 : 0;
    if (layer == 1) {
        return (12000 * bitrateKbps / sampleRateHz + pad) * 4;
    }
    int const perSample = layer == 3 && version != kMpeg1 ? 72000 : 144000;
    return perSample * bitrateKbps / sampleRateHz + pad;
}

bool LMP3FrameHeader::IsSameStream(LMP3FrameHeader const& other) const {
    return version == other.version && layer == other.layer &&
           sampleRateIndex == other.sampleRateIndex;
}

bool LMP3ReadVbrHeader(unsigned char const* frame, std::size_t bytes, LMP3FrameHeader const& header,
                       LMP3VbrHeader& vbr) {
    vbr = LMP3VbrHeader{};
    // Xing and Info sit right after the side information; encoders differ on whether a CRC
    // comes first, so both places are tried.
    std::size_t const side = 4 + static_cast<std::size_t>(header.GetSideInfoBytes());
    for (std::size_t at : {side, side + 2}) {
        if (at + 8 > bytes) {
            continue;
        }
        unsigned char const* p = frame + at;
        bool const xing = std::memcmp(p, "Xing", 4) == 0;
        if (!xing && std::memcmp(p, "Info", 4) != 0) {
            continue;
        }
        vbr.kind = xing ? LMP3VbrHeader::kXing : LMP3VbrHeader::kInfo;
        vbr.tagOffset = static_cast<int>(at);
        std::uint32_t const flags = BigEndian32(p + 4);
        std::size_t field = at + 8;
        if ((flags & 1) != 0 && field + 4 <= bytes) {
            vbr.frames = BigEndian32(frame + field);
            field += 4;
        }
        if ((flags & 2) != 0 && field + 4 <= bytes) {
            vbr.bytes = BigEndian32(frame + field);
            field += 4;
        }
        if ((flags & 4) != 0 && field + 100 <= bytes) {
            std::memcpy(vbr.toc, frame + field, 100);
            vbr.hasToc = true;
            field += 100;
        }
        if ((flags & 8) != 0 && field + 4 <= bytes) {
            vbr.quality = static_cast<int>(BigEndian32(frame + field));
        }
        return true;
    }
    // VBRI sits at a fixed place, 32 bytes after the header.
    constexpr std::size_t kVbriAt = 4 + 32;
    if (kVbriAt + 18 <= bytes && std::memcmp(frame + kVbriAt, "VBRI", 4) == 0) {
        vbr.kind = LMP3VbrHeader::kVbri;
        vbr.tagOffset = static_cast<int>(kVbriAt);
        vbr.bytes = BigEndian32(frame + kVbriAt + 10);
        vbr.frames = BigEndian32(frame + kVbriAt + 14);
        return true;
    }
    return false;
}

bool LMP3DecodeLameTag(unsigned char const* tag, std::size_t bytes, int quality,
                       int fileBitrateKbps, LMP3LameHeader& lame) {
    lame = LMP3LameHeader{};
    constexpr std::size_t kTagBytes = 28;
    if (bytes < kTagBytes || std::memcmp(tag, "LAME", 4) != 0) {
        return false;
    }
    lame.present = true;
    int const q = quality <= 0 || quality > 100 ? 67 : quality;
    lame.quality = q;
    // The quality is stored as 100 - (10 * V + q): the digit of the VBR setting rounds up when
    // the remainder is 5 or more, as the encoder itself rounds.
    int const rest = 100 - q;
    lame.qualityDigits[0] = rest % 10;
    lame.qualityDigits[1] = (rest + rest % 10) / 10;
    std::memcpy(lame.encoder, tag, 9);
    lame.encoder[9] = '\0';
    for (char& c : lame.encoder) {
        if (c != '\0' &&
            (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) > 0x7E)) {
            c = ' ';
        }
    }
    lame.vbrMethod = tag[9] & 15;
    lame.lowpass = tag[10];
    int const bitrate = tag[20];
    lame.bitrate = bitrate == 0 || bitrate == 255 ? std::min(fileBitrateKbps, 255) : bitrate;
    lame.encoderDelay = tag[21] << 4 | tag[22] >> 4;
    lame.encoderPadding = (tag[22] & 15) << 8 | tag[23];
    lame.preset = (tag[26] & 7) << 8 | tag[27];
    return true;
}

char const* LMP3File::VersionName(LMP3FrameHeader::Version version) {
    switch (version) {
    case LMP3FrameHeader::kMpeg1:
        return "MPEG-1";
    case LMP3FrameHeader::kMpeg2:
        return "MPEG-2";
    case LMP3FrameHeader::kMpeg25:
        return "MPEG-2.5";
    }
    return "MPEG";
}
