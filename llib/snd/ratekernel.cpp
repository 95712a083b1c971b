// SPDX-License-Identifier: GPL-3.0-or-later
#include "ratekernel.h"

#include <cstddef>
#include <cstring>

// Built twice, for AVX2 with FMA and for the x86-64 baseline, and picked at load time: the dot
// products below are the whole cost of resampling. They are written with 8-float vectors that
// the AVX2 build maps onto single registers and the baseline onto pairs. (An AVX-512 build was
// no faster on the machines measured.)
//
// Every output sample is summed in one fixed order, whichever path makes it: lane l of eight
// keeps two sums, of taps l, l + 16, l + 32, l + 48 and of taps l + 8, l + 24, l + 40, l + 56,
// each in turn; the two are added, and the lanes then as
// ((l0 + l4) + (l1 + l5)) + ((l2 + l6) + (l3 + l7)). So a frame comes out bit for bit the same
// however reads are split, after a seek, and in a mono or a multichannel conversion.
#if defined(__x86_64__) && !defined(TESSEL_NO_CLONES)
#define TESSEL_KERNEL_CLONES __attribute__((target_clones("arch=x86-64-v3", "default")))
#else
#define TESSEL_KERNEL_CLONES
#endif
// Everything a clone calls must be inlined into it: a helper left out of line is compiled once,
// for the baseline, and the clone would call baseline code.
#define TESSEL_KERNEL_INLINE inline __attribute__((always_inline))

// The helpers return 8-float vectors by value; they are always inlined and file-local, so the
// baseline build's warning about that calling convention concerns no real call. (GCC reports it
// at the end of the file, so it stays off for the whole file.)
#pragma GCC diagnostic ignored "-Wpsabi"

namespace llib::detail {

namespace {

constexpr int kLanes = 8;
using V8 = float __attribute__((vector_size(kLanes * sizeof(float))));
using V4 = float __attribute__((vector_size(kLanes / 2 * sizeof(float))));

// A plain unaligned load: the AVX2 build keeps each coefficient vector in a register for all the
// windows it multiplies and folds the window loads into the multiply-adds, which leaves the loop
// free of separate address arithmetic (a volatile load here cost an address computation each).
TESSEL_KERNEL_INLINE V8 Load(float const* p) {
    V8 v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

TESSEL_KERNEL_INLINE void Store(float* p, V8 const& v) {
    std::memcpy(p, &v, sizeof v);
}

TESSEL_KERNEL_INLINE void StoreLow(float* p, V8 const& v) {
    V4 const half = __builtin_shufflevector(v, v, 0, 1, 2, 3);
    std::memcpy(p, &half, sizeof half);
}

TESSEL_KERNEL_INLINE void StoreHigh(float* p, V8 const& v) {
    V4 const half = __builtin_shufflevector(v, v, 4, 5, 6, 7);
    std::memcpy(p, &half, sizeof half);
}

// The fixed lane order of one sum.
TESSEL_KERNEL_INLINE float Total(V8 const& v) {
    return ((v[0] + v[4]) + (v[1] + v[5])) + ((v[2] + v[6]) + (v[3] + v[7]));
}

// [a0 + a4, a1 + a5, a2 + a6, a3 + a7, b0 + b4, b1 + b5, b2 + b6, b3 + b7]
TESSEL_KERNEL_INLINE V8 HalfSums(V8 const& a, V8 const& b) {
    return __builtin_shufflevector(a, b, 0, 1, 2, 3, 8, 9, 10, 11) +
           __builtin_shufflevector(a, b, 4, 5, 6, 7, 12, 13, 14, 15);
}

// Within each half: the sums of adjacent pairs of a, then of b.
TESSEL_KERNEL_INLINE V8 PairSums(V8 const& a, V8 const& b) {
    return __builtin_shufflevector(a, b, 0, 2, 8, 10, 4, 6, 12, 14) +
           __builtin_shufflevector(a, b, 1, 3, 9, 11, 5, 7, 13, 15);
}

// Total() of eight vectors at once, in order, by the same additions: shuffles shared by all
// eight replace eight separate horizontal sums.
TESSEL_KERNEL_INLINE V8 Totals(V8 const (&v)[8]) {
    V8 const t0 = PairSums(HalfSums(v[0], v[4]), HalfSums(v[1], v[5]));
    V8 const t1 = PairSums(HalfSums(v[2], v[6]), HalfSums(v[3], v[7]));
    return PairSums(t0, t1);
}

// Each of `kRows` coefficient rows against each of `kInputs` input windows, lane by lane. Every
// loaded vector feeds several multiply-adds, which keeps the loads from limiting the arithmetic.
template <int kStride, int kRows, int kInputs>
TESSEL_KERNEL_INLINE void DotLanes(float const* const (&rows)[kRows],
                                   float const* const (&inputs)[kInputs],
                                   V8 (&out)[kRows][kInputs]) {
    static_assert(kStride % (2 * kLanes) == 0);
    // Even and odd chunks of eight taps go to separate sums, joined at the end: two chains half as
    // long, so a sum's next step does not wait as long for its last.
    V8 even[kRows][kInputs] = {};
    V8 odd[kRows][kInputs] = {};
    for (int t = 0; t < kStride; t += 2 * kLanes) {
        for (int half = 0; half < 2; ++half) {
            int const at = t + half * kLanes;
            V8 x[kInputs];
            for (int i = 0; i < kInputs; ++i) {
                x[i] = Load(inputs[i] + at);
            }
            for (int r = 0; r < kRows; ++r) {
                V8 const c = Load(rows[r] + at);
                for (int i = 0; i < kInputs; ++i) {
                    V8& acc = half == 0 ? even[r][i] : odd[r][i];
                    acc += c * x[i];
                }
            }
        }
    }
    for (int r = 0; r < kRows; ++r) {
        for (int i = 0; i < kInputs; ++i) {
            out[r][i] = even[r][i] + odd[r][i];
        }
    }
}

// Any stride that is a multiple of eight, in the same order as DotLanes (a trailing odd chunk
// goes to the even sum).
TESSEL_KERNEL_INLINE float DotAny(float const* row, float const* x, int stride) {
    V8 even = {};
    V8 odd = {};
    int t = 0;
    for (; t + 2 * kLanes <= stride; t += 2 * kLanes) {
        even += Load(row + t) * Load(x + t);
        odd += Load(row + t + kLanes) * Load(x + t + kLanes);
    }
    if (t < stride) {
        even += Load(row + t) * Load(x + t);
    }
    return Total(even + odd);
}

struct Advance {
    unsigned whole; // step / phases
    unsigned part;  // step % phases
    unsigned phases;
    unsigned step;
    // Without a branch: the wrap follows the ratio's pattern, which a predictor learns poorly.
    TESSEL_KERNEL_INLINE void operator()(RateKernelState& s) const {
        unsigned const phase = s.phase + part;
        unsigned const wrap = phase >= phases ? 1u : 0u;
        s.phase = phase - (wrap != 0 ? phases : 0u);
        s.firstTap += whole + wrap;
    }
    // How far the first tap can move in `outputs` outputs.
    [[nodiscard]] TESSEL_KERNEL_INLINE long long MaxMove(long long outputs) const {
        return outputs * (static_cast<long long>(whole) + 1);
    }
};

// One output frame of `kChannels` channels, as unsummed lanes.
template <int kStride, int kChannels>
TESSEL_KERNEL_INLINE void FrameLanes(float const* table, float const* const (&planes)[kChannels],
                                     RateKernelState const& s, V8 (&lanes)[kChannels]) {
    float const* const rows[1] = {table + static_cast<long long>(s.phase) * kStride};
    float const* x[kChannels];
    for (int c = 0; c < kChannels; ++c) {
        x[c] = planes[c] + s.firstTap;
    }
    V8 one[1][kChannels];
    DotLanes<kStride, 1, kChannels>(rows, x, one);
    for (int c = 0; c < kChannels; ++c) {
        lanes[c] = one[0][c];
    }
}

// One or two channels.
//
// Output k + phases uses the same row as output k, `step` input frames later. So where the
// output and the input both reach that far, outputs go in blocks of 2 * phases, each row serving
// an output of the first half and its twin in the second: a row is loaded once for two outputs,
// and while it is still in the nearest cache. Elsewhere eight lane vectors at a time are summed
// together and stored as one vector; single frames finish the run.
template <int kStride, int kChannels>
TESSEL_KERNEL_INLINE long long
RunNarrow(float const* table, Advance advance, float const* const (&planes)[kChannels],
          long long planeFrames, RateKernelState& s, float* out, long long frames) {
    static_assert(kChannels == 1 || kChannels == 2);
    constexpr int kPerVector = kLanes / kChannels; // frames in eight lane vectors
    constexpr int kPerHalf = kPerVector / 2;
    long long const phases = advance.phases;
    long long const step = advance.step;
    long long made = 0;

    while (made + 2 * phases <= frames && s.firstTap + 2 * step + kStride <= planeFrames) {
        float* const first = out + made * kChannels;
        float* const second = first + phases * kChannels;
        RateKernelState t = s;
        long long i = 0;
        for (; i + kPerHalf <= phases; i += kPerHalf) {
            V8 lanes[8];
#pragma GCC unroll 4
            for (int g = 0; g < kPerHalf; ++g) {
                float const* const rows[1] = {table + static_cast<long long>(t.phase) * kStride};
                float const* x[2 * kChannels];
                for (int c = 0; c < kChannels; ++c) {
                    x[c] = planes[c] + t.firstTap;
                    x[kChannels + c] = planes[c] + t.firstTap + step;
                }
                V8 both[1][2 * kChannels];
                DotLanes<kStride, 1, 2 * kChannels>(rows, x, both);
                for (int c = 0; c < kChannels; ++c) {
                    lanes[g * kChannels + c] = both[0][c];
                    lanes[4 + g * kChannels + c] = both[0][kChannels + c];
                }
                advance(t);
            }
            V8 const totals = Totals(lanes);
            StoreLow(first + i * kChannels, totals);
            StoreHigh(second + i * kChannels, totals);
        }
        for (; i < phases; ++i) {
            V8 lanes[kChannels];
            FrameLanes<kStride, kChannels>(table, planes, t, lanes);
            for (int c = 0; c < kChannels; ++c) {
                first[i * kChannels + c] = Total(lanes[c]);
            }
            RateKernelState twin = t;
            twin.firstTap += step;
            FrameLanes<kStride, kChannels>(table, planes, twin, lanes);
            for (int c = 0; c < kChannels; ++c) {
                second[i * kChannels + c] = Total(lanes[c]);
            }
            advance(t);
        }
        // `t` stands at the second half's first output; the block ends a step after it.
        s.firstTap = t.firstTap + step;
        made += 2 * phases;
    }

    while (made + kPerVector <= frames &&
           s.firstTap + advance.MaxMove(kPerVector - 1) + kStride <= planeFrames) {
        V8 lanes[8];
#pragma GCC unroll 8
        for (int k = 0; k < kPerVector; ++k) {
            V8 frame[kChannels];
            FrameLanes<kStride, kChannels>(table, planes, s, frame);
            for (int c = 0; c < kChannels; ++c) {
                lanes[k * kChannels + c] = frame[c];
            }
            advance(s);
        }
        Store(out + made * kChannels, Totals(lanes));
        made += kPerVector;
    }

    while (made < frames && s.firstTap + kStride <= planeFrames) {
        V8 lanes[kChannels];
        FrameLanes<kStride, kChannels>(table, planes, s, lanes);
        for (int c = 0; c < kChannels; ++c) {
            out[made * kChannels + c] = Total(lanes[c]);
        }
        advance(s);
        ++made;
    }
    return made;
}

template <int kStride>
TESSEL_KERNEL_INLINE long long
RunFixed(float const* table, Advance advance, float const* const* planes, int channels,
         long long planeFrames, RateKernelState& s, float* out, long long frames) {
    if (channels == 1) {
        float const* const mono[1] = {planes[0]};
        return RunNarrow<kStride, 1>(table, advance, mono, planeFrames, s, out, frames);
    }
    if (channels == 2) {
        float const* const stereo[2] = {planes[0], planes[1]};
        return RunNarrow<kStride, 2>(table, advance, stereo, planeFrames, s, out, frames);
    }
    long long made = 0;
    while (made < frames && s.firstTap + kStride <= planeFrames) {
        float const* const rows[1] = {table + static_cast<long long>(s.phase) * kStride};
        for (int c = 0; c < channels; ++c) {
            float const* const x[1] = {planes[c] + s.firstTap};
            V8 one[1][1];
            DotLanes<kStride, 1, 1>(rows, x, one);
            out[made * channels + c] = Total(one[0][0]);
        }
        advance(s);
        ++made;
    }
    return made;
}

TESSEL_KERNEL_CLONES
long long RunStride64(float const* table, Advance advance, float const* const* planes, int channels,
                      long long planeFrames, RateKernelState& state, float* out, long long frames) {
    // A local copy stays in registers rather than being written back through the reference.
    RateKernelState s = state;
    long long const made =
        RunFixed<64>(table, advance, planes, channels, planeFrames, s, out, frames);
    state = s;
    return made;
}

TESSEL_KERNEL_CLONES
long long RunAnyStride(float const* table, int stride, Advance advance, float const* const* planes,
                       int channels, long long planeFrames, RateKernelState& s, float* out,
                       long long frames) {
    long long made = 0;
    while (made < frames && s.firstTap + stride <= planeFrames) {
        float const* row = table + static_cast<long long>(s.phase) * stride;
        for (int c = 0; c < channels; ++c) {
            out[made * channels + c] = DotAny(row, planes[c] + s.firstTap, stride);
        }
        advance(s);
        ++made;
    }
    return made;
}

TESSEL_KERNEL_CLONES
void SplitInto(float const* __restrict in, long long frames, unsigned channels,
               float* __restrict planes, long long planeStride) {
    // The common layouts get loops of their own so the compiler sees the constant stride.
    if (channels == 1) {
        std::memcpy(planes, in, static_cast<std::size_t>(frames) * sizeof(float));
    } else if (channels == 2) {
        float* __restrict const left = planes;
        float* __restrict const right = planes + planeStride;
        for (long long i = 0; i < frames; ++i) {
            left[i] = in[2 * i];
            right[i] = in[2 * i + 1];
        }
    } else {
        for (unsigned c = 0; c < channels; ++c) {
            float* __restrict const plane = planes + c * planeStride;
            for (long long i = 0; i < frames; ++i) {
                plane[i] = in[i * channels + c];
            }
        }
    }
}

} // namespace

long long RateKernelRun(std::span<float const> table, int stride, unsigned phases, unsigned step,
                        std::span<float const* const> planes, long long planeFrames,
                        RateKernelState& state, std::span<float> out) {
    int const channels = static_cast<int>(planes.size());
    if (channels == 0 || stride <= 0 || phases == 0) {
        return 0;
    }
    Advance const advance{step / phases, step % phases, phases, step};
    long long const frames = static_cast<long long>(out.size()) / channels;
    if (stride == 64) {
        return RunStride64(table.data(), advance, planes.data(), channels, planeFrames, state,
                           out.data(), frames);
    }
    return RunAnyStride(table.data(), stride, advance, planes.data(), channels, planeFrames, state,
                        out.data(), frames);
}

void RateKernelSplit(float const* in, long long frames, unsigned channels, float* planes,
                     long long planeStride) {
    if (frames > 0 && channels > 0) {
        SplitInto(in, frames, channels, planes, planeStride);
    }
}

} // namespace llib::detail
