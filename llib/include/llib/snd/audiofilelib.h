// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The platform's audio file services: libsndfile, loaded with dlopen("libsndfile.so.1") the first
// time it is needed, so nothing links against it and the engine runs without it.
//
// OpenSource is the native decoder of last resort: a source over any file the library reads
// (WAV with compressed codecs, AIFF, AU, CAF, W64, RF64, FLAC, Ogg and more), delivering the
// library's float samples (integer formats scaled by 1/2^(bits-1)) with level 16.0. It fails with
//   kCannotOpen    the file cannot be opened for reading;
//   kUnsupported   the library does not recognise the file, or reports no audio in it;
//   kCodecRequired the library itself is not installed (the dispatcher then moves on to its
//                  other decoders, as it would for a missing codec).
// OpenSinkWav writes a WAV file with a codec of the library: format tag 17 (IMA ADPCM). Other
// tags, a missing library or a failed open give a failed sink. Both hold one descriptor, opened
// close-on-exec by us and handed to the library. One thread drives each object; loading the
// library is safe from any thread.

#include "llib/snd/soundsink.h"
#include "llib/snd/soundsource.h"

#include <cstdint>

namespace LAudioFileLib {
// True when libsndfile could be loaded (it is loaded on the first call).
[[nodiscard]] bool IsAvailable();
[[nodiscard]] LSoundSource OpenSource(char const* path);
[[nodiscard]] LSoundSink OpenSinkWav(char const* path, std::uint16_t formatTag, int rate,
                                     unsigned char channels);
} // namespace LAudioFileLib
