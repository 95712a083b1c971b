// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/convertrate.h"

#include "tests/support/testsources.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numeric>
#include <vector>

namespace {

double RmsDb(std::vector<float> const& a, std::vector<float> const& b, std::size_t from,
             std::size_t to) {
    double err = 0.0;
    double ref = 0.0;
    for (std::size_t i = from; i < to; ++i) {
        double const d = static_cast<double>(a[i]) - b[i];
        err += d * d;
        ref += static_cast<double>(b[i]) * b[i];
    }
    return 10.0 * std::log10(err / ref);
}

LSoundSource Convert(LSoundSource input, int rate, bool approximate = false,
                     bool normalize = false) {
    return LMakeSource<LSRCConvertRate>(input, rate, approximate, normalize);
}

} // namespace

TEST(ConvertRateBase, ExactModeGivesThePhasesAndStepOfTheReducedRatio) {
    struct Case {
        int in;
        int out;
        unsigned phases;
        unsigned step;
    };
    // A zero or negative output rate means 44100.
    for (Case const c :
         {Case{44100, 48000, 160, 147}, Case{48000, 44100, 147, 160}, Case{44100, 22050, 1, 2},
          Case{44100, 44100, 1, 1}, Case{96000, 48000, 1, 2}, Case{8000, 44100, 441, 80},
          Case{44100, 8000, 80, 441}, Case{11025, 44100, 4, 1}, Case{22050, 32000, 640, 441},
          Case{44100, 44101, 44101, 44100}, Case{48000, 0, 147, 160}, Case{48000, -5, 147, 160}}) {
        LConvertRateBase const filter(c.in, c.out, 63, false);
        EXPECT_EQ(filter.GetPhases(), c.phases) << c.in << " -> " << c.out;
        EXPECT_EQ(filter.GetStep(), c.step) << c.in << " -> " << c.out;
        EXPECT_FALSE(filter.IsApproximate()) << c.in << " -> " << c.out;
    }
}

TEST(ConvertRateBase, CutoffAndWindowFollowTheDirection) {
    LConvertRateBase const same(44100, 44100, 63, false);
    EXPECT_DOUBLE_EQ(same.GetCutoff(), 0.953125);
    EXPECT_DOUBLE_EQ(same.GetBeta(), 4.538);
    LConvertRateBase const up(44100, 48000, 63, false);
    EXPECT_DOUBLE_EQ(up.GetCutoff(), 0.975);
    EXPECT_DOUBLE_EQ(up.GetBeta(), 5.6);
    LConvertRateBase const down(48000, 44100, 63, false);
    EXPECT_DOUBLE_EQ(down.GetCutoff(), 0.871875);
    EXPECT_DOUBLE_EQ(down.GetBeta(), 4.538);
}

TEST(ConvertRateBase, ApproximateModeTakesTheBestFractionWithFewPhases) {
    LConvertRateBase const exactEnough(44100, 48000, 63, true);
    EXPECT_EQ(exactEnough.GetPhases(), 160u);
    EXPECT_EQ(exactEnough.GetStep(), 147u);
    // 44100 / 44101 needs 44101 phases exactly; the approximation searches n below 256.
    LConvertRateBase const approx(44100, 44101, 63, true);
    double const r = 44100.0 / 44101.0;
    double best = r;
    unsigned bestN = 1;
    for (unsigned n = 1; n < 256; ++n) {
        double const err = std::fabs(r - std::floor(r * n + 0.5) / n);
        if (err < best) {
            best = err;
            bestN = n;
        }
    }
    EXPECT_EQ(approx.GetPhases(), bestN);
    EXPECT_EQ(approx.GetStep(), static_cast<unsigned>(std::floor(r * bestN + 0.5)));
    EXPECT_LT(approx.GetPhases(), 256u);
    // An exact ratio too large for memory falls back to the approximation.
    LConvertRateBase const huge(44100, 400009, 63, false);
    EXPECT_TRUE(huge.IsApproximate());
    EXPECT_LT(huge.GetPhases(), 256u);
}

TEST(ConvertRateBase, BesselSeriesStopsAtTheTwelfthPower) {
    EXPECT_EQ(LConvertRateBase::I0(0.0), 1.0);
    for (double x : {0.5, 1.0, 2.0}) {
        EXPECT_NEAR(LConvertRateBase::I0(x), std::cyl_bessel_i(0.0, x),
                    1e-7 * std::cyl_bessel_i(0.0, x));
    }
    // At the up-sampling window parameter the truncation shows: a few tenths of a percent low.
    double const truncated = LConvertRateBase::I0(5.6);
    double const full = std::cyl_bessel_i(0.0, 5.6);
    EXPECT_LT(truncated, full);
    EXPECT_GT(truncated, full * 0.99);
}

TEST(ConvertRateBase, CoefficientsAreTheWindowedSinc) {
    LConvertRateBase const f(44100, 48000, 63, false);
    ASSERT_EQ(f.GetStride(), 64);
    double const fc = 0.975;
    double const beta = 5.6;
    double const pi = 3.14159265358979323846;
    auto expected = [&](unsigned p, int t) {
        double const d = (t - 31) - static_cast<double>(p) / 160.0;
        if (d == 0.0) {
            return fc;
        }
        double const x = pi * fc * d;
        double const window = LConvertRateBase::I0(beta * std::sqrt(1.0 - d * d / (32.0 * 32.0)));
        return fc / LConvertRateBase::I0(beta) * std::sin(x) / x * window;
    };
    for (unsigned p : {0u, 1u, 80u, 159u}) {
        for (int t : {0, 1, 30, 31, 32, 62}) {
            EXPECT_FLOAT_EQ(f.GetRow(p)[t], static_cast<float>(expected(p, t)))
                << "phase " << p << " tap " << t;
        }
        EXPECT_EQ(f.GetRow(p)[63], 0.0f) << "the padding tap must stay zero";
    }
    EXPECT_EQ(f.GetRow(0)[31], 0.975f);
    // The window does not reach zero at the outermost taps (its width is taps / 2 + 1).
    EXPECT_NE(f.GetRow(0)[0], 0.0f);
}

TEST(ConvertRateBase, EveryPhaseHasNearUnityDcGain) {
    for (auto [in, out] : {std::pair{44100, 48000}, std::pair{48000, 44100},
                           std::pair{44100, 22050}, std::pair{8000, 44100}}) {
        LConvertRateBase const plain(in, out, 63, false);
        LConvertRateBase const normalized(in, out, 63, false, true);
        for (unsigned p = 0; p < plain.GetPhases(); ++p) {
            float const* row = plain.GetRow(p);
            double const sum = std::accumulate(row, row + 64, 0.0);
            EXPECT_NEAR(sum, 1.0, 0.01) << in << " -> " << out << " phase " << p;
            float const* nrow = normalized.GetRow(p);
            EXPECT_NEAR(std::accumulate(nrow, nrow + 64, 0.0), 1.0, 1e-6);
        }
    }
}

TEST(ConvertRate, LengthAndPositionsAreInOutputFrames) {
    struct Case {
        int in;
        int out;
        long long frames;
        long long expected;
    };
    for (Case c : {Case{44100, 48000, 44100, 48000}, Case{48000, 44100, 48000, 44100},
                   Case{44100, 48000, 1, 2}, Case{44100, 22050, 5, 3}, Case{8000, 44100, 3, 17},
                   Case{44100, 48000, 0, 0}}) {
        LSoundSource s = Convert(LMakeSource<LTestStaircaseSource>(c.in, 1, c.frames), c.out);
        EXPECT_EQ(s->GetEndSample(), c.expected) << c.in << " -> " << c.out << ", " << c.frames;
        EXPECT_EQ(s->GetSampleRate(), c.out);
        std::vector<float> out(17);
        s->Read(out.data(), 17);
        EXPECT_EQ(s->GetPositionSample(), 17);
    }
}

TEST(ConvertRate, SineSurvivesARoundTripThroughAnotherRate) {
    long long const frames = 44100;
    std::vector<float> const original = MakeSine(44100, 1, 1000.0, 0.5, frames);
    LSoundSource up = Convert(MakeBufferSource(44100, 1, original), 48000);
    LSoundSource back = Convert(up, 44100);
    ASSERT_EQ(back->GetEndSample(), frames);
    std::vector<float> const result = ReadAll(back);
    // Away from the edges, where the filters run into the silence around the signal.
    double const db = RmsDb(result, original, 200, frames - 200);
    RecordProperty("round_trip_error_db", std::to_string(db));
    EXPECT_LT(db, -60.0);
}

// Every channel count is made by its own arrangement of the work (whole vectors of frames for
// 1, 2 and 4 channels, blocks of up to eight channels otherwise, overlapping above eight), but
// each sample must come out exactly as the mono conversion of its channel.
TEST(ConvertRate, EveryChannelEqualsThatChannelConvertedAlone) {
    long long const frames = 20000;
    std::vector<float> const left = MakeNoise(1, frames, 0.8, 11);
    std::vector<float> const right = MakeNoise(1, frames, 0.8, 12);
    LSoundSource l = Convert(MakeBufferSource(44100, 1, left), 48000);
    LSoundSource r = Convert(MakeBufferSource(44100, 1, right), 48000);
    std::vector<float> const lo = ReadAll(l);
    std::vector<float> const ro = ReadAll(r);
    for (unsigned char channels : {2, 3, 4, 6, 10}) {
        // Channel c carries the left signal when c is even, the right when odd.
        std::vector<float> input;
        for (long long f = 0; f < frames; ++f) {
            for (unsigned c = 0; c < channels; ++c) {
                input.push_back(c % 2 == 0 ? left[f] : right[f]);
            }
        }
        LSoundSource multi = Convert(MakeBufferSource(44100, channels, input), 48000);
        std::vector<float> const m = ReadAll(multi, 999);
        ASSERT_EQ(m.size(), lo.size() * channels);
        for (std::size_t f = 0; f < lo.size(); ++f) {
            for (unsigned c = 0; c < channels; ++c) {
                ASSERT_EQ(m[f * channels + c], c % 2 == 0 ? lo[f] : ro[f])
                    << int{channels} << " channels, frame " << f << ", channel " << c;
            }
        }
    }
}

// Output k is the dot product of row (k * S) mod P with the input frames from
// floor(k * S / P) - 31 on, frames outside the input counting as silence. Checked in double
// precision for ratios up and down, a steep reduction (a group's outputs spread over many input
// frames), channel counts on each arrangement, and a ratio with so many phases that the rows are
// used directly.
TEST(ConvertRate, EveryOutputIsItsRowTimesItsInputFrames) {
    struct Case {
        int in;
        int out;
        unsigned char channels;
    };
    for (Case const c : {Case{44100, 48000, 1}, Case{44100, 48000, 2}, Case{48000, 44100, 4},
                         Case{44100, 8000, 2}, Case{8000, 44100, 1}, Case{44100, 48000, 3},
                         Case{22050, 48000, 10}, Case{44100, 47999, 2}}) {
        long long const frames = 3000;
        std::vector<float> const input = MakeNoise(c.channels, frames, 0.9, 21);
        LSoundSource s = Convert(MakeBufferSource(c.in, c.channels, input), c.out);
        auto const* converter = dynamic_cast<LSRCConvertRate const*>(s.Get());
        ASSERT_NE(converter, nullptr);
        LConvertRateBase const& filter = converter->GetFilter();
        std::vector<float> const got = ReadAll(s, 333);
        long long const made = static_cast<long long>(got.size()) / c.channels;
        ASSERT_EQ(made, s->GetEndSample());
        for (long long k = 0; k < made; k += 7) {
            long long const position = k * filter.GetStep();
            float const* row = filter.GetRow(static_cast<unsigned>(position % filter.GetPhases()));
            long long const first = position / filter.GetPhases() - kLConvertRateTaps / 2;
            for (unsigned ch = 0; ch < c.channels; ++ch) {
                double expected = 0.0;
                for (int t = 0; t < kLConvertRateTaps; ++t) {
                    long long const f = first + t;
                    if (f >= 0 && f < frames) {
                        expected += static_cast<double>(row[t]) *
                                    input[static_cast<std::size_t>(f * c.channels + ch)];
                    }
                }
                ASSERT_NEAR(got[static_cast<std::size_t>(k * c.channels + ch)], expected, 2e-6)
                    << c.in << " -> " << c.out << ", " << int{c.channels} << " channels, frame "
                    << k << ", channel " << ch;
            }
        }
    }
}

TEST(ConvertRate, ReadsInAnyChunkingAndSeeksGiveTheSameFrames) {
    long long const frames = 30000;
    std::vector<float> const input = MakeNoise(2, frames, 0.5, 3);
    for (auto [in, out] : {std::pair{44100, 48000}, std::pair{48000, 44100}, std::pair{44100, 8000},
                           std::pair{44100, 47999}}) {
        LSoundSource whole = Convert(MakeBufferSource(in, 2, input), out);
        long long const total = whole->GetEndSample();
        std::vector<float> const expected = ReadAll(whole, total);

        LSoundSource parts = Convert(MakeBufferSource(in, 2, input), out);
        std::vector<float> got;
        long long done = 0;
        for (long long n : {1LL, 7LL, 4095LL, 65537LL}) {
            n = std::min(n, total - done);
            std::vector<float> chunk(static_cast<std::size_t>(n) * 2);
            parts->Read(chunk.data(), n);
            got.insert(got.end(), chunk.begin(), chunk.end());
            done += n;
        }
        ASSERT_EQ(done, total);
        EXPECT_EQ(got, expected) << in << " -> " << out;

        for (long long at : {0LL, 1LL, 31LL, 4099LL, total / 2, total - 5}) {
            LSoundSource seeker = Convert(MakeBufferSource(in, 2, input), out);
            std::vector<float> skip(16 * 2);
            seeker->Read(skip.data(), 16);
            seeker->Seek(at);
            EXPECT_EQ(seeker->GetPositionSample(), at);
            long long const n = std::min<long long>(300, total - at);
            std::vector<float> const after = ReadAll(seeker, 64, n);
            for (long long i = 0; i < n * 2; ++i) {
                ASSERT_EQ(after[static_cast<std::size_t>(i)],
                          expected[static_cast<std::size_t>(at * 2 + i)])
                    << in << " -> " << out << " seek " << at << " sample " << i;
            }
        }
    }
}

TEST(ConvertRate, DownSamplingRemovesWhatCannotBeRepresented) {
    // A 15 kHz tone has no place at 22050 Hz: it must not come back as a 7 kHz alias.
    std::vector<float> const tone = MakeSine(44100, 1, 15000.0, 0.5, 44100);
    LSoundSource s = Convert(MakeBufferSource(44100, 1, tone), 22050);
    std::vector<float> const out = ReadAll(s);
    double energy = 0.0;
    for (std::size_t i = 200; i + 200 < out.size(); ++i) {
        energy += static_cast<double>(out[i]) * out[i];
    }
    double const rms = std::sqrt(energy / static_cast<double>(out.size() - 400));
    EXPECT_LT(rms, 0.5 / std::sqrt(2.0) * 0.01); // at least 40 dB down
}

TEST(ConvertRate, StartsAtTheInputsCurrentPositionWithoutSeekingIt) {
    LSoundSource input = LMakeSource<LTestStaircaseSource>(44100, 1, 10000);
    std::vector<float> skip(441);
    input->Read(skip.data(), 441);
    LSoundSource s = Convert(input, 48000);
    EXPECT_EQ(s->GetPositionSample(), 480); // 441 input frames = 480 output frames
    EXPECT_EQ(s->GetEndSample(), 10885);    // ceil(10000 * 160 / 147)
}

TEST(ConvertRate, LevelsStayWhereTheyWere) {
    // A constant comes out at its level away from the edges.
    LSoundSource flat = Convert(MakeBufferSource(44100, 1, std::vector<float>(10000, 0.5f)), 48000);
    std::vector<float> const level = ReadAll(flat);
    for (std::size_t i = 100; i + 100 < level.size(); ++i) {
        ASSERT_NEAR(level[i], 0.5f, 0.005f) << i;
    }
    // A steep reduction, whose groups of outputs spread over many input frames, stays bounded.
    LSoundSource steep = Convert(MakeBufferSource(192000, 1, MakeNoise(1, 192000, 0.9, 5)), 4000);
    EXPECT_EQ(steep->GetEndSample(), 4000);
    for (float v : ReadAll(steep)) {
        ASSERT_TRUE(std::isfinite(v));
        ASSERT_LT(std::fabs(v), 2.0f);
    }
}

TEST(ConvertRate, InputInErrorMakesTheConverterInError) {
    LSoundSource s = Convert(LMakeErrorSource(LSoundSourceErrorCode::kCannotOpen), 48000);
    EXPECT_EQ(s->GetError(), LSoundSourceErrorCode::kInputError);
    std::vector<float> out(100, 1.0f);
    s->Read(out.data(), 100);
    EXPECT_EQ(out, std::vector<float>(100, 0.0f));
}
