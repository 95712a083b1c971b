// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/gen/memstream.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

TEST(OutputStreamByteArray, SeeksOnlyWithinWhatWasWrittenAndOverwritesInPlace) {
    LOutputStreamByteArray out;
    EXPECT_FALSE(out.Seek(1));
    Bytes const data = {1, 2, 3, 4, 5, 6, 7, 8};
    ASSERT_TRUE(out.Write(data.data(), data.size()));
    EXPECT_FALSE(out.Seek(9));
    EXPECT_EQ(out.GetOffset(), 8u); // a refused seek leaves the offset alone
    unsigned char const patch[3] = {30, 40, 50};
    ASSERT_TRUE(out.Seek(2));
    ASSERT_TRUE(out.Write(patch, 3));
    EXPECT_EQ(out.GetOffset(), 5u);
    ASSERT_TRUE(out.Seek(7)); // across the end: extends by only what sticks out
    ASSERT_TRUE(out.Write(patch, 3));
    EXPECT_EQ(out.GetBytes(), (Bytes{1, 2, 30, 40, 50, 6, 7, 30, 40, 50}));
}

TEST(InputStreamBuffer, ShortReadOrSeekPastTheEndConsumesNothing) {
    Bytes const data = {10, 11, 12, 13, 14};
    LInputStreamBuffer in(data.data(), data.size());
    unsigned char got[8] = {};
    ASSERT_TRUE(in.Read(got, 2));
    EXPECT_FALSE(in.Read(got, 4));
    EXPECT_FALSE(in.Read(got, UINT64_MAX));
    EXPECT_FALSE(in.Seek(6));
    EXPECT_EQ(in.GetOffset(), 2u);
    ASSERT_TRUE(in.Read(got + 2, 3));
    EXPECT_EQ(Bytes(got, got + 5), data);
    EXPECT_TRUE(in.Read(got, 0));
    EXPECT_FALSE(in.Read(got, 1));
    ASSERT_TRUE(in.Seek(1));
    ASSERT_TRUE(in.Read(got, 1));
    EXPECT_EQ(got[0], 11);
    EXPECT_FALSE(LInputStreamBuffer().Read(got, 1));
}

} // namespace
