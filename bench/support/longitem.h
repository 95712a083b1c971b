// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// A long 44.1 kHz stereo cache item made cheaply, for benchmarks of what draws or plays hours of
// audio: its ".aud" is a sparse file of the full length with `realFrames` of real noise written
// around the middle, and its ".grf" holds the peaks of those samples there and of a synthesised
// swelling signal elsewhere. Made in the cache's present folder with one reference taken;
// 65535 when it could not be made.

inline constexpr int kBenchLongItemRateHz = 44100;
inline constexpr unsigned char kBenchLongItemChannels = 2;

[[nodiscard]] unsigned short MakeBenchLongItem(long long frames, long long realFrames);
