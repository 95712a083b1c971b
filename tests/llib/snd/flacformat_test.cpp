// SPDX-License-Identifier: GPL-3.0-or-later
// The FLAC format's shared pieces against the published check values and round trips.

#include "llib/snd/flacformat.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>

namespace {

TEST(FLACFormat, CrcsMatchTheirStandardCheckValuesAndContinue) {
    auto const* text = reinterpret_cast<unsigned char const*>("123456789");
    EXPECT_EQ(LFLACCrc8(text, 9), 0xF4);
    EXPECT_EQ(LFLACCrc16(text, 9), 0xFEE8);
    // Continuing a CRC over a split buffer equals one pass.
    EXPECT_EQ(LFLACCrc16(text + 4, 5, LFLACCrc16(text, 4)), 0xFEE8);
    EXPECT_EQ(LFLACCrc8(text + 1, 8, LFLACCrc8(text, 1)), 0xF4);
}

TEST(FLACFormat, NumbersRoundTripAtEveryCodingLengthAndMalformedOnesAreRefused) {
    std::uint64_t const values[] = {0,         0x7F,       0x80,          0x7FF,         0x800,
                                    0xFFFF,    0x10000,    0x1FFFFF,      0x200000,      0x3FFFFFF,
                                    0x4000000, 0x7FFFFFFF, 0x80000000ull, 0xFFFFFFFFFull};
    int const lengths[] = {1, 1, 2, 2, 3, 3, 4, 4, 5, 5, 6, 6, 7, 7};
    for (std::size_t i = 0; i < std::size(values); ++i) {
        unsigned char buffer[8] = {};
        int const n = LFLACEncodeNumber(values[i], buffer);
        EXPECT_EQ(n, lengths[i]) << values[i];
        std::uint64_t back = 0;
        int used = 0;
        ASSERT_TRUE(LFLACDecodeNumber(buffer, 8, back, used)) << values[i];
        EXPECT_EQ(back, values[i]);
        EXPECT_EQ(used, n);
        EXPECT_FALSE(LFLACDecodeNumber(buffer, static_cast<std::size_t>(n - 1), back, used) &&
                     n > 1)
            << "a truncated coding of " << values[i];
    }
    unsigned char out[8];
    EXPECT_EQ(LFLACEncodeNumber(0x1000000000ull, out), 0) << "beyond 36 bits";
    unsigned char const continuation[] = {0x80};
    unsigned char const badTail[] = {0xC2, 0x41};
    unsigned char const eightOnes[] = {0xFF, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80};
    std::uint64_t v = 0;
    int used = 0;
    EXPECT_FALSE(LFLACDecodeNumber(continuation, 1, v, used));
    EXPECT_FALSE(LFLACDecodeNumber(badTail, 2, v, used));
    EXPECT_FALSE(LFLACDecodeNumber(eightOnes, 8, v, used));
}

TEST(FLACFormat, StreamInfoRoundTripsAndRefusesImpossibleFields) {
    LFLACMetaDataBlockStreamInfo info;
    info.minBlockFrames = 4096;
    info.maxBlockFrames = 4096;
    info.minFrameBytes = 0x123456;
    info.maxFrameBytes = 0xABCDEF;
    info.sampleRateHz = 655350; // the largest rate a frame header gives in tens of hertz
    info.channels = 8;
    info.bitsPerSample = 24;
    info.totalFrames = 0xFEDCBA987ull;
    for (int i = 0; i < 16; ++i) {
        info.md5[static_cast<std::size_t>(i)] = static_cast<unsigned char>(i * 17);
    }
    unsigned char block[kLFLACStreamInfoBytes];
    info.Serialise(block);
    LFLACMetaDataBlockStreamInfo back;
    ASSERT_TRUE(back.Parse(block));
    EXPECT_EQ(back.minBlockFrames, 4096);
    EXPECT_EQ(back.maxFrameBytes, 0xABCDEFu);
    EXPECT_EQ(back.sampleRateHz, 655350u);
    EXPECT_EQ(back.channels, 8u);
    EXPECT_EQ(back.bitsPerSample, 24u);
    EXPECT_EQ(back.totalFrames, 0xFEDCBA987ull);
    EXPECT_EQ(back.md5, info.md5);

    // A 44.1 kHz stereo 16-bit block of one second, laid out by hand from the field widths.
    unsigned char const known[] = {0x10, 0x00, 0x10, 0x00, 0x00, 0x00, 0x0E, 0x00, 0x36,
                                   0x1A, 0x0A, 0xC4, 0x42, 0xF0, 0x00, 0x00, 0xAC, 0x44};
    unsigned char whole[kLFLACStreamInfoBytes] = {};
    std::memcpy(whole, known, sizeof known);
    ASSERT_TRUE(back.Parse(whole));
    EXPECT_EQ(back.sampleRateHz, 44100u);
    EXPECT_EQ(back.channels, 2u);
    EXPECT_EQ(back.bitsPerSample, 16u);
    EXPECT_EQ(back.totalFrames, 44100u);

    whole[10] = whole[11] = 0;
    whole[12] &= 0x0F;
    EXPECT_FALSE(back.Parse(whole)) << "a rate of 0";
}

} // namespace
