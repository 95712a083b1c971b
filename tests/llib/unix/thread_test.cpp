// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/unix/thread.h"

#include "llib/unix/signalobject.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <pthread.h>

namespace {

TEST(Thread, RunsTheBodyOnAnotherThreadAndJoinWaitsForIt) {
    std::atomic<bool> done{false};
    pthread_t ranOn{};
    LThread thread;
    ASSERT_TRUE(thread.Start([&] {
        ranOn = pthread_self();
        LSleepMs(20);
        done = true;
    }));
    EXPECT_TRUE(thread.IsStarted());
    thread.Join();
    EXPECT_TRUE(done);
    EXPECT_FALSE(thread.IsStarted());
    EXPECT_FALSE(pthread_equal(ranOn, pthread_self()));
}

TEST(Thread, SecondStartWhileRunningFailsAndLeavesTheFirstRunning) {
    LSignalObject release;
    std::atomic<int> runs{0};
    LThread thread;
    ASSERT_TRUE(thread.Start([&] {
        ++runs;
        (void)release.Wait(10000);
    }));
    EXPECT_FALSE(thread.Start([&] { runs += 100; }));
    release.Set();
    thread.Join();
    EXPECT_EQ(runs, 1);

    // Once joined, the object can run again.
    ASSERT_TRUE(thread.Start([&] { ++runs; }));
    thread.Join();
    EXPECT_EQ(runs, 2);
}

TEST(Thread, DestructorJoinsARunningThread) {
    std::atomic<bool> done{false};
    {
        LThread thread;
        ASSERT_TRUE(thread.Start([&] {
            LSleepMs(30);
            done = true;
        }));
    }
    EXPECT_TRUE(done);
}

TEST(Thread, JoinWithoutStartDoesNothing) {
    LThread thread;
    thread.Join();
    EXPECT_FALSE(thread.IsStarted());
}

class SleepTest : public ::testing::TestWithParam<int> {};

TEST_P(SleepTest, SleepsAtLeastTheRequestedTime) {
    std::int64_t const start = LGetTickMs();
    LSleepMs(GetParam());
    EXPECT_GE(LGetTickMs() - start, GetParam());
}

INSTANTIATE_TEST_SUITE_P(Durations, SleepTest, ::testing::Values(1, 15, 40, 1001));

void IgnoreSignal(int) {}

TEST(Sleep, ASignalDoesNotCutTheSleepShort) {
    struct sigaction action {};
    struct sigaction old {};
    action.sa_handler = IgnoreSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0; // no SA_RESTART: nanosleep returns EINTR
    ASSERT_EQ(sigaction(SIGUSR1, &action, &old), 0);

    pthread_t const sleeper = pthread_self();
    LThread interrupter;
    ASSERT_TRUE(interrupter.Start([sleeper] {
        for (int i = 0; i < 3; ++i) {
            LSleepMs(10);
            pthread_kill(sleeper, SIGUSR1);
        }
    }));
    std::int64_t const start = LGetTickMs();
    LSleepMs(100);
    std::int64_t const slept = LGetTickMs() - start;
    interrupter.Join();
    sigaction(SIGUSR1, &old, nullptr);
    EXPECT_GE(slept, 100);
}

} // namespace
