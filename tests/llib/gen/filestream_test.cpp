// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/gen/filestream.h"

#include "tests/support/lockpeer.h"
#include "tests/support/tempdir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <fcntl.h>
#include <random>
#include <string>
#include <thread>
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
                                           std::vector<std::uint64_t>{65535, 1, 65536, 65537},
                                           std::vector<std::uint64_t>{1, 7, 4095, 65537},
                                           std::vector<std::uint64_t>{200000, 5}));

TEST_F(FileStreamTest, OpenTruncatesAnExistingFileAndAFailedOpenRefusesWrites) {
    Bytes const old = Pattern(100000, 4);
    ASSERT_TRUE(WriteFileBytes(m_path, old.data(), old.size()));
    unsigned char const data[3] = {1, 2, 3};
    for (LFileLocking locking : {LFileLocking::kLock, LFileLocking::kNone}) {
        LOutputStreamFile out;
        ASSERT_TRUE(out.Open(m_path.c_str(), locking));
        ASSERT_TRUE(out.Write(data, 3));
        ASSERT_TRUE(out.Close());
        EXPECT_EQ(ReadFile(m_path), (Bytes{1, 2, 3}));
    }
    LOutputStreamFile out;
    EXPECT_FALSE(out.Close());
    EXPECT_FALSE(out.Open((Dir() + "/missing/x").c_str()));
    EXPECT_FALSE(out.Write(data, 1));
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

// A failure stays with the stream: every later call fails and Close reports it.
TEST_P(FullDeviceTest, WriteFailureIsStickyAndReportedByClose) {
    Bytes const data = Pattern(70000, 6);
    LOutputStreamFile buffered;
    OpenFull(buffered);
    EXPECT_TRUE(buffered.Write(data.data(), 100)); // still in the buffer
    EXPECT_FALSE(buffered.Close());
    LOutputStreamFile flushed;
    OpenFull(flushed);
    ASSERT_TRUE(flushed.Write(data.data(), 10));
    EXPECT_FALSE(flushed.Flush());
    EXPECT_FALSE(flushed.Write(data.data(), 10));
    EXPECT_FALSE(flushed.Close());
    LOutputStreamFile large;
    OpenFull(large);
    EXPECT_FALSE(large.Write(data.data(), data.size()));
    EXPECT_FALSE(large.IsOk());
    EXPECT_FALSE(large.Seek(0));
    EXPECT_FALSE(large.Sync());
    EXPECT_FALSE(large.Close());
    EXPECT_FALSE(large.Write(data.data(), 1));
}

INSTANTIATE_TEST_SUITE_P(Ways, FullDeviceTest,
                         ::testing::Values(FullDeviceWay::kOpen, FullDeviceWay::kAdopt));

// ---- LInputStreamFile ----

class InputChunkTest : public FileStreamTest,
                       public ::testing::WithParamInterface<std::vector<std::uint64_t>> {};

TEST_P(InputChunkTest, ReadsInChunksEqualTheFileAndStopAtItsEnd) {
    Bytes const data = Pattern(300001, 8);
    ASSERT_TRUE(WriteFileBytes(m_path, data.data(), data.size()));
    LInputStreamFile in;
    ASSERT_TRUE(in.Open(m_path.c_str()));
    ASSERT_EQ(in.GetSize(), data.size());
    Bytes got;
    std::vector<std::uint64_t> const& sizes = GetParam();
    for (std::size_t i = 0; in.GetOffset() < in.GetSize(); ++i) {
        Bytes chunk(std::min(sizes[i % sizes.size()], in.GetSize() - in.GetOffset()));
        ASSERT_TRUE(in.Read(chunk.data(), chunk.size())) << "at " << in.GetOffset();
        got.insert(got.end(), chunk.begin(), chunk.end());
    }
    EXPECT_TRUE(got == data);
    unsigned char b[4] = {};
    EXPECT_TRUE(in.Read(b, 0));
    EXPECT_FALSE(in.Read(b, 1));
    EXPECT_FALSE(in.Seek(data.size() + 1));
    ASSERT_TRUE(in.Seek(data.size() - 3)); // a failed read consumes nothing
    EXPECT_FALSE(in.Read(b, 4));
    EXPECT_FALSE(in.Read(b, UINT64_MAX));
    ASSERT_TRUE(in.Read(b, 3));
    EXPECT_TRUE(std::equal(b, b + 3, data.end() - 3));
}

INSTANTIATE_TEST_SUITE_P(Sizes, InputChunkTest,
                         ::testing::Values(std::vector<std::uint64_t>{1},
                                           std::vector<std::uint64_t>{7},
                                           std::vector<std::uint64_t>{4095},
                                           std::vector<std::uint64_t>{65537},
                                           std::vector<std::uint64_t>{1, 7, 4095, 65537}));

TEST_F(FileStreamTest, RandomSeeksReadTheFileAndReopeningStartsOnTheNewFile) {
    Bytes const data = Pattern(300001, 8);
    ASSERT_TRUE(WriteFileBytes(m_path, data.data(), data.size()));
    LInputStreamFile in;
    ASSERT_TRUE(in.Open(m_path.c_str()));
    std::mt19937 random(99);
    for (int i = 0; i < 400; ++i) {
        std::uint64_t const at = random() % data.size();
        // Mostly short reads near each other (inside the buffer), sometimes long ones.
        std::uint64_t const want = i % 10 == 0 ? random() % 150000 : random() % 300;
        Bytes got(std::min<std::uint64_t>(want, data.size() - at));
        ASSERT_TRUE(in.Seek(at));
        ASSERT_TRUE(in.Read(got.data(), got.size()));
        ASSERT_TRUE(std::equal(got.begin(), got.end(), data.begin() + static_cast<long>(at)))
            << "at " << at << " bytes " << got.size();
    }
    unsigned char const other[2] = {42, 43};
    ASSERT_TRUE(WriteFileBytes(PathOf("other"), other, 2));
    ASSERT_TRUE(in.Open(PathOf("other").c_str()));
    unsigned char b = 0;
    ASSERT_TRUE(in.Read(&b, 1));
    EXPECT_EQ(b, 42); // not a byte left over in the buffer of the first file
    EXPECT_FALSE(in.Open(PathOf("missing").c_str()));
    EXPECT_FALSE(in.Read(&b, 1));
}

enum class StreamKind { kOutput, kOutputUnlocked, kInputShared, kReadWrite };

class StreamLockTest : public FileStreamTest, public ::testing::WithParamInterface<StreamKind> {};

TEST_P(StreamLockTest, StreamHoldsItsLockExactlyWhileOpen) {
    ASSERT_TRUE(WriteFileBytes(m_path, "0123456789", 10));
    LockPeer peer(m_path);
    LOutputStreamFile out;
    LInputStreamFileShared shared;
    LReadWriteFile readWrite;
    StreamKind const kind = GetParam();
    if (kind == StreamKind::kInputShared) {
        ASSERT_TRUE(shared.Open(m_path.c_str()));
    } else if (kind == StreamKind::kReadWrite) {
        ASSERT_TRUE(readWrite.Open(m_path.c_str(), false));
    } else {
        ASSERT_TRUE(out.Open(m_path.c_str(), kind == StreamKind::kOutput ? LFileLocking::kLock
                                                                         : LFileLocking::kNone));
    }
    // Readers share with readers; writers share with nobody; an unlocked writer holds nothing.
    EXPECT_EQ(peer.Ask('S'),
              kind == StreamKind::kInputShared || kind == StreamKind::kOutputUnlocked);
    EXPECT_TRUE(peer.Ask('U'));
    EXPECT_EQ(peer.Ask('X'), kind == StreamKind::kOutputUnlocked);
    EXPECT_TRUE(peer.Ask('U'));
    shared.Close();
    (void)out.Close();
    (void)readWrite.Close();
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
    bool opened[3] = {true, true, true};
    std::thread shared([&] { opened[0] = LInputStreamFileShared().Open(m_path.c_str()); });
    std::thread output([&] { opened[1] = LOutputStreamFile().Open(m_path.c_str()); });
    std::thread readWrite([&] { opened[2] = LReadWriteFile().Open(m_path.c_str(), false); });
    shared.join();
    output.join();
    readWrite.join();
    EXPECT_FALSE(opened[0] || opened[1] || opened[2]);
    EXPECT_TRUE(ReadFile(m_path) == data);

    ASSERT_TRUE(peer.Ask('U'));
    LInputStreamFileShared in;
    ASSERT_TRUE(in.Open(m_path.c_str()));
    Bytes got(data.size());
    ASSERT_TRUE(in.Read(got.data(), got.size()));
    EXPECT_TRUE(got == data);
}

// ---- LReadWriteFile ----

TEST_F(FileStreamTest, ReadWriteFileCreatesOnlyWhenAskedAndUpdatesInPlace) {
    LReadWriteFile file;
    EXPECT_FALSE(file.Open(m_path.c_str(), false));
    ASSERT_TRUE(file.Open(m_path.c_str(), true));
    Bytes model = Pattern(1000, 11);
    ASSERT_TRUE(file.Write(model.data(), model.size()));
    ASSERT_TRUE(file.Close());
    ASSERT_TRUE(file.Open(m_path.c_str(), false));
    EXPECT_EQ(file.GetSize(), 1000u);
    unsigned char record[10] = {}; // read, modify and write back a record in the middle
    ASSERT_TRUE(file.Seek(500));
    ASSERT_TRUE(file.Read(record, 10));
    for (auto& b : record) {
        b = static_cast<unsigned char>(b ^ 0xFF);
    }
    ASSERT_TRUE(file.Seek(500));
    ASSERT_TRUE(file.Write(record, 10));
    std::copy(record, record + 10, model.begin() + 500);
    ASSERT_TRUE(file.Seek(995));
    EXPECT_FALSE(file.Read(record, 8)); // only 5 remain
    EXPECT_TRUE(file.IsOk());
    ASSERT_TRUE(file.Close());
    EXPECT_TRUE(ReadFile(m_path) == model);
    ASSERT_TRUE(file.Open(m_path.c_str(), false));
    ASSERT_TRUE(file.Truncate(100));
    ASSERT_TRUE(file.Close());
    EXPECT_TRUE(ReadFile(m_path) == Bytes(model.begin(), model.begin() + 100));
}

} // namespace
