// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/soundbase.h"

#include "simdclones.h"

#include <atomic>
#include <cstring>

namespace {
std::atomic<long> g_live[3];
} // namespace

namespace {

// Four-float vectors are native to every x86-64 machine.
using Lanes = float __attribute__((vector_size(4 * sizeof(float))));

LLIB_SIMD_INLINE Lanes Magnitudes(float const* p) {
    Lanes v;
    std::memcpy(&v, p, sizeof v);
    return v < 0.0f ? -v : v;
}

// Internal, so that the clones' dispatch stays inside this file with every compiler.
LLIB_SIMD_CLONES float PeakOfBuffer(float const* samples, long long count) {
    // Independent lanes: one running maximum would be a chain of dependent compares as long as
    // the buffer. Each lane replaces its maximum only on a strictly greater magnitude, so NaN
    // never enters and the result is that of the plain loop.
    Lanes peaks0 = {};
    Lanes peaks1 = {};
    long long i = 0;
    for (; i + 8 <= count; i += 8) {
        Lanes const a = Magnitudes(samples + i);
        Lanes const b = Magnitudes(samples + i + 4);
        peaks0 = a > peaks0 ? a : peaks0;
        peaks1 = b > peaks1 ? b : peaks1;
    }
    peaks0 = peaks1 > peaks0 ? peaks1 : peaks0;
    float peak = 0.0f;
    for (int l = 0; l < 4; ++l) {
        peak = peaks0[l] > peak ? peaks0[l] : peak;
    }
    for (; i < count; ++i) {
        float const a = samples[i] < 0.0f ? -samples[i] : samples[i];
        peak = a > peak ? a : peak;
    }
    return peak;
}

} // namespace

float GetBufferPeak(float const* samples, long long count) {
    return PeakOfBuffer(samples, count);
}

long LSoundLiveCount(LSoundLiveKind kind) {
    return g_live[static_cast<int>(kind)].load(std::memory_order_relaxed);
}

void llib::detail::LiveCountAdd(LSoundLiveKind kind, int delta) {
    if constexpr (kLSoundCountsLiveObjects) {
        g_live[static_cast<int>(kind)].fetch_add(delta, std::memory_order_relaxed);
    }
}
