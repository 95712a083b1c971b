// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/prsourcesink.h"

#include "llib/snd/peaklimit.h"
#include "tests/support/testprocess.h"
#include "tests/support/testsinks.h"
#include "tests/support/testsources.h"

#include <gtest/gtest.h>

#include <cmath>
#include <optional>
#include <vector>

namespace {

using Writes = std::vector<long long>;
constexpr long long kPass = 10 * 8192;
// The limiter in front of the sink reads its input in blocks of its own.
constexpr int kReadsIn11Passes = static_cast<int>(11 * kPass / LSRCPeakLimit::kInputFrames);

constexpr auto kDone = LProcessResult::kCompleted;
constexpr auto kStopped = LProcessResult::kStopped;
constexpr auto kFailed = LProcessResult::kFailed;

// A mono staircase copied at 44.1 kHz, and what goes wrong or changes on the way.
struct CopyCase {
    char const* what;
    long long frames;
    int failOnWrite;    // the sink's failing Write (1-based), 0: none
    int stopAfterPolls; // the first IsToStop poll that answers yes, -1: none
    int growEvery;      // the source's end moves once, by growFrames, after this many reads
    long long growFrames;
    LProcessResult result;
    long long written;
    std::optional<Writes> writes; // the sink's Write sizes, where they matter
    long long read;               // frames read from the source, -1: not checked
    std::size_t progressReports;  // one at the start, then one per finished pass
};

TEST(SourceToSink, CopiesUntilTheEndAStopOrAFailure) {
    for (CopyCase const& c :
         {CopyCase{"empty", 0, 0, -1, 0, 0, kDone, 0, Writes{}, 0, 1},
          CopyCase{"a block and a frame in one pass", 8193, 0, -1, 0, 0, kDone, 8193,
                   Writes{8192, 1}, 8193, 2},
          CopyCase{"sink failing on its first write", 50000, 1, -1, 0, 0, kFailed, 0, Writes{8192},
                   -1, 1},
          // Polls 0 and 1 come at the start, then one after each block read and each written.
          CopyCase{"stop before anything", 50000, 0, 0, 0, 0, kStopped, 0, Writes{}, 0, 1},
          CopyCase{"stop while reading", 500000, 0, 4, 0, 0, kStopped, 0, Writes{}, -1, 1},
          CopyCase{"stop while writing: the written block stays", 500000, 0, 2 + 10, 0, 0, kStopped,
                   8192, Writes{8192}, -1, 1},
          CopyCase{"growing source", 100000, 0, -1, 1, 1000, kDone, 101000, std::nullopt, -1, 3},
          // Ten agreeing passes make the copy trust the end; then the end moves once more.
          CopyCase{"end moving after it was trusted", 12 * kPass, 0, -1, kReadsIn11Passes, 5000,
                   kDone, 12 * kPass + 5000, std::nullopt, -1, 14}}) {
        SCOPED_TRACE(c.what);
        LSoundSource source = LMakeSource<LTestStaircaseSource>(44100, 1, c.frames);
        auto* stairs = source.GetAs<LTestStaircaseSource>();
        stairs->GrowAfterReads(c.growEvery, c.growFrames, 1);
        LSoundSink sink = LMakeSink<LTestCapturingSink>(44100, 1, c.failOnWrite);
        LPRSourceToSink data("Saving", source, sink, false);
        LTestProcess process(c.stopAfterPolls);
        EXPECT_EQ(Process(process, data), c.result);
        EXPECT_EQ(sink->GetFramesWritten(), c.written);
        if (c.writes) {
            EXPECT_EQ(sink.GetAs<LTestCapturingSink>()->GetWrites(), *c.writes);
        }
        if (c.read >= 0) {
            EXPECT_EQ(stairs->GetFramesRead(), c.read) << "read beyond the source's end";
        }
        EXPECT_EQ(process.progress.size(), c.progressReports);
        ASSERT_GE(process.statuses.size(), 2u);
        EXPECT_EQ(process.statuses[0], (std::pair<int, std::string>{0, "Saving"}));
        EXPECT_EQ(process.statuses[1], (std::pair<int, std::string>{1, "Please wait..."}));
    }
}

TEST(SourceToSink, SourceInErrorOrFailedSinkFailsWithoutCopying) {
    for (bool const sourceInError : {true, false}) {
        LSoundSource source = LMakeSource<LTestStaircaseSource>(44100, 1, 10);
        LSoundSink sink = LMakeSink<LTestCapturingSink>(44100, 1);
        if (sourceInError) {
            source.GetAs<LTestStaircaseSource>()->SetTestError(LSoundSourceErrorCode::kCannotOpen);
        } else {
            sink = LSoundSink(); // the failed placeholder
        }
        LPRSourceToSink data("Copy", source, sink, false);
        LTestProcess process;
        EXPECT_EQ(Process(process, data), kFailed) << sourceInError;
        EXPECT_EQ(source.GetAs<LTestStaircaseSource>()->GetFramesRead(), 0) << sourceInError;
        EXPECT_EQ(sink->GetFramesWritten(), 0) << sourceInError;
    }
}

TEST(SourceToSink, CopiesEveryFrameInOrderAcrossPasses) {
    // Below the limiter's threshold, so every sample must arrive unchanged.
    std::vector<float> const noise = MakeNoise(2, 2 * kPass + 777, 0.5, 3);
    LSoundSource source = MakeBufferSource(44100, 2, noise);
    LSoundSink sink = LMakeSink<LTestCapturingSink>(44100, 2);
    LPRSourceToSink data("Copy", source, sink, false);
    LTestProcess process;
    ASSERT_EQ(Process(process, data), LProcessResult::kCompleted);
    EXPECT_TRUE(sink.GetAs<LTestCapturingSink>()->GetSamples() == noise);
    ASSERT_EQ(process.progress.size(), 4u);
    for (std::size_t i = 1; i < process.progress.size(); ++i) {
        EXPECT_GE(process.progress[i], process.progress[i - 1]);
        EXPECT_LT(process.progress[i], 1.0);
    }
}

TEST(SourceToSink, ConvertsToTheSinksRateAndChannelsAndLimitsPeaks) {
    LSoundSource source = MakeBufferSource(48000, 1, MakeSine(48000, 1, 1000.0, 3.0, 48000));
    LSoundSink sink = LMakeSink<LTestCapturingSink>(44100, 2);
    LPRSourceToSink data("Copy", source, sink, false);
    LTestProcess process;
    ASSERT_EQ(Process(process, data), LProcessResult::kCompleted);
    EXPECT_EQ(sink->GetFramesWritten(), 44100);
    float peak = 0.0f;
    for (float v : sink.GetAs<LTestCapturingSink>()->GetSamples()) {
        peak = std::max(peak, std::fabs(v));
    }
    EXPECT_LE(peak, kLPeakLimit16Bit);
    EXPECT_GT(peak, 0.9f);
}

TEST(SourceToSink, CrossMixFadesFromTheOtherSource) {
    // The input is silence and the other source a constant: the join fades the constant out.
    LSoundSource silence = MakeBufferSource(1000, 1, std::vector<float>(1000, 0.0f));
    LSoundSink sink = LMakeSink<LTestCapturingSink>(1000, 1);
    LPRSourceToSink data("Copy", silence, sink, true);
    data.crossMixSource = MakeBufferSource(1000, 1, std::vector<float>(1000, 0.5f));
    LTestProcess process;
    ASSERT_EQ(Process(process, data), LProcessResult::kCompleted);
    auto const& got = sink.GetAs<LTestCapturingSink>()->GetSamples();
    ASSERT_EQ(got.size(), 1000u);
    // The mix lasts min(1000 / 10, 1000 / 10) = 100 frames.
    EXPECT_NEAR(got[0], 0.5f * 100.0f / 101.0f, 1e-6);
    EXPECT_GT(got[50], 0.0f);
    EXPECT_LT(got[50], got[0]);
    EXPECT_EQ(got[100], 0.0f);
    EXPECT_EQ(got[999], 0.0f);
}

// The copy is what LProcessThread runs for saves; the thread itself is tested with the process.
TEST(SourceToSink, RunsOnAProcessThread) {
    LSoundSource source = LMakeSource<LTestStaircaseSource>(44100, 2, 100000);
    LSoundSink sink = LMakeSink<LTestCapturingSink>(44100, 2);
    LPRSourceToSink data("Copy", source, sink, false);
    LProcessThread<LPRSourceToSink> thread;
    ASSERT_TRUE(thread.Start(data));
    EXPECT_EQ(thread.Wait(), LProcessResult::kCompleted);
    EXPECT_EQ(sink->GetFramesWritten(), 100000);
}

} // namespace
