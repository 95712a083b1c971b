// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// What every source and sink shares: the block size of the engine's copies, the buffer peak
// measure, and the live-object counters that debug builds keep so a test can fail when it leaks
// a source, a sink or a cache reference.

#include <cstdint>

// Frames moved per block by the source-to-sink copy and most processing loops.
inline constexpr long long kLSoundBlockFrames = 8192;

// The largest magnitude in `count` samples (not frames); 0 for none. NaN is ignored.
[[nodiscard]] float GetBufferPeak(float const* samples, long long count);

#ifdef NDEBUG
inline constexpr bool kLSoundCountsLiveObjects = false;
#else
inline constexpr bool kLSoundCountsLiveObjects = true;
#endif

enum class LSoundLiveKind : unsigned char { kSource = 0, kSink = 1, kCacheReference = 2 };

// Live objects of a kind (always 0 when counting is off). Safe from any thread.
[[nodiscard]] long LSoundLiveCount(LSoundLiveKind kind);

namespace llib::detail {
void LiveCountAdd(LSoundLiveKind kind, int delta);
} // namespace llib::detail
