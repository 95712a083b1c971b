// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/soundsink.h"
#include "llib/snd/soundsource.h"
#include "tests/support/testsinks.h"
#include "tests/support/testsources.h"

#include <gtest/gtest.h>

#include <vector>

TEST(SoundSourceHandle, DefaultAndClosedHandlesHoldASilentPlaceholder) {
    LSoundSource source;
    EXPECT_EQ(source->GetError(), LSoundSourceErrorCode::kNoSource);
    EXPECT_EQ(source->GetSampleRate(), 11025);
    EXPECT_EQ(source->GetChannels(), 1);
    EXPECT_EQ(source->GetMaxMagnitude(), 16.0f);
    EXPECT_EQ(source->GetEndSample(), 0);
    std::vector<float> buffer(16, 9.0f);
    source->Read(buffer.data(), 16);
    EXPECT_EQ(buffer, std::vector<float>(16, 0.0f));
    EXPECT_EQ(source->GetPositionSample(), 0);

    LSoundSource real = LMakeSource<LTestStaircaseSource>(44100, 2, 100);
    EXPECT_TRUE(real->IsOk());
    real.Close();
    EXPECT_EQ(real->GetError(), LSoundSourceErrorCode::kNoSource);
}

TEST(SoundSourceHandle, CopiesShareOneObjectAndTheLastReleaseDeletesIt) {
    long const before = LSoundLiveCount(LSoundLiveKind::kSource);
    {
        LSoundSource a = LMakeSource<LTestStaircaseSource>(44100, 1, 10);
        EXPECT_EQ(a.GetReferenceCount(), 1);
        LSoundSource b = a;
        EXPECT_EQ(a.Get(), b.Get());
        EXPECT_EQ(a.GetReferenceCount(), 2);
        LSoundSource c;
        c = b;
        EXPECT_EQ(a.GetReferenceCount(), 3);
        c = c; // self-assignment keeps the object alive
        EXPECT_EQ(c.GetReferenceCount(), 3);
        EXPECT_EQ(c->GetEndSample(), 10);
        b.Close();
        EXPECT_EQ(a.GetReferenceCount(), 2);
    }
    if (kLSoundCountsLiveObjects) {
        EXPECT_EQ(LSoundLiveCount(LSoundLiveKind::kSource), before);
    }
}

TEST(SoundSourceBase, InvalidDescriptionIsReplacedAndMarked) {
    LSoundSource noRate = LMakeSource<LTestStaircaseSource>(0, 2, 10);
    EXPECT_EQ(noRate->GetSampleRate(), 44100);
    EXPECT_EQ(noRate->GetError(), LSoundSourceErrorCode::kCorrupt);
    LSoundSource noChannels = LMakeSource<LTestStaircaseSource>(48000, 0, 10);
    EXPECT_EQ(noChannels->GetChannels(), 1);
    EXPECT_EQ(noChannels->GetError(), LSoundSourceErrorCode::kCorrupt);
    LSoundSource negative = LMakeSource<LTestStaircaseSource>(-5, 1, 10);
    EXPECT_EQ(negative->GetSampleRate(), 44100);
}

TEST(SoundSourceBase, ErrorSourceCarriesItsCodeAndEveryCodeHasText) {
    LSoundSource const s = LMakeErrorSource(LSoundSourceErrorCode::kCodecRequired);
    EXPECT_EQ(s->GetError(), LSoundSourceErrorCode::kCodecRequired);
    EXPECT_FALSE(s->IsOk());
    for (int code = 0; code <= 7; ++code) {
        std::string const text =
            LSoundSourceErrorCodeText(static_cast<LSoundSourceErrorCode>(code));
        EXPECT_FALSE(text.empty());
        EXPECT_NE(text, "unknown error") << code;
    }
}

TEST(SoundSinkHandle, PlaceholderIsFailedAndZeroChannelSinksFail) {
    LSoundSink sink;
    EXPECT_TRUE(sink->IsFailed());
    EXPECT_EQ(sink->GetSampleRate(), 44100);
    float const data[4] = {1, 2, 3, 4};
    sink->Write(data, 4);
    EXPECT_EQ(sink->GetFramesWritten(), 0);

    LSoundSink bad = LMakeSink<LTestCapturingSink>(44100, 0);
    EXPECT_EQ(bad->GetChannels(), 1);
    EXPECT_TRUE(bad->IsFailed());
}

TEST(SoundSinkHandle, StubCountsFramesAndCopiesShareTheSink) {
    LSoundSink stub = LMakeSink<LSoundSinkStubBase>(48000, 2);
    LSoundSink copy = stub;
    std::vector<float> const data(2 * 300, 0.5f);
    stub->Write(data.data(), 300);
    copy->Write(data.data(), 12);
    EXPECT_EQ(stub->GetFramesWritten(), 312);
    EXPECT_EQ(stub.GetReferenceCount(), 2);
    copy.Close();
    EXPECT_TRUE(copy->IsFailed());
    EXPECT_EQ(stub.GetReferenceCount(), 1);
}
