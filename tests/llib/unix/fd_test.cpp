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

using Bytes = std::vector<unsigned char>;

Bytes Pattern(std::size_t bytes) {
    Bytes out(bytes);
    for (std::size_t i = 0; i < bytes; ++i) {
        out[i] = static_cast<unsigned char>((i * 2654435761u) >> 13);
    }
    return out;
}

bool IsClosed(int fd) {
    return ::fcntl(fd, F_GETFD) == -1 && errno == EBADF;
}

// Asks a spawned shell whether `fd` survived the exec: a cache file or lock leaked into a decoder
// program is the fault this guards against.
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

TEST_F(FileDescriptorTest, OpenedFilesAndPipesAreNotInheritedByAChild) {
    LFileDescriptor fd;
    ASSERT_TRUE(fd.Open(PathOf("a").c_str(), O_RDWR | O_CREAT));
    LFileDescriptor readEnd;
    LFileDescriptor writeEnd;
    ASSERT_TRUE(LMakePipe(readEnd, writeEnd));
    EXPECT_FALSE(IsInheritedByExec(fd.Get()));
    EXPECT_FALSE(IsInheritedByExec(readEnd.Get()));
    EXPECT_FALSE(IsInheritedByExec(writeEnd.Get()));
    // The probe must see an inherited descriptor, or the checks above prove nothing.
    int const plain = ::open(PathOf("a").c_str(), O_RDONLY);
    EXPECT_TRUE(IsInheritedByExec(plain));
    ::close(plain);
    errno = 0;
    EXPECT_FALSE(fd.Open("/nonexistent-tessel-dir/x", O_RDONLY));
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(FileDescriptorTest, OwnershipClosesExactlyTheDescriptorsItOwns) {
    LFileDescriptor a;
    LFileDescriptor b;
    ASSERT_TRUE(a.Open(PathOf("a").c_str(), O_RDWR | O_CREAT));
    ASSERT_TRUE(b.Open(PathOf("b").c_str(), O_RDWR | O_CREAT));
    int const oldA = a.Get();
    int const oldB = b.Get();
    a = std::move(b);
    EXPECT_TRUE(IsClosed(oldA));
    EXPECT_EQ(a.Get(), oldB);
    EXPECT_FALSE(b.IsOpen());
    int const released = LFileDescriptor(std::move(a)).Release();
    EXPECT_FALSE(IsClosed(released));
    ::close(released);
    int first = -1;
    int second = -1;
    {
        LFileDescriptor scoped;
        ASSERT_TRUE(scoped.Open(PathOf("a").c_str(), O_RDONLY));
        first = scoped.Get();
        ASSERT_TRUE(scoped.Open(PathOf("b").c_str(), O_RDONLY));
        second = scoped.Get();
        EXPECT_TRUE(first == second || IsClosed(first));
    }
    EXPECT_TRUE(IsClosed(second));
}

TEST(FileDescriptor, PipeTransferLargerThanThePipeBufferArrivesWholeThenShortAtTheEnd) {
    LFileDescriptor readEnd;
    LFileDescriptor writeEnd;
    ASSERT_TRUE(LMakePipe(readEnd, writeEnd));
    Bytes const data = Pattern(1 << 20);
    bool written = true;
    std::thread writer([&] {
        // Uneven pieces, so the reader sees reads that end mid-piece.
        for (std::size_t at = 0, piece = 1; at < data.size(); piece = piece * 3 + 1) {
            std::size_t const n = std::min(piece, data.size() - at);
            written = writeEnd.WriteAll(data.data() + at, n) && written;
            at += n;
        }
        (void)writeEnd.Close();
    });
    Bytes got(data.size() + 100, 0xEE);
    std::int64_t const n = readEnd.ReadFull(got.data(), got.size());
    writer.join();
    EXPECT_TRUE(written);
    ASSERT_EQ(n, static_cast<std::int64_t>(data.size()));
    EXPECT_TRUE(std::equal(data.begin(), data.end(), got.begin()));
    EXPECT_EQ(got[data.size()], 0xEE);
    EXPECT_EQ(readEnd.ReadFull(got.data(), 1), 0); // end of stream, not an error
}

TEST_F(FileDescriptorTest, PositionedAndSequentialFileIoAgreeIncludingShortReadsAtEnd) {
    LFileDescriptor fd;
    ASSERT_TRUE(fd.Open(PathOf("f").c_str(), O_RDWR | O_CREAT));
    Bytes const data = Pattern(200000);
    ASSERT_TRUE(fd.WriteAll(data.data(), data.size()));
    EXPECT_EQ(fd.GetSize(), 200000);
    Bytes got(5000);
    ASSERT_EQ(fd.PReadFull(got.data(), 5000, 123456), 5000);
    EXPECT_TRUE(std::equal(got.begin(), got.end(), data.begin() + 123456));
    ASSERT_EQ(fd.PReadFull(got.data(), 5000, 199000), 1000); // short at the end of the file
    EXPECT_EQ(fd.PReadFull(got.data(), 5000, 300000), 0);
    ASSERT_TRUE(fd.SeekTo(197000));
    ASSERT_EQ(fd.ReadFull(got.data(), 5000), 3000);
    EXPECT_TRUE(std::equal(got.begin(), got.begin() + 3000, data.begin() + 197000));
    unsigned char const tail[3] = {7, 8, 9}; // past the end: leaves a zero-filled hole
    ASSERT_TRUE(fd.PWriteAll(tail, 3, 200010));
    ASSERT_EQ(fd.PReadFull(got.data(), 13, 200000), 13);
    EXPECT_EQ(Bytes(got.begin(), got.begin() + 13), (Bytes{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 7, 8, 9}));
    ASSERT_TRUE(fd.Truncate(10));
    EXPECT_EQ(fd.GetSize(), 10);
}

TEST(FileDescriptor, WritesToAFullDeviceOrAClosedDescriptorFail) {
    LFileDescriptor fd;
    unsigned char const data[10] = {};
    EXPECT_FALSE(fd.WriteAll(data, 1));
    EXPECT_EQ(fd.GetSize(), -1);
    ASSERT_TRUE(fd.Open("/dev/full", O_WRONLY));
    errno = 0;
    EXPECT_FALSE(fd.WriteAll(data, sizeof data));
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_FALSE(fd.PWriteAll(data, sizeof data, 0));
    EXPECT_TRUE(fd.WriteAll(data, 0)); // nothing to move is not a failure
}

} // namespace
