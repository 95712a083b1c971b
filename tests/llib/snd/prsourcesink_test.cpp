// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/prsourcesink.h"

#include "llib/snd/peaklimit.h"
#include "tests/support/testprocess.h"
#include "tests/support/testsinks.h"
#include "tests/support/testsources.h"

#include <gtest/gtest.h>

#include <cmath>
#include <unistd.h>
#include <vector>

namespace {

struct Copy {
    LSoundSource source;
    LSoundSink sink;
    LTestStaircaseSource* stairs = nullptr;
    LTestCapturingSink* capture = nullptr;
};

Copy MakeCopy(long long frames, unsigned char channels = 2, int failOnWrite = 0) {
    Copy c;
    c.source = LMakeSource<LTestStaircaseSource>(44100, channels, frames);
    c.sink = LMakeSink<LTestCapturingSink>(44100, channels, failOnWrite);
    c.stairs = c.source.GetAs<LTestStaircaseSource>();
    c.capture = c.sink.GetAs<LTestCapturingSink>();
    return c;
}

// Staircase values past 32767/32768 would be limited; scale them into range for exact checks.
class ScaledStaircase final : public LSoundSourceBase {
public:
    ScaledStaircase(unsigned char channels, long long frames)
        : LSoundSourceBase(44100, channels), m_end(frames) {}
    void Read(float* buffer, long long frames) override {
        for (long long f = 0; f < frames; ++f) {
            for (unsigned c = 0; c < GetChannels(); ++c) {
                long long const frame = m_position + f;
                buffer[f * GetChannels() + c] =
                    frame < m_end ? static_cast<float>(frame % 1000) / 2048.0f : 0.0f;
            }
        }
        m_position += frames;
    }
    long long GetPositionSample() const override { return m_position; }
    long long GetEndSample() const override { return m_end; }

private:
    long long m_position = 0;
    long long m_end;
};

} // namespace

TEST(SourceToSink, EmptySourceCompletesWithoutReadingOrWriting) {
    Copy c = MakeCopy(0);
    LPRSourceToSink data("Saving", c.source, c.sink, false);
    LTestProcess process;
    EXPECT_EQ(Process(process, data), LProcessResult::kCompleted);
    EXPECT_EQ(process.progress, std::vector<double>{0.0});
    EXPECT_TRUE(c.stairs->GetReads().empty());
    EXPECT_TRUE(c.capture->GetWrites().empty());
    ASSERT_GE(process.statuses.size(), 2u);
    EXPECT_EQ(process.statuses[0], (std::pair<int, std::string>{0, "Saving"}));
    EXPECT_EQ(process.statuses[1], (std::pair<int, std::string>{1, "Please wait..."}));
}

TEST(SourceToSink, OneBlockAndOneFrameGoInTheSamePass) {
    Copy c = MakeCopy(8193, 1);
    LPRSourceToSink data("Copy", c.source, c.sink, false);
    LTestProcess process;
    EXPECT_EQ(Process(process, data), LProcessResult::kCompleted);
    EXPECT_EQ(c.capture->GetWrites(), (std::vector<long long>{8192, 1}));
    // One pass: the progress set at the start and once after the pass.
    EXPECT_EQ(process.progress.size(), 2u);
    // The source was read exactly to its end, never beyond.
    EXPECT_EQ(c.stairs->GetFramesRead(), 8193);
}

TEST(SourceToSink, CopiesEveryFrameInOrderAcrossPasses) {
    long long const frames = 10 * 8192 * 2 + 777; // three passes
    LSoundSource source = LMakeSource<ScaledStaircase>(2, frames);
    LSoundSink sink = LMakeSink<LTestCapturingSink>(44100, 2);
    LPRSourceToSink data("Copy", source, sink, false);
    LTestProcess process;
    ASSERT_EQ(Process(process, data), LProcessResult::kCompleted);
    auto const& got = sink.GetAs<LTestCapturingSink>()->GetSamples();
    ASSERT_EQ(static_cast<long long>(got.size()), frames * 2);
    for (long long f = 0; f < frames; ++f) {
        float const expected = static_cast<float>(f % 1000) / 2048.0f;
        ASSERT_EQ(got[static_cast<std::size_t>(2 * f)], expected) << f;
        ASSERT_EQ(got[static_cast<std::size_t>(2 * f + 1)], expected) << f;
    }
    // Progress rises once per pass and stays below 1.
    ASSERT_EQ(process.progress.size(), 4u);
    for (std::size_t i = 1; i < process.progress.size(); ++i) {
        EXPECT_GE(process.progress[i], process.progress[i - 1]);
        EXPECT_LT(process.progress[i], 1.0);
    }
}

TEST(SourceToSink, GrowingSourceIsCopiedToItsNewEnd) {
    Copy c = MakeCopy(100000, 1);
    // The end moves by 1000 frames after the first pass's ten reads... the limiter reads in its
    // own blocks, so grow after the first read of any size and let the copy find out.
    c.stairs->GrowAfterReads(1, 1000, 1);
    c.stairs->SetStreaming(true);
    LPRSourceToSink data("Recording", c.source, c.sink, false);
    LTestProcess process;
    EXPECT_EQ(Process(process, data), LProcessResult::kCompleted);
    EXPECT_EQ(c.sink->GetFramesWritten(), 101000);
}

TEST(SourceToSink, EndThatMovesAfterItWasTrustedIsStillFollowed) {
    // Enough passes for the copy to trust the end, then the end moves once more.
    long long const frames = 12 * 10 * 8192;
    Copy c = MakeCopy(frames, 1);
    int const readsBeforeGrowth = static_cast<int>(11 * 10 * 8192 / LSRCPeakLimit::kInputFrames);
    c.stairs->GrowAfterReads(readsBeforeGrowth, 5000, 1);
    LPRSourceToSink data("Copy", c.source, c.sink, false);
    LTestProcess process;
    EXPECT_EQ(Process(process, data), LProcessResult::kCompleted);
    EXPECT_EQ(c.sink->GetFramesWritten(), frames + 5000);
}

TEST(SourceToSink, FailingSinkStopsTheCopyAfterItsFirstWrite) {
    Copy c = MakeCopy(50000, 2, 1);
    LPRSourceToSink data("Copy", c.source, c.sink, false);
    LTestProcess process;
    EXPECT_EQ(Process(process, data), LProcessResult::kFailed);
    EXPECT_EQ(c.capture->GetWrites().size(), 1u);
}

TEST(SourceToSink, StopRequestsAreHonouredBetweenBlocks) {
    {
        Copy c = MakeCopy(50000);
        LPRSourceToSink data("Copy", c.source, c.sink, false);
        LTestProcess process(0); // asked to stop before anything happens
        EXPECT_EQ(Process(process, data), LProcessResult::kStopped);
        EXPECT_TRUE(c.capture->GetWrites().empty());
        EXPECT_TRUE(c.stairs->GetReads().empty());
    }
    {
        // Stop during the first pass's reads: nothing is written yet.
        Copy c = MakeCopy(500000);
        LPRSourceToSink data("Copy", c.source, c.sink, false);
        LTestProcess process(4);
        EXPECT_EQ(Process(process, data), LProcessResult::kStopped);
        EXPECT_TRUE(c.capture->GetWrites().empty());
    }
    {
        // Stop during the write phase: the block written before it stays written.
        Copy c = MakeCopy(500000);
        LPRSourceToSink data("Copy", c.source, c.sink, false);
        LTestProcess process(2 + 10); // polls 0 and 1 at the start, ten reads, then a write
        EXPECT_EQ(Process(process, data), LProcessResult::kStopped);
        EXPECT_EQ(c.capture->GetWrites(), std::vector<long long>{8192});
    }
}

TEST(SourceToSink, SourceInErrorOrFailedSinkFailsAtOnce) {
    {
        LSoundSource source = LMakeErrorSource(LSoundSourceErrorCode::kCannotOpen);
        LSoundSink sink = LMakeSink<LTestCapturingSink>(44100, 1);
        LPRSourceToSink data("Copy", source, sink, false);
        LTestProcess process;
        EXPECT_EQ(Process(process, data), LProcessResult::kFailed);
        EXPECT_TRUE(sink.GetAs<LTestCapturingSink>()->GetWrites().empty());
    }
    {
        LSoundSource source = LMakeSource<LTestStaircaseSource>(44100, 1, 10);
        LSoundSink sink; // the failed placeholder
        LPRSourceToSink data("Copy", source, sink, false);
        LTestProcess process;
        EXPECT_EQ(Process(process, data), LProcessResult::kFailed);
        EXPECT_TRUE(source.GetAs<LTestStaircaseSource>()->GetReads().empty());
    }
}

TEST(SourceToSink, ConvertsToTheSinksRateAndChannelsAndLimitsPeaks) {
    std::vector<float> loud = MakeSine(48000, 1, 1000.0, 3.0, 48000);
    LSoundSource source = MakeBufferSource(48000, 1, loud);
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
    LSoundSource other = MakeBufferSource(1000, 1, std::vector<float>(1000, 0.5f));
    LSoundSink sink = LMakeSink<LTestCapturingSink>(1000, 1);
    LPRSourceToSink data("Copy", silence, sink, true);
    data.crossMixSource = other;
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

namespace {

struct SlowData {
    long long passes = 0;
};

LProcessResult Process(LProcessInterface& process, SlowData& data) {
    while (!process.IsToStop()) {
        ++data.passes;
        process.ProcessWait(1);
    }
    return LProcessResult::kStopped;
}

} // namespace

TEST(SourceToSink, RunsOnAProcessThreadAndSignalsTheEnd) {
    Copy c = MakeCopy(100000);
    LPRSourceToSink data("Copy", c.source, c.sink, false);
    LProcessThread<LPRSourceToSink> thread;
    ASSERT_TRUE(thread.Start(data));
    unsigned char byte = 0;
    ASSERT_EQ(::read(thread.GetNotifyFd(), &byte, 1), 1);
    EXPECT_EQ(byte, 1);
    EXPECT_EQ(thread.Wait(), LProcessResult::kCompleted);
    EXPECT_EQ(c.sink->GetFramesWritten(), 100000);

    SlowData slow;
    LProcessThread<SlowData> slowThread;
    ASSERT_TRUE(slowThread.Start(slow));
    slowThread.RequestStop();
    EXPECT_EQ(slowThread.Wait(), LProcessResult::kStopped);
}
