// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The inner loop of the rate converter, a free function so tests and benchmarks can run it
// without a source chain.

#include <cstdint>
#include <span>

namespace llib::detail {

struct RateKernelState {
    long long firstTap; // plane index of the next output's first tap
    unsigned phase;     // its coefficient row
};

// Computes up to out.size() / channels output frames into `out` (interleaved), stopping early
// when the next output's taps would reach past `planeFrames`. `table` holds `phases` rows of
// `stride` floats; planes[c] is channel c's input. Advances `state` and returns frames made.
long long RateKernelRun(std::span<float const> table, int stride, unsigned phases, unsigned step,
                        std::span<float const* const> planes, long long planeFrames,
                        RateKernelState& state, std::span<float> out);

// Copies `frames` interleaved frames of `channels` channels from `in` into one plane per channel:
// channel c goes to planes + c * planeStride. The converter's input split, kept beside the kernel
// so it is built for the same instruction sets.
void RateKernelSplit(float const* in, long long frames, unsigned channels, float* planes,
                     long long planeStride);

} // namespace llib::detail
