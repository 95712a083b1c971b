// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/unix/signalobject.h"

#include "llib/unix/thread.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <pthread.h>

namespace {

TEST(SignalObject, StaysSetUntilOneResetAndIsCloseOnExec) {
    LSignalObject object;
    EXPECT_NE(::fcntl(object.GetFd(), F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_FALSE(object.Wait(30));
    object.Set();
    object.Set();
    EXPECT_TRUE(object.Wait(0));
    EXPECT_TRUE(object.Wait(10));
    object.Reset(); // clears however many Sets came before it
    EXPECT_FALSE(object.IsSet());
    object.Set();
    EXPECT_TRUE(object.IsSet());
}

void IgnoreSignal(int) {}

TEST(SignalObject, WaitInterruptedBySignalsWakesOnASetFromAnotherThread) {
    auto const old = std::signal(SIGUSR2, IgnoreSignal);
    LSignalObject object;
    pthread_t const waiter = pthread_self();
    LThread helper;
    ASSERT_TRUE(helper.Start([&object, waiter] {
        for (int i = 0; i < 3; ++i) {
            LSleepMs(10);
            pthread_kill(waiter, SIGUSR2);
        }
        object.Set();
    }));
    bool const woken = object.Wait(kLWaitForever);
    helper.Join();
    std::signal(SIGUSR2, old);
    EXPECT_TRUE(woken);
}

class SignalGroupTest : public ::testing::TestWithParam<int> {};

TEST_P(SignalGroupTest, WaitAnyReportsTheIndexOfTheSetObject) {
    LSignalObject objects[3];
    LSignalObjectGroup group;
    for (auto& object : objects) {
        group.Add(object);
    }
    objects[GetParam()].Set();
    EXPECT_EQ(group.WaitAny(0), GetParam());
    objects[GetParam()].Reset();
    EXPECT_EQ(group.WaitAny(20), -1);
    LThread setter;
    ASSERT_TRUE(setter.Start([&] {
        LSleepMs(20);
        objects[GetParam()].Set();
    }));
    EXPECT_EQ(group.WaitAny(kLWaitForever), GetParam());
    setter.Join();
}

INSTANTIATE_TEST_SUITE_P(Indices, SignalGroupTest, ::testing::Values(0, 1, 2));

TEST(SignalGroup, ReadyExtraDescriptorIsMinusTwoAndASetObjectComesFirst) {
    LSignalObject a;
    LSignalObject b;
    LSignalObjectGroup group;
    group.Add(a);
    group.Add(b);
    LFileDescriptor readEnd;
    LFileDescriptor writeEnd;
    ASSERT_TRUE(LMakePipe(readEnd, writeEnd));
    EXPECT_EQ(group.WaitAny(20, readEnd.Get()), -1);
    EXPECT_FALSE(LWaitReadable(readEnd.Get(), 10) || LWaitReadable(-1, 0));
    // A closed writer makes the reader ready: the read would return the end at once.
    ASSERT_TRUE(writeEnd.Close());
    EXPECT_TRUE(LWaitReadable(readEnd.Get(), 1000));
    EXPECT_EQ(group.WaitAny(1000, readEnd.Get()), -2);
    EXPECT_EQ(LSignalObjectGroup().WaitAny(1000, readEnd.Get()), -2);
    b.Set();
    EXPECT_EQ(group.WaitAny(1000, readEnd.Get()), 1);
}

} // namespace
