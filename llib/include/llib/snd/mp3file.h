// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// MPEG audio layer III files (".mp3", and MP3 inside WAV), decoded by our own decoder
// (llib/snd/mp3decode.cpp, mp3source.cpp).
//
// Reading: OpenSource skips a leading ID3v2 tag, finds the first frame (a header that a second
// valid header follows where its length says), reads the "Xing"/"Info" or "VBRI" frame and the
// LAME tag when the first frame carries them, and returns a source that decodes frames as they
// are read. MPEG-1, 2 and 2.5 layer III in every mode, bitrate and free format decode; layers I
// and II are refused with kUnsupported so that the dispatch can try another decoder.
//
// Length: the frame count of the VBR header, else an estimate from the audio's size and the
// first frame's bitrate. With a LAME tag the encoder delay (plus the decoder's own 529 samples)
// and the padding are cut, so a file decodes to the length and alignment of what was encoded.
//
// Damage: a frame whose side information is impossible, whose Huffman data runs past its granule
// or whose bit reservoir reaches before the data read so far reads as silence of its length; the
// next frame is found by its header. Garbage between frames is skipped.
//
// Seeking is sample-exact: the frame holding the target and enough frames before it to refill
// the bit reservoir and the filter state are decoded again, so a read after Seek equals a whole
// decode bit for bit. Frame positions are indexed as frames are met; a position beyond them is
// found by walking the frame headers (not by the Xing table of contents, whose percentages give
// only an estimated frame).

#include "llib/snd/id3v2.h"
#include "llib/snd/soundsource.h"
#include "llib/unix/fd.h"

#include <cstddef>
#include <cstdint>
#include <string>

// The fixed fields of a frame header.
struct LMP3FrameHeader {
    enum Version : std::uint8_t { kMpeg1 = 0, kMpeg2 = 1, kMpeg25 = 2 };
    enum Mode : std::uint8_t { kStereo = 0, kJointStereo = 1, kDualChannel = 2, kMono = 3 };

    Version version = kMpeg1;
    int layer = 3;
    bool crc = false;
    int bitrateIndex = 0; // 0 = free format
    int bitrateKbps = 0;  // 0 for free format
    int sampleRateHz = 0;
    int sampleRateIndex =
        0; // 0..8 over all versions: 44.1, 48, 32, 22.05, 24, 16, 11.025, 12, 8 kHz
    bool padding = false;
    Mode mode = kStereo;
    int modeExtension = 0;
    bool copyright = false;
    bool original = false;
    int emphasis = 0;

    // Parses the 4 bytes at `b`: false when they are not an MPEG audio header (no sync, reserved
    // version, layer, rate or emphasis, bitrate index 15).
    [[nodiscard]] bool Read(unsigned char const* b);
    [[nodiscard]] int GetChannels() const { return mode == kMono ? 1 : 2; }
    // 1152 for MPEG-1 layer III, 576 for MPEG-2 and 2.5; 384 and 1152 for layers I and II.
    [[nodiscard]] int GetFrameSamples() const;
    // Bytes of side information after the header (and after the CRC when there is one).
    [[nodiscard]] int GetSideInfoBytes() const;
    // The whole frame's size in bytes; 0 for free format, whose size the stream decides.
    [[nodiscard]] int GetFrameBytes() const;
    // True when `other` belongs to the same stream: version, layer and rate agree.
    [[nodiscard]] bool IsSameStream(LMP3FrameHeader const& other) const;
};

// The VBR header of the first frame.
struct LMP3VbrHeader {
    enum Kind : std::uint8_t { kNone = 0, kXing, kInfo, kVbri };
    Kind kind = kNone;
    std::uint32_t frames = 0; // 0 when not given
    std::uint32_t bytes = 0;  // 0 when not given
    bool hasToc = false;
    unsigned char toc[100] = {}; // Xing: position of percent i of the time, in 256ths of `bytes`
    int quality = -1;            // Xing quality field, -1 when absent
    int tagOffset = 0;           // offset of the tag word from the frame's first byte
};

// The LAME tag that follows a Xing or Info header.
struct LMP3LameHeader {
    bool present = false;
    char encoder[10] = {}; // the 9-character version string, e.g. "LAME3.100"
    int quality = 0;       // the quality byte before the tag (0 or above 100 read as 67)
    int qualityDigits[2] = {};
    int vbrMethod = 0;
    int lowpass = 0; // the stored byte: the low-pass frequency in hundreds of hertz
    int bitrate = 0; // kbit/s (minimum for VBR, target for ABR); from the file when not stored
    int encoderDelay = 0;
    int encoderPadding = 0;
    int preset = 0;
};

// What the start of an MP3 stream says.
struct LMP3FileInfo {
    LMP3FrameHeader header; // of the first frame
    LMP3VbrHeader vbr;
    LMP3LameHeader lame;
    std::uint64_t id3v2Bytes = 0; // all leading ID3v2 tags
    LID3v2Tag id3v2;              // the text of the first
    bool id3v1 = false;
    // The ID3v1 tag's text fields (trailing spaces and NULs cut), empty when there is none.
    std::string title;
    std::string artist;
    std::string album;
    std::string year;
    std::string comment;
    std::uint64_t firstFrameOffset = 0; // the first frame (the VBR frame when there is one)
    std::uint64_t audioOffset = 0;      // the first audio frame
    std::uint64_t audioEnd = 0;         // just past the audio (before an ID3v1 tag)
    int freeFormatBytes = 0;            // free format: the frame size without padding
    long long length = 0;               // frames the source delivers
    bool lengthEstimated = false;       // no frame count: length estimated from the bitrate
    bool cbr = true;                    // no Xing (Info is written for constant bitrate)
};

// The LAME tag at `tag` (its "LAME" word, `bytes` long): false unless it starts with "LAME".
// `quality` is the byte before the tag; `fileBitrateKbps` replaces a stored bitrate of 0 or 255.
[[nodiscard]] bool LMP3DecodeLameTag(unsigned char const* tag, std::size_t bytes, int quality,
                                     int fileBitrateKbps, LMP3LameHeader& lame);
// The VBR header in the first frame `frame` of `bytes` bytes; false when it holds none.
[[nodiscard]] bool LMP3ReadVbrHeader(unsigned char const* frame, std::size_t bytes,
                                     LMP3FrameHeader const& header, LMP3VbrHeader& vbr);

namespace LMP3File {
// A source over the file; an error source (kCannotOpen, kCorrupt, kUnsupported) when it cannot
// be opened or holds no layer III stream. `decodeAhead` lets a thread decode ahead of Read when
// more than one processor is online.
[[nodiscard]] LSoundSource OpenSource(char const* path, bool decodeAhead = true);
// A source over `bytes` bytes at `offset` of an open file (MP3 inside WAV). `frames` is the
// length when the container knows it (0 otherwise).
[[nodiscard]] LSoundSource OpenSourceRange(LFileDescriptor fd, std::uint64_t offset,
                                           std::uint64_t bytes, long long frames);
// False when the file does not open or holds no layer III stream.
[[nodiscard]] bool GetInfo(char const* path, LMP3FileInfo& info);
// Frames read as silence so far because they could not be decoded or were missing; -1 when
// `source` is not an MP3 source.
[[nodiscard]] long long GetLostFrames(LSoundSource const& source);
// "MPEG-1", "MPEG-2" or "MPEG-2.5".
[[nodiscard]] char const* VersionName(LMP3FrameHeader::Version version);
} // namespace LMP3File
