// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/soundbase.h"

#include <atomic>

namespace {
std::atomic<long> g_live[3];
} // namespace

float GetBufferPeak(float const* samples, long long count) {
    // A plain max over |x| vectorises; NaN compares false and is passed over.
    float peak = 0.0f;
    for (long long i = 0; i < count; ++i) {
        float const a = samples[i] < 0.0f ? -samples[i] : samples[i];
        peak = a > peak ? a : peak;
    }
    return peak;
}

long LSoundLiveCount(LSoundLiveKind kind) {
    return g_live[static_cast<int>(kind)].load(std::memory_order_relaxed);
}

void llib::detail::LiveCountAdd(LSoundLiveKind kind, int delta) {
    if constexpr (kLSoundCountsLiveObjects) {
        g_live[static_cast<int>(kind)].fetch_add(delta, std::memory_order_relaxed);
    }
}
