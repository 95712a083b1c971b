// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/peaklimit.h"

#include "tests/support/testsources.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

namespace {

LSoundSource Limit(LSoundSource input, float threshold = kLPeakLimit16Bit) {
    return LSPPeakLimit(threshold).OpenSource(input);
}

long Message(LSoundSource& s, int id) {
    long value = -1;
    EXPECT_EQ(s->ControlMessage(id, &value), 1);
    return value;
}

// Reads with sizes drawn from `seed`, so block boundaries land everywhere.
std::vector<float> ReadRandomly(LSoundSource& s, long long frames, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<long long> size(1, 3000);
    unsigned const channels = s->GetChannels();
    std::vector<float> out;
    long long done = 0;
    while (done < frames) {
        long long const n = std::min(size(rng), frames - done);
        std::vector<float> chunk(static_cast<std::size_t>(n) * channels);
        s->Read(chunk.data(), n);
        out.insert(out.end(), chunk.begin(), chunk.end());
        done += n;
    }
    return out;
}

} // namespace

TEST(PeakLimit, EverySampleStaysWithinTheThreshold) {
    long long const frames = 50000;
    std::vector<std::vector<float>> signals;
    signals.push_back(MakeNoise(2, frames, 4.0, 1));
    signals.push_back(MakeSine(44100, 2, 440.0, 3.0, frames));
    std::vector<float> impulses = MakeNoise(2, frames, 0.3, 2);
    for (long long f = 0; f < frames; f += 997) {
        impulses[static_cast<std::size_t>(2 * f)] = 100.0f; // lone spikes anywhere in a block
    }
    signals.push_back(impulses);
    for (float threshold : {kLPeakLimit16Bit, 0.5f}) {
        for (std::size_t i = 0; i < signals.size(); ++i) {
            LSoundSource s = Limit(MakeBufferSource(44100, 2, signals[i]), threshold);
            std::vector<float> const out = ReadRandomly(s, frames, static_cast<unsigned>(i));
            float peak = 0.0f;
            for (float v : out) {
                peak = std::max(peak, std::fabs(v));
            }
            EXPECT_LE(peak, threshold) << "signal " << i;
            EXPECT_GT(peak, threshold * 0.5f) << "signal " << i << " was limited far too hard";
            EXPECT_EQ(Message(s, 7), 1);
        }
    }
}

TEST(PeakLimit, QuietAudioPassesBitExactAndIsReportedUntouched) {
    std::vector<float> const quiet = MakeNoise(2, 40000, 0.99, 4);
    LSoundSource s = Limit(MakeBufferSource(48000, 2, quiet));
    EXPECT_EQ(ReadRandomly(s, 40000, 9), quiet);
    EXPECT_EQ(Message(s, 7), 0);
}

TEST(PeakLimit, ReportsItsLookAheadAndClearsTheReductionFlagWhenAsked) {
    std::vector<float> loud(2000, 2.0f);
    LSoundSource s = Limit(MakeBufferSource(44100, 1, loud));
    EXPECT_EQ(Message(s, 4), LSRCPeakLimit::kLookAheadFrames);
    EXPECT_EQ(Message(s, 7), 0);
    std::vector<float> out(100);
    s->Read(out.data(), 100);
    EXPECT_EQ(Message(s, 7), 1);
    EXPECT_EQ(Message(s, 7), 0);
    // Unknown messages go to the input, which does not handle them.
    long value = 5;
    EXPECT_EQ(s->ControlMessage(99, &value), 0);
    EXPECT_EQ(value, 5);
}

TEST(PeakLimit, GainComesBackAfterABurst) {
    // Half a second of overload, then quiet audio that must return to its own level.
    int const rate = 44100;
    std::vector<float> signal(static_cast<std::size_t>(rate), 0.25f);
    for (int i = 0; i < rate / 2; ++i) {
        signal[static_cast<std::size_t>(i)] = 2.0f;
    }
    LSoundSource s = Limit(MakeBufferSource(rate, 1, signal));
    std::vector<float> const out = ReadAll(s);
    // Within the burst the level is held at the threshold's worth.
    EXPECT_NEAR(out[static_cast<std::size_t>(rate / 4)], kLPeakLimit16Bit, 1e-3);
    // 200 ms after the burst the quiet part is back to unity gain.
    EXPECT_FLOAT_EQ(out[static_cast<std::size_t>(rate / 2 + rate / 5)], 0.25f);
}

TEST(PeakLimit, KeepsPositionsAndNeverReadsPastTheInputsEnd) {
    LSoundSource input = LMakeSource<LTestStaircaseSource>(44100, 1, 1500);
    auto const* raw = input.GetAs<LTestStaircaseSource>();
    LSoundSource s = Limit(input);
    EXPECT_EQ(s->GetEndSample(), 1500);
    std::vector<float> out(1000);
    s->Read(out.data(), 1000);
    EXPECT_EQ(s->GetPositionSample(), 1000);
    s->Read(out.data(), 500);
    EXPECT_EQ(s->GetPositionSample(), 1500);
    EXPECT_EQ(raw->GetFramesRead(), 1500);
    // Reading on past the end gives silence.
    s->Read(out.data(), 10);
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(out[static_cast<std::size_t>(i)], 0.0f);
    }
}

// The input is read in whole input blocks whatever sizes the caller reads (a cut list serves
// those from its file without a copy through its read-ahead), and the caller's read sizes
// change nothing in the output, across the staging buffer's refills.
TEST(PeakLimit, ReadsItsInputInWholeBlocksAndOutputIgnoresReadSizes) {
    long long const frames = 3 * LSRCPeakLimit::kInputFrames + 123;
    std::vector<float> loud = MakeNoise(2, frames, 3.0, 11);
    std::vector<float> expected;
    for (long long size : {1LL, 7LL, 8192LL, 700LL}) {
        LSoundSource input = LMakeSource<LTestStaircaseSource>(44100, 1, frames);
        auto const* raw = input.GetAs<LTestStaircaseSource>();
        LSoundSource stairs = Limit(input);
        std::vector<float> chunk(static_cast<std::size_t>(size));
        for (long long done = 0; done < frames; done += size) {
            stairs->Read(chunk.data(), std::min(size, frames - done));
        }
        std::vector<long long> const& reads = raw->GetReads();
        ASSERT_EQ(reads.size(), 4u) << "reads of " << size;
        for (std::size_t i = 0; i + 1 < reads.size(); ++i) {
            EXPECT_EQ(reads[i], LSRCPeakLimit::kInputFrames) << "reads of " << size;
        }

        LSoundSource s = Limit(MakeBufferSource(44100, 2, loud));
        std::vector<float> out;
        std::vector<float> part(static_cast<std::size_t>(2 * size));
        for (long long done = 0; done < frames; done += size) {
            long long const n = std::min(size, frames - done);
            s->Read(part.data(), n);
            out.insert(out.end(), part.begin(), part.begin() + 2 * n);
        }
        if (expected.empty()) {
            expected = out;
        } else {
            EXPECT_EQ(out, expected) << "reads of " << size;
        }
    }
}

TEST(PeakLimit, SeekDropsWhatWasReadAhead) {
    std::vector<float> const quiet = MakeNoise(1, 5000, 0.5, 8);
    LSoundSource s = Limit(MakeBufferSource(44100, 1, quiet));
    std::vector<float> out(700);
    s->Read(out.data(), 700);
    s->Seek(123);
    EXPECT_EQ(s->GetPositionSample(), 123);
    s->Read(out.data(), 700);
    for (int i = 0; i < 700; ++i) {
        ASSERT_EQ(out[static_cast<std::size_t>(i)], quiet[static_cast<std::size_t>(123 + i)]);
    }
}

TEST(PeakLimit, NonFiniteSamplesComeOutBounded) {
    float const inf = std::numeric_limits<float>::infinity();
    float const nan = std::numeric_limits<float>::quiet_NaN();
    std::vector<float> bad = {0.1f, nan, -inf, inf, 0.2f, 0.3f};
    LSoundSource s = Limit(MakeBufferSource(44100, 1, bad));
    std::vector<float> const out = ReadAll(s);
    for (float v : out) {
        ASSERT_TRUE(std::isfinite(v));
        ASSERT_LE(std::fabs(v), kLPeakLimit16Bit);
    }
}
