// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/gen/process.h"

#include <gtest/gtest.h>

#include <atomic>
#include <pthread.h>
#include <string>
#include <unistd.h>

namespace {

// Long enough that a wait which misses the stop fails the test instead of passing by luck.
constexpr unsigned kLongWaitMs = 20000;

TEST(ProcessInterfaceBasic, StopFromAnotherThreadEndsAWaitEarly) {
    LProcessInterfaceBasic process;
    EXPECT_FALSE(process.IsToStop());
    LThread stopper;
    ASSERT_TRUE(stopper.Start([&] {
        LSleepMs(20);
        process.RequestStop();
    }));
    EXPECT_TRUE(process.ProcessWait(kLongWaitMs));
    stopper.Join();
    EXPECT_TRUE(process.IsToStop());
    EXPECT_TRUE(process.ProcessWait(0)); // a stop is never taken back
}

TEST(ProcessInterfaceBasic, WaitWithoutStopRunsOutAndReportsNoStop) {
    LProcessInterfaceBasic process;
    EXPECT_FALSE(process.ProcessWait(10));
}

TEST(ProcessInterfaceBasic, SignalWaitsTellASignalFromAStop) {
    LProcessInterfaceBasic process;
    LSignalObject signal;
    EXPECT_FALSE(process.ProcessWaitSignal(signal, 10));
    signal.Set();
    EXPECT_TRUE(process.ProcessWaitSignal(signal, kLongWaitMs));
    signal.Reset();

    LThread stopper;
    ASSERT_TRUE(stopper.Start([&] {
        LSleepMs(20);
        process.RequestStop();
    }));
    EXPECT_FALSE(process.ProcessWaitSignal(signal, kLongWaitMs));
    stopper.Join();
}

TEST(ProcessInterfaceBasic, GroupWaitGivesTheIndexOrMinusOneOnStop) {
    LProcessInterfaceBasic process;
    LSignalObject a;
    LSignalObject b;
    LSignalObjectGroup group;
    group.Add(a);
    group.Add(b);
    EXPECT_EQ(process.ProcessWaitSignalObjectGroup(group, 10), -1);
    b.Set();
    EXPECT_EQ(process.ProcessWaitSignalObjectGroup(group, kLongWaitMs), 1);
    b.Reset();
    process.RequestStop();
    // The stop descriptor's own index must not leak out as a result.
    EXPECT_EQ(process.ProcessWaitSignalObjectGroup(group, kLongWaitMs), -1);
    EXPECT_EQ(process.ProcessWaitSignalObjectGroupForever(group), -1);
    EXPECT_TRUE(process.ProcessWaitUntilStopped());
}

TEST(ProcessInterfaceBasic, FormattedErrorAndStatusAreKept) {
    LProcessInterfaceBasic process;
    process.SetErrorF("cannot read '%s' at frame %lld", "in.wav", 123456789012LL);
    EXPECT_EQ(process.GetError(), "cannot read 'in.wav' at frame 123456789012");
    process.SetStatusF(1, "%d of %d", 3, 7);
    EXPECT_EQ(process.GetStatus(1), "3 of 7");
    EXPECT_EQ(process.GetStatus(0), "");
    process.SetStatus("ignored", 2);
    EXPECT_EQ(process.GetStatus(2), "");

    std::string const longText(5000, 'e');
    process.SetErrorF("%s", longText.c_str());
    EXPECT_EQ(process.GetError(), longText.substr(0, 1023)); // cut, never overrun
}

// A small operation for the worker thread: it records where it ran and either returns at once
// or keeps going until asked to stop.
struct TestJob {
    LProcessResult result = LProcessResult::kCompleted;
    bool runUntilStopped = false;
    LSignalObject started;
    std::atomic<bool> finished{false};
    std::atomic<int> polls{0};
    pthread_t ranOn{};
};

LProcessResult Process(LProcessInterface& process, TestJob& job) {
    job.ranOn = pthread_self();
    job.started.Set();
    if (job.runUntilStopped) {
        while (!process.IsToStop()) {
            ++job.polls;
            (void)process.ProcessWait(1);
        }
        job.finished = true;
        return LProcessResult::kStopped;
    }
    if (process.IsToStop()) {
        job.finished = true;
        return LProcessResult::kStopped;
    }
    if (job.result == LProcessResult::kFailed) {
        process.SetErrorF("job %d failed", 7);
    }
    job.finished = true;
    return job.result;
}

class ProcessThreadResultTest : public ::testing::TestWithParam<LProcessResult> {};

TEST_P(ProcessThreadResultTest, RunsOnAWorkerNotifiesOnceAndReturnsTheResult) {
    TestJob job;
    job.result = GetParam();
    LProcessThread<TestJob> thread;
    ASSERT_TRUE(thread.Start(job));
    ASSERT_TRUE(LWaitReadable(thread.GetNotifyFd(), kLongWaitMs));
    unsigned char byte = 0;
    ASSERT_EQ(::read(thread.GetNotifyFd(), &byte, 1), 1);
    EXPECT_EQ(byte, 1);
    EXPECT_TRUE(thread.IsDone());
    EXPECT_EQ(thread.Wait(), GetParam());
    EXPECT_FALSE(LWaitReadable(thread.GetNotifyFd(), 0)); // exactly one byte
    EXPECT_FALSE(pthread_equal(job.ranOn, pthread_self()));
    if (GetParam() == LProcessResult::kFailed) {
        EXPECT_EQ(thread.GetInterface().GetError(), "job 7 failed");
    }
}

INSTANTIATE_TEST_SUITE_P(Results, ProcessThreadResultTest,
                         ::testing::Values(LProcessResult::kCompleted, LProcessResult::kStopped,
                                           LProcessResult::kFailed));

TEST(ProcessThread, StopRequestReachesALongRunningOperation) {
    TestJob job;
    job.runUntilStopped = true;
    LProcessThread<TestJob> thread;
    ASSERT_TRUE(thread.Start(job));
    ASSERT_TRUE(job.started.Wait(kLongWaitMs));
    EXPECT_FALSE(thread.Start(job)); // one run at a time
    EXPECT_FALSE(thread.IsDone());
    thread.RequestStop();
    EXPECT_EQ(thread.Wait(), LProcessResult::kStopped);
    EXPECT_TRUE(job.finished);
    EXPECT_TRUE(thread.IsDone());
}

TEST(ProcessThread, RunsAgainAfterAStoppedRun) {
    LProcessThread<TestJob> thread;
    TestJob first;
    first.runUntilStopped = true;
    ASSERT_TRUE(thread.Start(first));
    ASSERT_TRUE(first.started.Wait(kLongWaitMs));
    thread.RequestStop();
    ASSERT_EQ(thread.Wait(), LProcessResult::kStopped);

    // The stop belonged to the first run; the next one must not inherit it.
    TestJob second;
    ASSERT_TRUE(thread.Start(second));
    EXPECT_EQ(thread.Wait(), LProcessResult::kCompleted);
    EXPECT_FALSE(thread.GetInterface().IsToStop());
    unsigned char byte = 0;
    ASSERT_TRUE(LWaitReadable(thread.GetNotifyFd(), kLongWaitMs));
    ASSERT_EQ(::read(thread.GetNotifyFd(), &byte, 1), 1);
    EXPECT_FALSE(LWaitReadable(thread.GetNotifyFd(), 0)); // one byte per run, on a fresh pipe
}

TEST(ProcessThread, DestroyingARunningThreadStopsAndJoinsIt) {
    TestJob job;
    job.runUntilStopped = true;
    {
        LProcessThread<TestJob> thread;
        ASSERT_TRUE(thread.Start(job));
        ASSERT_TRUE(job.started.Wait(kLongWaitMs));
    }
    EXPECT_TRUE(job.finished);
}

TEST(ProcessThread, WaitWithNothingRunReportsFailure) {
    LProcessThread<TestJob> thread;
    EXPECT_EQ(thread.Wait(), LProcessResult::kFailed);
    EXPECT_FALSE(thread.IsDone());
}

} // namespace
