// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/sinkconvchannels.h"

#include "llib/snd/convertrate.h"
#include "tests/support/testsources.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

constexpr float g = 0.70794576f;

struct MixCase {
    char const* name;
    std::vector<float> in; // one input frame
    unsigned char outChannels;
    std::vector<float> expected; // one output frame
};

std::vector<float> ConvertOneFrame(std::vector<float> const& frame, unsigned char outChannels) {
    auto const inChannels = static_cast<unsigned char>(frame.size());
    LSoundSource source = MakeBufferSource(44100, inChannels, frame);
    LSoundSource converted = LSPConvChannels(outChannels).OpenSource(source);
    EXPECT_EQ(converted->GetChannels(), outChannels);
    std::vector<float> out(outChannels);
    converted->Read(out.data(), 1);
    return out;
}

class ChannelMix : public ::testing::TestWithParam<MixCase> {};

// Distinct values per channel so a swapped or missing channel shows.
std::vector<float> const k51 = {0.11f, 0.23f, 0.37f, 0.41f, 0.53f, 0.67f};
std::vector<float> const k71 = {0.11f, 0.23f, 0.37f, 0.41f, 0.53f, 0.67f, 0.71f, 0.83f};

} // namespace

TEST_P(ChannelMix, AppliesItsCoefficients) {
    MixCase const& c = GetParam();
    std::vector<float> const got = ConvertOneFrame(c.in, c.outChannels);
    ASSERT_EQ(got.size(), c.expected.size());
    for (std::size_t i = 0; i < got.size(); ++i) {
        EXPECT_FLOAT_EQ(got[i], c.expected[i]) << c.name << " channel " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Layouts, ChannelMix,
    ::testing::Values(
        MixCase{"stereo to mono equal", {0.5f, 0.5f}, 1, {0.5f}},
        MixCase{"stereo to mono opposite", {1.0f, -1.0f}, 1, {0.0f}},
        MixCase{"mono to stereo", {0.25f}, 2, {0.25f, 0.25f}},
        MixCase{"5.1 centre to stereo", {0, 0, 1.0f, 0, 0, 0}, 2, {g, g}},
        MixCase{"5.1 centre to mono", {0, 0, 1.0f, 0, 0, 0}, 1, {g}},
        MixCase{
            "5.1 to stereo",
            k51,
            2,
            {0.11f + g * (0.37f + 0.53f) + 0.5f * 0.41f, 0.23f + g*(0.37f + 0.67f) + 0.5f * 0.41f}},
        MixCase{"5.1 to mono",
                k51,
                1,
                {((0.11f + 0.23f + 0.41f) + g * (0.53f + 0.67f)) * 0.5f + g * 0.37f}},
        MixCase{"7.1 to stereo",
                k71,
                2,
                {0.11f + g * (0.37f + 0.53f) + 0.5f * (0.71f + 0.41f),
                 0.23f + g*(0.37f + 0.67f) + 0.5f * (0.83f + 0.41f)}},
        MixCase{"7.1 to mono",
                k71,
                1,
                {((0.11f + 0.23f + 0.41f) + 0.5f * (0.71f + 0.83f) + g * (0.53f + 0.67f)) * 0.5f +
                 g * 0.37f}},
        MixCase{"7.1 to 5.1",
                k71,
                6,
                {0.11f, 0.23f, 0.37f, 0.41f, (0.53f + 0.71f) * g, (0.67f + 0.83f) * g}},
        MixCase{"quad to stereo", {0.1f, 0.2f, 0.3f, 0.4f}, 2, {0.2f, 0.3f}},
        MixCase{"three to mono is the mean", {0.3f, 0.6f, 0.9f}, 1, {0.6f}},
        MixCase{"three to two copies cyclically", {0.1f, 0.2f, 0.3f}, 2, {0.1f, 0.2f}},
        MixCase{"two to three copies cyclically", {0.1f, 0.2f}, 3, {0.1f, 0.2f, 0.1f}},
        MixCase{"four to six copies cyclically",
                {0.1f, 0.2f, 0.3f, 0.4f},
                6,
                {0.1f, 0.2f, 0.3f, 0.4f, 0.1f, 0.2f}},
        MixCase{"6 to 4 copies", k51, 4, {0.11f, 0.23f, 0.37f, 0.41f}}));

TEST(ChannelConversion, DownMixesAreNotRenormalised) {
    std::vector<float> const loud(6, 1.0f);
    std::vector<float> const got = ConvertOneFrame(loud, 2);
    EXPECT_FLOAT_EQ(got[0], 1.0f + 2.0f * g + 0.5f);
}

TEST(ChannelConversion, ReadsInAnyChunkingGiveTheSameFrames) {
    long long const frames = 80000;
    std::vector<float> const input = MakeNoise(6, frames, 0.5, 7);
    LSoundSource a = MakeBufferSource(44100, 6, input);
    LSoundSource whole = LSPConvChannels(2).OpenSource(a);
    std::vector<float> const expected = ReadAll(whole, frames);

    LSoundSource b = MakeBufferSource(44100, 6, input);
    LSoundSource parts = LSPConvChannels(2).OpenSource(b);
    std::vector<float> got;
    long long done = 0;
    for (long long n : {1LL, 7LL, 4095LL, 65537LL, 10360LL}) {
        std::vector<float> chunk(static_cast<std::size_t>(n) * 2);
        parts->Read(chunk.data(), n);
        got.insert(got.end(), chunk.begin(), chunk.end());
        done += n;
    }
    ASSERT_EQ(done, frames);
    EXPECT_EQ(got, expected);
    EXPECT_EQ(parts->GetPositionSample(), frames);
    EXPECT_EQ(parts->GetEndSample(), frames);
}

TEST(ChannelConversion, KeepsPositionsAndForwardsSeek) {
    LSoundSource source = LMakeSource<LTestStaircaseSource>(22050, 1, 1000);
    LSoundSource stereo = LSPConvChannels(2).OpenSource(source);
    EXPECT_EQ(stereo->GetSampleRate(), 22050);
    stereo->Seek(400);
    float frame[2] = {};
    stereo->Read(frame, 1);
    EXPECT_EQ(frame[0], StaircaseValue(400, 0));
    EXPECT_EQ(frame[1], StaircaseValue(400, 0));
    EXPECT_EQ(stereo->GetPositionSample(), 401);
}

TEST(ChannelConversion, WrapperOverAnInputInErrorIsInError) {
    LSoundSource bad = LMakeErrorSource(LSoundSourceErrorCode::kCorrupt);
    LSoundSource wrapped = LSPConvChannels(2).OpenSource(bad);
    EXPECT_EQ(wrapped->GetError(), LSoundSourceErrorCode::kInputError);
}

TEST(ChannelConversion, RateAndChannelsAreFittedInTheCheaperOrder) {
    // Down-mix first, then resample one channel.
    LSoundSource a = LMakeSource<LTestStaircaseSource>(48000, 2, 4800);
    LSPConvertSourceRateChannels(44100, 1, a);
    auto* rate = a.GetAs<LSRCConvertRate>();
    ASSERT_NE(rate, nullptr);
    EXPECT_EQ(rate->GetChannels(), 1);
    EXPECT_EQ(rate->GetSampleRate(), 44100);
    EXPECT_NE(rate->GetInput().GetAs<LSRCConvStereoMono>(), nullptr);

    // Resample one channel, then up-mix.
    LSoundSource b = LMakeSource<LTestStaircaseSource>(22050, 1, 2205);
    LSPConvertSourceRateChannels(44100, 2, b);
    auto* up = b.GetAs<LSRCConvMonoStereo>();
    ASSERT_NE(up, nullptr);
    auto const* inner = up->GetInput().GetAs<LSRCConvertRate>();
    ASSERT_NE(inner, nullptr);
    EXPECT_EQ(inner->GetChannels(), 1);

    // Nothing to do: the same source comes back.
    LSoundSource c = LMakeSource<LTestStaircaseSource>(44100, 2, 10);
    LSoundSourceBase* const before = c.Get();
    LSPConvertSourceRateChannels(44100, 2, c);
    EXPECT_EQ(c.Get(), before);

    // A rate of 0 means 44100.
    LSoundSource d = LMakeSource<LTestStaircaseSource>(8000, 1, 10);
    LSPConvertSourceRateChannels(0, 1, d);
    EXPECT_EQ(d->GetSampleRate(), 44100);
}
