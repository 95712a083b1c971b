// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/unix/filelock.h"

#include "llib/unix/thread.h"
#include "tests/support/tempdir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Another process with its own open file description of `path`, taking and dropping flock(2)
// locks on command. flock locks of one process never conflict with themselves through a shared
// description, so only a second process shows whether a lock is really held or released.
class LockPeer {
public:
    explicit LockPeer(std::string const& path) {
        int toChild[2];
        int toParent[2];
        if (::pipe2(toChild, O_CLOEXEC) != 0 || ::pipe2(toParent, O_CLOEXEC) != 0) {
            return;
        }
        m_pid = ::fork();
        if (m_pid == 0) {
            ::close(toChild[1]);
            ::close(toParent[0]);
            Serve(path, toChild[0], toParent[1]);
        }
        ::close(toChild[0]);
        ::close(toParent[1]);
        m_command = toChild[1];
        m_reply = toParent[0];
    }
    ~LockPeer() {
        ::close(m_command); // end of commands: the peer exits
        ::close(m_reply);
        if (m_pid > 0) {
            int status = 0;
            ::waitpid(m_pid, &status, 0);
        }
    }
    LockPeer(LockPeer const&) = delete;
    LockPeer& operator=(LockPeer const&) = delete;

    // 'X' / 'S': try an exclusive / shared lock without waiting; 'U': unlock. True on success.
    bool Ask(char command) {
        char reply = 0;
        return ::write(m_command, &command, 1) == 1 && ::read(m_reply, &reply, 1) == 1 &&
               reply == '1';
    }

private:
    [[noreturn]] static void Serve(std::string const& path, int commands, int replies) {
        // A forked child shares the parent's open file descriptions, and with them the parent's
        // locks: keep only the command pipes so that closing a descriptor in the parent really
        // is the last close.
        ::dup2(commands, 0);
        ::dup2(replies, 1);
        ::close_range(3, ~0u, 0);
        commands = 0;
        replies = 1;
        int const fd = ::open(path.c_str(), O_RDWR);
        char command = 0;
        while (::read(commands, &command, 1) == 1) {
            int const op = command == 'X'   ? LOCK_EX | LOCK_NB
                           : command == 'S' ? LOCK_SH | LOCK_NB
                                            : LOCK_UN;
            char const reply = fd >= 0 && ::flock(fd, op) == 0 ? '1' : '0';
            if (::write(replies, &reply, 1) != 1) {
                break;
            }
        }
        ::_exit(0);
    }

    pid_t m_pid = -1;
    int m_command = -1;
    int m_reply = -1;
};

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

TEST_F(FileLockTest, SharedLocksCoexistAcrossProcessesAndDescriptors) {
    LockPeer peer(m_path);
    ASSERT_TRUE(peer.Ask('S'));
    LFileLock lock;
    EXPECT_TRUE(lock.Lock(m_fd, LFileLockMode::kShared, 200));
    EXPECT_TRUE(lock.IsLocked());

    LFileDescriptor second;
    ASSERT_TRUE(second.Open(m_path.c_str(), O_RDONLY));
    LFileLock secondLock;
    EXPECT_TRUE(secondLock.Lock(second, LFileLockMode::kShared, 200));
    EXPECT_FALSE(peer.Ask('X')); // the shared holders keep a writer out
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

TEST_P(FileLockModeTest, ZeroWaitStillGrantsAFreeLock) {
    LFileLock lock;
    EXPECT_TRUE(lock.Lock(m_fd, GetParam(), 0));
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
        switch (GetParam()) {
        case Release::kUnlock:
            lock.Unlock();
            EXPECT_FALSE(lock.IsLocked());
            break;
        case Release::kDescriptorClose:
            EXPECT_TRUE(m_fd.Close());
            break;
        case Release::kDestructor:
            break;
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

TEST_F(FileLockTest, RelockingChangesTheModeOfTheSameHolder) {
    LockPeer peer(m_path);
    LFileLock lock;
    ASSERT_TRUE(lock.Lock(m_fd, LFileLockMode::kExclusive, 200));
    EXPECT_FALSE(peer.Ask('S'));
    ASSERT_TRUE(lock.Lock(m_fd, LFileLockMode::kShared, 200));
    EXPECT_TRUE(peer.Ask('S'));
    EXPECT_TRUE(peer.Ask('U'));
    EXPECT_FALSE(peer.Ask('X'));
}

TEST(FileLock, LockOnAClosedDescriptorFails) {
    LFileDescriptor closed;
    LFileLock lock;
    EXPECT_FALSE(lock.Lock(closed, LFileLockMode::kShared, 50));
    EXPECT_FALSE(lock.IsLocked());
}

} // namespace
