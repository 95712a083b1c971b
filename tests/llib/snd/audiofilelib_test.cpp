// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/audiofilelib.h"

#include "llib/gen/stringlong.h"
#include "llib/snd/wavefile.h"
#include "tests/support/oracle.h"
#include "tests/support/tempdir.h"
#include "tests/support/testsources.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

class AudioFileLibTest : public LTempDirTest {
protected:
    void SetUp() override {
        LTempDirTest::SetUp();
        if (!LAudioFileLib::IsAvailable()) {
            char const* ci = std::getenv("CI");
            if (ci != nullptr && std::string(ci) == "true") {
                FAIL() << "libsndfile.so.1 is missing under CI";
            }
            GTEST_SKIP() << "libsndfile.so.1 is not installed";
        }
    }
};

TEST_F(AudioFileLibTest, ImaAdpcmWavIsWrittenHereAndReadOnlyByTheLibrary) {
    std::string const path = PathOf("ima.wav");
    std::vector<float> const sine = MakeSine(22050, 2, 441.0, 0.5, 22050);
    LWaveFileFormat format;
    format.formatTag = 17;
    format.channels = 2;
    format.samplesPerSec = 22050;
    format.bitsPerSample = 4;
    {
        LSoundSink sink = LWaveFile::OpenSink(path.c_str(), format);
        sink->Write(sine.data(), 22050);
        EXPECT_EQ(sink->GetFramesWritten(), 22050);
        EXPECT_FALSE(sink->IsFailed());
    }
    EXPECT_EQ(LWaveFile::OpenSource(path.c_str())->GetError(),
              LSoundSourceErrorCode::kCodecRequired);
    LSoundSource source = LAudioFileLib::OpenSource(path.c_str());
    ASSERT_TRUE(source->IsOk());
    EXPECT_EQ(std::pair(source->GetSampleRate(), int{source->GetChannels()}), std::pair(22050, 2));
    // ADPCM blocks round the length up to whole blocks.
    ASSERT_GE(source->GetEndSample(), 22050);
    std::vector<float> const got = ReadAll(source, 1000, 22050);
    double signal = 0;
    double noise = 0;
    for (std::size_t i = 0; i < sine.size(); ++i) {
        signal += double{sine[i]} * sine[i];
        noise += (double{got[i]} - sine[i]) * (double{got[i]} - sine[i]);
    }
    EXPECT_GT(10.0 * std::log10(signal / noise), 20.0);
    // Seeking back reads the same frames again.
    source->Seek(1000);
    EXPECT_EQ(ReadAll(source, 7, 10), std::vector<float>(got.begin() + 2000, got.begin() + 2020));
}

TEST_F(AudioFileLibTest, ReadsOtherContainersAndReportsWhatItCannot) {
    TESSEL_REQUIRE_TOOL("sox");
    std::string const wav = PathOf("in.wav");
    std::string const aiff = PathOf("in.aiff");
    std::vector<float> const noise = MakeNoise(1, 5000, 0.9, 4);
    LWaveFile::OpenSinkPCM(wav.c_str(), 32000, 1, 16, false)->Write(noise.data(), 5000);
    std::string log;
    ASSERT_EQ(RunTool({"sox", wav, aiff}, &log), 0) << log;
    LSoundSource ours = LWaveFile::OpenSource(wav.c_str());
    std::vector<float> const want = ReadAll(ours);
    LSoundSource source = LAudioFileLib::OpenSource(aiff.c_str());
    ASSERT_TRUE(source->IsOk());
    EXPECT_EQ(source->GetSampleRate(), 32000);
    std::vector<float> const got = ReadAll(source);
    ASSERT_EQ(got.size(), 5000u);
    // The library scales 16-bit values by 1/32768, we by 1/32767.
    for (std::size_t i = 0; i < got.size(); ++i) {
        ASSERT_EQ(got[i], static_cast<float>(std::lround(want[i] * 32767.0)) / 32768.0f) << i;
    }
    std::string const junk(1000, 'j');
    ASSERT_TRUE(WriteFileBytes(PathOf("junk.aiff"), junk.data(), junk.size()));
    EXPECT_EQ(LAudioFileLib::OpenSource(PathOf("junk.aiff").c_str())->GetError(),
              LSoundSourceErrorCode::kUnsupported);
    EXPECT_EQ(LAudioFileLib::OpenSource(PathOf("missing.aiff").c_str())->GetError(),
              LSoundSourceErrorCode::kCannotOpen);
    EXPECT_TRUE(LAudioFileLib::OpenSinkWav(PathOf("x.wav").c_str(), 1, 8000, 1)->IsFailed());
}

} // namespace
