// SPDX-License-Identifier: GPL-3.0-or-later
#include "ratekernel.h"

#include "llib/gen/muldiv.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <numeric>

// The kernel is compiled three times, for the x86-64 baseline, for AVX2 with FMA, and for
// AVX-512 (still with 8-float vectors: its 32 registers hold all eight twins' sums with room to
// spare), and the loader picks the best the machine has. The builds may differ in the last bit
// (the baseline has no fused multiply-add), never more.
#if defined(__x86_64__) && !defined(TESSEL_NO_CLONES)
#define TESSEL_KERNEL_VERSIONS 1
#endif
// Everything a version calls must be inlined into it: a helper left out of line is compiled
// once, for the baseline, and the fast versions would call baseline code.
#define TESSEL_KERNEL_INLINE inline __attribute__((always_inline))

// The helpers pass 8-float vectors by value; they are always inlined and file-local, so the
// baseline build's warning about that calling convention concerns no real call. (GCC reports it
// at the end of the file, so it stays off for the whole file.)
#pragma GCC diagnostic ignored "-Wpsabi"

namespace llib::detail {

namespace {

constexpr int kLanes = 8;
// Past this many floats of group coefficients (4 MB) the filter's own rows are used instead; so
// they are too when one group's taps would spread over more than twice the filter's length.
constexpr long long kMaxGroupFloats = 1LL << 20;

using V8 = float __attribute__((vector_size(kLanes * sizeof(float))));
using V4 = float __attribute__((vector_size(kLanes / 2 * sizeof(float))));
using D4 = double __attribute__((vector_size(kLanes * sizeof(float))));

TESSEL_KERNEL_INLINE V8 Load(float const* p) {
    V8 v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

TESSEL_KERNEL_INLINE void Store(float* p, V8 const& v) {
    std::memcpy(p, &v, sizeof v);
}

TESSEL_KERNEL_INLINE V8 Splat(float f) {
    return V8{f, f, f, f, f, f, f, f};
}

// One frame of `kChannels` channels repeated across the eight lanes. The stereo pair is moved as
// one 64-bit value where the AVX2 build turns that into a single broadcast load; the baseline
// build does better with a 4-float load and a shuffle (the extra frame it reads is discarded).
template <int kChannels, bool kWide>
TESSEL_KERNEL_INLINE V8 Broadcast(float const* p) {
    static_assert(kChannels == 1 || kChannels == 2 || kChannels == 4);
    if constexpr (kChannels == 1) {
        return Splat(*p);
    } else if constexpr (kChannels == 2 && kWide) {
        double pair;
        std::memcpy(&pair, p, sizeof pair);
        D4 const v{pair, pair, pair, pair};
        return __builtin_bit_cast(V8, v);
    } else {
        V4 v;
        std::memcpy(&v, p, sizeof v);
        if constexpr (kChannels == 2) {
            return __builtin_shufflevector(v, v, 0, 1, 0, 1, 0, 1, 0, 1);
        } else {
            return __builtin_shufflevector(v, v, 0, 1, 2, 3, 0, 1, 2, 3);
        }
    }
}

// Where group `i` of a run starting at cycle position `group` finds its taps, relative to the
// run's first group; `i` is at most a cycle.
struct GroupAt {
    long long position; // in the cycle
    long long shift;    // input frames from the run's first group
};

TESSEL_KERNEL_INLINE GroupAt Locate(RateLayout const& layout, long long group, long long i) {
    long long position = group + i;
    long long extra = 0;
    if (position >= layout.groups) {
        position -= layout.groups;
        extra = layout.cycleInputs;
    }
    return {position, layout.offsets[position] + extra - layout.offsets[group]};
}

// `kBunch` neighbouring groups at once, each with `kTwins` - 1 twins whole cycles after it, for
// 1, 2 or 4 channels. A group's output is one vector; its twin's is a cycle of outputs later.
// Every sum is a chain of dependent multiply-adds; bunching groups when there are few twins
// keeps enough chains going to hide each step's latency.
template <int kChannels, int kTwins, int kBunch, bool kWide>
TESSEL_KERNEL_INLINE void GroupBunch(RateLayout const& layout, float const* in, long long group,
                                     long long i, float* out) {
    int const span = layout.span;
    long long const cycleFloats = layout.cycleInputs * kChannels;
    long long const twinFloats = layout.groups * kLanes;
    float const* e[kBunch];
    float const* x[kBunch];
    for (int b = 0; b < kBunch; ++b) {
        GroupAt const at = Locate(layout, group, i + b);
        e[b] = layout.coefficients.data() + at.position * span * kLanes;
        x[b] = in + at.shift * kChannels;
    }
    V8 sums[kBunch][kTwins] = {};
    for (int j = 0; j < span; ++j) {
#pragma GCC unroll 4
        for (int b = 0; b < kBunch; ++b) {
            V8 const c = Load(e[b] + j * kLanes);
#pragma GCC unroll 8
            for (int t = 0; t < kTwins; ++t) {
                sums[b][t] +=
                    c * Broadcast<kChannels, kWide>(x[b] + j * kChannels + t * cycleFloats);
            }
        }
    }
    for (int b = 0; b < kBunch; ++b) {
        for (int t = 0; t < kTwins; ++t) {
            Store(out + (i + b) * kLanes + t * twinFloats, sums[b][t]);
        }
    }
}

// `count` groups from cycle position `group` (at most a cycle) with their twins.
template <int kChannels, int kTwins, bool kWide>
TESSEL_KERNEL_INLINE void GroupBlock(RateLayout const& layout, float const* in, long long group,
                                     long long count, float* out) {
    constexpr int kBunch = kTwins >= 4 ? 1 : 4 / kTwins;
    long long i = 0;
    for (; i + kBunch <= count; i += kBunch) {
        GroupBunch<kChannels, kTwins, kBunch, kWide>(layout, in, group, i, out);
    }
    for (; i < count; ++i) {
        GroupBunch<kChannels, kTwins, 1, kWide>(layout, in, group, i, out);
    }
}

// The same with the filter's rows, one output frame per group, for any channel count: each tap
// is broadcast against up to eight channels of a frame. Above eight channels the last block of
// eight overlaps the one before it and writes the shared channels again with the same values.
template <int kTwins>
TESSEL_KERNEL_INLINE void RowBlock(RateLayout const& layout, float const* in, long long group,
                                   long long count, float* out) {
    int const channels = static_cast<int>(layout.channels);
    int const width = std::min(channels, kLanes);
    int const span = layout.span;
    long long const cycleFloats = layout.cycleInputs * channels;
    long long const twinFloats = layout.groups * channels;
    for (long long i = 0; i < count; ++i) {
        GroupAt const at = Locate(layout, group, i);
        float const* const row =
            layout.table + static_cast<long long>(layout.rows[at.position]) * layout.rowStride;
        for (int first = 0;; first += kLanes) {
            int const c0 = std::min(first, channels - width);
            float const* const x = in + at.shift * channels + c0;
            V8 sums[kTwins] = {};
            for (int j = 0; j < span; ++j) {
                V8 const c = Splat(row[j]);
#pragma GCC unroll 8
                for (int t = 0; t < kTwins; ++t) {
                    sums[t] += c * Load(x + j * channels + t * cycleFloats);
                }
            }
            for (int t = 0; t < kTwins; ++t) {
                std::memcpy(out + i * channels + c0 + t * twinFloats, &sums[t],
                            static_cast<std::size_t>(width) * sizeof(float));
            }
            if (first + kLanes >= channels) {
                break;
            }
        }
    }
}

template <int kTwins, bool kWide>
TESSEL_KERNEL_INLINE void Block(RateLayout const& layout, float const* in, long long group,
                                long long count, float* out) {
    if (layout.frames == 1) {
        RowBlock<kTwins>(layout, in, group, count, out);
    } else if (layout.channels == 1) {
        GroupBlock<1, kTwins, kWide>(layout, in, group, count, out);
    } else if (layout.channels == 2) {
        GroupBlock<2, kTwins, kWide>(layout, in, group, count, out);
    } else {
        GroupBlock<4, kTwins, kWide>(layout, in, group, count, out);
    }
}

// Whole cycles go eight, four or two at a time, with each coefficient vector serving all of them
// at once; what is left of a cycle goes group by group.
template <bool kWide>
TESSEL_KERNEL_INLINE void RunGroups(RateLayout const& layout, float const* in,
                                    RateKernelState& state, float* out, long long groups) {
    long long const cycle = layout.groups;
    long long const groupFloats = static_cast<long long>(layout.frames) * layout.channels;
    long long group = state.group;
    long long tap = state.firstTap;
    while (groups > 0) {
        float const* const x = in + tap * layout.channels;
        if (groups >= 2 * cycle) {
            int const twins = groups >= 8 * cycle ? 8 : groups >= 4 * cycle ? 4 : 2;
            if (twins == 8) {
                Block<8, kWide>(layout, x, group, cycle, out);
            } else if (twins == 4) {
                Block<4, kWide>(layout, x, group, cycle, out);
            } else {
                Block<2, kWide>(layout, x, group, cycle, out);
            }
            tap += twins * layout.cycleInputs;
            out += twins * cycle * groupFloats;
            groups -= twins * cycle;
            continue;
        }
        long long const count = std::min(groups, cycle);
        Block<1, kWide>(layout, x, group, count, out);
        GroupAt const next = Locate(layout, group, count);
        tap += next.shift;
        group = next.position;
        out += count * groupFloats;
        groups -= count;
    }
    state.group = group;
    state.firstTap = tap;
}

} // namespace

// The versions the loader chooses between. (Outside the anonymous namespace: clang does not
// count the dispatch as a use of file-local versions.)
#ifdef TESSEL_KERNEL_VERSIONS
__attribute__((target("avx512f,avx512vl,avx2,fma"))) void
RateKernelVersion(RateLayout const& layout, float const* in, RateKernelState& state, float* out,
                  long long groups) {
    RunGroups<true>(layout, in, state, out, groups);
}

__attribute__((target("avx2,fma"))) void RateKernelVersion(RateLayout const& layout,
                                                           float const* in, RateKernelState& state,
                                                           float* out, long long groups) {
    RunGroups<true>(layout, in, state, out, groups);
}

__attribute__((target("default"))) void RateKernelVersion(RateLayout const& layout, float const* in,
                                                          RateKernelState& state, float* out,
                                                          long long groups) {
    RunGroups<false>(layout, in, state, out, groups);
}
#else
void RateKernelVersion(RateLayout const& layout, float const* in, RateKernelState& state,
                       float* out, long long groups) {
    RunGroups<false>(layout, in, state, out, groups);
}
#endif

namespace {

// floor(a * b / c) and the remainder, for non-negative values.
long long Quotient(long long a, long long b, long long c) {
    return LMulDivFloor(a, b, c);
}

long long Remainder(long long a, long long b, long long c) {
    LInt128 const product = static_cast<LInt128>(a) * b;
    return static_cast<long long>(product - static_cast<LInt128>(product / c) * c);
}

bool FillGroupCoefficients(LConvertRateBase const& filter, RateLayout& layout) {
    long long const phases = filter.GetPhases();
    long long const step = filter.GetStep();
    int const taps = filter.GetTaps();
    int const frames = layout.frames;
    auto const channels = static_cast<int>(layout.channels);
    // Output frames of a cycle: the first multiple of both the group size and the phase count.
    long long const cycleOutputs = std::lcm(static_cast<long long>(frames), phases);
    long long const groups = cycleOutputs / frames;
    // The last output of a group lies this many input frames after its first, at most.
    long long const spread = Quotient(frames - 1, step, phases) + 1;
    if (spread > taps || groups * (taps + spread) * kLanes > kMaxGroupFloats) {
        return false;
    }
    layout.groups = groups;
    layout.cycleInputs = cycleOutputs / phases * step;
    layout.offsets.resize(static_cast<std::size_t>(groups));
    long long widest = 0;
    for (long long g = 0; g < groups; ++g) {
        long long const first = Quotient(g * frames, step, phases);
        layout.offsets[static_cast<std::size_t>(g)] = first;
        widest = std::max(widest, Quotient(g * frames + frames - 1, step, phases) - first);
    }
    layout.span = taps + static_cast<int>(widest);
    layout.coefficients.assign(static_cast<std::size_t>(groups * layout.span * kLanes), 0.0f);
    for (long long g = 0; g < groups; ++g) {
        float* const e = layout.coefficients.data() + g * layout.span * kLanes;
        for (int f = 0; f < frames; ++f) {
            long long const output = g * frames + f;
            long long const delay =
                Quotient(output, step, phases) - layout.offsets[static_cast<std::size_t>(g)];
            float const* const row =
                filter.GetRow(static_cast<unsigned>(Remainder(output, step, phases)));
            for (int t = 0; t < taps; ++t) {
                for (int c = 0; c < channels; ++c) {
                    e[(delay + t) * kLanes + f * channels + c] = row[t];
                }
            }
        }
    }
    return true;
}

void FillRows(LConvertRateBase const& filter, RateLayout& layout) {
    long long const phases = filter.GetPhases();
    long long const step = filter.GetStep();
    layout.frames = 1;
    layout.span = filter.GetTaps();
    layout.groups = phases;
    layout.cycleInputs = step;
    layout.table = filter.GetTable().data();
    layout.rowStride = filter.GetStride();
    layout.offsets.resize(static_cast<std::size_t>(phases));
    layout.rows.resize(static_cast<std::size_t>(phases));
    for (long long g = 0; g < phases; ++g) {
        layout.offsets[static_cast<std::size_t>(g)] = Quotient(g, step, phases);
        layout.rows[static_cast<std::size_t>(g)] =
            static_cast<unsigned>(Remainder(g, step, phases));
    }
}

} // namespace

RateLayout MakeRateLayout(LConvertRateBase const& filter, unsigned channels) {
    RateLayout layout;
    layout.channels = channels < 1 ? 1 : channels;
    if (layout.channels == 1 || layout.channels == 2 || layout.channels == 4) {
        layout.frames = kLanes / static_cast<int>(layout.channels);
        if (FillGroupCoefficients(filter, layout)) {
            return layout;
        }
        layout.coefficients.clear();
    }
    FillRows(filter, layout);
    return layout;
}

long long RateGroupsThatFit(RateLayout const& layout, RateKernelState const& state,
                            long long inFrames) {
    // Group g of the run has its first tap at firstTap + Off(group + g) - Off(group), where
    // Off(n) = (n / groups) * cycleInputs + offsets[n % groups] rises with n; it fits while that
    // plus the span stays within the frames.
    long long const first = layout.offsets[static_cast<std::size_t>(state.group)];
    long long const limit = inFrames - layout.span - state.firstTap + first;
    if (state.firstTap < 0 || limit < first) {
        return 0;
    }
    long long const cycles = limit / layout.cycleInputs;
    long long const rest = limit % layout.cycleInputs;
    auto const inLastCycle = std::upper_bound(layout.offsets.begin(), layout.offsets.end(), rest) -
                             layout.offsets.begin();
    return cycles * layout.groups + inLastCycle - state.group;
}

void RateKernelRun(RateLayout const& layout, float const* in, RateKernelState& state, float* out,
                   long long groups) {
    if (groups > 0) {
        RateKernelVersion(layout, in, state, out, groups);
    }
}

} // namespace llib::detail
