// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/sampleformats.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

namespace {

template <class T>
std::vector<T> Out(std::vector<float> const& in) {
    std::vector<T> out(in.size());
    ConvertSamplesOut<T>(out.data(), in.data(), static_cast<long long>(in.size()));
    return out;
}

template <class T>
std::vector<float> In(std::vector<T> const& in) {
    std::vector<float> out(in.size());
    ConvertSamplesIn<T>(out.data(), in.data(), static_cast<long long>(in.size()));
    return out;
}

int S16(LSF16 v) {
    return static_cast<std::int16_t>(v.bytes[0] | v.bytes[1] << 8);
}
int S16(LSFBE16 v) {
    return static_cast<std::int16_t>(v.bytes[1] | v.bytes[0] << 8);
}

std::int32_t S32(LSF32 v) {
    std::uint32_t u = 0;
    for (int i = 3; i >= 0; --i) {
        u = u << 8 | v.bytes[i];
    }
    return static_cast<std::int32_t>(u);
}

std::int32_t TopOf24(LSFLE24 v) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(v.bytes[0]) << 8 |
                                     static_cast<std::uint32_t>(v.bytes[1]) << 16 |
                                     static_cast<std::uint32_t>(v.bytes[2]) << 24);
}

float const kNaN = std::numeric_limits<float>::quiet_NaN();
float const kInf = std::numeric_limits<float>::infinity();

} // namespace

// Rounding half away from zero and saturation, against values worked out by hand.
TEST(SampleFormats, SixteenBitOutRoundsHalfAwayFromZeroAndSaturates) {
    struct Case {
        float x;
        int expected;
    };
    // 0.5 * 32767 lands exactly on a half step: away from zero in both directions.
    std::vector<Case> const cases = {
        {1.5f, 32767},  {1.0f, 32767}, {-1.0f, -32767}, {-1.5f, -32768}, {0.00001f, 0},
        {-0.00001f, 0}, {0.0f, 0},     {-0.0f, 0},      {kInf, 32767},   {-kInf, -32768},
        {kNaN, 0},      {0.5f, 16384}, {-0.5f, -16384},
    };
    std::vector<float> in;
    for (Case const& c : cases) {
        in.push_back(c.x);
    }
    std::vector<LSF16> const le = Out<LSF16>(in);
    std::vector<LSFBE16> const be = Out<LSFBE16>(in);
    for (std::size_t i = 0; i < cases.size(); ++i) {
        EXPECT_EQ(S16(le[i]), cases[i].expected) << "x = " << cases[i].x;
        EXPECT_EQ(S16(be[i]), cases[i].expected) << "big-endian, x = " << cases[i].x;
    }
    // The bytes really are in the stated order.
    EXPECT_EQ(le[0].bytes[0], 0xFF);
    EXPECT_EQ(le[0].bytes[1], 0x7F);
    EXPECT_EQ(be[0].bytes[0], 0x7F);
    EXPECT_EQ(be[0].bytes[1], 0xFF);
}

// Products at and next to every half step, where a product rounded to single precision can
// land exactly on the half although the exact one does not; the reference rounds in double,
// where the product is exact.
TEST(SampleFormats, SixteenBitOutRoundsTheExactProductNearEveryHalfStep) {
    std::vector<float> in;
    for (int k = -32769; k <= 32767; ++k) {
        auto const half = static_cast<float>((k + 0.5) / 32767.0);
        for (float x : {std::nextafter(half, -2.0f), half, std::nextafter(half, 2.0f)}) {
            in.push_back(x);
            in.push_back(-x);
        }
    }
    std::vector<LSF16> const le = Out<LSF16>(in);
    for (std::size_t i = 0; i < in.size(); ++i) {
        double const product = static_cast<double>(in[i]) * 32767.0;
        double const rounded = std::copysign(std::floor(std::fabs(product) + 0.5), product);
        auto const expected = static_cast<int>(std::clamp(rounded, -32768.0, 32767.0));
        ASSERT_EQ(S16(le[i]), expected) << "x = " << in[i];
    }
}

TEST(SampleFormats, SixteenBitRoundTripsEveryCode) {
    std::vector<LSF16> codes(65536);
    for (int v = -32768; v <= 32767; ++v) {
        auto const u = static_cast<std::uint16_t>(v);
        codes[static_cast<std::size_t>(v + 32768)] =
            LSF16{{static_cast<unsigned char>(u), static_cast<unsigned char>(u >> 8)}};
    }
    std::vector<float> const f = In<LSF16>(codes);
    // Every code reads as the correctly rounded quotient code / 32767, whichever way the build
    // computes it.
    for (int v = -32768; v <= 32767; ++v) {
        ASSERT_EQ(f[static_cast<std::size_t>(v + 32768)], static_cast<float>(v) / 32767.0f)
            << "code " << v;
    }
    EXPECT_EQ(f[65535], 1.0f);
    std::vector<LSF16> const back = Out<LSF16>(f);
    for (std::size_t i = 0; i < codes.size(); ++i) {
        ASSERT_EQ(S16(back[i]), S16(codes[i])) << "code " << S16(codes[i]);
    }
}

TEST(SampleFormats, EightBitFormatsKeepTheirDeliberateTruncation) {
    // Unsigned 8-bit reads 0 slightly below -1 and 128 as silence, and truncates on output.
    std::vector<float> const u = In<LSFU8>({{{0}}, {{128}}, {{255}}, {{1}}});
    EXPECT_FLOAT_EQ(u[0], -128.0f / 127.0f);
    EXPECT_EQ(u[1], 0.0f);
    EXPECT_EQ(u[2], 1.0f);
    EXPECT_EQ(u[3], -1.0f);

    std::vector<float> const x = {1.0f, -1.0f, 0.004f, -0.004f, 0.5f, 2.0f, -2.0f, kNaN};
    std::vector<LSFU8> const uo = Out<LSFU8>(x);
    // truncate(x * 127 + 128): 0.004 gives 128.508 -> 128, -0.004 gives 127.49 -> 127.
    std::vector<int> const uExpected = {255, 1, 128, 127, 191, 255, 0, 128};
    for (std::size_t i = 0; i < x.size(); ++i) {
        EXPECT_EQ(uo[i].bytes[0], uExpected[i]) << "u8, x = " << x[i];
    }

    std::vector<LSFS8> const so = Out<LSFS8>(x);
    std::vector<LSFBE8> const bo = Out<LSFBE8>(x);
    // Signed 8-bit rounds (63.5 -> 64); the big-endian variant truncates (63.5 -> 63).
    std::vector<int> const sExpected = {127, -127, 1, -1, 64, 127, -128, 0};
    std::vector<int> const bExpected = {127, -127, 0, 0, 63, 127, -128, 0};
    for (std::size_t i = 0; i < x.size(); ++i) {
        EXPECT_EQ(static_cast<signed char>(so[i].bytes[0]), sExpected[i]) << "s8, x = " << x[i];
        EXPECT_EQ(static_cast<signed char>(bo[i].bytes[0]), bExpected[i]) << "be8, x = " << x[i];
    }
}

TEST(SampleFormats, TwentyFourBitUsesTheTopBytesOfThirtyTwoBitScale) {
    std::vector<float> const x = {1.0f, -1.0f, 0.5f, -0.5f, 1.5f, -1.5f, kNaN, 1.0e-9f};
    std::vector<LSFLE24> const le = Out<LSFLE24>(x);
    std::vector<LSFBE24> const be = Out<LSFBE24>(x);
    for (std::size_t i = 0; i < x.size(); ++i) {
        double v = static_cast<double>(x[i]) * 2147483647.0;
        v += v >= 0 ? 0.5 : -0.5;
        v = std::isnan(v) ? 0.0 : std::fmin(std::fmax(v, -2147483648.0), 2147483647.0);
        auto const top = static_cast<std::uint32_t>(static_cast<std::int32_t>(v)) & 0xFFFFFF00u;
        EXPECT_EQ(static_cast<std::uint32_t>(TopOf24(le[i])), top) << "x = " << x[i];
        EXPECT_EQ(be[i].bytes[0], le[i].bytes[2]);
        EXPECT_EQ(be[i].bytes[1], le[i].bytes[1]);
        EXPECT_EQ(be[i].bytes[2], le[i].bytes[0]);
    }
    // Reading: the three bytes in the top of an int32, divided in double.
    std::vector<float> const back =
        In<LSFLE24>({{{0x00, 0x00, 0x80}}, {{0xFF, 0xFF, 0x7F}}, {{0x01, 0x00, 0x00}}});
    EXPECT_EQ(back[0], static_cast<float>(-2147483648.0 / 2147483647.0));
    EXPECT_EQ(back[1], static_cast<float>(2147483392.0 / 2147483647.0));
    EXPECT_EQ(back[2], static_cast<float>(256.0 / 2147483647.0));
    std::vector<float> const backBe = In<LSFBE24>({{{0x80, 0x00, 0x00}}, {{0x7F, 0xFF, 0xFF}}});
    EXPECT_EQ(backBe[0], back[0]);
    EXPECT_EQ(backBe[1], back[1]);
}

TEST(SampleFormats, ThirtyTwoBitRoundsInDoubleAndSwapsForBigEndian) {
    std::vector<float> const x = {1.0f, -1.0f, 2.0f, -2.0f, 0.25f, kNaN};
    std::vector<LSF32> const le = Out<LSF32>(x);
    std::vector<LSFBE32> const be = Out<LSFBE32>(x);
    std::vector<std::int32_t> const expected = {2147483647,      -2147483647, 2147483647,
                                                -2147483647 - 1, 536870912,   0};
    for (std::size_t i = 0; i < x.size(); ++i) {
        EXPECT_EQ(S32(le[i]), expected[i]) << "x = " << x[i];
        for (int b = 0; b < 4; ++b) {
            EXPECT_EQ(be[i].bytes[b], le[i].bytes[3 - b]);
        }
    }
    std::vector<float> const back = In<LSFBE32>(be);
    EXPECT_EQ(back[0], 1.0f);
    EXPECT_EQ(back[4], 0.25f);
}

TEST(SampleFormats, FloatFormatsCopyWidenNarrowAndSwapBytes) {
    std::vector<float> const x = {0.1f, -3.75f, 1.0e-30f, kInf};
    std::vector<LSFF32> const f32 = Out<LSFF32>(x);
    std::vector<LSFF64> const f64 = Out<LSFF64>(x);
    std::vector<LSFFRE32> const r32 = Out<LSFFRE32>(x);
    std::vector<LSFFRE64> const r64 = Out<LSFFRE64>(x);
    for (std::size_t i = 0; i < x.size(); ++i) {
        double d = 0;
        std::memcpy(&d, f64[i].bytes, 8);
        EXPECT_EQ(d, static_cast<double>(x[i]));
        for (int b = 0; b < 4; ++b) {
            EXPECT_EQ(r32[i].bytes[b], f32[i].bytes[3 - b]);
        }
        for (int b = 0; b < 8; ++b) {
            EXPECT_EQ(r64[i].bytes[b], f64[i].bytes[7 - b]);
        }
    }
    EXPECT_EQ(In<LSFF32>(f32), x);
    EXPECT_EQ(In<LSFF64>(f64), x);
    EXPECT_EQ(In<LSFFRE32>(r32), x);
    EXPECT_EQ(In<LSFFRE64>(r64), x);
    // 64-bit input narrows to the nearest float.
    double const wide = 0.1;
    LSFF64 w{};
    std::memcpy(w.bytes, &wide, 8);
    EXPECT_EQ(In<LSFF64>({w})[0], 0.1f);
}

TEST(SampleFormats, G711ExpansionMatchesTheStandardTables) {
    // Known points of the G.711 tables (16-bit linear).
    EXPECT_EQ(LG711UlawToLinear(0xFF), 0);
    EXPECT_EQ(LG711UlawToLinear(0x7F), 0);
    EXPECT_EQ(LG711UlawToLinear(0x00), -32124);
    EXPECT_EQ(LG711UlawToLinear(0x80), 32124);
    EXPECT_EQ(LG711UlawToLinear(0xFE), 8);
    EXPECT_EQ(LG711UlawToLinear(0x7E), -8);
    EXPECT_EQ(LG711AlawToLinear(0xD5), 8);
    EXPECT_EQ(LG711AlawToLinear(0x55), -8);
    EXPECT_EQ(LG711AlawToLinear(0xAA), 32256);
    EXPECT_EQ(LG711AlawToLinear(0x2A), -32256);
}

TEST(SampleFormats, G711LawsShareOneDivisorSoTheirPeaksDiffer) {
    std::vector<float> const a = In<LSFALAW>({{{0xAA}}, {{0x2A}}});
    std::vector<float> const u = In<LSFULAW>({{{0x80}}, {{0x00}}});
    EXPECT_EQ(a[0], 1.0f);
    EXPECT_EQ(a[1], -1.0f);
    EXPECT_EQ(u[0], static_cast<float>(32124.0 * 16.0 / 516096.0));
    EXPECT_LT(u[0], a[0]);
}

TEST(SampleFormats, G711CompressionInvertsExpansionForEveryCode) {
    for (int code = 0; code < 256; ++code) {
        auto const c = static_cast<unsigned char>(code);
        std::int16_t const lu = LG711UlawToLinear(c);
        std::int16_t const la = LG711AlawToLinear(c);
        // Mu-law has two codes for zero; both must expand to the same value again.
        EXPECT_EQ(LG711UlawToLinear(LG711LinearToUlaw(lu)), lu) << "mu-law code " << code;
        EXPECT_EQ(LG711AlawToLinear(LG711LinearToAlaw(la)), la) << "A-law code " << code;
        // Through float as well.
        std::vector<float> const fu = In<LSFULAW>({{{c}}});
        std::vector<float> const fa = In<LSFALAW>({{{c}}});
        EXPECT_EQ(LG711UlawToLinear(Out<LSFULAW>(fu)[0].bytes[0]), lu);
        EXPECT_EQ(LG711AlawToLinear(Out<LSFALAW>(fa)[0].bytes[0]), la);
    }
    // Compression is monotonic: louder input never gives a quieter code.
    int previousU = -40000;
    int previousA = -40000;
    for (int v = -32768; v <= 32767; v += 7) {
        int const eu = LG711UlawToLinear(LG711LinearToUlaw(static_cast<std::int16_t>(v)));
        int const ea = LG711AlawToLinear(LG711LinearToAlaw(static_cast<std::int16_t>(v)));
        EXPECT_GE(eu, previousU);
        EXPECT_GE(ea, previousA);
        previousU = eu;
        previousA = ea;
    }
}

// Converting in any chunking gives the same as one call (the loops keep no hidden state).
TEST(SampleFormats, ChunkedConversionEqualsWholeConversion) {
    std::vector<float> x(70001);
    for (std::size_t i = 0; i < x.size(); ++i) {
        x[i] = static_cast<float>(std::sin(static_cast<double>(i) * 0.001) * 1.2);
    }
    std::vector<LSF16> whole(x.size());
    ConvertSamplesOut<LSF16>(whole.data(), x.data(), static_cast<long long>(x.size()));
    std::vector<LSF16> parts(x.size());
    std::size_t at = 0;
    for (std::size_t n : {1u, 7u, 4095u, 65537u, 10000u}) {
        n = std::min(n, x.size() - at);
        ConvertSamplesOut<LSF16>(parts.data() + at, x.data() + at, static_cast<long long>(n));
        at += n;
    }
    ASSERT_EQ(at, x.size());
    EXPECT_EQ(std::memcmp(whole.data(), parts.data(), whole.size() * sizeof(LSF16)), 0);
}
