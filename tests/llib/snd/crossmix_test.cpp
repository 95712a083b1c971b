// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/crossmix.h"

#include "tests/support/testsources.h"

#include <gtest/gtest.h>

#include <vector>

TEST(CrossMix, FadesTheOtherSourceOutAndTheInputIn) {
    LSoundSource input = MakeBufferSource(100, 1, std::vector<float>(50, 1.0f));
    LSoundSource other = MakeBufferSource(100, 1, std::vector<float>(50, -1.0f));
    LSoundSource mixed = LSPCrossMix(other, 9).OpenSource(input);
    std::vector<float> const out = ReadAll(mixed, 3);
    ASSERT_EQ(out.size(), 50u);
    for (int k = 0; k < 9; ++k) {
        float const w = static_cast<float>(k + 1) / 10.0f;
        EXPECT_NEAR(out[static_cast<std::size_t>(k)], w - (1.0f - w), 1e-6) << k;
    }
    for (std::size_t k = 9; k < out.size(); ++k) {
        EXPECT_EQ(out[k], 1.0f) << k;
    }
}

TEST(CrossMix, SeekInsideTheMixMatchesAContinuousRead) {
    std::vector<float> const a = MakeNoise(2, 400, 0.5, 1);
    std::vector<float> const b = MakeNoise(2, 400, 0.5, 2);
    auto make = [&] {
        LSoundSource input = MakeBufferSource(1000, 2, a);
        return LSPCrossMix(MakeBufferSource(1000, 2, b), 100).OpenSource(input);
    };
    LSoundSource whole = make();
    std::vector<float> const expected = ReadAll(whole);
    for (long long at : {0LL, 37LL, 99LL, 100LL, 250LL}) {
        LSoundSource s = make();
        std::vector<float> skip(2 * 120);
        s->Read(skip.data(), 120);
        s->Seek(at);
        std::vector<float> const got = ReadAll(s, 17);
        ASSERT_EQ(got.size(), expected.size() - static_cast<std::size_t>(at) * 2);
        for (std::size_t i = 0; i < got.size(); ++i) {
            ASSERT_EQ(got[i], expected[static_cast<std::size_t>(at) * 2 + i]) << at << " " << i;
        }
    }
}

TEST(CrossMix, OtherSourceIsFittedToTheInputsFormat) {
    // A mono 500 Hz source crossfades into a stereo 1000 Hz input.
    LSoundSource input = MakeBufferSource(1000, 2, std::vector<float>(200, 0.0f));
    LSoundSource other = MakeBufferSource(500, 1, std::vector<float>(100, 0.5f));
    LSoundSource mixed = LSPCrossMix(other, 20).OpenSource(input);
    EXPECT_EQ(mixed->GetChannels(), 2);
    EXPECT_EQ(mixed->GetSampleRate(), 1000);
    std::vector<float> const out = ReadAll(mixed);
    // Both channels carry the other source's (resampled) level, fading.
    EXPECT_GT(out[20], 0.1f);
    EXPECT_EQ(out[20], out[21]);
    EXPECT_EQ(out[2 * 20], 0.0f);
}
