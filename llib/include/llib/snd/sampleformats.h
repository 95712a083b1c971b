// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Stored sample formats and their conversions to and from the engine's 32-bit float samples
// (full scale -1.0 to +1.0, interleaved by channel).
//
// Each format is a tag type LSF... that is also its storage: a struct of the stored bytes with
// alignment 1, so a file buffer of any alignment can be viewed as an array of tags. The two
// conversions take `count` individual sample values (frames times channels), not frames:
//   ConvertSamplesIn<T>(float* out, T const* in, count)   stored -> float
//   ConvertSamplesOut<T>(T* out, float const* in, count)  float -> stored
// Integer outputs round half away from zero (x * scale in double, +-0.5, truncate) and saturate,
// except LSFU8 and LSFBE8, which truncate (kept as the files written so far expect). Integer
// inputs are divided by the positive full scale, so the most negative code reads slightly below
// -1.0. NaN writes as silence. The G.711 laws share one divisor, so A-law full scale reads 1.0
// and mu-law full scale slightly less. Pure functions, callable from any thread.

#include <cstdint>

struct LSFU8 {
    unsigned char bytes[1];
}; // unsigned 8-bit, 128 is silence
struct LSFS8 {
    unsigned char bytes[1];
}; // signed 8-bit
struct LSFBE8 {
    unsigned char bytes[1];
}; // signed 8-bit of big-endian containers
struct LSF16 {
    unsigned char bytes[2];
}; // signed 16-bit little-endian
struct LSFBE16 {
    unsigned char bytes[2];
}; // signed 16-bit big-endian
struct LSFLE24 {
    unsigned char bytes[3];
}; // signed 24-bit little-endian
struct LSFBE24 {
    unsigned char bytes[3];
}; // signed 24-bit big-endian
struct LSF32 {
    unsigned char bytes[4];
}; // signed 32-bit little-endian
struct LSFBE32 {
    unsigned char bytes[4];
}; // signed 32-bit big-endian
struct LSFF32 {
    unsigned char bytes[4];
}; // 32-bit float, native order
struct LSFF64 {
    unsigned char bytes[8];
}; // 64-bit float, native order
struct LSFFRE32 {
    unsigned char bytes[4];
}; // 32-bit float, byte-reversed
struct LSFFRE64 {
    unsigned char bytes[8];
}; // 64-bit float, byte-reversed
struct LSFULAW {
    unsigned char bytes[1];
}; // G.711 mu-law
struct LSFALAW {
    unsigned char bytes[1];
}; // G.711 A-law

template <class T>
void ConvertSamplesIn(float* out, T const* in, long long count);
template <class T>
void ConvertSamplesOut(T* out, float const* in, long long count);

#define LSF_DECLARE(T)                                                                             \
    template <>                                                                                    \
    void ConvertSamplesIn<T>(float* out, T const* in, long long count);                            \
    template <>                                                                                    \
    void ConvertSamplesOut<T>(T * out, float const* in, long long count);
LSF_DECLARE(LSFU8)
LSF_DECLARE(LSFS8)
LSF_DECLARE(LSFBE8)
LSF_DECLARE(LSF16)
LSF_DECLARE(LSFBE16)
LSF_DECLARE(LSFLE24)
LSF_DECLARE(LSFBE24)
LSF_DECLARE(LSF32)
LSF_DECLARE(LSFBE32)
LSF_DECLARE(LSFF32)
LSF_DECLARE(LSFF64)
LSF_DECLARE(LSFFRE32)
LSF_DECLARE(LSFFRE64)
LSF_DECLARE(LSFULAW)
LSF_DECLARE(LSFALAW)
#undef LSF_DECLARE

// The standard G.711 expansions to 16-bit linear and compressions from it.
[[nodiscard]] std::int16_t LG711UlawToLinear(unsigned char code);
[[nodiscard]] std::int16_t LG711AlawToLinear(unsigned char code);
[[nodiscard]] unsigned char LG711LinearToUlaw(std::int16_t linear);
[[nodiscard]] unsigned char LG711LinearToAlaw(std::int16_t linear);
