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

TEST(ProcessInterfaceBasic, WaitsTellASignalFromAStopFromAnotherThread) {
    LProcessInterfaceBasic process;
    LSignalObject a;
    LSignalObject b;
    LSignalObjectGroup group;
    group.Add(a);
    group.Add(b);
    EXPECT_FALSE(process.ProcessWait(10));
    EXPECT_FALSE(process.ProcessWaitSignal(b, 10));
    EXPECT_EQ(process.ProcessWaitSignalObjectGroup(group, 10), -1);
    b.Set();
    EXPECT_TRUE(process.ProcessWaitSignal(b, kLongWaitMs));
    EXPECT_EQ(process.ProcessWaitSignalObjectGroup(group, kLongWaitMs), 1);
    b.Reset();
    LThread stopper;
    ASSERT_TRUE(stopper.Start([&] {
        LSleepMs(20);
        process.RequestStop();
    }));
    EXPECT_FALSE(process.ProcessWaitSignal(b, kLongWaitMs));
    stopper.Join();
    EXPECT_TRUE(process.ProcessWait(kLongWaitMs)); // a stop is never taken back
    // The stop descriptor's own index must not leak out as a result.
    EXPECT_EQ(process.ProcessWaitSignalObjectGroup(group, kLongWaitMs), -1);
    EXPECT_EQ(process.ProcessWaitSignalObjectGroupForever(group), -1);
}

TEST(ProcessInterfaceBasic, FormattedErrorIsCutNeverOverrun) {
    LProcessInterfaceBasic process;
    process.SetErrorF("cannot read '%s' at frame %lld", "in.wav", 123456789012LL);
    EXPECT_EQ(process.GetError(), "cannot read 'in.wav' at frame 123456789012");
    process.SetStatusF(1, "%d of %d", 3, 7);
    EXPECT_EQ(process.GetStatus(1), "3 of 7");
    std::string const longText(5000, 'e');
    process.SetErrorF("%s", longText.c_str());
    EXPECT_EQ(process.GetError(), longText.substr(0, 1023));
}

// Returns its result at once, or polls until asked to stop.
struct TestJob {
    LProcessResult result = LProcessResult::kCompleted;
    bool runUntilStopped = false;
    LSignalObject started;
    std::atomic<bool> finished{false};
    pthread_t ranOn{};
};

LProcessResult Process(LProcessInterface& process, TestJob& job) {
    job.ranOn = pthread_self();
    job.started.Set();
    while (job.runUntilStopped && !process.IsToStop()) {
        (void)process.ProcessWait(1);
    }
    if (job.result == LProcessResult::kFailed) {
        process.SetErrorF("job %d failed", 7);
    }
    job.finished = true;
    return process.IsToStop() ? LProcessResult::kStopped : job.result;
}

bool ReadsExactlyOneNotifyByte(int fd) {
    unsigned char byte = 0;
    return LWaitReadable(fd, kLongWaitMs) && ::read(fd, &byte, 1) == 1 && byte == 1 &&
           !LWaitReadable(fd, 0);
}

class ProcessThreadResultTest : public ::testing::TestWithParam<LProcessResult> {};

TEST_P(ProcessThreadResultTest, RunsOnAWorkerNotifiesOnceAndReturnsTheResult) {
    TestJob job;
    job.result = GetParam();
    LProcessThread<TestJob> thread;
    EXPECT_EQ(thread.Wait(), LProcessResult::kFailed); // nothing run yet
    ASSERT_TRUE(thread.Start(job));
    EXPECT_TRUE(ReadsExactlyOneNotifyByte(thread.GetNotifyFd()));
    EXPECT_TRUE(thread.IsDone());
    EXPECT_EQ(thread.Wait(), GetParam());
    EXPECT_FALSE(pthread_equal(job.ranOn, pthread_self()));
    EXPECT_EQ(thread.GetInterface().GetError(),
              GetParam() == LProcessResult::kFailed ? "job 7 failed" : "");
}

INSTANTIATE_TEST_SUITE_P(Results, ProcessThreadResultTest,
                         ::testing::Values(LProcessResult::kCompleted, LProcessResult::kStopped,
                                           LProcessResult::kFailed));

TEST(ProcessThread, StopReachesAPollingRunAndTheNextRunDoesNotInheritIt) {
    LProcessThread<TestJob> thread;
    TestJob first;
    first.runUntilStopped = true;
    ASSERT_TRUE(thread.Start(first));
    ASSERT_TRUE(first.started.Wait(kLongWaitMs));
    EXPECT_FALSE(thread.Start(first)); // one run at a time
    EXPECT_FALSE(thread.IsDone());
    thread.RequestStop();
    EXPECT_EQ(thread.Wait(), LProcessResult::kStopped);
    EXPECT_TRUE(first.finished);
    TestJob second;
    ASSERT_TRUE(thread.Start(second));
    EXPECT_EQ(thread.Wait(), LProcessResult::kCompleted);
    EXPECT_TRUE(ReadsExactlyOneNotifyByte(thread.GetNotifyFd())); // on a fresh pipe
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

} // namespace
