// SPDX-License-Identifier: GPL-3.0-or-later
#include "ratekernel.h"

// Built twice, for the x86-64 baseline and for AVX2 with FMA, and picked at load time: the dot
// products below are the whole cost of resampling. Each is summed in eight independent lanes,
// which the compiler maps onto vector registers without reordering any single lane's sum.
#if defined(__x86_64__) && !defined(__SANITIZE_ADDRESS__)
#define TESSEL_KERNEL_CLONES __attribute__((target_clones("arch=x86-64-v3", "default")))
#else
#define TESSEL_KERNEL_CLONES
#endif

namespace llib::detail {

namespace {

constexpr int kLanes = 8;

template <int kStride>
inline void Dot1(float const* row, float const* x, float* out) {
    float acc[kLanes] = {};
    for (int t = 0; t < kStride; t += kLanes) {
        for (int l = 0; l < kLanes; ++l) {
            acc[l] += row[t + l] * x[t + l];
        }
    }
    *out = ((acc[0] + acc[4]) + (acc[1] + acc[5])) + ((acc[2] + acc[6]) + (acc[3] + acc[7]));
}

// Both channels share each coefficient load.
template <int kStride>
inline void Dot2(float const* row, float const* x0, float const* x1, float* out) {
    float a0[kLanes] = {};
    float a1[kLanes] = {};
    for (int t = 0; t < kStride; t += kLanes) {
        for (int l = 0; l < kLanes; ++l) {
            a0[l] += row[t + l] * x0[t + l];
            a1[l] += row[t + l] * x1[t + l];
        }
    }
    out[0] = ((a0[0] + a0[4]) + (a0[1] + a0[5])) + ((a0[2] + a0[6]) + (a0[3] + a0[7]));
    out[1] = ((a1[0] + a1[4]) + (a1[1] + a1[5])) + ((a1[2] + a1[6]) + (a1[3] + a1[7]));
}

inline float DotAny(float const* row, float const* x, int stride) {
    float acc[kLanes] = {};
    for (int t = 0; t < stride; t += kLanes) {
        for (int l = 0; l < kLanes; ++l) {
            acc[l] += row[t + l] * x[t + l];
        }
    }
    return ((acc[0] + acc[4]) + (acc[1] + acc[5])) + ((acc[2] + acc[6]) + (acc[3] + acc[7]));
}

struct Advance {
    unsigned whole; // step / phases
    unsigned part;  // step % phases
    unsigned phases;
    void operator()(RateKernelState& s) const {
        s.firstTap += whole;
        s.phase += part;
        if (s.phase >= phases) {
            s.phase -= phases;
            ++s.firstTap;
        }
    }
};

template <int kStride>
long long RunFixed(float const* table, Advance advance, float const* const* planes, int channels,
                   long long planeFrames, RateKernelState& s, float* out, long long frames) {
    long long made = 0;
    if (channels == 1) {
        float const* p0 = planes[0];
        while (made < frames && s.firstTap + kStride <= planeFrames) {
            Dot1<kStride>(table + static_cast<long long>(s.phase) * kStride, p0 + s.firstTap,
                          out + made);
            advance(s);
            ++made;
        }
    } else if (channels == 2) {
        float const* p0 = planes[0];
        float const* p1 = planes[1];
        while (made < frames && s.firstTap + kStride <= planeFrames) {
            Dot2<kStride>(table + static_cast<long long>(s.phase) * kStride, p0 + s.firstTap,
                          p1 + s.firstTap, out + 2 * made);
            advance(s);
            ++made;
        }
    } else {
        while (made < frames && s.firstTap + kStride <= planeFrames) {
            float const* row = table + static_cast<long long>(s.phase) * kStride;
            float* o = out + made * channels;
            for (int c = 0; c < channels; ++c) {
                Dot1<kStride>(row, planes[c] + s.firstTap, o + c);
            }
            advance(s);
            ++made;
        }
    }
    return made;
}

TESSEL_KERNEL_CLONES
long long RunStride64(float const* table, Advance advance, float const* const* planes,
                      int channels, long long planeFrames, RateKernelState& s, float* out,
                      long long frames) {
    return RunFixed<64>(table, advance, planes, channels, planeFrames, s, out, frames);
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

} // namespace

long long RateKernelRun(std::span<float const> table, int stride, unsigned phases, unsigned step,
                        std::span<float const* const> planes, long long planeFrames,
                        RateKernelState& state, std::span<float> out) {
    int const channels = static_cast<int>(planes.size());
    if (channels == 0 || stride <= 0 || phases == 0) {
        return 0;
    }
    Advance const advance{step / phases, step % phases, phases};
    long long const frames = static_cast<long long>(out.size()) / channels;
    if (stride == 64) {
        return RunStride64(table.data(), advance, planes.data(), channels, planeFrames, state,
                           out.data(), frames);
    }
    return RunAnyStride(table.data(), stride, advance, planes.data(), channels, planeFrames,
                        state, out.data(), frames);
}

} // namespace llib::detail
