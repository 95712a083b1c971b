// SPDX-License-Identifier: GPL-3.0-or-later
// A real WAV file beyond 4 GB through the sink and the source: a binary of its own so that ctest
// can label it slow.
#include "llib/snd/wavefile.h"

#include "tests/support/tempdir.h"
#include "tests/support/testsources.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <vector>

namespace {

constexpr long long kPatternFrames = 65536;

// Float samples go to the file unchanged, so every frame can be recognised by its value.
float PatternValue(long long frame, unsigned channel) {
    return static_cast<float>(frame % kPatternFrames) / kPatternFrames + (channel != 0 ? 2 : 0);
}

std::uint32_t U32At(std::FILE* file, long long offset) {
    unsigned char b[4] = {};
    EXPECT_EQ(fseeko(file, offset, SEEK_SET), 0);
    EXPECT_EQ(std::fread(b, 1, 4, file), 4u);
    return static_cast<std::uint32_t>(b[0] | b[1] << 8 | b[2] << 16) |
           static_cast<std::uint32_t>(b[3]) << 24;
}

class WavLargeFile : public LTempDirTest {};

TEST_F(WavLargeFile, AudioBeyond4GBContinuesInASecondDataChunk) {
    constexpr long long kFirstChunkBytes = 0xFFFFFFD8LL;
    constexpr long long kFrameBytes = 8; // stereo float
    constexpr long long kBoundaryFrame = kFirstChunkBytes / kFrameBytes;
    constexpr long long kFrames = kBoundaryFrame + 3 * kPatternFrames + 5;
    std::string const path = PathOf("large.wav");
    {
        std::vector<float> block(static_cast<std::size_t>(kPatternFrames) * 2);
        for (long long f = 0; f < kPatternFrames; ++f) {
            block[static_cast<std::size_t>(f) * 2] = PatternValue(f, 0);
            block[static_cast<std::size_t>(f) * 2 + 1] = PatternValue(f, 1);
        }
        LWaveFileFormat format;
        format.formatTag = 3;
        format.bitsPerSample = 32;
        LSoundSink sink = LWaveFile::OpenSink(path.c_str(), format);
        for (long long done = 0; done < kFrames && !sink->IsFailed();) {
            long long const n = std::min(kPatternFrames, kFrames - done);
            sink->Write(block.data(), n);
            done += n;
        }
        ASSERT_FALSE(sink->IsFailed());
        ASSERT_EQ(sink->GetFramesWritten(), kFrames);
    }
    long long const dataBytes = kFrames * kFrameBytes;
    EXPECT_EQ(std::filesystem::file_size(path), static_cast<std::uintmax_t>(46 + 8 + dataBytes));
    std::FILE* file = std::fopen(path.c_str(), "rb");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(U32At(file, 4), 0xFFFFFFFEu);
    EXPECT_EQ(U32At(file, 42), 0xFFFFFFD8u);
    EXPECT_EQ(U32At(file, 46 + kFirstChunkBytes), 0x61746164u); // "data"
    EXPECT_EQ(U32At(file, 46 + kFirstChunkBytes + 4),
              static_cast<std::uint32_t>(dataBytes - kFirstChunkBytes));
    std::fclose(file);

    LSoundSource source = LWaveFile::OpenSource(path.c_str());
    ASSERT_TRUE(source->IsOk());
    EXPECT_EQ(source->GetEndSample(), kFrames);
    for (long long start : {kBoundaryFrame - 3, kFrames - 4}) {
        source->Seek(start);
        std::vector<float> const got = ReadAll(source, 3, 6);
        for (long long f = 0; f < 6; ++f) {
            long long const frame = start + f;
            float const left = frame < kFrames ? PatternValue(frame, 0) : 0.0f;
            float const right = frame < kFrames ? PatternValue(frame, 1) : 0.0f;
            EXPECT_EQ(got[static_cast<std::size_t>(f) * 2], left) << frame;
            EXPECT_EQ(got[static_cast<std::size_t>(f) * 2 + 1], right) << frame;
        }
    }
    LWaveFileInfo info;
    ASSERT_TRUE(LWaveFileInfoGet(path.c_str(), info));
    EXPECT_EQ(info.frames, kFrames);
    EXPECT_EQ(info.dataBytes, static_cast<unsigned long long>(dataBytes));
    std::filesystem::remove(path);
}

} // namespace
