// SPDX-License-Identifier: GPL-3.0-or-later
// tessel-cli edit, run as the program a user runs, its output read back sample by sample.
#include "llib/gen/process.h"
#include "llib/snd/cache.h"
#include "llib/snd/gensource.h"
#include "tests/support/oracle.h"
#include "tests/support/testprocess.h"
#include "tests/support/testsources.h"
#include "tests/support/tempdir.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <string>
#include <vector>

namespace {

bool Exists(std::string const& path) {
    return ::access(path.c_str(), F_OK) == 0;
}

class CliEditTest : public LTempDirTest {
protected:
    void SetUp() override {
        LTempDirTest::SetUp();
        LSoundCache::SetFolder(PathOf("cache"));
    }

    int Cli(std::vector<std::string> args, std::string* output) {
        args.insert(args.begin(), {TESSEL_CLI_PATH, "edit"});
        output->clear();
        return RunTool(args, output);
    }

    // A 16-bit stereo file whose every frame differs (so a misplaced frame shows), exact
    // through 16-bit storage.
    std::string MakeInput(char const* name, long long frames, int offset) {
        std::vector<float> samples;
        for (long long f = 0; f < frames; ++f) {
            for (int c = 0; c < 2; ++c) {
                long long const v = (f * 7 + offset + c * 1000) % 60000 - 30000;
                samples.push_back(static_cast<float>(v) / 32767.0f);
            }
        }
        std::string const path = PathOf(name);
        LSoundSource source = LMakeSource<LTestBufferSource>(44100, 2, std::move(samples));
        LTestProcess process;
        EXPECT_EQ(ProcessGenSaveSource(process, source, path.c_str(), 44100, 2, nullptr, nullptr),
                  LProcessResult::kCompleted);
        return path;
    }

    static std::vector<float> Read(std::string const& path) {
        LSoundSource source;
        LTestProcess process;
        EXPECT_EQ(ProcessGenSourceOpenSource(source, path.c_str(), process),
                  LProcessResult::kCompleted);
        std::vector<float> samples(static_cast<std::size_t>(source->GetEndSample()) * 2);
        source->Read(samples.data(), source->GetEndSample());
        return samples;
    }

    static std::vector<float> Frames(std::vector<float> const& all, long long a, long long b) {
        return {all.begin() + a * 2, all.begin() + b * 2};
    }
};

TEST_F(CliEditTest, CutAndPasteBetweenFilesThenSave) {
    std::string const a = MakeInput("a.wav", 88200, 0);
    std::string const b = MakeInput("b.wav", 44100, 12345);
    std::vector<float> const inA = Read(a);
    std::vector<float> const inB = Read(b);
    std::string const script = "# take the start of b\n"
                               "window index=2\n"
                               "select start=0 end=10000smp\n"
                               "copy\n"
                               "window index=1\n";
    ASSERT_TRUE(WriteFileBytes(PathOf("s.txt"), script.data(), script.size()));
    std::string out;
    ASSERT_EQ(
        Cli({a, b, "-o", PathOf("out.wav"), "--do", "select start=0:00.5 end=0:01", "--do", "cut",
             "--script", PathOf("s.txt"), "--do", "cursor position=44100smp", "--do", "paste"},
            &out),
        0)
        << out;
    EXPECT_EQ(out, "");
    // a without [22050, 44100), then b's first 10000 frames pasted at 44100 of what was left.
    std::vector<float> expected = Frames(inA, 0, 22050);
    for (std::vector<float> const& part :
         {Frames(inA, 44100, 66150), Frames(inB, 0, 10000), Frames(inA, 66150, 88200)}) {
        expected.insert(expected.end(), part.begin(), part.end());
    }
    EXPECT_EQ(Read(PathOf("out.wav")), expected);
}

TEST_F(CliEditTest, EffectsTakeTheirSettingsAndChangeTheSavedFile) {
    std::string const a = MakeInput("a.wav", 22050, 0);
    std::vector<float> const in = Read(a);
    std::string out;
    ASSERT_EQ(
        Cli({a, "-o", PathOf("out.wav"), "--do", "join-channels", "--do", "normalize peak-db=-3",
             "--do", "select start=0 end=100smp", "--do", "fade-in shape=linear"},
            &out),
        0)
        << out;
    LSoundSource source;
    LTestProcess process;
    ASSERT_EQ(ProcessGenSourceOpenSource(source, PathOf("out.wav").c_str(), process),
              LProcessResult::kCompleted);
    ASSERT_EQ(source->GetChannels(), 1u);
    ASSERT_EQ(source->GetEndSample(), 22050);
    std::vector<float> mono(22050);
    source->Read(mono.data(), 22050);
    // Joined, then scaled so that the loudest value is -3 dB: every value is the channels' mean
    // times one factor, to within the 16-bit steps and their dither (up to one step either way).
    double peakIn = 0.0;
    double peakOut = 0.0;
    for (std::size_t f = 0; f < mono.size(); ++f) {
        peakIn = std::max(peakIn, std::abs(0.5 * (in[2 * f] + in[2 * f + 1])));
        peakOut = std::max(peakOut, static_cast<double>(std::abs(mono[f])));
    }
    EXPECT_NEAR(peakOut, std::pow(10.0, -3.0 / 20.0), 2.0 / 32767);
    double const factor = peakOut / peakIn;
    for (std::size_t f : {100u, 5000u, 22049u}) {
        EXPECT_NEAR(mono[f], 0.5 * (in[2 * f] + in[2 * f + 1]) * factor, 2.5 / 32767) << f;
    }
    // The fade over the first 100 frames starts from silence.
    EXPECT_NEAR(mono[0], 0.0f, 1.5 / 32767);
    EXPECT_NEAR(mono[50], 0.5 * (in[100] + in[101]) * factor * 0.5, 2.5 / 32767);
}

TEST_F(CliEditTest, AFailingStepIsNamedAndNothingIsSaved) {
    std::string const a = MakeInput("a.wav", 4410, 0);
    std::string const script = "select start=0 end=0.05\n\ncut\npaste\nundo\nundo\nundo\n";
    ASSERT_TRUE(WriteFileBytes(PathOf("s.txt"), script.data(), script.size()));
    std::string out;
    EXPECT_EQ(Cli({a, "-o", PathOf("out.wav"), "--script", PathOf("s.txt")}, &out), 1);
    EXPECT_EQ(out, "tessel-cli: " + PathOf("s.txt") + ":7 (undo): There is nothing to undo.\n");
    EXPECT_FALSE(Exists(PathOf("out.wav")));

    struct Case {
        std::vector<std::string> args;
        int status;
        std::string message;
    };
    for (Case const& c : std::vector<Case>{
             {{"--do", "paste"},
              1,
              "tessel-cli: step 1 (paste): The clipboard is empty: copy or cut some audio "
              "first.\n"},
             {{"--do", "select start=0 end=0.01 length=2"},
              1,
              "tessel-cli: step 1 (select): the command has no setting 'length'\n"},
             {{"--do", "select start=0.09 end=0.01"},
              1,
              "tessel-cli: step 1 (select): The end of the selection (0.01) is before its "
              "start (0.09).\n"},
             {{"--do", "select start=0:00.5 end=-1"},
              1,
              "tessel-cli: step 1 (select): The end of the selection, \"-1\", is not a time or "
              "a sample position.\n"},
             {{"--do", "4004"},
              1,
              "tessel-cli: step 1 (echo): \"Echo\" is not available in this version of "
              "Tessel.\n"},
             {{"--do", "normalize peak-db=+6"},
              1,
              "tessel-cli: step 1 (normalize): The peak level \"+6\" is not a level from -96 to "
              "0 dB.\n"},
             {{"--do", "shuffle"},
              2,
              "tessel-cli: --do 'shuffle': unknown command 'shuffle'\nTry 'tessel-cli --help' "
              "for more information.\n"},
         }) {
        std::vector<std::string> args{a, "-o", PathOf("out.wav")};
        args.insert(args.end(), c.args.begin(), c.args.end());
        EXPECT_EQ(Cli(args, &out), c.status) << c.args.back();
        EXPECT_EQ(out, c.message);
        EXPECT_FALSE(Exists(PathOf("out.wav")));
    }
    EXPECT_EQ(Cli({a}, &out), 2);
    EXPECT_NE(out.find("edit needs an output file"), std::string::npos);
    EXPECT_EQ(Cli({PathOf("none.wav"), "-o", PathOf("out.wav")}, &out), 1);
    EXPECT_NE(out.find("opening " + PathOf("none.wav")), std::string::npos);
}

} // namespace
