// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/sampleformats.h"

#include "simdclones.h"

#include <algorithm>
#include <bit>
#include <cstring>

// The loops below are written so the compiler vectorises them: no early exits, no calls left
// after inlining, whole-integer loads and stores where the host order allows. The integer PCM
// conversions are built twice, for AVX2 and for the x86-64 baseline, and picked at load time;
// both builds round exactly alike because this file is compiled without fused multiply-add.

namespace {

constexpr double kScale8 = 127.0;
constexpr float kScale16 = 32767.0f;
constexpr double kScale32 = 2147483647.0;

// The exact roundings work in double precision; the AVX-512 build does eight of them per
// instruction where AVX2 does four, which makes writing 16- and 24-bit samples half as fast
// again on machines that have it.

constexpr bool kHostLittleEndian = std::endian::native == std::endian::little;

// True where the AVX2 build runs, whose byte shuffles are single instructions.
bool HasByteShuffle() {
#if defined(__x86_64__) && !defined(TESSEL_NO_CLONES)
    static bool const has = [] {
        __builtin_cpu_init();
        return __builtin_cpu_supports("avx2") != 0;
    }();
    return has;
#else
    return false;
#endif
}

// True where the build with fused multiply-add runs (the AVX2 and AVX-512 clones).
bool HasFusedMultiplyAdd() {
#if defined(__x86_64__) && !defined(TESSEL_NO_CLONES)
    static bool const has = [] {
        __builtin_cpu_init();
        return __builtin_cpu_supports("fma") != 0;
    }();
    return has;
#else
    return false;
#endif
}

LLIB_SIMD_INLINE int RoundSat32(double v, double lo, double hi) {
    v += v >= 0.0 ? 0.5 : -0.5;
    v = v < lo ? lo : v;
    v = v > hi ? hi : v;
    v = v == v ? v : 0.0;
    return static_cast<int>(v);
}

LLIB_SIMD_INLINE std::int32_t Le24ToTop(unsigned char const* b) {
    auto const u = static_cast<std::uint32_t>(b[0]) << 8 | static_cast<std::uint32_t>(b[1]) << 16 |
                   static_cast<std::uint32_t>(b[2]) << 24;
    return static_cast<std::int32_t>(u);
}

inline std::uint64_t Swap64(std::uint64_t v) {
    return __builtin_bswap64(v);
}

LLIB_SIMD_INLINE std::uint16_t Swap(std::uint16_t v) {
    return __builtin_bswap16(v);
}
LLIB_SIMD_INLINE std::uint32_t Swap(std::uint32_t v) {
    return __builtin_bswap32(v);
}

// A stored integer as the host sees it, and back: one load or store, swapped when the stored
// byte order is not the host's.
template <class U, bool kBigEndian>
LLIB_SIMD_INLINE U LoadStored(unsigned char const* b) {
    U v;
    std::memcpy(&v, b, sizeof v);
    if constexpr (kBigEndian == kHostLittleEndian) {
        v = Swap(v);
    }
    return v;
}

template <class U, bool kBigEndian>
LLIB_SIMD_INLINE void StoreStored(unsigned char* b, U v) {
    if constexpr (kBigEndian == kHostLittleEndian) {
        v = Swap(v);
    }
    std::memcpy(b, &v, sizeof v);
}

template <bool kBigEndian>
LLIB_SIMD_INLINE std::int32_t Load24Top(unsigned char const* b) {
    if constexpr (kBigEndian) {
        unsigned char const le[3] = {b[2], b[1], b[0]};
        return Le24ToTop(le);
    } else {
        return Le24ToTop(b);
    }
}

LLIB_SIMD_INLINE int RoundSat32Full(float x) {
    return RoundSat32(x * kScale32, -2147483648.0, 2147483647.0);
}

// Four 24-bit samples at a time where byte shuffles are cheap (AVX2 machines, little-endian
// hosts): a 16-byte vector holds four samples and the start of a fifth, and one shuffle moves
// each sample to the top of a 32-bit lane or back. The baseline build would spell the shuffle
// out byte by byte, so it keeps to whole 32-bit loads and stores.
using Bytes16 = unsigned char __attribute__((vector_size(16)));
using Int4 = std::int32_t __attribute__((vector_size(16)));
using Float4 = float __attribute__((vector_size(16)));
using Double4 = double __attribute__((vector_size(32)));
using Float8 = float __attribute__((vector_size(32)));
using Int8 = std::int32_t __attribute__((vector_size(32)));
using Short8 = std::int16_t __attribute__((vector_size(16)));

template <bool kBigEndian>
LLIB_SIMD_INLINE Int4 Load24x4(unsigned char const* b) {
    Bytes16 bytes;
    std::memcpy(&bytes, b, sizeof bytes);
    Bytes16 const zero = {};
    Bytes16 top;
    if constexpr (kBigEndian) {
        top = __builtin_shufflevector(bytes, zero, 16, 2, 1, 0, 16, 5, 4, 3, 16, 8, 7, 6, 16, 11,
                                      10, 9);
    } else {
        top = __builtin_shufflevector(bytes, zero, 16, 0, 1, 2, 16, 3, 4, 5, 16, 6, 7, 8, 16, 9, 10,
                                      11);
    }
    return std::bit_cast<Int4>(top);
}

template <bool kBigEndian>
LLIB_SIMD_INLINE void Store24x4(unsigned char* b, Int4 values) {
    auto const bytes = std::bit_cast<Bytes16>(values);
    Bytes16 packed;
    if constexpr (kBigEndian) {
        packed = __builtin_shufflevector(bytes, bytes, 3, 2, 1, 7, 6, 5, 11, 10, 9, 15, 14, 13, 0,
                                         0, 0, 0);
    } else {
        packed = __builtin_shufflevector(bytes, bytes, 1, 2, 3, 5, 6, 7, 9, 10, 11, 13, 14, 15, 0,
                                         0, 0, 0);
    }
    std::memcpy(b, &packed, 12);
}

// v / 32767 rounded as a division rounds it. A division costs several times a multiply, so
// where fused multiply-adds exist the quotient is taken from the reciprocal and corrected once
// by its exact remainder, which gives the same float for every one of the 65536 codes (the
// tests check them all).
template <bool kBigEndian>
LLIB_SIMD_INLINE void In16Body(float* out, unsigned char const* in, long long count, bool fused) {
    if (fused) {
        constexpr float kReciprocal = 1.0f / kScale16;
        for (long long i = 0; i < count; ++i) {
            auto const v =
                static_cast<std::int16_t>(LoadStored<std::uint16_t, kBigEndian>(in + 2 * i));
            float const x = static_cast<float>(v);
            float const q = x * kReciprocal;
            float const remainder = __builtin_fmaf(-q, kScale16, x);
            out[i] = __builtin_fmaf(remainder, kReciprocal, q);
        }
        return;
    }
    for (long long i = 0; i < count; ++i) {
        auto const v = static_cast<std::int16_t>(LoadStored<std::uint16_t, kBigEndian>(in + 2 * i));
        out[i] = static_cast<float>(v) / kScale16;
    }
}

template <bool kBigEndian>
LLIB_SIMD_INLINE void In24Body(float* out, unsigned char const* in, long long count, bool shuffle) {
    long long i = 0;
    if (kHostLittleEndian && shuffle) {
        // Each 16-byte load reads four bytes past its four samples, so it stops in time.
        for (; i + 6 <= count; i += 4) {
            Double4 const v = __builtin_convertvector(Load24x4<kBigEndian>(in + 3 * i), Double4);
            Float4 const f = __builtin_convertvector(v / kScale32, Float4);
            std::memcpy(out + i, &f, sizeof f);
        }
    }
    for (; i < count; ++i) {
        out[i] = static_cast<float>(Load24Top<kBigEndian>(in + 3 * i) / kScale32);
    }
}

template <bool kBigEndian>
LLIB_SIMD_INLINE void In32Body(float* out, unsigned char const* in, long long count) {
    for (long long i = 0; i < count; ++i) {
        auto const v = static_cast<std::int32_t>(LoadStored<std::uint32_t, kBigEndian>(in + 4 * i));
        out[i] = static_cast<float>(v / kScale32);
    }
}

// Eight samples rounded as RoundSat32(x * 32767.0) rounds them, in single precision: the product
// is rounded, but the fused multiply-add gives exactly what the rounding lost, which decides the
// only case that needs it, a product that came out at exactly half a step. Twice the lanes of
// the double-precision path, and the integer narrowing saturates for free.
LLIB_SIMD_INLINE Short8 Round16x8(Float8 x) {
    Float8 const two = Float8{} + 2.0f; // beyond full scale, and far from integer overflow
    x = x == x ? x : Float8{};
    x = x < -two ? -two : x;
    x = x > two ? two : x;
    Float8 const product = x * kScale16;
    Float8 lost;
    for (int l = 0; l < 8; ++l) {
        lost[l] = __builtin_fmaf(x[l], kScale16, -product[l]);
    }
    Int8 const truncated = __builtin_convertvector(product, Int8);
    Float8 const fraction = product - __builtin_convertvector(truncated, Float8); // exact
    Int8 const negative = product < 0.0f;
    Float8 const away = negative ? -fraction : fraction;
    Float8 const awayLost = negative ? -lost : lost;
    Int8 const up = (away > 0.5f) | ((away == 0.5f) & (awayLost >= 0.0f));
    Int8 rounded = truncated + ((negative | 1) & up);
    rounded = rounded < -32768 ? Int8{} - 32768 : rounded;
    rounded = rounded > 32767 ? Int8{} + 32767 : rounded;
    return __builtin_convertvector(rounded, Short8);
}

template <bool kBigEndian>
LLIB_SIMD_INLINE void Out16Body(unsigned char* out, float const* in, long long count, bool fused) {
    long long i = 0;
    if (fused && kHostLittleEndian && !kBigEndian) {
        for (; i + 8 <= count; i += 8) {
            Float8 x;
            std::memcpy(&x, in + i, sizeof x);
            Short8 const v = Round16x8(x);
            std::memcpy(out + 2 * i, &v, sizeof v);
        }
    }
    for (; i < count; ++i) {
        auto const v = static_cast<std::uint16_t>(RoundSat32(in[i] * 32767.0, -32768.0, 32767.0));
        StoreStored<std::uint16_t, kBigEndian>(out + 2 * i, v);
    }
}

template <bool kBigEndian>
LLIB_SIMD_INLINE void Store24(unsigned char* b, int value) {
    auto const v = static_cast<std::uint32_t>(value);
    b[kBigEndian ? 2 : 0] = static_cast<unsigned char>(v >> 8);
    b[1] = static_cast<unsigned char>(v >> 16);
    b[kBigEndian ? 0 : 2] = static_cast<unsigned char>(v >> 24);
}

template <bool kBigEndian>
LLIB_SIMD_INLINE void Out24Body(unsigned char* out, float const* in, long long count,
                                bool shuffle) {
    if (!kHostLittleEndian || !shuffle) {
        for (long long i = 0; i < count; ++i) {
            Store24<kBigEndian>(out + 3 * i, RoundSat32Full(in[i]));
        }
        return;
    }
    // Rounding vectorises on its own and packing takes the shuffle, so the two run as separate
    // passes over a block.
    constexpr long long kBlock = 256;
    alignas(16) std::int32_t rounded[kBlock];
    for (long long at = 0; at < count; at += kBlock) {
        long long const n = std::min(kBlock, count - at);
        for (long long i = 0; i < n; ++i) {
            rounded[i] = RoundSat32Full(in[at + i]);
        }
        unsigned char* const b = out + 3 * at;
        long long i = 0;
        for (; i + 4 <= n; i += 4) {
            Int4 values;
            std::memcpy(&values, rounded + i, sizeof values);
            Store24x4<kBigEndian>(b + 3 * i, values);
        }
        for (; i < n; ++i) {
            Store24<kBigEndian>(b + 3 * i, rounded[i]);
        }
    }
}

template <bool kBigEndian>
LLIB_SIMD_INLINE void Out32Body(unsigned char* out, float const* in, long long count) {
    for (long long i = 0; i < count; ++i) {
        auto const v = static_cast<std::uint32_t>(RoundSat32Full(in[i]));
        StoreStored<std::uint32_t, kBigEndian>(out + 4 * i, v);
    }
}

// The formats with a fast path, one cloned entry point per direction.
enum class Pcm : unsigned char { kU8, k16, k16Be, k24, k24Be, k32, k32Be };

LLIB_SIMD_CLONES
void PcmIn(float* out, unsigned char const* in, long long count, Pcm format, bool shuffle,
           bool fused) {
    switch (format) {
    case Pcm::kU8:
        for (long long i = 0; i < count; ++i) {
            auto const v = static_cast<signed char>(in[i] ^ 0x80);
            out[i] = static_cast<float>(v / kScale8);
        }
        return;
    case Pcm::k16:
        return In16Body<false>(out, in, count, fused);
    case Pcm::k16Be:
        return In16Body<true>(out, in, count, fused);
    case Pcm::k24:
        return In24Body<false>(out, in, count, shuffle);
    case Pcm::k24Be:
        return In24Body<true>(out, in, count, shuffle);
    case Pcm::k32:
        return In32Body<false>(out, in, count);
    case Pcm::k32Be:
        return In32Body<true>(out, in, count);
    }
}

LLIB_SIMD_CLONES
void PcmOut(unsigned char* out, float const* in, long long count, Pcm format, bool shuffle,
            bool fused) {
    switch (format) {
    case Pcm::kU8:
        for (long long i = 0; i < count; ++i) {
            double v = in[i] * kScale8 + 128.0;
            v = v < 0.0 ? 0.0 : v;
            v = v > 255.0 ? 255.0 : v;
            v = v == v ? v : 128.0;
            out[i] = static_cast<unsigned char>(static_cast<int>(v));
        }
        return;
    case Pcm::k16:
        return Out16Body<false>(out, in, count, fused);
    case Pcm::k16Be:
        return Out16Body<true>(out, in, count, fused);
    case Pcm::k24:
        return Out24Body<false>(out, in, count, shuffle);
    case Pcm::k24Be:
        return Out24Body<true>(out, in, count, shuffle);
    case Pcm::k32:
        return Out32Body<false>(out, in, count);
    case Pcm::k32Be:
        return Out32Body<true>(out, in, count);
    }
}

template <class T>
void ConvertIn(float* out, T const* in, long long count, Pcm format) {
    PcmIn(out, reinterpret_cast<unsigned char const*>(in), count, format, HasByteShuffle(),
          HasFusedMultiplyAdd());
}

template <class T>
void ConvertOut(T* out, float const* in, long long count, Pcm format) {
    PcmOut(reinterpret_cast<unsigned char*>(out), in, count, format, HasByteShuffle(),
           HasFusedMultiplyAdd());
}

} // namespace

// ---- stored -> float ----

template <>
void ConvertSamplesIn<LSFU8>(float* out, LSFU8 const* in, long long count) {
    ConvertIn(out, in, count, Pcm::kU8);
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
    ConvertIn(out, in, count, Pcm::k16);
}

template <>
void ConvertSamplesIn<LSFBE16>(float* out, LSFBE16 const* in, long long count) {
    ConvertIn(out, in, count, Pcm::k16Be);
}

template <>
void ConvertSamplesIn<LSFLE24>(float* out, LSFLE24 const* in, long long count) {
    ConvertIn(out, in, count, Pcm::k24);
}

template <>
void ConvertSamplesIn<LSFBE24>(float* out, LSFBE24 const* in, long long count) {
    ConvertIn(out, in, count, Pcm::k24Be);
}

template <>
void ConvertSamplesIn<LSF32>(float* out, LSF32 const* in, long long count) {
    ConvertIn(out, in, count, Pcm::k32);
}

template <>
void ConvertSamplesIn<LSFBE32>(float* out, LSFBE32 const* in, long long count) {
    ConvertIn(out, in, count, Pcm::k32Be);
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
        std::uint32_t const bits = LoadStored<std::uint32_t, true>(in[i].bytes);
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

// ---- float -> stored ----

template <>
void ConvertSamplesOut<LSFU8>(LSFU8* out, float const* in, long long count) {
    ConvertOut(out, in, count, Pcm::kU8);
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
    ConvertOut(out, in, count, Pcm::k16);
}

template <>
void ConvertSamplesOut<LSFBE16>(LSFBE16* out, float const* in, long long count) {
    ConvertOut(out, in, count, Pcm::k16Be);
}

template <>
void ConvertSamplesOut<LSFLE24>(LSFLE24* out, float const* in, long long count) {
    ConvertOut(out, in, count, Pcm::k24);
}

template <>
void ConvertSamplesOut<LSFBE24>(LSFBE24* out, float const* in, long long count) {
    ConvertOut(out, in, count, Pcm::k24Be);
}

template <>
void ConvertSamplesOut<LSF32>(LSF32* out, float const* in, long long count) {
    ConvertOut(out, in, count, Pcm::k32);
}

template <>
void ConvertSamplesOut<LSFBE32>(LSFBE32* out, float const* in, long long count) {
    ConvertOut(out, in, count, Pcm::k32Be);
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
        StoreStored<std::uint32_t, true>(out[i].bytes, bits);
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
