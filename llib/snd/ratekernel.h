// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The inner loop of the rate converter and the coefficient layout it reads, kept apart from the
// source chain so tests and benchmarks can run it directly.
//
// Outputs are made in groups of F consecutive frames. For 1, 2 and 4 channels F is 8 / channels,
// so a group's samples fill one 8-float vector exactly: each group position in the cycle gets a
// vector of coefficients per input frame its taps cover, lane f * channels + c holding the tap
// of output f that falls on that frame (zero where none does), and the kernel multiplies those
// vectors by the input frame broadcast to every output of the group. Loads are then whole
// aligned coefficient vectors and single frames, never a window that straddles cache lines. For
// other channel counts F is 1 and the filter's rows are used as they are, each tap broadcast
// against up to eight of a frame's channels.
//
// The phases repeat after a cycle of `groups` groups; a group and the groups whole cycles after
// it use the same coefficients, so the kernel runs up to eight of them ("twins") in one pass,
// loading each coefficient vector once for all of them.

#include "llib/snd/convertrate.h"

#include <vector>

namespace llib::detail {

// Floats past the last input frame that the kernel may read (wide loads take a little more than
// the frames they use; what they read there does not reach any output).
inline constexpr int kRateReadPastEnd = 8;

struct RateLayout {
    unsigned channels = 1;
    int frames = 1;                 // F: output frames per group
    int span = 0;                   // input frames one group's taps cover
    long long groups = 1;           // groups per cycle
    long long cycleInputs = 0;      // input frames a cycle advances
    std::vector<long long> offsets; // each group's first tap, relative to the cycle's first
    // F > 1: `groups` * `span` vectors of 8 floats. F = 1: unused; `rows` name the rows of
    // `table` (the filter's, which must outlive the layout) that the groups use.
    std::vector<float, AlignedAllocator<float>> coefficients;
    float const* table = nullptr;
    int rowStride = 0;
    std::vector<unsigned> rows;
};

// The layout of `filter` for `channels` interleaved channels.
[[nodiscard]] RateLayout MakeRateLayout(LConvertRateBase const& filter, unsigned channels);

// Where the kernel stands: the next group's index in the cycle and the input frame (an index
// into the caller's buffer) of its first tap.
struct RateKernelState {
    long long group = 0;
    long long firstTap = 0;
};

// How many whole groups from `state` on have all their taps among the first `inFrames` frames.
[[nodiscard]] long long RateGroupsThatFit(RateLayout const& layout, RateKernelState const& state,
                                          long long inFrames);

// Makes `groups` groups (which must fit), `groups` * F interleaved frames, into `out` from the
// interleaved frames at `in`, which must stay readable for kRateReadPastEnd floats past the last
// frame used. Advances `state`.
//
// Every output sample is its taps' products summed one after another from the first tap, so a
// frame comes out the same however reads are split, after a seek, and for any channel count.
void RateKernelRun(RateLayout const& layout, float const* in, RateKernelState& state, float* out,
                   long long groups);

} // namespace llib::detail
