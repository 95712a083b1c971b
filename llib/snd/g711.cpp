// SPDX-License-Identifier: GPL-3.0-or-later
// The G.711 laws: the standard expansions and compressions between 8-bit codes and 16-bit
// linear, and the conversions of LSFULAW and LSFALAW samples to and from float.
#include "llib/snd/sampleformats.h"

#include <array>

namespace {

// G.711 codes expand to 16-bit linear; the divisor applies to that value times 16, which makes
// A-law full scale (32256) exactly 1.0 and mu-law full scale (32124) slightly less.
constexpr double kG711Divisor = 516096.0;

// x * scale rounded half away from zero and saturated to [lo, hi]; NaN gives 0.
inline long long RoundSat(double v, double lo, double hi) {
    v += v >= 0.0 ? 0.5 : -0.5;
    v = v < lo ? lo : v;
    v = v > hi ? hi : v;
    v = v == v ? v : 0.0;
    return static_cast<long long>(v);
}

std::array<float, 256> MakeG711Table(std::int16_t (*expand)(unsigned char)) {
    std::array<float, 256> table{};
    for (int code = 0; code < 256; ++code) {
        table[code] =
            static_cast<float>(expand(static_cast<unsigned char>(code)) * 16.0 / kG711Divisor);
    }
    return table;
}

std::int16_t G711Linear(float x) {
    return static_cast<std::int16_t>(RoundSat(x * (kG711Divisor / 16.0), -32768.0, 32767.0));
}

} // namespace

// ---- G.711 ----

std::int16_t LG711UlawToLinear(unsigned char code) {
    constexpr int kBias = 0x84;
    int const u = ~code & 0xFF;
    int t = ((u & 0x0F) << 3) + kBias;
    t <<= (u & 0x70) >> 4;
    return static_cast<std::int16_t>((u & 0x80) != 0 ? kBias - t : t - kBias);
}

std::int16_t LG711AlawToLinear(unsigned char code) {
    int const a = code ^ 0x55;
    int t = (a & 0x0F) << 4;
    int const segment = (a & 0x70) >> 4;
    if (segment == 0) {
        t += 8;
    } else {
        t += 0x108;
        if (segment > 1) {
            t <<= segment - 1;
        }
    }
    return static_cast<std::int16_t>((a & 0x80) != 0 ? t : -t);
}

unsigned char LG711LinearToUlaw(std::int16_t linear) {
    constexpr int kBias = 0x84;
    constexpr int kClip = 32635;
    int pcm = linear;
    int const sign = pcm < 0 ? 0x80 : 0;
    if (pcm < 0) {
        pcm = -pcm;
    }
    if (pcm > kClip) {
        pcm = kClip;
    }
    pcm += kBias;
    // The segment is the position of the highest set bit among bits 7 to 14.
    int exponent = 7;
    for (int mask = 0x4000; (pcm & mask) == 0 && exponent > 0; mask >>= 1) {
        --exponent;
    }
    int const mantissa = (pcm >> (exponent + 3)) & 0x0F;
    return static_cast<unsigned char>(~(sign | (exponent << 4) | mantissa));
}

unsigned char LG711LinearToAlaw(std::int16_t linear) {
    int pcm = linear >> 3; // 13-bit magnitude domain
    int mask = 0xD5;
    if (pcm < 0) {
        mask = 0x55;
        pcm = -pcm - 1;
    }
    static constexpr int kSegmentEnd[8] = {0x1F, 0x3F, 0x7F, 0xFF, 0x1FF, 0x3FF, 0x7FF, 0xFFF};
    int segment = 0;
    while (segment < 8 && pcm > kSegmentEnd[segment]) {
        ++segment;
    }
    if (segment >= 8) {
        return static_cast<unsigned char>(0x7F ^ mask);
    }
    int value = segment << 4;
    value |= segment < 2 ? (pcm >> 1) & 0x0F : (pcm >> segment) & 0x0F;
    return static_cast<unsigned char>(value ^ mask);
}

template <>
void ConvertSamplesIn<LSFULAW>(float* out, LSFULAW const* in, long long count) {
    static std::array<float, 256> const table = MakeG711Table(LG711UlawToLinear);
    for (long long i = 0; i < count; ++i) {
        out[i] = table[in[i].bytes[0]];
    }
}

template <>
void ConvertSamplesIn<LSFALAW>(float* out, LSFALAW const* in, long long count) {
    static std::array<float, 256> const table = MakeG711Table(LG711AlawToLinear);
    for (long long i = 0; i < count; ++i) {
        out[i] = table[in[i].bytes[0]];
    }
}

template <>
void ConvertSamplesOut<LSFULAW>(LSFULAW* out, float const* in, long long count) {
    for (long long i = 0; i < count; ++i) {
        out[i].bytes[0] = LG711LinearToUlaw(G711Linear(in[i]));
    }
}

template <>
void ConvertSamplesOut<LSFALAW>(LSFALAW* out, float const* in, long long count) {
    for (long long i = 0; i < count; ++i) {
        out[i].bytes[0] = LG711LinearToAlaw(G711Linear(in[i]));
    }
}
