// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/unix/writebehind.h"

#include "tests/support/tempdir.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include <string>

namespace {

class WriteBehindTest : public LTempDirTest {};

// Pieces of every size around the buffer's, so hand-overs fall inside, at and across pieces:
// the file must hold exactly the bytes in their order.
TEST_F(WriteBehindTest, WritesEveryByteInOrder) {
    std::string const path = PathOf("out.bin");
    LFileDescriptor fd;
    ASSERT_TRUE(fd.Open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
    std::string expected;
    {
        LWriteBehind writer(4096);
        writer.Start(fd);
        unsigned char next = 0;
        for (std::size_t size : {1u, 4095u, 4096u, 4097u, 10000u, 3u, 8192u, 12345u}) {
            std::string piece(size, '\0');
            for (char& c : piece) {
                c = static_cast<char>(next++);
            }
            ASSERT_TRUE(writer.Write(piece.data(), piece.size()));
            expected += piece;
        }
        EXPECT_TRUE(writer.Finish());
        EXPECT_TRUE(writer.Finish()); // repeats the answer
    }
    ASSERT_TRUE(fd.Close());
    EXPECT_EQ(ReadFileBytes(path), expected);
}

// A reader of the growing file (a recording played while it goes on) sees every byte written
// before a Flush, with the writer still running, and the writes go on after it.
TEST_F(WriteBehindTest, FlushPutsEverythingWrittenInTheFile) {
    std::string const path = PathOf("grow.bin");
    LFileDescriptor fd;
    ASSERT_TRUE(fd.Open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
    LWriteBehind writer(4096);
    writer.Start(fd);
    std::string const first(5000, 'a');
    ASSERT_TRUE(writer.Write(first.data(), first.size()));
    ASSERT_TRUE(writer.Flush());
    EXPECT_EQ(ReadFileBytes(path), first);
    ASSERT_TRUE(writer.Write("bc", 2));
    ASSERT_TRUE(writer.Flush());
    EXPECT_EQ(ReadFileBytes(path), first + "bc");
    EXPECT_TRUE(writer.Finish());
}

// Room reserved for more than comes: the file holds what was written, and the blocks reserved
// past it are given back when the writer finishes.
TEST_F(WriteBehindTest, AReservationLeavesTheSizeToTheWritesAndGivesBackTheRest) {
    std::string const path = PathOf("reserved.bin");
    LFileDescriptor fd;
    ASSERT_TRUE(fd.Open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
    std::string const data(5000, 'r');
    constexpr std::uint64_t kReserved = std::uint64_t{64} << 20;
    struct stat st {};
    {
        LWriteBehind writer(4096);
        writer.SetExpectedBytes(kReserved);
        writer.Start(fd);
        ASSERT_TRUE(writer.Write(data.data(), data.size()));
        ASSERT_TRUE(writer.Flush());
        ASSERT_EQ(fstat(fd.Get(), &st), 0);
        EXPECT_EQ(st.st_size, 5000) << "the reservation must not count as data";
        EXPECT_TRUE(writer.Finish());
    }
    ASSERT_EQ(fstat(fd.Get(), &st), 0);
    EXPECT_EQ(st.st_size, 5000);
    EXPECT_LT(static_cast<std::uint64_t>(st.st_blocks) * 512, std::uint64_t{1} << 20);
    ASSERT_TRUE(fd.Close());
    EXPECT_EQ(ReadFileBytes(path), data);
}

// A device that is always full: the failure comes back at a later Write, Flush or Finish,
// never lost.
TEST_F(WriteBehindTest, AFailedWriteIsReported) {
    LFileDescriptor fd;
    ASSERT_TRUE(fd.Open("/dev/full", O_WRONLY, 0));
    LWriteBehind writer(4096);
    writer.Start(fd);
    std::string const block(4096, 'x');
    // Whether a Write already refuses depends on the thread's timing; Flush always knows.
    for (int i = 0; i < 4; ++i) {
        (void)writer.Write(block.data(), block.size());
    }
    EXPECT_FALSE(writer.Flush());
    EXPECT_FALSE(writer.Finish());
    EXPECT_EQ(writer.GetSystemError(), ENOSPC);
}

} // namespace
