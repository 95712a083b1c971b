// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/gen/filestream.h"

#include "llib/unix/thread.h"
#include "tests/support/lockpeer.h"
#include "tests/support/tempdir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <fcntl.h>
#include <random>
#include <string>
#include <sys/file.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

Bytes Pattern(std::size_t bytes, unsigned seed) {
    Bytes out(bytes);
    std::uint32_t x = seed * 2654435761u + 1;
    for (auto& b : out) {
        x = x * 1664525u + 1013904223u;
        b = static_cast<unsigned char>(x >> 24);
    }
    return out;
}

Bytes ReadFile(std::string const& path) {
    std::string const s = ReadFileBytes(path);
    return Bytes(s.begin(), s.end());
}

class FileStreamTest : public LTempDirTest {
protected:
    void SetUp() override {
        LTempDirTest::SetUp();
        m_path = PathOf("stream.bin");
    }
    std::string m_path;
};

// ---- LOutputStreamFile ----

// Writes cycle through these sizes; between them the writer back-patches earlier bytes the way
// a chunk writer fixes up its lengths, and the file must equal a plain array model.
class OutputChunkTest : public FileStreamTest,
                        public ::testing::WithParamInterface<std::vector<std::uint64_t>> {};

TEST_P(OutputChunkTest, BufferedWritesWithBackPatchesGiveTheExactBytes) {
    std::vector<std::uint64_t> const& sizes = GetParam();
    LOutputStreamFile out;
    ASSERT_TRUE(out.Open(m_path.c_str()));
    Bytes model;
    std::mt19937 random(7);
    unsigned seed = 1;
    std::uint64_t total = 0;
    for (std::size_t i = 0; total < 400000; ++i) {
        Bytes const data = Pattern(sizes[i % sizes.size()], seed++);
        ASSERT_TRUE(out.Write(data.data(), data.size()));
        model.insert(model.end(), data.begin(), data.end());
        total += data.size();
        ASSERT_EQ(out.GetOffset(), model.size());
        if (i % 3 == 2) {
            std::uint64_t const end = out.GetOffset();
            std::uint64_t const at = random() % (model.size() - 3);
            Bytes const patch = Pattern(4, seed++);
            std::uint64_t const patchBytes = std::min<std::uint64_t>(4, model.size() - at);
            ASSERT_TRUE(out.Seek(at));
            ASSERT_TRUE(out.Write(patch.data(), patchBytes));
            std::copy_n(patch.begin(), patchBytes, model.begin() + static_cast<long>(at));
            ASSERT_TRUE(out.Seek(end));
        }
    }
    ASSERT_TRUE(out.Close());
    Bytes const file = ReadFile(m_path);
    ASSERT_EQ(file.size(), model.size());
    EXPECT_TRUE(file == model);
}

INSTANTIATE_TEST_SUITE_P(Sizes, OutputChunkTest,
                         ::testing::Values(std::vector<std::uint64_t>{1, 3, 7},
                                           std::vector<std::uint64_t>{4095},
                                           std::vector<std::uint64_t>{65535, 1, 65536, 65537},
                                           std::vector<std::uint64_t>{1, 7, 4095, 65537},
                                           std::vector<std::uint64_t>{200000, 5}));

TEST_F(FileStreamTest, LengthPatchedAfterTheBodyLandsAtTheStart) {
    LOutputStreamFile out;
    ASSERT_TRUE(out.Open(m_path.c_str()));
    Bytes const body = Pattern(100000, 3);
    unsigned char const placeholder[4] = {0, 0, 0, 0};
    ASSERT_TRUE(out.Write(placeholder, 4));
    ASSERT_TRUE(out.Write(body.data(), body.size()));
    std::uint64_t const end = out.GetOffset();
    unsigned char const length[4] = {0xA0, 0x86, 0x01, 0x00};
    ASSERT_TRUE(out.Seek(0));
    ASSERT_TRUE(out.Write(length, 4));
    ASSERT_TRUE(out.Seek(end));
    unsigned char const trailer[2] = {0xEE, 0xFF};
    ASSERT_TRUE(out.Write(trailer, 2));
    ASSERT_TRUE(out.Close());

    Bytes expected(length, length + 4);
    expected.insert(expected.end(), body.begin(), body.end());
    expected.insert(expected.end(), trailer, trailer + 2);
    EXPECT_TRUE(ReadFile(m_path) == expected);
}

TEST_F(FileStreamTest, OpenTruncatesAnExistingFile) {
    Bytes const old = Pattern(100000, 4);
    ASSERT_TRUE(WriteFileBytes(m_path, old.data(), old.size()));
    for (LFileLocking locking : {LFileLocking::kLock, LFileLocking::kNone}) {
        LOutputStreamFile out;
        ASSERT_TRUE(out.Open(m_path.c_str(), locking));
        unsigned char const data[3] = {1, 2, 3};
        ASSERT_TRUE(out.Write(data, 3));
        ASSERT_TRUE(out.Close());
        EXPECT_EQ(ReadFile(m_path), (Bytes{1, 2, 3}));
    }
}

TEST_F(FileStreamTest, CloseOfAStreamNeverOpenedReportsFailure) {
    LOutputStreamFile out;
    EXPECT_FALSE(out.Close());
    unsigned char const b = 0;
    EXPECT_FALSE(out.Write(&b, 1));
    EXPECT_FALSE(out.Open((Dir() + "/missing/x").c_str()));
    EXPECT_FALSE(out.Write(&b, 1));
}

enum class FullDeviceWay { kOpen, kAdopt };

class FullDeviceTest : public FileStreamTest, public ::testing::WithParamInterface<FullDeviceWay> {
protected:
    void OpenFull(LOutputStreamFile& out) {
        if (GetParam() == FullDeviceWay::kOpen) {
            ASSERT_TRUE(out.Open("/dev/full"));
            return;
        }
        LFileDescriptor fd;
        ASSERT_TRUE(fd.Open("/dev/full", O_WRONLY));
        ASSERT_TRUE(out.Adopt(std::move(fd)));
    }
};

TEST_P(FullDeviceTest, BufferedWriteFailureIsReportedByClose) {
    LOutputStreamFile out;
    OpenFull(out);
    Bytes const data = Pattern(100, 5);
    EXPECT_TRUE(out.Write(data.data(), data.size())); // still in the buffer
    EXPECT_FALSE(out.Close());
}

TEST_P(FullDeviceTest, FailureIsStickyForEveryLaterCall) {
    LOutputStreamFile out;
    OpenFull(out);
    Bytes const data = Pattern(70000, 6);
    EXPECT_FALSE(out.Write(data.data(), data.size()));
    EXPECT_FALSE(out.IsOk());
    EXPECT_FALSE(out.Write(data.data(), 1));
    EXPECT_FALSE(out.Seek(0));
    EXPECT_FALSE(out.Flush());
    EXPECT_FALSE(out.Sync());
    EXPECT_FALSE(out.Close());
    EXPECT_FALSE(out.Write(data.data(), 1));
}

TEST_P(FullDeviceTest, FlushOfBufferedBytesFailsAndStaysFailed) {
    LOutputStreamFile out;
    OpenFull(out);
    Bytes const data = Pattern(10, 7);
    ASSERT_TRUE(out.Write(data.data(), data.size()));
    EXPECT_FALSE(out.Flush());
    EXPECT_FALSE(out.Write(data.data(), data.size()));
    EXPECT_FALSE(out.Close());
}

INSTANTIATE_TEST_SUITE_P(Ways, FullDeviceTest,
                         ::testing::Values(FullDeviceWay::kOpen, FullDeviceWay::kAdopt));

// ---- LInputStreamFile ----

class InputStreamTest : public FileStreamTest {
protected:
    void SetUp() override {
        FileStreamTest::SetUp();
        m_data = Pattern(300001, 8);
        ASSERT_TRUE(WriteFileBytes(m_path, m_data.data(), m_data.size()));
    }
    Bytes m_data;
};

class InputChunkTest : public InputStreamTest,
                       public ::testing::WithParamInterface<std::vector<std::uint64_t>> {};

TEST_P(InputChunkTest, ReadsInChunksEqualOneWholeRead) {
    LInputStreamFile in;
    ASSERT_TRUE(in.Open(m_path.c_str()));
    ASSERT_EQ(in.GetSize(), m_data.size());
    Bytes got;
    std::vector<std::uint64_t> const& sizes = GetParam();
    for (std::size_t i = 0; in.GetOffset() < in.GetSize(); ++i) {
        std::uint64_t const n = std::min(sizes[i % sizes.size()], in.GetSize() - in.GetOffset());
        Bytes chunk(n);
        ASSERT_TRUE(in.Read(chunk.data(), n)) << "at " << in.GetOffset();
        got.insert(got.end(), chunk.begin(), chunk.end());
    }
    EXPECT_TRUE(got == m_data);
    unsigned char b = 0;
    EXPECT_FALSE(in.Read(&b, 1));
}

INSTANTIATE_TEST_SUITE_P(Sizes, InputChunkTest,
                         ::testing::Values(std::vector<std::uint64_t>{1},
                                           std::vector<std::uint64_t>{7},
                                           std::vector<std::uint64_t>{4095},
                                           std::vector<std::uint64_t>{65537},
                                           std::vector<std::uint64_t>{300001},
                                           std::vector<std::uint64_t>{1, 7, 4095, 65537}));

TEST_F(InputStreamTest, ReadPastTheEndFailsAndTheStreamStaysUsable) {
    LInputStreamFile in;
    ASSERT_TRUE(in.Open(m_path.c_str()));
    ASSERT_TRUE(in.Seek(m_data.size() - 3));
    unsigned char got[4] = {};
    EXPECT_FALSE(in.Read(got, 4));
    ASSERT_TRUE(in.Seek(m_data.size() - 3));
    ASSERT_TRUE(in.Read(got, 3));
    EXPECT_TRUE(std::equal(got, got + 3, m_data.end() - 3));
    EXPECT_TRUE(in.Read(got, 0));
    EXPECT_FALSE(in.Read(got, 1));
    EXPECT_FALSE(in.Read(got, UINT64_MAX));
}

TEST_F(InputStreamTest, SeekBeyondTheSizeFails) {
    LInputStreamFile in;
    ASSERT_TRUE(in.Open(m_path.c_str()));
    EXPECT_FALSE(in.Seek(m_data.size() + 1));
    EXPECT_TRUE(in.Seek(m_data.size()));
    unsigned char b = 0;
    EXPECT_FALSE(in.Read(&b, 1));
}

TEST_F(InputStreamTest, RandomSeeksReadTheSameBytesAsTheFile) {
    LInputStreamFile in;
    ASSERT_TRUE(in.Open(m_path.c_str()));
    std::mt19937 random(99);
    for (int i = 0; i < 400; ++i) {
        std::uint64_t const at = random() % m_data.size();
        // Mostly short reads near each other (inside the buffer), sometimes long ones.
        std::uint64_t const want = i % 10 == 0 ? random() % 150000 : random() % 300;
        std::uint64_t const n = std::min<std::uint64_t>(want, m_data.size() - at);
        Bytes got(n);
        ASSERT_TRUE(in.Seek(at));
        ASSERT_TRUE(in.Read(got.data(), n));
        ASSERT_TRUE(std::equal(got.begin(), got.end(), m_data.begin() + static_cast<long>(at)))
            << "at " << at << " bytes " << n;
        ASSERT_EQ(in.GetOffset(), at + n);
    }
}

TEST_F(InputStreamTest, ReopeningReadsTheNewFileFromItsStart) {
    LInputStreamFile in;
    ASSERT_TRUE(in.Open(m_path.c_str()));
    unsigned char b = 0;
    ASSERT_TRUE(in.Read(&b, 1));
    unsigned char const other[2] = {42, 43};
    std::string const otherPath = PathOf("other");
    ASSERT_TRUE(WriteFileBytes(otherPath, other, 2));
    ASSERT_TRUE(in.Open(otherPath.c_str()));
    EXPECT_EQ(in.GetSize(), 2u);
    ASSERT_TRUE(in.Read(&b, 1));
    EXPECT_EQ(b, 42); // not a byte left over in the buffer of the first file
    EXPECT_FALSE(in.Open(PathOf("missing").c_str()));
    EXPECT_FALSE(in.IsOpen());
    EXPECT_FALSE(in.Read(&b, 1));
}

// ---- Locks held by the streams ----

enum class StreamKind { kOutput, kOutputUnlocked, kInputShared, kReadWrite };

class StreamLockTest : public FileStreamTest, public ::testing::WithParamInterface<StreamKind> {};

TEST_P(StreamLockTest, StreamHoldsItsLockExactlyWhileOpen) {
    Bytes const data = Pattern(10, 9);
    ASSERT_TRUE(WriteFileBytes(m_path, data.data(), data.size()));
    LockPeer peer(m_path);
    LOutputStreamFile out;
    LInputStreamFileShared shared;
    LReadWriteFile readWrite;
    switch (GetParam()) {
    case StreamKind::kOutput:
        ASSERT_TRUE(out.Open(m_path.c_str()));
        EXPECT_FALSE(peer.Ask('S'));
        ASSERT_TRUE(out.Close());
        break;
    case StreamKind::kOutputUnlocked:
        ASSERT_TRUE(out.Open(m_path.c_str(), LFileLocking::kNone));
        EXPECT_TRUE(peer.Ask('X'));
        EXPECT_TRUE(peer.Ask('U'));
        ASSERT_TRUE(out.Close());
        break;
    case StreamKind::kInputShared:
        ASSERT_TRUE(shared.Open(m_path.c_str()));
        EXPECT_FALSE(peer.Ask('X'));
        EXPECT_TRUE(peer.Ask('S')); // readers share
        EXPECT_TRUE(peer.Ask('U'));
        shared.Close();
        break;
    case StreamKind::kReadWrite:
        ASSERT_TRUE(readWrite.Open(m_path.c_str(), false));
        EXPECT_FALSE(peer.Ask('S'));
        ASSERT_TRUE(readWrite.Close());
        break;
    }
    EXPECT_TRUE(peer.Ask('X'));
}

INSTANTIATE_TEST_SUITE_P(Kinds, StreamLockTest,
                         ::testing::Values(StreamKind::kOutput, StreamKind::kOutputUnlocked,
                                           StreamKind::kInputShared, StreamKind::kReadWrite));

// The one case that waits the full lock wait: every locking open gives up while another process
// holds the file exclusively, and the writer has not truncated what the holder is writing.
TEST_F(FileStreamTest, LockingOpensGiveUpWhileAnotherProcessHoldsTheFile) {
    Bytes const data = Pattern(5000, 10);
    ASSERT_TRUE(WriteFileBytes(m_path, data.data(), data.size()));
    LockPeer peer(m_path);
    ASSERT_TRUE(peer.Ask('X'));

    // The three opens wait side by side so the case costs one lock wait, not three.
    bool sharedOpened = true;
    bool outputOpened = true;
    bool readWriteOpened = true;
    std::thread sharedThread([&] {
        LInputStreamFileShared in;
        sharedOpened = in.Open(m_path.c_str());
    });
    std::thread outputThread([&] {
        LOutputStreamFile out;
        outputOpened = out.Open(m_path.c_str());
    });
    std::thread readWriteThread([&] {
        LReadWriteFile file;
        readWriteOpened = file.Open(m_path.c_str(), false);
    });
    sharedThread.join();
    outputThread.join();
    readWriteThread.join();
    EXPECT_FALSE(sharedOpened);
    EXPECT_FALSE(outputOpened);
    EXPECT_FALSE(readWriteOpened);
    EXPECT_TRUE(ReadFile(m_path) == data);

    ASSERT_TRUE(peer.Ask('U'));
    LInputStreamFileShared in;
    ASSERT_TRUE(in.Open(m_path.c_str()));
    Bytes got(data.size());
    ASSERT_TRUE(in.Read(got.data(), got.size()));
    EXPECT_TRUE(got == data);
}

// ---- LReadWriteFile ----

TEST_F(FileStreamTest, ReadWriteFileUpdatesInPlace) {
    Bytes model = Pattern(1000, 11);
    ASSERT_TRUE(WriteFileBytes(m_path, model.data(), model.size()));
    {
        LReadWriteFile file;
        ASSERT_TRUE(file.Open(m_path.c_str(), false));
        EXPECT_EQ(file.GetSize(), 1000u);
        unsigned char header[4] = {};
        ASSERT_TRUE(file.Read(header, 4));
        EXPECT_TRUE(std::equal(header, header + 4, model.begin()));
        // Read, modify and write back a record in the middle.
        unsigned char record[10] = {};
        ASSERT_TRUE(file.Seek(500));
        ASSERT_TRUE(file.Read(record, 10));
        for (auto& b : record) {
            b = static_cast<unsigned char>(b ^ 0xFF);
        }
        ASSERT_TRUE(file.Seek(500));
        ASSERT_TRUE(file.Write(record, 10));
        EXPECT_EQ(file.GetOffset(), 510u);
        std::copy(record, record + 10, model.begin() + 500);
        EXPECT_EQ(file.GetSize(), 1000u);

        unsigned char tail[8] = {};
        ASSERT_TRUE(file.Seek(995));
        EXPECT_FALSE(file.Read(tail, 8)); // only 5 remain
        EXPECT_TRUE(file.IsOk());
        ASSERT_TRUE(file.Close());
    }
    EXPECT_TRUE(ReadFile(m_path) == model);
}

TEST_F(FileStreamTest, ReadWriteFileCreatesOnlyWhenAsked) {
    LReadWriteFile file;
    EXPECT_FALSE(file.Open(m_path.c_str(), false));
    EXPECT_FALSE(file.IsOk());
    ASSERT_TRUE(file.Open(m_path.c_str(), true));
    EXPECT_EQ(file.GetSize(), 0u);
    Bytes const data = Pattern(300, 12);
    ASSERT_TRUE(file.Write(data.data(), data.size()));
    ASSERT_TRUE(file.Truncate(100));
    EXPECT_EQ(file.GetSize(), 100u);
    ASSERT_TRUE(file.Close());
    EXPECT_TRUE(ReadFile(m_path) == Bytes(data.begin(), data.begin() + 100));
    EXPECT_FALSE(file.Close());
}

} // namespace
