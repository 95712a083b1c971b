// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/gensource.h"

#include "llib/snd/cache.h"
#include "llib/snd/cutlistaudio.h"
#include "tests/support/oracle.h"
#include "tests/support/tempdir.h"
#include "tests/support/testprocess.h"
#include "tests/support/testsources.h"

#include <dirent.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <string>
#include <vector>

namespace {

class GenSourceTest : public LTempDirTest {
protected:
    void SetUp() override {
        LTempDirTest::SetUp();
        LSoundCache::SetFolder(PathOf("cache"));
    }

    // Writes `samples` as a 16-bit WAV file through the dispatch.
    void Save(std::string const& path, std::vector<float> const& samples, unsigned char channels) {
        LSoundSource source = MakeBufferSource(44100, channels, samples);
        LTestProcess process;
        LGenSinkFormat format;
        format.bits = 16;
        ASSERT_EQ(
            ProcessGenSaveSource(process, source, path.c_str(), 44100, channels, &format, nullptr),
            LProcessResult::kCompleted);
    }
};

// Values that 16-bit samples hold exactly (full scale is 32767 both ways).
std::vector<float> Steps(std::size_t count, int scale) {
    std::vector<float> samples(count);
    for (std::size_t i = 0; i < count; ++i) {
        samples[i] = static_cast<float>(scale * (static_cast<int>(i % 64) - 32)) / 32767.0f;
    }
    return samples;
}

TEST_F(GenSourceTest, ReopeningAnUnchangedFileUsesItsCacheItemAgain) {
    std::string const path = PathOf("take.wav");
    std::vector<float> const first = Steps(2000, 100);
    Save(path, first, 2);

    LTestProcess process;
    unsigned short item = kLSoundCacheItemNone;
    {
        LCutListAudio list;
        ASSERT_EQ(ProcessGenOpenCutList(process, path.c_str(), list), LProcessResult::kCompleted);
        ASSERT_EQ(list.GetSegmentCount(), 1u);
        EXPECT_EQ(list.GetSampleRate(), 44100);
        EXPECT_EQ(list.GetChannels(), 2);
        item = list.GetHead()->GetItem();
        LSoundSource read = list.OpenSource();
        EXPECT_EQ(ReadAll(read), first);
    }
    // Released: the files stay because the original is unchanged, and opening finds them.
    std::vector<std::string> const cached = ListNames(PathOf("cache"));
    LCutListAudio again;
    ASSERT_EQ(ProcessGenOpenCutList(process, path.c_str(), again), LProcessResult::kCompleted);
    EXPECT_EQ(again.GetHead()->GetItem(), item);
    EXPECT_EQ(ListNames(PathOf("cache")), cached) << "nothing new was decoded";

    // A changed file is decoded afresh.
    std::vector<float> const second = Steps(3000, -50);
    Save(path, second, 2);
    LCutListAudio changed;
    ASSERT_EQ(ProcessGenOpenCutList(process, path.c_str(), changed), LProcessResult::kCompleted);
    EXPECT_NE(changed.GetHead()->GetItem(), item);
    LSoundSource read = changed.OpenSource();
    EXPECT_EQ(ReadAll(read), second);

    // And saved back through the dispatch, sample for sample.
    std::string const copy = PathOf("copy.wav");
    ASSERT_EQ(ProcessGenSaveCutList(process, changed, copy.c_str(), nullptr, nullptr),
              LProcessResult::kCompleted);
    LSoundSource reread;
    ASSERT_EQ(ProcessGenSourceOpenSource(reread, copy.c_str(), process),
              LProcessResult::kCompleted);
    EXPECT_EQ(ReadAll(reread), second);
}

TEST_F(GenSourceTest, ExtensionsAreComparedLowerCasedAndUnknownOnesGoToThePlatformDecoder) {
    EXPECT_EQ(LGenFileExtension("/a/b.WaV"), ".wav");
    EXPECT_EQ(LGenFileExtension("/a.d/noext"), "");
    EXPECT_EQ(LGenFileExtension(".hidden"), "");
    std::string const path = PathOf("loud.wav");
    std::vector<float> const samples = Steps(500, 10);
    Save(path, samples, 1);
    LTestProcess process;
    for (char const* name : {"LOUD.WAV", "loud.bin"}) {
        std::string const renamed = PathOf(name);
        ASSERT_EQ(link(path.c_str(), renamed.c_str()), 0);
        LSoundSource source;
        ASSERT_EQ(ProcessGenSourceOpenSource(source, renamed.c_str(), process),
                  LProcessResult::kCompleted)
            << name << ": " << process.errors.back();
        EXPECT_EQ(source->GetEndSample(), 500) << name;
    }
}

TEST_F(GenSourceTest, ImaAdpcmWavIsReadByThePlatformDecoder) {
    TESSEL_REQUIRE_TOOL("sox");
    std::string const path = PathOf("adpcm.wav");
    ASSERT_EQ(RunTool({"sox", "-n", "-r", "8000", "-c", "1", "-e", "ima-adpcm", path, "synth",
                       "0.5", "sine", "440"}),
              0);
    LTestProcess process;
    LSoundSource source;
    ASSERT_EQ(ProcessGenSourceOpenSource(source, path.c_str(), process),
              LProcessResult::kCompleted);
    EXPECT_EQ(source->GetSampleRate(), 8000);
    EXPECT_NEAR(static_cast<double>(source->GetEndSample()), 4000.0, 505.0);
}

TEST_F(GenSourceTest, FailuresGiveTheMessageForTheirCause) {
    LTestProcess process;
    LSoundSource source;
    std::string const missing = PathOf("missing.wav");
    EXPECT_EQ(ProcessGenSourceOpenSource(source, missing.c_str(), process),
              LProcessResult::kFailed);
    ASSERT_FALSE(process.errors.empty());
    EXPECT_EQ(process.errors.back(), "Cannot open the file \"" + missing +
                                         "\". Check it exists and you have read access.");
    std::string const text = PathOf("notes.wav");
    ASSERT_TRUE(WriteFileBytes(text, "just some words, no audio", 25));
    EXPECT_EQ(ProcessGenSourceOpenSource(source, text.c_str(), process), LProcessResult::kFailed);
    EXPECT_EQ(process.errors.back(),
              "Cannot open the file \"" + text + "\" because it is corrupt.");
    LCutListAudio list;
    EXPECT_EQ(ProcessGenOpenCutList(process, missing.c_str(), list), LProcessResult::kFailed);
    EXPECT_EQ(list.GetSegmentCount(), 0u);
}

TEST_F(GenSourceTest, AStoppedOrFailedSaveLeavesTheOldFileAlone) {
    std::string const path = PathOf("keep.wav");
    ASSERT_TRUE(WriteFileBytes(path, "old", 3));
    LSoundSource source = MakeBufferSource(44100, 2, std::vector<float>(2 * 200000, 0.1f));
    LTestProcess stopping(2);
    EXPECT_EQ(ProcessGenSaveSource(stopping, source, path.c_str(), 44100, 2, nullptr, nullptr),
              LProcessResult::kStopped);
    LTestProcess process;
    EXPECT_EQ(ProcessGenSaveSource(process, source, PathOf("keep.xyz").c_str(), 44100, 2, nullptr,
                                   nullptr),
              LProcessResult::kFailed);
    EXPECT_EQ(ReadFileBytes(path), "old");
    EXPECT_EQ(ListNames(), (std::vector<std::string>{"cache", "keep.wav"}));
}

// The last byte of a file, its pad byte, is written when the sink finishes: a save that cannot
// write it must fail and leave the old file, not rename a damaged one over it. (The file size
// limit lets every audio byte through and stops exactly there.)
TEST_F(GenSourceTest, ASaveWhoseFinalWriteFailsKeepsTheOldFile) {
    std::string const path = PathOf("odd.wav");
    ASSERT_TRUE(WriteFileBytes(path, "old", 3));
    LSoundSource source = MakeBufferSource(8000, 1, {0.25f, -0.25f, 0.5f});
    LGenSinkFormat format;
    format.bits = 8;
    rlimit old{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
    void (*oldHandler)(int) = signal(SIGXFSZ, SIG_IGN);
    rlimit limit = old;
    limit.rlim_cur = 46 + 3; // the header and three 8-bit frames, not the pad byte
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    LTestProcess process;
    LProcessResult const result =
        ProcessGenSaveSource(process, source, path.c_str(), 8000, 1, &format, nullptr);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &old), 0);
    signal(SIGXFSZ, oldHandler);
    EXPECT_EQ(result, LProcessResult::kFailed);
    EXPECT_EQ(ReadFileBytes(path), "old");
    EXPECT_EQ(ListNames(), (std::vector<std::string>{"cache", "odd.wav"}));
}

} // namespace
