// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/unix/filelock.h"

#include "llib/unix/thread.h"
#include "tests/support/lockpeer.h"
#include "tests/support/tempdir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <string>

namespace {

class FileLockTest : public LTempDirTest {
protected:
    void SetUp() override {
        LTempDirTest::SetUp();
        m_path = PathOf("locked");
        ASSERT_TRUE(m_fd.Open(m_path.c_str(), O_RDWR | O_CREAT));
    }
    std::string m_path;
    LFileDescriptor m_fd;
};

TEST_F(FileLockTest, SharedLocksCoexistAndRelockingChangesTheMode) {
    LockPeer peer(m_path);
    ASSERT_TRUE(peer.Ask('S'));
    LFileLock lock;
    EXPECT_TRUE(lock.Lock(m_fd, LFileLockMode::kShared, 0));
    EXPECT_FALSE(peer.Ask('X')); // the shared holders keep a writer out
    ASSERT_TRUE(peer.Ask('U'));
    ASSERT_TRUE(lock.Lock(m_fd, LFileLockMode::kExclusive, 200));
    EXPECT_FALSE(peer.Ask('S'));
    ASSERT_TRUE(lock.Lock(m_fd, LFileLockMode::kShared, 200));
    EXPECT_TRUE(peer.Ask('S'));
    EXPECT_FALSE(LFileLock().Lock(LFileDescriptor(), LFileLockMode::kShared, 50));
}

class FileLockModeTest : public FileLockTest,
                         public ::testing::WithParamInterface<LFileLockMode> {};

TEST_P(FileLockModeTest, LockHeldByAnotherProcessTimesOutAfterTheWaitThenIsGranted) {
    LockPeer peer(m_path);
    ASSERT_TRUE(peer.Ask('X'));
    LFileLock lock;
    std::int64_t const start = LGetTickMs();
    EXPECT_FALSE(lock.Lock(m_fd, GetParam(), 200));
    EXPECT_GE(LGetTickMs() - start, 200);
    EXPECT_FALSE(lock.IsLocked());
    ASSERT_TRUE(peer.Ask('U'));
    EXPECT_TRUE(lock.Lock(m_fd, GetParam(), 200));
    EXPECT_TRUE(lock.IsLocked());
}

INSTANTIATE_TEST_SUITE_P(Modes, FileLockModeTest,
                         ::testing::Values(LFileLockMode::kShared, LFileLockMode::kExclusive));

enum class Release { kUnlock, kDestructor, kDescriptorClose };

class FileLockReleaseTest : public FileLockTest, public ::testing::WithParamInterface<Release> {};

TEST_P(FileLockReleaseTest, AnotherProcessCanLockOnceTheLockIsReleased) {
    LockPeer peer(m_path);
    {
        LFileLock lock;
        ASSERT_TRUE(lock.Lock(m_fd, LFileLockMode::kExclusive, 200));
        EXPECT_FALSE(peer.Ask('S'));
        if (GetParam() == Release::kUnlock) {
            lock.Unlock();
            EXPECT_FALSE(lock.IsLocked());
        } else if (GetParam() == Release::kDescriptorClose) {
            EXPECT_TRUE(m_fd.Close());
        }
        if (GetParam() != Release::kDestructor) {
            EXPECT_TRUE(peer.Ask('S'));
            EXPECT_TRUE(peer.Ask('U'));
        }
    }
    EXPECT_TRUE(peer.Ask('X'));
}

INSTANTIATE_TEST_SUITE_P(Ways, FileLockReleaseTest,
                         ::testing::Values(Release::kUnlock, Release::kDestructor,
                                           Release::kDescriptorClose));

} // namespace
