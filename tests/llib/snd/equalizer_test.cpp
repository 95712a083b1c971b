// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/equalizer.h"
#include "llib/snd/mixsimple.h"

#include "tests/support/testsources.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <vector>

namespace {

constexpr int kRate = 44100;

// The amplitude of the `hz` component of channel 0 over frames [from, to), by correlation with
// a sine and a cosine (exact for a whole number of periods; close enough over thousands).
double ToneAmplitude(std::vector<float> const& samples, unsigned channels, double hz,
                     long long from, long long to) {
    double s = 0.0;
    double c = 0.0;
    for (long long f = from; f < to; ++f) {
        double const phase = 2.0 * std::numbers::pi * hz * static_cast<double>(f) / kRate;
        double const v = samples[static_cast<std::size_t>(f) * channels];
        s += v * std::sin(phase);
        c += v * std::cos(phase);
    }
    return 2.0 * std::hypot(s, c) / static_cast<double>(to - from);
}

double Db(double ratio) {
    return 20.0 * std::log10(ratio);
}

LSPEq Curve(std::initializer_list<LEqPoint> points, int rateHz = kRate) {
    LPointList list;
    for (LEqPoint const& p : points) {
        list.Add(p.hz, p.db);
    }
    LSPEq eq;
    list.MapPointListToEq(eq, rateHz);
    return eq;
}

// The band stop the editor takes a band out with: 2 to 6 kHz down by 60 dB.
LSPEq BandStop() {
    return Curve({{10, 0}, {1999, 0}, {2000, -60}, {6000, -60}, {6001, 0}, {20000, 0}});
}

std::vector<float> ThreeTones(long long frames) {
    std::vector<float> a = MakeSine(kRate, 2, 500.0, 0.3, frames);
    std::vector<float> const b = MakeSine(kRate, 2, 4000.0, 0.3, frames);
    std::vector<float> const c = MakeSine(kRate, 2, 12000.0, 0.3, frames);
    for (std::size_t i = 0; i < a.size(); ++i) {
        a[i] += b[i] + c[i];
    }
    return a;
}

} // namespace

TEST(PointList, InterpolatesGainsAndHoldsTheEnds) {
    LPointList list;
    EXPECT_EQ(list.GetGainDb(1000.0), 0.0);
    list.Add(1000.0, -10.0);
    list.Add(100.0, 0.0);
    list.Add(1000.0, -30.0); // a jump: the later point rules from 1000 Hz on
    list.Add(2000.0, -20.0);
    EXPECT_EQ(list.GetPoints().front().hz, 100.0);
    EXPECT_EQ(list.GetGainDb(10.0), 0.0);
    EXPECT_DOUBLE_EQ(list.GetGainDb(550.0), -5.0);
    EXPECT_DOUBLE_EQ(list.GetGainDb(1000.0), -30.0);
    EXPECT_DOUBLE_EQ(list.GetGainDb(1500.0), -25.0);
    EXPECT_EQ(list.GetGainDb(5000.0), -20.0);
}

TEST(Equalizer, FlatCurveGivesTheInputBackAlignedAtAnyReadSize) {
    long long const frames = 40000;
    std::vector<float> const input = MakeNoise(2, frames, 0.5, 7);
    LSPEq eq = Curve({{10, 0}, {20000, 0}});
    std::vector<float> reference;
    for (long long chunk : {8192LL, 7LL, 1LL}) {
        LSoundSource source = MakeBufferSource(kRate, 2, input);
        LSoundSource out = eq.OpenSource(source);
        std::vector<float> const got = ReadAll(out, chunk);
        ASSERT_EQ(got.size(), input.size());
        if (reference.empty()) {
            reference = got;
            for (std::size_t i = 0; i < got.size(); ++i) {
                ASSERT_NEAR(got[i], input[i], 2e-4) << i;
            }
        } else {
            ASSERT_EQ(got, reference) << "chunk " << chunk;
        }
    }
}

TEST(Equalizer, BandStopTakesTheBandOutAndLeavesTheRest) {
    long long const frames = kRate;
    std::vector<float> const input = ThreeTones(frames);
    LSoundSource source = MakeBufferSource(kRate, 2, input);
    LSPEq eq = BandStop();
    LSoundSource filtered = eq.OpenSource(source);
    std::vector<float> const out = ReadAll(filtered);
    long long const from = 4000;
    long long const to = frames - 4000;
    EXPECT_NEAR(Db(ToneAmplitude(out, 2, 500.0, from, to) / 0.3), 0.0, 0.01);
    EXPECT_NEAR(Db(ToneAmplitude(out, 2, 12000.0, from, to) / 0.3), 0.0, 0.01);
    EXPECT_NEAR(Db(ToneAmplitude(out, 2, 4000.0, from, to) / 0.3), -60.0, 1.0);
    // No delay: what is left of the tones is where the input had them, sample for sample.
    std::vector<float> const outside = [&] {
        std::vector<float> a = MakeSine(kRate, 2, 500.0, 0.3, frames);
        std::vector<float> const c = MakeSine(kRate, 2, 12000.0, 0.3, frames);
        for (std::size_t i = 0; i < a.size(); ++i) {
            a[i] += c[i];
        }
        return a;
    }();
    for (long long f = from; f < to; f += 97) {
        for (std::size_t c = 0; c < 2; ++c) {
            std::size_t const i = static_cast<std::size_t>(f) * 2 + c;
            ASSERT_NEAR(out[i], outside[i], 2e-3) << f;
        }
    }
}

TEST(Equalizer, StopAndPassCurvesAddUpToTheInput) {
    long long const frames = 30000;
    std::vector<float> const input = MakeNoise(1, frames, 0.5, 3);
    LSPEq stop = Curve({{10, 0}, {799, 0}, {800, -200}, {3000, -200}, {3001, 0}, {20000, 0}});
    LSPEq pass = Curve({{10, -200}, {799, -200}, {800, 0}, {3000, 0}, {3001, -200}, {20000, -200}});
    LSoundSource a = MakeBufferSource(kRate, 1, input);
    LSoundSource b = MakeBufferSource(kRate, 1, input);
    LSoundSource stopped = stop.OpenSource(a);
    LSoundSource passed = pass.OpenSource(b);
    LSoundSource sum = LSPMixSimple(passed).OpenSource(stopped);
    std::vector<float> const out = ReadAll(sum, 1000);
    ASSERT_EQ(out.size(), input.size());
    double error = 0.0;
    for (std::size_t i = 0; i < out.size(); ++i) {
        error = std::max(error, static_cast<double>(std::abs(out[i] - input[i])));
    }
    // Only where a grid point falls inside a 1 Hz transition do the two not add to exactly one.
    EXPECT_LT(error, 0.01);
}

TEST(Equalizer, SeekGivesWhatAContinuousReadGives) {
    long long const frames = 50000;
    std::vector<float> const input = MakeNoise(3, frames, 0.5, 11);
    LSPEq eq = BandStop();
    LSoundSource whole = MakeBufferSource(kRate, 3, input);
    LSoundSource wholeEq = eq.OpenSource(whole);
    std::vector<float> const expected = ReadAll(wholeEq);
    for (long long at : {0LL, 1LL, 12287LL, 33333LL}) {
        LSoundSource source = MakeBufferSource(kRate, 3, input);
        LSoundSource filtered = eq.OpenSource(source);
        std::vector<float> skip(3 * 20000);
        filtered->Read(skip.data(), 20000);
        filtered->Seek(at);
        EXPECT_EQ(filtered->GetPositionSample(), at);
        std::vector<float> const got = ReadAll(filtered, 4096);
        ASSERT_EQ(got.size(), expected.size() - static_cast<std::size_t>(at) * 3);
        for (std::size_t i = 0; i < got.size(); i += 7) {
            ASSERT_NEAR(got[i], expected[static_cast<std::size_t>(at) * 3 + i], 1e-5) << at;
        }
    }
}

TEST(Equalizer, CurveMadeAtOneRateAppliesAtAnother) {
    // Designed at 44.1 kHz, used at 96 kHz: the band is still 2 to 6 kHz.
    LSPEq eq = BandStop();
    int const rate = 96000;
    long long const frames = rate;
    std::vector<float> in = MakeSine(rate, 1, 4000.0, 0.5, frames);
    std::vector<float> const low = MakeSine(rate, 1, 1000.0, 0.5, frames);
    LSoundSource a = MakeBufferSource(rate, 1, in);
    LSoundSource b = MakeBufferSource(rate, 1, low);
    LSoundSource fa = eq.OpenSource(a);
    LSoundSource fb = eq.OpenSource(b);
    std::vector<float> const outA = ReadAll(fa);
    std::vector<float> const outB = ReadAll(fb);
    double peakA = 0.0;
    double peakB = 0.0;
    for (long long f = 10000; f < frames - 10000; ++f) {
        peakA = std::max(peakA, static_cast<double>(std::abs(outA[static_cast<std::size_t>(f)])));
        peakB = std::max(peakB, static_cast<double>(std::abs(outB[static_cast<std::size_t>(f)])));
    }
    EXPECT_LT(Db(peakA / 0.5), -55.0);
    EXPECT_NEAR(Db(peakB / 0.5), 0.0, 0.02);
}

TEST(MixSimple, AddsTwoSourcesForTheLongerOnesLength) {
    LSoundSource input = MakeBufferSource(100, 2, {0.25f, 0.5f, 0.25f, 0.5f});
    // Mono other source, fitted to two channels: each frame on both.
    LSoundSource other = MakeBufferSource(100, 1, {0.125f, -0.125f, 1.0f});
    LSoundSource mixed = LSPMixSimple(other).OpenSource(input);
    EXPECT_EQ(mixed->GetEndSample(), 3);
    std::vector<float> const out = ReadAll(mixed, 2);
    std::vector<float> const expected{0.375f, 0.625f, 0.125f, 0.375f, 1.0f, 1.0f};
    EXPECT_EQ(out, expected);
    mixed->Seek(1);
    std::vector<float> const again = ReadAll(mixed, 1);
    EXPECT_EQ(again, std::vector<float>(expected.begin() + 2, expected.end()));
}
