// SPDX-License-Identifier: GPL-3.0-or-later
// tessel-cli's audio commands, run as the program a user runs.
#include "llib/snd/wavefile.h"
#include "tests/support/oracle.h"
#include "tests/support/tempdir.h"
#include "tests/support/testsources.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

class CliAudioTest : public LTempDirTest {
protected:
    // Runs tessel-cli with `args`; its standard output and error together in `output`.
    int Cli(std::vector<std::string> args, std::string* output = nullptr) {
        args.insert(args.begin(), TESSEL_CLI_PATH);
        if (output != nullptr) {
            output->clear();
        }
        return RunTool(args, output);
    }
};

bool Contains(std::string const& text, std::string const& part) {
    return text.find(part) != std::string::npos;
}

TEST_F(CliAudioTest, SynthesisedToneShowsItsFormatAndLevel) {
    std::string const tone = PathOf("tone.wav");
    ASSERT_EQ(Cli({"synth", tone, "--seconds", "1.5", "--rate", "22050", "--channels", "1"}), 0);
    std::string out;
    ASSERT_EQ(Cli({"info", tone}, &out), 0) << out;
    EXPECT_TRUE(Contains(out, "Format:      WAV, integer PCM")) << out;
    EXPECT_TRUE(Contains(out, "Bits:        16")) << out;
    EXPECT_TRUE(Contains(out, "Sample rate: 22050 Hz")) << out;
    EXPECT_TRUE(Contains(out, "Channels:    1")) << out;
    EXPECT_TRUE(Contains(out, "Duration:    0:00:01.500 (33075 frames)")) << out;
    EXPECT_TRUE(Contains(out, "Peak level:  -6.02 dBFS")) << out;
    // Nothing else in the folder: the temporary name is gone.
    EXPECT_EQ(ListNames(), std::vector<std::string>{"tone.wav"});
}

TEST_F(CliAudioTest, ConvertWritesEveryFormatThatSoxReads) {
    TESSEL_REQUIRE_TOOL("sox");
    std::string const tone = PathOf("tone.wav");
    ASSERT_EQ(Cli({"synth", tone, "--seconds", "0.5"}), 0);
    struct Case {
        char const* bits;
        char const* format; // in our info
        char const* soxBits;
    };
    for (Case const c : {Case{"8", "unsigned integer PCM", "8"}, Case{"16", "integer PCM", "16"},
                         Case{"24", "integer PCM", "24"}, Case{"32", "integer PCM", "32"},
                         Case{"f32", "IEEE float", "32"}, Case{"alaw", "G.711 A-law", "8"},
                         Case{"ulaw", "G.711 mu-law", "8"}}) {
        std::string const out = PathOf((std::string("out-") + c.bits + ".wav").c_str());
        std::string text;
        ASSERT_EQ(
            Cli({"convert", tone, out, "--bits", c.bits, "--rate", "48000", "--channels", "1"},
                &text),
            0)
            << c.bits << ": " << text;
        ASSERT_EQ(Cli({"info", out}, &text), 0) << text;
        EXPECT_TRUE(Contains(text, std::string("WAV, ") + c.format)) << c.bits << ": " << text;
        EXPECT_TRUE(Contains(text, "Sample rate: 48000 Hz")) << text;
        EXPECT_TRUE(Contains(text, "Channels:    1")) << text;
        std::string sox;
        ASSERT_EQ(RunTool({"sox", "--i", "-b", out}, &sox), 0) << c.bits << ": " << sox;
        EXPECT_EQ(std::stoi(sox), std::stoi(c.soxBits)) << c.bits;
        sox.clear();
        ASSERT_EQ(RunTool({"sox", "--i", "-s", out}, &sox), 0);
        EXPECT_EQ(std::stol(sox), 24000) << c.bits << ": half a second at 48 kHz";
    }
}

TEST_F(CliAudioTest, TagsAreSetRemovedAndKeptByConvert) {
    std::string const tone = PathOf("tone.wav");
    ASSERT_EQ(Cli({"synth", tone, "--seconds", "0.2"}), 0);
    ASSERT_EQ(Cli({"tags", tone, "--set", "title=First take", "--set", "ARTIST=Someone"}), 0);
    std::string out;
    ASSERT_EQ(Cli({"tags", tone}, &out), 0);
    EXPECT_TRUE(Contains(out, "TITLE=First take")) << out;
    EXPECT_TRUE(Contains(out, "ARTIST=Someone")) << out;
    ASSERT_EQ(Cli({"tags", tone, "--remove", "ARTIST"}), 0);
    ASSERT_EQ(Cli({"convert", tone, PathOf("copy.wav"), "--bits", "24"}), 0);
    ASSERT_EQ(Cli({"info", PathOf("copy.wav")}, &out), 0);
    EXPECT_TRUE(Contains(out, "TITLE=First take")) << out;
    EXPECT_FALSE(Contains(out, "ARTIST")) << out;
    EXPECT_EQ(Cli({"tags", tone, "--set", "NOSUCHKEY=x"}, &out), 2);
    EXPECT_TRUE(Contains(out, "'NOSUCHKEY' is not a tag a WAV file can hold")) << out;
}

TEST_F(CliAudioTest, FailuresSayWhyInTheSystemsWords) {
    std::string out;
    std::string const missing = PathOf("missing.wav");
    EXPECT_EQ(Cli({"info", missing}, &out), 1);
    EXPECT_TRUE(Contains(out, "Cannot open the file \"" + missing +
                                  "\". Check it exists and you have read access."))
        << out;
    std::string const broken = PathOf("broken.wav");
    ASSERT_TRUE(WriteFileBytes(broken, "RIFF\x24\0\0\0WAVEfmt \x10\0\0\0\x01\0", 22));
    EXPECT_EQ(Cli({"info", broken}, &out), 1);
    EXPECT_TRUE(Contains(out, "Cannot open the file \"" + broken + "\" because it is corrupt."))
        << out;
    EXPECT_EQ(Cli({"convert", missing}, &out), 2);
    EXPECT_EQ(Cli({"convert", missing, PathOf("x.wav"), "--bits", "12"}, &out), 2);
    EXPECT_TRUE(Contains(out, "--bits takes")) << out;
    std::string const tone = PathOf("tone.wav");
    ASSERT_EQ(Cli({"synth", tone, "--seconds", "0.1"}), 0);
    EXPECT_EQ(Cli({"convert", tone, PathOf("x.xyz")}, &out), 1);
    EXPECT_TRUE(Contains(out, "Tessel cannot write files of this type (\".xyz\").")) << out;
}

TEST_F(CliAudioTest, FlacConvertsBothWaysWithoutChangingTheAudio) {
    std::string const x = PathOf("x.wav");
    std::string const y = PathOf("y.flac");
    std::string const z = PathOf("z.wav");
    ASSERT_EQ(Cli({"synth", x, "--seconds", "0.7", "--rate", "48000", "--channels", "2"}), 0);
    std::string out;
    ASSERT_EQ(Cli({"convert", x, y, "--set", "FlacEncoder.Compression=8"}, &out), 0) << out;
    ASSERT_EQ(Cli({"convert", y, z}, &out), 0) << out;
    LSoundSource before = LWaveFile::OpenSource(x.c_str());
    LSoundSource after = LWaveFile::OpenSource(z.c_str());
    ASSERT_TRUE(before->IsOk() && after->IsOk());
    EXPECT_EQ(after->GetSampleRate(), 48000);
    EXPECT_EQ(after->GetChannels(), 2);
    EXPECT_EQ(after->GetEndSample(), 33600);
    EXPECT_TRUE(ReadAll(before) == ReadAll(after));

    ASSERT_EQ(Cli({"info", y}, &out), 0) << out;
    EXPECT_TRUE(Contains(out, "Format:      FLAC")) << out;
    EXPECT_TRUE(Contains(out, "Bits:        16")) << out;
    EXPECT_TRUE(Contains(out, "Encoder:     Tessel")) << out;
    std::size_t const md5 = out.find("MD5:         ");
    ASSERT_NE(md5, std::string::npos) << out;
    std::string const digest = out.substr(md5 + 13, 32);
    EXPECT_EQ(digest.find_first_not_of("0123456789abcdef"), std::string::npos) << out;
    if (!FindTool("metaflac").empty()) {
        std::string shown;
        ASSERT_EQ(RunTool({"metaflac", "--show-md5sum", y}, &shown), 0);
        EXPECT_EQ(shown.substr(0, 32), digest);
    }
    // The depth asked for, by setting or by --bits, which wins.
    ASSERT_EQ(Cli({"convert", x, y, "--set", "FlacEncoder.BitDepth=24"}, &out), 0) << out;
    ASSERT_EQ(Cli({"info", y}, &out), 0);
    EXPECT_TRUE(Contains(out, "Bits:        24")) << out;
    ASSERT_EQ(Cli({"convert", x, y, "--set", "FlacEncoder.BitDepth=24", "--bits", "8"}, &out), 0);
    ASSERT_EQ(Cli({"info", y}, &out), 0);
    EXPECT_TRUE(Contains(out, "Bits:        8")) << out;
}

TEST_F(CliAudioTest, FlacSettingsOutOfRangeAreUsageErrors) {
    std::string const x = PathOf("x.wav");
    ASSERT_EQ(Cli({"synth", x, "--seconds", "0.1"}), 0);
    std::string const y = PathOf("y.flac");
    std::vector<std::vector<std::string>> const refused = {
        {"--set", "FlacEncoder.Compression=9"},
        {"--set", "FlacEncoder.Compression=-1"},
        {"--set", "FlacEncoder.Compression=x"},
        {"--set", "FlacEncoder.BitDepth=12"},
        {"--set", "FlacEncoder.Nothing=1"},
        {"--set", "Compression=5"},
        {"--set"},
        {"--bits", "f32"},
        {"--bits", "alaw"},
    };
    for (std::vector<std::string> const& options : refused) {
        std::vector<std::string> args = {"convert", x, y};
        args.insert(args.end(), options.begin(), options.end());
        std::string out;
        EXPECT_EQ(Cli(args, &out), 2) << options.back() << ": " << out;
    }
    EXPECT_EQ(ListNames(), std::vector<std::string>{"x.wav"}) << "nothing written";
}

// Ctrl+C in the middle of a long convert: the program stops between blocks, says so, exits 130,
// and the file that was at the output's name is untouched, with no temporary file left behind.
TEST_F(CliAudioTest, InterruptedConvertLeavesTheOldOutputAlone) {
    std::string const tone = PathOf("long.wav");
    ASSERT_EQ(Cli({"synth", tone, "--seconds", "1800", "--rate", "8000", "--channels", "1"}), 0);
    std::string const out = PathOf("out.wav");
    ASSERT_TRUE(WriteFileBytes(out, "old contents", 12));

    std::vector<std::string> args = {TESSEL_CLI_PATH, "convert",    tone, out,      "--rate",
                                     "96000",         "--channels", "2",  "--bits", "f32"};
    std::vector<char*> argv;
    for (std::string& a : args) {
        argv.push_back(a.data());
    }
    argv.push_back(nullptr);
    pid_t pid = 0;
    ASSERT_EQ(posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    ASSERT_EQ(kill(pid, SIGINT), 0);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status)) << "the program must stop by itself, not die of the signal";
    EXPECT_EQ(WEXITSTATUS(status), 130);
    EXPECT_EQ(ReadFileBytes(out), "old contents");
    EXPECT_EQ(ListNames(), (std::vector<std::string>{"long.wav", "out.wav"}));
}

// ---- MP3 ----

class CliMp3Test : public CliAudioTest {
protected:
    // An MP3 file lame makes of a synthesised tone, with an ID3v1 title.
    std::string MakeMp3() {
        std::string const wav = PathOf("x.wav");
        std::string const mp3 = PathOf("x.mp3");
        EXPECT_EQ(Cli({"synth", wav, "--seconds", "1.2", "--rate", "44100", "--channels", "2"}), 0);
        std::string out;
        EXPECT_EQ(RunTool({"lame", "--quiet", "-b", "160", "--add-id3v2", "--tt", "Take Two",
                           "--ta", "Band", wav, mp3},
                          &out),
                  0)
            << out;
        return mp3;
    }
};

TEST_F(CliMp3Test, InfoShowsTheStreamTheLameTagAndTheTitle) {
    TESSEL_REQUIRE_TOOL("lame");
    std::string const mp3 = MakeMp3();
    std::string out;
    ASSERT_EQ(Cli({"info", mp3}, &out), 0) << out;
    EXPECT_TRUE(Contains(out, "Format:      MPEG-1 layer III")) << out;
    EXPECT_TRUE(Contains(out, "Bitrate:     constant bitrate, 160 kbit/s")) << out;
    EXPECT_TRUE(Contains(out, "VBR header:  Info")) << out;
    EXPECT_TRUE(Contains(out, "Encoder:     LAME3.100 (VBR method 1")) << out;
    EXPECT_TRUE(Contains(out, "delay 576")) << out;
    EXPECT_TRUE(Contains(out, "ID3v1 tag:   title \"Take Two\"")) << out;
    EXPECT_TRUE(Contains(out, "version 2.3\n               title \"Take Two\", artist \"Band\"\n"))
        << out;
    EXPECT_TRUE(Contains(out, "Channels:    2")) << out;
    // Gapless: the length of what was encoded.
    EXPECT_TRUE(Contains(out, "(52920 frames)")) << out;
}

TEST_F(CliMp3Test, ConvertsToTheAudioMpg123Decodes) {
    TESSEL_REQUIRE_TOOL("lame");
    TESSEL_REQUIRE_TOOL("mpg123");
    std::string const mp3 = MakeMp3();
    std::string const wav = PathOf("y.wav");
    std::string out;
    ASSERT_EQ(Cli({"convert", mp3, wav}, &out), 0) << out;
    std::vector<float> const want = DecodeWithMpg123(mp3, PathOf("mpg123.raw"));
    LSoundSource source = LWaveFile::OpenSource(wav.c_str());
    ASSERT_TRUE(source->IsOk());
    EXPECT_EQ(source->GetSampleRate(), 44100);
    EXPECT_EQ(source->GetChannels(), 2);
    std::vector<float> const got = ReadAll(source);
    ASSERT_EQ(got.size(), want.size());
    // The decoders' full accuracy against each other, plus the 16-bit rounding of the WAV file.
    double const step = std::ldexp(1.0, -15);
    SampleDifference const d = CompareSamples(got.data(), want.data(), got.size());
    EXPECT_LT(d.rms, 2 * step / std::sqrt(12.0));
    EXPECT_LE(d.max, 2 * step + step / 2);
}

} // namespace
