// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/sampleformats.h"

#include <array>
#include <cstring>

// The loops below are written so the compiler vectorises them: no early exits, no calls left
// after inlining, byte assembly that folds into plain loads on little-endian machines.

namespace {

constexpr double kScale8 = 127.0;
constexpr float kScale16 = 32767.0f;
constexpr double kScale32 = 2147483647.0;
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

inline int RoundSat32(double v, double lo, double hi) {
    v += v >= 0.0 ? 0.5 : -0.5;
    v = v < lo ? lo : v;
    v = v > hi ? hi : v;
    v = v == v ? v : 0.0;
    return static_cast<int>(v);
}

inline std::int32_t Le24ToTop(unsigned char const* b) {
    auto const u = static_cast<std::uint32_t>(b[0]) << 8 | static_cast<std::uint32_t>(b[1]) << 16 |
                   static_cast<std::uint32_t>(b[2]) << 24;
    return static_cast<std::int32_t>(u);
}

inline std::uint32_t Load32Le(unsigned char const* b) {
    return static_cast<std::uint32_t>(b[0]) | static_cast<std::uint32_t>(b[1]) << 8 |
           static_cast<std::uint32_t>(b[2]) << 16 | static_cast<std::uint32_t>(b[3]) << 24;
}

inline std::uint32_t Load32Be(unsigned char const* b) {
    return static_cast<std::uint32_t>(b[3]) | static_cast<std::uint32_t>(b[2]) << 8 |
           static_cast<std::uint32_t>(b[1]) << 16 | static_cast<std::uint32_t>(b[0]) << 24;
}

inline void Store32Le(unsigned char* b, std::uint32_t v) {
    b[0] = static_cast<unsigned char>(v);
    b[1] = static_cast<unsigned char>(v >> 8);
    b[2] = static_cast<unsigned char>(v >> 16);
    b[3] = static_cast<unsigned char>(v >> 24);
}

inline void Store32Be(unsigned char* b, std::uint32_t v) {
    b[3] = static_cast<unsigned char>(v);
    b[2] = static_cast<unsigned char>(v >> 8);
    b[1] = static_cast<unsigned char>(v >> 16);
    b[0] = static_cast<unsigned char>(v >> 24);
}

inline std::uint64_t Swap64(std::uint64_t v) { return __builtin_bswap64(v); }

std::array<float, 256> MakeG711Table(std::int16_t (*expand)(unsigned char)) {
    std::array<float, 256> table{};
    for (int code = 0; code < 256; ++code) {
        table[code] = static_cast<float>(expand(static_cast<unsigned char>(code)) * 16.0 /
                                         kG711Divisor);
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

// ---- stored -> float ----

template <>
void ConvertSamplesIn<LSFU8>(float* out, LSFU8 const* in, long long count) {
    for (long long i = 0; i < count; ++i) {
        auto const v = static_cast<signed char>(in[i].bytes[0] ^ 0x80);
        out[i] = static_cast<float>(v / kScale8);
    }
}

template <>
void ConvertSamplesIn<LSFS8>(float* out, LSFS8 const* in, long long count) {
    for (long long i = 0; i < count; ++i) {
        out[i] = static_cast<float>(static_cast<signed char>(in[i].bytes[0]) / kScale8);
    }
}

template <>
void ConvertSamplesIn<LSFBE8>(float* out, LSFBE8 const* in, long long count) {
    ConvertSamplesIn<LSFS8>(out, reinterpret_cast<LSFS8 const*>(in), count);
}

template <>
void ConvertSamplesIn<LSF16>(float* out, LSF16 const* in, long long count) {
    for (long long i = 0; i < count; ++i) {
        auto const v = static_cast<std::int16_t>(in[i].bytes[0] | in[i].bytes[1] << 8);
        out[i] = static_cast<float>(v) / kScale16;
    }
}

template <>
void ConvertSamplesIn<LSFBE16>(float* out, LSFBE16 const* in, long long count) {
    for (long long i = 0; i < count; ++i) {
        auto const v = static_cast<std::int16_t>(in[i].bytes[1] | in[i].bytes[0] << 8);
        out[i] = static_cast<float>(v) / kScale16;
    }
}

template <>
void ConvertSamplesIn<LSFLE24>(float* out, LSFLE24 const* in, long long count) {
    for (long long i = 0; i < count; ++i) {
        out[i] = static_cast<float>(Le24ToTop(in[i].bytes) / kScale32);
    }
}

template <>
void ConvertSamplesIn<LSFBE24>(float* out, LSFBE24 const* in, long long count) {
    for (long long i = 0; i < count; ++i) {
        unsigned char const le[3] = {in[i].bytes[2], in[i].bytes[1], in[i].bytes[0]};
        out[i] = static_cast<float>(Le24ToTop(le) / kScale32);
    }
}

template <>
void ConvertSamplesIn<LSF32>(float* out, LSF32 const* in, long long count) {
    for (long long i = 0; i < count; ++i) {
        auto const v = static_cast<std::int32_t>(Load32Le(in[i].bytes));
        out[i] = static_cast<float>(v / kScale32);
    }
}

template <>
void ConvertSamplesIn<LSFBE32>(float* out, LSFBE32 const* in, long long count) {
    for (long long i = 0; i < count; ++i) {
        auto const v = static_cast<std::int32_t>(Load32Be(in[i].bytes));
        out[i] = static_cast<float>(v / kScale32);
    }
}

template <>
void ConvertSamplesIn<LSFF32>(float* out, LSFF32 const* in, long long count) {
    if (count > 0) {
        std::memcpy(out, in, static_cast<std::size_t>(count) * sizeof(float));
    }
}

template <>
void ConvertSamplesIn<LSFF64>(float* out, LSFF64 const* in, long long count) {
    for (long long i = 0; i < count; ++i) {
        double v = 0;
        std::memcpy(&v, in[i].bytes, 8);
        out[i] = static_cast<float>(v);
    }
}

template <>
void ConvertSamplesIn<LSFFRE32>(float* out, LSFFRE32 const* in, long long count) {
    for (long long i = 0; i < count; ++i) {
        std::uint32_t const bits = Load32Be(in[i].bytes);
        std::memcpy(&out[i], &bits, 4);
    }
}

template <>
void ConvertSamplesIn<LSFFRE64>(float* out, LSFFRE64 const* in, long long count) {
    for (long long i = 0; i < count; ++i) {
        std::uint64_t bits = 0;
        std::memcpy(&bits, in[i].bytes, 8);
        bits = Swap64(bits);
        double v = 0;
        std::memcpy(&v, &bits, 8);
        out[i] = static_cast<float>(v);
    }
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

// ---- float -> stored ----

template <>
void ConvertSamplesOut<LSFU8>(LSFU8* out, float const* in, long long count) {
    for (long long i = 0; i < count; ++i) {
        double v = in[i] * kScale8 + 128.0;
        v = v < 0.0 ? 0.0 : v;
        v = v > 255.0 ? 255.0 : v;
        v = v == v ? v : 128.0;
        out[i].bytes[0] = static_cast<unsigned char>(static_cast<int>(v));
    }
}

template <>
void ConvertSamplesOut<LSFS8>(LSFS8* out, float const* in, long long count) {
    for (long long i = 0; i < count; ++i) {
        int const v = RoundSat32(in[i] * kScale8, -128.0, 127.0);
        out[i].bytes[0] = static_cast<unsigned char>(v);
    }
}

template <>
void ConvertSamplesOut<LSFBE8>(LSFBE8* out, float const* in, long long count) {
    for (long long i = 0; i < count; ++i) {
        double v = in[i] * kScale8;
        v = v < -128.0 ? -128.0 : v;
        v = v > 127.0 ? 127.0 : v;
        v = v == v ? v : 0.0;
        out[i].bytes[0] = static_cast<unsigned char>(static_cast<int>(v));
    }
}

template <>
void ConvertSamplesOut<LSF16>(LSF16* out, float const* in, long long count) {
    for (long long i = 0; i < count; ++i) {
        int const v = RoundSat32(in[i] * 32767.0, -32768.0, 32767.0);
        out[i].bytes[0] = static_cast<unsigned char>(v);
        out[i].bytes[1] = static_cast<unsigned char>(v >> 8);
    }
}

template <>
void ConvertSamplesOut<LSFBE16>(LSFBE16* out, float const* in, long long count) {
    for (long long i = 0; i < count; ++i) {
        int const v = RoundSat32(in[i] * 32767.0, -32768.0, 32767.0);
        out[i].bytes[1] = static_cast<unsigned char>(v);
        out[i].bytes[0] = static_cast<unsigned char>(v >> 8);
    }
}

template <>
void ConvertSamplesOut<LSFLE24>(LSFLE24* out, float const* in, long long count) {
    for (long long i = 0; i < count; ++i) {
        auto const v = static_cast<std::uint32_t>(
            RoundSat32(in[i] * kScale32, -2147483648.0, 2147483647.0));
        out[i].bytes[0] = static_cast<unsigned char>(v >> 8);
        out[i].bytes[1] = static_cast<unsigned char>(v >> 16);
        out[i].bytes[2] = static_cast<unsigned char>(v >> 24);
    }
}

template <>
void ConvertSamplesOut<LSFBE24>(LSFBE24* out, float const* in, long long count) {
    for (long long i = 0; i < count; ++i) {
        auto const v = static_cast<std::uint32_t>(
            RoundSat32(in[i] * kScale32, -2147483648.0, 2147483647.0));
        out[i].bytes[2] = static_cast<unsigned char>(v >> 8);
        out[i].bytes[1] = static_cast<unsigned char>(v >> 16);
        out[i].bytes[0] = static_cast<unsigned char>(v >> 24);
    }
}

template <>
void ConvertSamplesOut<LSF32>(LSF32* out, float const* in, long long count) {
    for (long long i = 0; i < count; ++i) {
        auto const v = static_cast<std::uint32_t>(
            RoundSat32(in[i] * kScale32, -2147483648.0, 2147483647.0));
        Store32Le(out[i].bytes, v);
    }
}

template <>
void ConvertSamplesOut<LSFBE32>(LSFBE32* out, float const* in, long long count) {
    for (long long i = 0; i < count; ++i) {
        auto const v = static_cast<std::uint32_t>(
            RoundSat32(in[i] * kScale32, -2147483648.0, 2147483647.0));
        Store32Be(out[i].bytes, v);
    }
}

template <>
void ConvertSamplesOut<LSFF32>(LSFF32* out, float const* in, long long count) {
    if (count > 0) {
        std::memcpy(out, in, static_cast<std::size_t>(count) * sizeof(float));
    }
}

template <>
void ConvertSamplesOut<LSFF64>(LSFF64* out, float const* in, long long count) {
    for (long long i = 0; i < count; ++i) {
        double const v = in[i];
        std::memcpy(out[i].bytes, &v, 8);
    }
}

template <>
void ConvertSamplesOut<LSFFRE32>(LSFFRE32* out, float const* in, long long count) {
    for (long long i = 0; i < count; ++i) {
        std::uint32_t bits = 0;
        std::memcpy(&bits, &in[i], 4);
        Store32Be(out[i].bytes, bits);
    }
}

template <>
void ConvertSamplesOut<LSFFRE64>(LSFFRE64* out, float const* in, long long count) {
    for (long long i = 0; i < count; ++i) {
        double const v = in[i];
        std::uint64_t bits = 0;
        std::memcpy(&bits, &v, 8);
        bits = Swap64(bits);
        std::memcpy(out[i].bytes, &bits, 8);
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
