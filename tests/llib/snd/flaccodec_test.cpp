// SPDX-License-Identifier: GPL-3.0-or-later
// The FLAC codec's working parts: the bit reader and writer, frame headers, and the encoder's
// decisions whose results the file tests cannot see (coefficient quantisation, the stereo rule,
// the fixed predictor's order).

#include "llib/snd/flaccodec.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

namespace {

using namespace llib::detail;
using Assignment = LFLACChannelAssignment;

// ---- Coefficient quantisation ----

struct QuantiseCase {
    std::vector<double> coefs;
    int shift;
    std::vector<std::int32_t> stored;
};

class FLACQuantise : public ::testing::TestWithParam<QuantiseCase> {};

TEST_P(FLACQuantise, TakesTheLargestShiftThatStaysInRangeAndTruncatesTowardZero) {
    QuantiseCase const& c = GetParam();
    std::vector<std::int32_t> out(c.coefs.size(), 12345);
    int shift = -1;
    ASSERT_TRUE(LFLACQuantizeCoefficients(c.coefs.data(), static_cast<int>(c.coefs.size()),
                                          out.data(), shift));
    EXPECT_EQ(shift, c.shift);
    EXPECT_EQ(out, c.stored);
}

INSTANTIATE_TEST_SUITE_P(Cases, FLACQuantise,
                         ::testing::Values(QuantiseCase{{0.5}, 13, {-4096}},
                                           QuantiseCase{{1.5}, 12, {-6144}},
                                           // 1.0 * 2^13 reaches 8192 itself, which is out of range.
                                           QuantiseCase{{1.0, -0.25}, 12, {-4096, 1024}},
                                           QuantiseCase{{0.3, -0.3, 0.0001}, 13, {-2457, 2457, 0}},
                                           QuantiseCase{{-0.99999}, 13, {8191}},
                                           QuantiseCase{{8191.9, -1.7}, 0, {-8191, 1}},
                                           // Tiny coefficients do not push the shift beyond 13.
                                           QuantiseCase{{1e-9}, 13, {0}}));

TEST(FLACQuantiseRange, RefusesCoefficientsNoShiftBringsInRange) {
    std::int32_t out[2];
    int shift = 0;
    double const large[] = {0.5, 8192.0};
    double const nan[] = {std::numeric_limits<double>::quiet_NaN()};
    double const infinite[] = {-std::numeric_limits<double>::infinity()};
    EXPECT_FALSE(LFLACQuantizeCoefficients(large, 2, out, shift));
    EXPECT_FALSE(LFLACQuantizeCoefficients(nan, 1, out, shift));
    EXPECT_FALSE(LFLACQuantizeCoefficients(infinite, 1, out, shift));
}

// ---- The energy rule of the stereo decision ----

struct SideCase {
    char const* name;
    std::vector<std::int32_t> pairs; // interleaved left, right
    int bits;
    bool side;
};

class FLACEnergyRule : public ::testing::TestWithParam<SideCase> {};

TEST_P(FLACEnergyRule, CodesASideChannelOnlyWhenItFitsAndCarriesNoMoreEnergyThanTheRight) {
    SideCase const& c = GetParam();
    EXPECT_EQ(LFLACChooseSideChannel(c.pairs.data(), static_cast<int>(c.pairs.size() / 2), c.bits),
              c.side);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, FLACEnergyRule,
    ::testing::Values(
        SideCase{"Identical", {100, 100, -7, -7, 30000, 30000}, 16, true},
        SideCase{"EqualEnergy", {2, 1, -2, -1}, 16, true},
        SideCase{"SideLarger", {3, 1, -3, -1}, 16, false},
        SideCase{"Silence", {0, 0, 0, 0}, 16, true},
        // One difference of exactly 2^bits still fits; one beyond it does not,
        // however quiet the side is elsewhere.
        SideCase{"DifferenceAtLimit", {1000, 1000, 1000, 1000, 128, -128}, 8, true},
        SideCase{"DifferenceBeyondLimit", {1000, 1000, 1000, 1000, 129, -128}, 8, false},
        SideCase{"NegativeBeyondLimit", {1000, 1000, 1000, 1000, -129, 128}, 8, false},
        SideCase{"ThirtyTwoBits", {5, 5, 6, 6}, 32, false}),
    [](auto const& test) { return std::string(test.param.name); });

// ---- Bits ----

// A buffer with the reader's padding zeroed past `bytes`.
std::vector<unsigned char> Buffer(std::size_t bytes) {
    return std::vector<unsigned char>(bytes + kLFLACReadPadding + 16, 0);
}

TEST(FLACBits, RandomFieldsRoundTripAtEveryWidth) {
    std::mt19937_64 random(11);
    struct Field {
        int bits;
        std::int64_t value;
        bool isSigned;
    };
    std::vector<Field> fields;
    for (int i = 0; i < 5000; ++i) {
        bool const isSigned = (random() & 1) != 0;
        int const bits = isSigned ? 1 + static_cast<int>(random() % 33) // 1 to 33
                                  : static_cast<int>(random() % 33);    // 0 to 32
        std::uint64_t const raw = bits == 0 ? 0 : random() >> (64 - bits);
        std::int64_t value = static_cast<std::int64_t>(raw);
        if (isSigned) {
            value = static_cast<std::int64_t>(raw << (64 - bits)) >> (64 - bits);
        }
        fields.push_back({bits, value, isSigned});
    }
    std::vector<unsigned char> buffer = Buffer(5000 * 5);
    LFLACBitWriter writer(buffer.data());
    std::uint64_t total = 0;
    for (Field const& f : fields) {
        if (f.isSigned) {
            writer.WriteSigned(f.value, f.bits);
        } else {
            writer.Write(static_cast<std::uint32_t>(f.value), f.bits);
        }
        total += static_cast<std::uint64_t>(f.bits);
        ASSERT_EQ(writer.GetBitPosition(), total);
    }
    writer.AlignAndFlush();
    std::size_t const bytes = (total + 7) / 8;
    LFLACBitReader reader(buffer.data(), bytes);
    for (std::size_t i = 0; i < fields.size(); ++i) {
        Field const& f = fields[i];
        std::int64_t const got =
            f.isSigned ? reader.ReadSigned(f.bits) : static_cast<std::int64_t>(reader.Read(f.bits));
        ASSERT_EQ(got, f.value) << "field " << i << " of " << f.bits << " bits";
    }
    EXPECT_FALSE(reader.IsOverrun());
    reader.AlignToByte();
    EXPECT_EQ(reader.GetBitPosition(), bytes * 8);
    (void)reader.Read(1);
    EXPECT_TRUE(reader.IsOverrun()) << "one bit past the end";
}

// Folded (0, -1, 1, -2, ...) value `u` as a residual.
std::int32_t Unfold(std::uint32_t u) {
    return static_cast<std::int32_t>((u >> 1) ^ (0u - (u & 1)));
}

TEST(FLACBits, RiceCodesRoundTripForEveryParameterIncludingLongQuotients) {
    std::mt19937 random(5);
    for (int k = 0; k <= 30; ++k) {
        std::vector<std::int32_t> values = {0, -1, 1, 2, -2};
        // Quotients around the reader's 64-bit cache, where it must fetch more than once.
        for (std::uint32_t q = 1; q <= 140; ++q) {
            std::uint64_t const u = (std::uint64_t{q} << k) | (random() & ((1u << k) - 1));
            if (u <= 0xFFFFFFFFu) {
                values.push_back(Unfold(static_cast<std::uint32_t>(u)));
            }
        }
        if (k >= 20) { // the widest values, whose quotient is then at most 4096
            values.push_back(std::numeric_limits<std::int32_t>::min());
            values.push_back(std::numeric_limits<std::int32_t>::max());
        }
        for (int i = 0; i < 200; ++i) {
            values.push_back(Unfold(random() & ((2u << std::min(k, 30)) - 1)));
        }
        // Each shift of the start within a byte lines the codes up with the cache differently.
        for (int lead = 0; lead < 8; ++lead) {
            std::vector<unsigned char> buffer = Buffer(values.size() * 600);
            LFLACBitWriter writer(buffer.data());
            writer.Write(0x55, lead);
            writer.WriteRice(values.data(), static_cast<int>(values.size()), k);
            writer.Write(0x2D, 7); // a marker after the codes
            std::uint64_t const bits = writer.GetBitPosition();
            writer.AlignAndFlush();
            LFLACBitReader reader(buffer.data(), static_cast<std::size_t>((bits + 7) / 8));
            (void)reader.Read(lead);
            std::vector<std::int32_t> back(values.size());
            reader.ReadRice(back.data(), static_cast<int>(back.size()), k);
            ASSERT_FALSE(reader.IsOverrun()) << "k " << k << ", lead " << lead;
            ASSERT_EQ(back, values) << "k " << k << ", lead " << lead;
            EXPECT_EQ(reader.Read(7), 0x2Du) << "k " << k << ", lead " << lead;
            EXPECT_EQ(reader.GetBitPosition(), bits);
        }
    }
}

TEST(FLACBits, MalformedRiceCodesMarkTheReaderBad) {
    // A quotient of 2^(32-k) makes the folded value 2^32; the codes before it are sound.
    for (int k : {30, 26, 20}) {
        std::vector<unsigned char> buffer = Buffer(1024);
        LFLACBitWriter writer(buffer.data());
        std::int32_t const sound[] = {3, -4};
        writer.WriteRice(sound, 2, k);
        writer.WriteZeros(std::uint32_t{1} << (32 - k));
        writer.Write(1, 1);
        writer.Write(0, k);
        std::uint64_t const bits = writer.GetBitPosition();
        writer.AlignAndFlush();
        LFLACBitReader reader(buffer.data(), static_cast<std::size_t>((bits + 7) / 8));
        std::int32_t back[3];
        reader.ReadRice(back, 2, k);
        ASSERT_FALSE(reader.IsOverrun()) << k;
        reader.ReadRice(back + 2, 1, k);
        EXPECT_TRUE(reader.IsOverrun()) << k;
    }
    // A unary code whose stop bit never comes.
    std::vector<unsigned char> zeros = Buffer(40);
    LFLACBitReader unary(zeros.data(), 40);
    std::int32_t value = 0;
    unary.ReadRice(&value, 1, 0);
    EXPECT_TRUE(unary.IsOverrun());
}

// ---- Frame headers ----

LFLACMetaDataBlockStreamInfo Info(int rateHz, int bits) {
    LFLACMetaDataBlockStreamInfo info;
    info.minBlockFrames = 16;
    info.maxBlockFrames = 65535;
    info.sampleRateHz = static_cast<std::uint32_t>(rateHz);
    info.channels = 2;
    info.bitsPerSample = static_cast<unsigned>(bits);
    return info;
}

LFLACFrameHeader Header(int blockFrames, int rateHz, int channels, Assignment assignment, int bits,
                        std::uint64_t number, bool variable = false) {
    LFLACFrameHeader h;
    h.blockFrames = blockFrames;
    h.rateHz = rateHz;
    h.channels = channels;
    h.assignment = assignment;
    h.bitsPerSample = bits;
    h.number = number;
    h.variableBlocking = variable;
    return h;
}

// Every field survives writing and parsing; without its CRC-8 byte, or with any one bit flipped,
// the header is refused.
void ExpectRoundTrip(LFLACFrameHeader const& h, int infoRateHz) {
    SCOPED_TRACE(testing::Message()
                 << h.blockFrames << " frames, " << h.rateHz << " Hz (STREAMINFO " << infoRateHz
                 << "), " << h.channels << " channels, " << h.bitsPerSample << " bits, number "
                 << h.number);
    LFLACMetaDataBlockStreamInfo const info = Info(infoRateHz, h.bitsPerSample);
    unsigned char bytes[32] = {};
    int const n = LFLACWriteFrameHeader(h, info, bytes);
    ASSERT_GE(n, 6);
    ASSERT_LE(n, 16);
    LFLACFrameHeader back;
    ASSERT_TRUE(LFLACParseFrameHeader(bytes, static_cast<std::size_t>(n), info, back));
    EXPECT_EQ(back.blockFrames, h.blockFrames);
    EXPECT_EQ(back.rateHz, h.rateHz);
    EXPECT_EQ(back.channels, h.channels);
    EXPECT_EQ(back.assignment, h.assignment);
    EXPECT_EQ(back.bitsPerSample, h.bitsPerSample);
    EXPECT_EQ(back.number, h.number);
    EXPECT_EQ(back.variableBlocking, h.variableBlocking);
    EXPECT_EQ(back.headerBytes, n);
    EXPECT_FALSE(LFLACParseFrameHeader(bytes, static_cast<std::size_t>(n - 1), info, back));
    for (int bit = 0; bit < n * 8; ++bit) {
        bytes[bit / 8] ^= static_cast<unsigned char>(0x80 >> (bit % 8));
        EXPECT_FALSE(LFLACParseFrameHeader(bytes, static_cast<std::size_t>(n), info, back))
            << "bit " << bit << " flipped";
        bytes[bit / 8] ^= static_cast<unsigned char>(0x80 >> (bit % 8));
    }
}

constexpr Assignment kIndependent = Assignment::kIndependent;

TEST(FLACFrameHeader, BlockSizesAndNumbersRoundTrip) {
    // Table sizes, and odd ones in the 8- and 16-bit codes either side of 256.
    for (int frames : {192, 576, 4608, 256, 32768, 1, 17, 255, 257, 4095, 65535}) {
        ExpectRoundTrip(Header(frames, 44100, 2, kIndependent, 16, 5), 44100);
    }
    for (std::uint64_t number : {0ull, 127ull, 128ull, 0x7FFFFFFFull}) {
        ExpectRoundTrip(Header(4096, 44100, 2, kIndependent, 16, number), 44100);
    }
    ExpectRoundTrip(Header(4097, 44100, 2, kIndependent, 16, 0xFFFFFFFFFull, true), 44100);
}

TEST(FLACFrameHeader, RatesRoundTripWhetherOrNotStreamInfoHasThem) {
    // Table rates, whole kHz, Hz, tens of Hz, and one only STREAMINFO can hold.
    for (int rate :
         {88200, 8000, 96000, 12000, 255000, 11025, 37800, 65535, 320010, 655350, 655351}) {
        ExpectRoundTrip(Header(4096, rate, 1, kIndependent, 16, 3), rate);
    }
    // A frame whose rate differs from STREAMINFO's must code its own.
    for (int rate : {48000, 22000, 11025, 100000, 320010}) {
        ExpectRoundTrip(Header(4096, rate, 1, kIndependent, 16, 3), 44100);
    }
}

TEST(FLACFrameHeader, ChannelsAssignmentsAndDepthsRoundTrip) {
    for (int channels = 1; channels <= 8; ++channels) {
        ExpectRoundTrip(Header(4096, 44100, channels, kIndependent, 16, 9), 44100);
    }
    for (Assignment a : {Assignment::kLeftSide, Assignment::kRightSide, Assignment::kMidSide}) {
        ExpectRoundTrip(Header(4096, 44100, 2, a, 24, 9), 44100);
    }
    // 28 and 32 have no code of their own and come from STREAMINFO.
    for (int bits : {8, 12, 16, 20, 24, 28, 32}) {
        ExpectRoundTrip(Header(4096, 44100, 2, kIndependent, bits, 9), 44100);
    }
}

TEST(FLACFrameHeaderCodes, ReservedCodesAreRefusedEvenWithAValidCrc) {
    LFLACMetaDataBlockStreamInfo const info = Info(44100, 16);
    // Sync, block code 12 (4096), rate code 9, two channels, 16 bits, frame 0.
    unsigned char const sound[] = {0xFF, 0xF8, 0xC9, 0x18, 0x00};
    struct Change {
        char const* what;
        int byte;
        unsigned char value;
    };
    Change const changes[] = {
        {"nothing", 0, 0xFF},          {"block code 0", 2, 0x09},    {"rate code 15", 2, 0xCF},
        {"channel code 11", 3, 0xB8},  {"channel code 15", 3, 0xF8}, {"reserved bit", 3, 0x19},
        {"second sync byte", 1, 0xFA},
    };
    for (Change const& change : changes) {
        unsigned char bytes[6];
        std::memcpy(bytes, sound, 5);
        bytes[change.byte] = change.value;
        bytes[5] = LFLACCrc8(bytes, 5);
        LFLACFrameHeader header;
        EXPECT_EQ(LFLACParseFrameHeader(bytes, 6, info, header), change.byte == 0) << change.what;
    }
    // A 16-bit block size code of 65535 stands for 65536 frames, beyond the largest block.
    unsigned char big[] = {0xFF, 0xF8, 0x79, 0x18, 0x00, 0xFF, 0xFF, 0x00};
    big[7] = LFLACCrc8(big, 7);
    LFLACFrameHeader header;
    EXPECT_FALSE(LFLACParseFrameHeader(big, 8, info, header));
    big[6] = 0xFE;
    big[7] = LFLACCrc8(big, 7);
    ASSERT_TRUE(LFLACParseFrameHeader(big, 8, info, header));
    EXPECT_EQ(header.blockFrames, 65535);
}

// ---- Whole frames ----

struct FrameCase {
    char const* name;
    int channels;
    int bits;
    int compression;
};

class FLACFrameWriter : public ::testing::TestWithParam<FrameCase> {};

// Samples that defeat every predictor at the widest codes: the two extremes of the depth, each
// sample more often of the other sign than the last one. Predicted subframes of these are written
// before they lose to the verbatim one, so they must fit the buffer too.
std::vector<std::int32_t> Extremes(int channels, int bits, int frames) {
    std::mt19937 random(3);
    std::int64_t const top = (std::int64_t{1} << (bits - 1)) - 1;
    std::vector<std::int32_t> x(static_cast<std::size_t>(channels * frames));
    bool positive = true;
    for (std::size_t i = 0; i < x.size(); ++i) {
        positive = random() % 4 != 0 ? !positive : positive;
        x[i] = static_cast<std::int32_t>(positive ? top : -top - 1);
    }
    return x;
}

TEST_P(FLACFrameWriter, NeverWritesBeyondItsBound) {
    FrameCase const& c = GetParam();
    int const frames = 4096;
    std::vector<std::int32_t> const x = Extremes(c.channels, c.bits, frames);
    LFLACMetaDataBlockStreamInfo info = Info(44100, c.bits);
    info.channels = static_cast<unsigned>(c.channels);
    std::size_t const bound = LFLACFrame::GetBound(c.channels, frames);
    // Bytes past the bound keep their pattern: the frame buffer is only that large.
    std::vector<unsigned char> out(bound + 4096, 0xA5);
    LFLACFrame encoder(c.channels, c.bits, c.compression);
    std::size_t const bytes = encoder.WriteFrame(x.data(), frames, 7, info, out.data());
    ASSERT_LE(bytes, bound);
    std::size_t touched = 0;
    for (std::size_t i = bound; i < out.size(); ++i) {
        touched += out[i] != 0xA5 ? 1 : 0;
    }
    EXPECT_EQ(touched, 0u) << "bytes written beyond the bound of " << bound;

    LFLACFrameHeader header;
    EXPECT_TRUE(LFLACParseFrameHeader(out.data(), bytes, info, header));
}

INSTANTIATE_TEST_SUITE_P(
    Extremes, FLACFrameWriter,
    ::testing::Values(FrameCase{"Mono32Level0", 1, 32, 0}, FrameCase{"Mono32Level5", 1, 32, 5},
                      FrameCase{"Stereo32Level8", 2, 32, 8}, FrameCase{"Stereo24Level3", 2, 24, 3},
                      FrameCase{"Stereo16Level0", 2, 16, 0}, FrameCase{"Eight8Level5", 8, 8, 5}),
    [](auto const& test) { return std::string(test.param.name); });

// ---- The fixed predictors ----

TEST(FLACFixedPredictor, APolynomialOfDegreeDTakesOrderDPlusOneWithNoResidual) {
    // Degree -1 is silence plus one click: plain samples are then cheapest.
    for (int degree = -1; degree <= 3; ++degree) {
        std::vector<std::int32_t> x(300);
        for (int i = 0; i < 300; ++i) {
            long long const t = i - 150;
            long long const v = degree == -1  ? (i == 200 ? 1000 : 0)
                                : degree == 0 ? -1234
                                : degree == 1 ? 37 * t + 5
                                : degree == 2 ? 3 * t * t - 11 * t
                                              : t * t * t - 2 * t * t;
            x[static_cast<std::size_t>(i)] = static_cast<std::int32_t>(v);
        }
        std::vector<std::int32_t> residual(300, 99);
        int const order = LFLACFixedResidual(x.data(), 300, residual.data());
        EXPECT_EQ(order, degree + 1) << "degree " << degree;
        if (degree >= 0) {
            for (int i = order; i < 300; ++i) {
                ASSERT_EQ(residual[static_cast<std::size_t>(i)], 0) << degree << " at " << i;
            }
        } else {
            EXPECT_EQ(residual[200], 1000);
        }
    }
}

} // namespace
