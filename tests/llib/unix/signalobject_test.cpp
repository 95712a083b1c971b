// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/unix/signalobject.h"

#include "llib/unix/thread.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <pthread.h>

namespace {

TEST(SignalObject, StaysSetUntilResetHoweverOftenItIsWaitedFor) {
    LSignalObject object;
    ASSERT_TRUE(object.IsValid());
    EXPECT_FALSE(object.IsSet());
    object.Set();
    object.Set();
    EXPECT_TRUE(object.IsSet());
    EXPECT_TRUE(object.Wait(0));
    EXPECT_TRUE(object.Wait(10));
    EXPECT_TRUE(object.IsSet());
    // One Reset clears however many Sets came before it.
    object.Reset();
    EXPECT_FALSE(object.IsSet());
    object.Reset();
    EXPECT_FALSE(object.IsSet());
    object.Set();
    EXPECT_TRUE(object.IsSet());
}

TEST(SignalObject, DescriptorIsCloseOnExec) {
    LSignalObject object;
    int const flags = ::fcntl(object.GetFd(), F_GETFD);
    ASSERT_GE(flags, 0);
    EXPECT_NE(flags & FD_CLOEXEC, 0);
}

TEST(SignalObject, WaitTimesOutWhenNothingSetsIt) {
    LSignalObject object;
    EXPECT_FALSE(object.Wait(30));
}

TEST(SignalObject, SetFromAnotherThreadWakesAWaiter) {
    LSignalObject object;
    LThread setter;
    ASSERT_TRUE(setter.Start([&] {
        LSleepMs(20);
        object.Set();
    }));
    EXPECT_TRUE(object.Wait(kLWaitForever));
    setter.Join();
}

void IgnoreSignal(int) {}

TEST(SignalObject, WaitInterruptedBySignalsStillSeesALaterSet) {
    struct sigaction action {};
    struct sigaction old {};
    action.sa_handler = IgnoreSignal;
    sigemptyset(&action.sa_mask);
    ASSERT_EQ(sigaction(SIGUSR2, &action, &old), 0);

    LSignalObject object;
    pthread_t const waiter = pthread_self();
    LThread helper;
    ASSERT_TRUE(helper.Start([&object, waiter] {
        for (int i = 0; i < 3; ++i) {
            LSleepMs(10);
            pthread_kill(waiter, SIGUSR2);
        }
        LSleepMs(10);
        object.Set();
    }));
    bool const woken = object.Wait(10000);
    helper.Join();
    sigaction(SIGUSR2, &old, nullptr);
    EXPECT_TRUE(woken);
}

class SignalGroupTest : public ::testing::TestWithParam<int> {
protected:
    LSignalObject m_objects[3];
    LSignalObjectGroup m_group;

    void SetUp() override {
        for (auto& object : m_objects) {
            m_group.Add(object);
        }
    }
};

TEST_P(SignalGroupTest, WaitAnyReportsTheIndexOfTheSetObject) {
    m_objects[GetParam()].Set();
    EXPECT_EQ(m_group.WaitAny(0), GetParam());
    EXPECT_EQ(m_group.WaitAny(1000), GetParam());
    m_objects[GetParam()].Reset();
    EXPECT_EQ(m_group.WaitAny(20), -1);
}

TEST_P(SignalGroupTest, WaitAnyWakesWhenAnotherThreadSetsAnObject) {
    LThread setter;
    ASSERT_TRUE(setter.Start([this] {
        LSleepMs(20);
        m_objects[GetParam()].Set();
    }));
    EXPECT_EQ(m_group.WaitAny(kLWaitForever), GetParam());
    setter.Join();
}

INSTANTIATE_TEST_SUITE_P(Indices, SignalGroupTest, ::testing::Values(0, 1, 2));

TEST(SignalGroup, ReadyExtraDescriptorIsReportedAsMinusTwo) {
    LSignalObject a;
    LSignalObject b;
    LSignalObjectGroup group;
    group.Add(a);
    group.Add(b);
    LFileDescriptor readEnd;
    LFileDescriptor writeEnd;
    ASSERT_TRUE(LMakePipe(readEnd, writeEnd));

    EXPECT_EQ(group.WaitAny(20, readEnd.Get()), -1);
    unsigned char const one = 1;
    ASSERT_TRUE(writeEnd.WriteAll(&one, 1));
    EXPECT_EQ(group.WaitAny(1000, readEnd.Get()), -2);
    // A set object takes precedence over the extra descriptor.
    b.Set();
    EXPECT_EQ(group.WaitAny(1000, readEnd.Get()), 1);
}

TEST(SignalGroup, EmptyGroupWatchesTheExtraDescriptorAlone) {
    LSignalObjectGroup group;
    LFileDescriptor readEnd;
    LFileDescriptor writeEnd;
    ASSERT_TRUE(LMakePipe(readEnd, writeEnd));
    EXPECT_EQ(group.WaitAny(10, readEnd.Get()), -1);
    ASSERT_TRUE(writeEnd.Close()); // a closed writer makes the reader ready (end of stream)
    EXPECT_EQ(group.WaitAny(1000, readEnd.Get()), -2);
}

TEST(WaitReadable, InvalidDescriptorIsNeverReadable) {
    EXPECT_FALSE(LWaitReadable(-1, 0));
}

TEST(WaitReadable, PipeWhoseWriterClosedIsReadable) {
    LFileDescriptor readEnd;
    LFileDescriptor writeEnd;
    ASSERT_TRUE(LMakePipe(readEnd, writeEnd));
    EXPECT_FALSE(LWaitReadable(readEnd.Get(), 10));
    ASSERT_TRUE(writeEnd.Close());
    // The read would return the end at once, so a waiter must be woken for it.
    EXPECT_TRUE(LWaitReadable(readEnd.Get(), 1000));
}

} // namespace
