// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/gen/memstream.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

TEST(OutputStreamByteArray, SeekReachesOnlyWhatWasWritten) {
    LOutputStreamByteArray out;
    EXPECT_TRUE(out.Seek(0));
    EXPECT_FALSE(out.Seek(1));
    unsigned char const data[4] = {1, 2, 3, 4};
    ASSERT_TRUE(out.Write(data, 4));
    EXPECT_TRUE(out.Seek(4));
    EXPECT_FALSE(out.Seek(5));
    EXPECT_EQ(out.GetOffset(), 4u); // a refused seek leaves the offset alone
}

TEST(OutputStreamByteArray, OverwriteInTheMiddleKeepsTheSizeAndTheRest) {
    LOutputStreamByteArray out;
    Bytes const data = {1, 2, 3, 4, 5, 6, 7, 8};
    ASSERT_TRUE(out.Write(data.data(), data.size()));
    ASSERT_TRUE(out.Seek(2));
    unsigned char const patch[3] = {30, 40, 50};
    ASSERT_TRUE(out.Write(patch, 3));
    EXPECT_EQ(out.GetOffset(), 5u);
    EXPECT_EQ(out.GetBytes(), (Bytes{1, 2, 30, 40, 50, 6, 7, 8}));

    // Writing across the end from inside extends by only what sticks out.
    ASSERT_TRUE(out.Seek(6));
    ASSERT_TRUE(out.Write(patch, 3));
    EXPECT_EQ(out.GetBytes(), (Bytes{1, 2, 30, 40, 50, 6, 30, 40, 50}));
    EXPECT_EQ(out.GetSize(), 9u);
}

TEST(InputStreamBuffer, ReadsAreExactAndAShortOneConsumesNothing) {
    Bytes const data = {10, 11, 12, 13, 14};
    LInputStreamBuffer in(data.data(), data.size());
    unsigned char got[8] = {};
    ASSERT_TRUE(in.Read(got, 2));
    EXPECT_EQ(got[0], 10);
    EXPECT_EQ(got[1], 11);
    EXPECT_FALSE(in.Read(got, 4)); // 3 remain
    EXPECT_EQ(in.GetOffset(), 2u);
    EXPECT_FALSE(in.Read(got, std::numeric_limits<std::uint64_t>::max()));
    EXPECT_EQ(in.GetOffset(), 2u);
    ASSERT_TRUE(in.Read(got, 3));
    EXPECT_EQ(got[2], 14);
    EXPECT_TRUE(in.Read(got, 0));
    EXPECT_FALSE(in.Read(got, 1));
}

TEST(InputStreamBuffer, SeekStopsAtTheEnd) {
    Bytes const data = {1, 2, 3};
    LInputStreamBuffer in(data.data(), data.size());
    EXPECT_FALSE(in.Seek(4));
    EXPECT_FALSE(in.Seek(std::numeric_limits<std::uint64_t>::max()));
    EXPECT_EQ(in.GetOffset(), 0u);
    ASSERT_TRUE(in.Seek(3));
    unsigned char b = 0;
    EXPECT_FALSE(in.Read(&b, 1));
    ASSERT_TRUE(in.Seek(1));
    ASSERT_TRUE(in.Read(&b, 1));
    EXPECT_EQ(b, 2);
}

TEST(InputStreamBuffer, EmptyBufferReadsNothing) {
    LInputStreamBuffer in;
    unsigned char b = 0;
    EXPECT_TRUE(in.Read(&b, 0));
    EXPECT_FALSE(in.Read(&b, 1));
    EXPECT_TRUE(in.Seek(0));
    EXPECT_FALSE(in.Seek(1));
}

} // namespace
