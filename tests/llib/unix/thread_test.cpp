// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/unix/thread.h"

#include "llib/unix/signalobject.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <pthread.h>

namespace {

TEST(Thread, RunsOnAnotherThreadRefusesASecondStartAndRunsAgainAfterJoin) {
    LSignalObject release;
    std::atomic<int> runs{0};
    pthread_t ranOn{};
    LThread thread;
    ASSERT_TRUE(thread.Start([&] {
        ranOn = pthread_self();
        ++runs;
        (void)release.Wait(10000);
    }));
    EXPECT_FALSE(thread.Start([&] { runs += 100; }));
    release.Set();
    thread.Join();
    EXPECT_EQ(runs, 1);
    EXPECT_FALSE(pthread_equal(ranOn, pthread_self()));
    ASSERT_TRUE(thread.Start([&] { ++runs; }));
    thread.Join();
    EXPECT_EQ(runs, 2);
    thread.Join(); // joining twice is harmless
}

void IgnoreSignal(int) {}

// The destructor joins, and a sleep interrupted by signals still lasts its full time.
TEST(Thread, DestructorJoinsAndASignalDoesNotCutASleepShort) {
    auto const old = std::signal(SIGUSR1, IgnoreSignal); // nanosleep returns EINTR regardless
    std::atomic<bool> done{false};
    pthread_t const sleeper = pthread_self();
    std::int64_t const start = LGetTickMs();
    {
        LThread interrupter;
        ASSERT_TRUE(interrupter.Start([&] {
            for (int i = 0; i < 3; ++i) {
                LSleepMs(10);
                pthread_kill(sleeper, SIGUSR1);
            }
            LSleepMs(150); // outlasts the sleeper, so only a joining destructor sees `done`
            done = true;
        }));
        LSleepMs(100);
    }
    std::int64_t const slept = LGetTickMs() - start;
    EXPECT_TRUE(done);
    std::signal(SIGUSR1, old);
    EXPECT_GE(slept, 100);
}

} // namespace
