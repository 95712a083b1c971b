// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// FLAC files, read and written by our own codec (llib/snd/flacsource.cpp, flacsink.cpp).
//
// Reading: OpenSource checks the "fLaC" marker (after an ID3v2 tag, if one leads), reads the
// STREAMINFO block, skips the other metadata blocks and returns a source that decodes frames
// as they are read. A frame whose header is sound but whose CRC-16 fails reads as silence of its
// block size, and decoding goes on with the next frame; a position that holds no valid frame
// header ends the stream, and the rest up to the length in STREAMINFO reads as silence. Seeking
// decodes forward from the first frame (or from the current position, when the target lies
// ahead), so it costs time in proportion to the distance.
//
// Writing: OpenSink encodes integer samples of 8, 16, 24 or 32 bits in blocks of 4096 frames
// with an order-8 linear predictor per channel and partitioned Rice residuals, and rewrites the
// STREAMINFO block with the totals and the MD5 of the samples when the sink finishes.
// `compression` (0 to 8, default 5) is the largest Rice partition order tried; from 6 on each
// partition's Rice parameter is also refined by counting the exact cost of its neighbours. It
// never changes the predictor order, so every level decodes equally fast.

#include "llib/snd/flacformat.h"
#include "llib/snd/soundsink.h"
#include "llib/snd/soundsource.h"

#include <cstdint>
#include <string>

inline constexpr int kLFLACDefaultCompression = 5;
inline constexpr int kLFLACMaxCompression = 8;

// What a FLAC file's header says: STREAMINFO, where the first frame starts, and the vendor
// string of its comment block ("" when there is none).
struct LFLACFileInfo {
    LFLACMetaDataBlockStreamInfo streamInfo;
    std::uint64_t firstFrameOffset = 0;
    std::string vendor;
};

namespace LFLACFile {
// A source over the file; an error source (kCannotOpen, kCorrupt, kUnsupported) when the file
// cannot be opened or is not a FLAC stream we can decode.
[[nodiscard]] LSoundSource OpenSource(char const* path);
// A sink writing `path` with `bits` per sample (8, 16, 24 or 32; other values give a failed
// sink). `dither` adds triangular dither where the samples are reduced to 8 or 16 bits.
[[nodiscard]] LSoundSink OpenSink(char const* path, int rate, unsigned char channels, int bits,
                                  bool dither, int compression = kLFLACDefaultCompression);
// False when the file does not open or its header is not a FLAC header we can read.
[[nodiscard]] bool GetInfo(char const* path, LFLACFileInfo& info);
} // namespace LFLACFile
