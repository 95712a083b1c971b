// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/unix/fd.h"

#include "tests/support/tempdir.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

std::vector<unsigned char> Pattern(std::size_t bytes, unsigned seed) {
    std::vector<unsigned char> out(bytes);
    std::uint32_t x = seed * 2654435761u + 1;
    for (auto& b : out) {
        x = x * 1664525u + 1013904223u;
        b = static_cast<unsigned char>(x >> 24);
    }
    return out;
}

bool HasCloseOnExec(int fd) {
    int const flags = ::fcntl(fd, F_GETFD);
    return flags >= 0 && (flags & FD_CLOEXEC) != 0;
}

bool IsClosed(int fd) {
    return ::fcntl(fd, F_GETFD) == -1 && errno == EBADF;
}

// Runs a shell in a child process and asks it whether `fd` survived the exec. A leaked cache file
// or lock in a decoder program is the fault this guards against.
bool IsInheritedByExec(int fd) {
    pid_t const pid = ::fork();
    if (pid == 0) {
        std::string const test = "test -e /proc/self/fd/" + std::to_string(fd);
        ::execl("/bin/sh", "sh", "-c", test.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

class FileDescriptorTest : public LTempDirTest {};

TEST_F(FileDescriptorTest, OpenedDescriptorIsCloseOnExecAndNotInheritedByExec) {
    LFileDescriptor fd;
    ASSERT_TRUE(fd.Open(PathOf("a").c_str(), O_RDWR | O_CREAT));
    EXPECT_TRUE(HasCloseOnExec(fd.Get()));
    EXPECT_FALSE(IsInheritedByExec(fd.Get()));

    // The probe itself must be able to see an inherited descriptor, or the check above proves
    // nothing.
    int const plain = ::open(PathOf("a").c_str(), O_RDONLY);
    ASSERT_GE(plain, 0);
    EXPECT_TRUE(IsInheritedByExec(plain));
    ::close(plain);
}

TEST(FileDescriptor, PipeEndsAreCloseOnExec) {
    LFileDescriptor readEnd;
    LFileDescriptor writeEnd;
    ASSERT_TRUE(LMakePipe(readEnd, writeEnd));
    EXPECT_TRUE(HasCloseOnExec(readEnd.Get()));
    EXPECT_TRUE(HasCloseOnExec(writeEnd.Get()));
    EXPECT_FALSE(IsInheritedByExec(readEnd.Get()));
    EXPECT_FALSE(IsInheritedByExec(writeEnd.Get()));
}

TEST(FileDescriptor, OpenOfMissingFileFailsAndKeepsErrno) {
    LFileDescriptor fd;
    errno = 0;
    EXPECT_FALSE(fd.Open("/nonexistent-tessel-dir/x", O_RDONLY));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(fd.IsOpen());
}

TEST_F(FileDescriptorTest, OwnershipClosesExactlyTheDescriptorsItOwns) {
    LFileDescriptor a;
    LFileDescriptor b;
    ASSERT_TRUE(a.Open(PathOf("a").c_str(), O_RDWR | O_CREAT));
    ASSERT_TRUE(b.Open(PathOf("b").c_str(), O_RDWR | O_CREAT));
    int const oldA = a.Get();
    int const oldB = b.Get();

    a = std::move(b); // the descriptor `a` held must be closed, not leaked
    EXPECT_TRUE(IsClosed(oldA));
    EXPECT_EQ(a.Get(), oldB);
    EXPECT_FALSE(b.IsOpen());

    LFileDescriptor moved(std::move(a));
    EXPECT_FALSE(a.IsOpen());
    int const released = moved.Release();
    EXPECT_FALSE(IsClosed(released)); // released descriptors belong to the caller now
    ::close(released);

    int reopened = -1;
    {
        LFileDescriptor scoped;
        ASSERT_TRUE(scoped.Open(PathOf("a").c_str(), O_RDONLY));
        reopened = scoped.Get();
        // Opening again on an open object must close the first descriptor.
        ASSERT_TRUE(scoped.Open(PathOf("b").c_str(), O_RDONLY));
        if (scoped.Get() != reopened) {
            EXPECT_TRUE(IsClosed(reopened));
        }
        reopened = scoped.Get();
    }
    EXPECT_TRUE(IsClosed(reopened));
}

TEST(FileDescriptor, PipeTransfersLargerThanThePipeBufferArriveWhole) {
    LFileDescriptor readEnd;
    LFileDescriptor writeEnd;
    ASSERT_TRUE(LMakePipe(readEnd, writeEnd));
    std::vector<unsigned char> const data = Pattern(1 << 20, 1);
    bool written = false;
    std::thread writer([&] {
        // Uneven pieces, so the reader sees reads that end mid-piece.
        std::size_t at = 0;
        written = true;
        for (std::size_t piece = 1; at < data.size(); piece = piece * 3 + 1) {
            std::size_t const n = std::min(piece, data.size() - at);
            written = writeEnd.WriteAll(data.data() + at, n) && written;
            at += n;
        }
        (void)writeEnd.Close();
    });
    std::vector<unsigned char> got(data.size());
    std::int64_t const n = readEnd.ReadFull(got.data(), got.size());
    writer.join();
    EXPECT_TRUE(written);
    ASSERT_EQ(n, static_cast<std::int64_t>(data.size()));
    EXPECT_EQ(got, data);
    unsigned char extra = 0;
    EXPECT_EQ(readEnd.ReadFull(&extra, 1), 0); // end of stream, not an error
}

TEST(FileDescriptor, ReadFullReturnsTheShortCountAtEndOfPipe) {
    LFileDescriptor readEnd;
    LFileDescriptor writeEnd;
    ASSERT_TRUE(LMakePipe(readEnd, writeEnd));
    std::vector<unsigned char> const data = Pattern(100, 2);
    ASSERT_TRUE(writeEnd.WriteAll(data.data(), data.size()));
    ASSERT_TRUE(writeEnd.Close());
    std::vector<unsigned char> got(1000, 0xEE);
    ASSERT_EQ(readEnd.ReadFull(got.data(), got.size()), 100);
    EXPECT_TRUE(std::equal(data.begin(), data.end(), got.begin()));
    EXPECT_EQ(got[100], 0xEE);
}

TEST_F(FileDescriptorTest, PositionedAndSequentialFileIoAgreeIncludingShortReadsAtEnd) {
    LFileDescriptor fd;
    ASSERT_TRUE(fd.Open(PathOf("f").c_str(), O_RDWR | O_CREAT));
    std::vector<unsigned char> const data = Pattern(200000, 3);
    ASSERT_TRUE(fd.WriteAll(data.data(), data.size()));
    EXPECT_EQ(fd.GetSize(), 200000);

    std::vector<unsigned char> got(5000);
    ASSERT_EQ(fd.PReadFull(got.data(), 5000, 123456), 5000);
    EXPECT_TRUE(std::equal(got.begin(), got.end(), data.begin() + 123456));
    ASSERT_EQ(fd.PReadFull(got.data(), 5000, 199000), 1000); // short at the end of the file
    EXPECT_TRUE(std::equal(got.begin(), got.begin() + 1000, data.begin() + 199000));
    EXPECT_EQ(fd.PReadFull(got.data(), 5000, 200000), 0);
    EXPECT_EQ(fd.PReadFull(got.data(), 5000, 300000), 0);

    ASSERT_TRUE(fd.SeekTo(197000));
    ASSERT_EQ(fd.ReadFull(got.data(), 5000), 3000);
    EXPECT_TRUE(std::equal(got.begin(), got.begin() + 3000, data.begin() + 197000));

    // A positioned write past the end leaves a zero-filled hole.
    unsigned char const tail[3] = {7, 8, 9};
    ASSERT_TRUE(fd.PWriteAll(tail, 3, 200010));
    EXPECT_EQ(fd.GetSize(), 200013);
    ASSERT_EQ(fd.PReadFull(got.data(), 13, 200000), 13);
    EXPECT_EQ(std::vector<unsigned char>(got.begin(), got.begin() + 13),
              (std::vector<unsigned char>{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 7, 8, 9}));

    ASSERT_TRUE(fd.Truncate(10));
    EXPECT_EQ(fd.GetSize(), 10);
    EXPECT_TRUE(fd.Sync());
}

TEST(FileDescriptor, WritesToAFullDeviceFailWithTheSystemError) {
    LFileDescriptor fd;
    ASSERT_TRUE(fd.Open("/dev/full", O_WRONLY));
    std::vector<unsigned char> const data = Pattern(10, 4);
    errno = 0;
    EXPECT_FALSE(fd.WriteAll(data.data(), data.size()));
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_FALSE(fd.PWriteAll(data.data(), data.size(), 0));
    EXPECT_TRUE(fd.WriteAll(data.data(), 0)); // nothing to move is not a failure
}

TEST(FileDescriptor, CallsOnAClosedDescriptorFail) {
    LFileDescriptor fd;
    unsigned char byte = 0;
    EXPECT_FALSE(fd.WriteAll(&byte, 1));
    EXPECT_EQ(fd.ReadFull(&byte, 1), -1);
    EXPECT_EQ(fd.PReadFull(&byte, 1, 0), -1);
    EXPECT_EQ(fd.GetSize(), -1);
    EXPECT_FALSE(fd.Truncate(0));
    EXPECT_TRUE(fd.Close()); // closing nothing is not an error
}

} // namespace
