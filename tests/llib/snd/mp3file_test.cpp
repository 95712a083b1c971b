// SPDX-License-Identifier: GPL-3.0-or-later
// MP3 files: lame's files through our decoder against mpg123's decoding, seeking, the VBR and
// LAME headers, the synthesis filter bank, damaged and hostile input, and MP3 inside WAV.

#include "llib/snd/mp3file.h"

#include "llib/snd/audiofilelib.h"
#include "llib/snd/gensource.h"
#include "llib/snd/mp3decode.h"
#include "llib/snd/wavefile.h"
#include "tests/support/oracle.h"
#include "tests/support/tempdir.h"
#include "tests/support/testprocess.h"
#include "tests/support/testsources.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fcntl.h>
#include <random>
#include <string>
#include <vector>

namespace {

using Code = LSoundSourceErrorCode;

// What a decoder must reach against an ideal one: an RMS error below a 16-bit step's rounding
// noise and no sample off by more than 2^-14. Two such decoders may differ by as much again, so
// our output is held to these bounds against mpg123's.
double const kMaxRms = std::ldexp(1.0, -15) / std::sqrt(12.0);
double const kMaxError = std::ldexp(1.0, -14);

enum class Signal { kChord, kNoise, kSilence, kSquare };

std::vector<float> Make(Signal signal, int rate, unsigned channels, long long frames) {
    std::vector<float> s = MakeNoise(channels, frames, 0.5, 7);
    double const pi = 3.14159265358979323846;
    for (long long i = 0; i < frames; ++i) {
        for (unsigned c = 0; c < channels; ++c) {
            float& v = s[static_cast<std::size_t>(i * channels + c)];
            double const t = static_cast<double>(i) / rate;
            if (signal == Signal::kChord) {
                v = static_cast<float>(0.3 * std::sin(2 * pi * 220 * (c + 1) * t) +
                                       0.2 * std::sin(2 * pi * 1375 * t + c) +
                                       0.1 * std::sin(2 * pi * 3150 * t));
            } else if (signal == Signal::kSilence) {
                v = 0.0f;
            } else if (signal == Signal::kSquare) {
                v = (i * 441 / rate) % 2 == 0 ? 1.0f : -1.0f;
            }
        }
    }
    return s;
}

void ExpectFullAccuracy(std::vector<float> const& got, std::vector<float> const& want,
                        std::size_t n, std::string const& what) {
    ASSERT_LE(n, std::min(got.size(), want.size())) << what;
    SampleDifference const s = CompareSamples(got.data(), want.data(), n);
    EXPECT_LT(s.rms, kMaxRms) << what;
    EXPECT_LE(s.max, kMaxError) << what;
}

LSoundSource Open(std::string const& path, bool decodeAhead = false) {
    LSoundSource source = LMP3File::OpenSource(path.c_str(), decodeAhead);
    EXPECT_TRUE(source->IsOk()) << path << ": " << static_cast<int>(source->GetError());
    return source;
}

std::uint32_t Little32(std::string const& s, std::size_t at) {
    return static_cast<std::uint32_t>(static_cast<unsigned char>(s[at])) |
           static_cast<std::uint32_t>(static_cast<unsigned char>(s[at + 1])) << 8 |
           static_cast<std::uint32_t>(static_cast<unsigned char>(s[at + 2])) << 16 |
           static_cast<std::uint32_t>(static_cast<unsigned char>(s[at + 3])) << 24;
}

std::string Le(std::uint32_t v, int bytes) {
    std::string s;
    for (int i = 0; i < bytes; ++i) {
        s += static_cast<char>((v >> (8 * i)) & 0xFF);
    }
    return s;
}

class MP3FileTest : public LTempDirTest {
protected:
    // Writes `samples` as a 16-bit WAV file by our own writer.
    static void WriteWav(std::string const& path, std::vector<float> const& samples, int rate,
                         unsigned channels) {
        LSoundSink sink = LWaveFile::OpenSinkPCM(path.c_str(), rate,
                                                 static_cast<unsigned char>(channels), 16, false);
        ASSERT_FALSE(sink->IsFailed());
        sink->Write(samples.data(), static_cast<long long>(samples.size() / channels));
        ASSERT_TRUE(sink->Finish());
    }
    // lame's file of `seconds` of `signal`; lame is held to the input's rate so the decoded
    // length can be compared with the input's.
    std::string Lame(std::vector<std::string> const& options, Signal signal = Signal::kChord,
                     int rate = 44100, unsigned channels = 2, double seconds = 1.5,
                     char const* name = "x.mp3", long long* inputFrames = nullptr) {
        auto const frames = static_cast<long long>(seconds * rate);
        if (inputFrames != nullptr) {
            *inputFrames = frames;
        }
        std::string const wav = PathOf("in.wav");
        WriteWav(wav, Make(signal, rate, channels, frames), rate, channels);
        std::string const path = PathOf(name);
        char khz[16];
        std::snprintf(khz, sizeof khz, "%g", rate / 1000.0);
        std::vector<std::string> args = {"lame", "--quiet", "--resample", khz};
        args.insert(args.end(), options.begin(), options.end());
        args.insert(args.end(), {wav, path});
        std::string output;
        EXPECT_EQ(RunTool(args, &output), 0) << output;
        return path;
    }
    // mpg123's decoding as interleaved floats.
    std::vector<float> Mpg123(std::string const& path) {
        return DecodeWithMpg123(path, PathOf("mpg123.raw"));
    }
};

// Frame starts in an MP3 file from its first frame, walking by the headers' sizes.
std::vector<std::size_t> FrameOffsets(std::string const& bytes, std::size_t first) {
    std::vector<std::size_t> offsets;
    LMP3FrameHeader h;
    for (std::size_t at = first;
         at + 4 <= bytes.size() && h.Read(reinterpret_cast<unsigned char const*>(&bytes[at]));
         at += static_cast<std::size_t>(h.GetFrameBytes())) {
        offsets.push_back(at);
    }
    return offsets;
}

// ---- lame's files against mpg123 ----

struct LameCase {
    char const* name;
    std::vector<std::string> options;
    int rate;
    unsigned channels;
    Signal signal;
    bool estimated; // no Info tag: the length is estimated from the bitrate
    bool alsoAhead; // also decode with the decoding thread
};

class MP3Decode : public MP3FileTest, public ::testing::WithParamInterface<LameCase> {};

TEST_P(MP3Decode, LameFilesDecodeAsMpg123DecodesThem) {
    TESSEL_REQUIRE_TOOL("lame");
    TESSEL_REQUIRE_TOOL("mpg123");
    LameCase const& c = GetParam();
    long long input = 0;
    std::string const path = Lame(c.options, c.signal, c.rate, c.channels, 1.5, "x.mp3", &input);
    std::vector<float> const want = Mpg123(path);
    LSoundSource source = Open(path);
    ASSERT_TRUE(source->IsOk());
    EXPECT_EQ(source->GetSampleRate(), c.rate);
    unsigned const channels = source->GetChannels();
    std::vector<float> const got = ReadAll(source, 1000);
    EXPECT_EQ(LMP3File::GetLostFrames(source), 0);
    LMP3FileInfo info;
    ASSERT_TRUE(LMP3File::GetInfo(path.c_str(), info));
    EXPECT_EQ(info.lengthEstimated, c.estimated);
    if (c.estimated) {
        int const spf = info.header.GetFrameSamples();
        auto const frames = static_cast<long long>(want.size() / channels);
        EXPECT_LE(std::llabs(source->GetEndSample() - frames), spf);
        ExpectFullAccuracy(got, want, std::min(got.size(), want.size()), c.name);
    } else {
        // Gapless: the encoder's delay and padding are cut.
        EXPECT_EQ(source->GetEndSample(), input);
        ASSERT_EQ(got.size(), want.size());
        ExpectFullAccuracy(got, want, got.size(), c.name);
    }
    if (c.alsoAhead) {
        LSoundSource ahead = Open(path, true);
        EXPECT_TRUE(ReadAll(ahead, 333) == got) << "the decoding thread changes the output";
    }
}

using S = Signal;
std::vector<std::string> O(std::initializer_list<char const*> o) {
    return {o.begin(), o.end()};
}

INSTANTIATE_TEST_SUITE_P(
    Cases, MP3Decode,
    ::testing::Values(
        LameCase{"Cbr32", O({"-b", "32"}), 44100, 2, S::kChord, true, false},
        LameCase{"Cbr128", O({"-b", "128"}), 44100, 2, S::kChord, false, true},
        LameCase{"Cbr320", O({"-b", "320"}), 48000, 2, S::kNoise, false, false},
        LameCase{"V0", O({"-V0"}), 44100, 2, S::kNoise, false, true},
        LameCase{"V5", O({"-V5"}), 44100, 2, S::kChord, false, false},
        LameCase{"V9", O({"-V9"}), 32000, 2, S::kChord, false, false},
        LameCase{"Abr160", O({"--abr", "160"}), 44100, 2, S::kNoise, false, false},
        LameCase{"Mono", O({"-m", "m", "-b", "96"}), 44100, 2, S::kChord, false, false},
        LameCase{"Stereo", O({"-m", "s", "-b", "192"}), 44100, 2, S::kNoise, false, false},
        LameCase{"DualChannel", O({"-m", "d", "-b", "192"}), 44100, 2, S::kChord, false, false},
        LameCase{"Mpeg2At16k", O({"-b", "64"}), 16000, 1, S::kChord, false, false},
        LameCase{"Mpeg2At22k", O({"-V4"}), 22050, 2, S::kNoise, false, true},
        LameCase{"Mpeg2At24k", O({"-b", "96", "-m", "s"}), 24000, 2, S::kChord, false, false},
        LameCase{"Mpeg25At8k", O({"-b", "24"}), 8000, 1, S::kChord, false, false},
        LameCase{"Mpeg25At11k", O({"-b", "32"}), 11025, 2, S::kNoise, false, false},
        LameCase{"Mpeg25At12k", O({"-V6"}), 12000, 2, S::kChord, false, false},
        LameCase{"Crc", O({"-p", "-b", "128"}), 44100, 2, S::kNoise, false, false},
        LameCase{"NoReservoir", O({"--nores", "-b", "128"}), 44100, 2, S::kNoise, false, false},
        LameCase{"FreeFormat", O({"--freeformat", "-b", "200"}), 44100, 2, S::kChord, false, true},
        LameCase{"Id3v2", O({"--add-id3v2", "--tt", "X", "-V2"}), 44100, 2, S::kChord, false,
                 false},
        LameCase{"Id3v1", O({"--id3v1-only", "--tt", "X", "-b", "128"}), 44100, 2, S::kChord, false,
                 false},
        LameCase{"NoInfoTag", O({"-t", "-b", "128"}), 44100, 2, S::kChord, true, false},
        LameCase{"Silence", O({"-V2"}), 44100, 2, S::kSilence, false, false},
        LameCase{"FullScaleSquare", O({"-b", "256"}), 44100, 2, S::kSquare, false, false}),
    [](auto const& test) { return std::string(test.param.name); });

// ---- Seeking and reading in pieces ----

void ExpectCutsEqualWholeRead(LSoundSource& source, std::vector<float> const& whole,
                              unsigned channels, int spf) {
    long long const frames = source->GetEndSample();
    std::mt19937 random(11);
    std::vector<long long> targets = {frames - 1,   0, frames + 100, spf - 1, spf, frames - 1,
                                      5 * spf + 17, 3, frames / 2,   0};
    while (targets.size() < 50) {
        targets.push_back(static_cast<long long>(random() % static_cast<unsigned>(frames)));
    }
    for (long long target : targets) {
        // Lengths both within a frame and across several frames.
        long long const longest = random() % 2 == 0 ? 200 : 5000;
        long long const n = 1 + static_cast<long long>(random() % longest);
        source->Seek(target);
        std::vector<float> got(static_cast<std::size_t>(n) * channels, 9.0f);
        source->Read(got.data(), n);
        for (long long i = 0; i < n * channels; ++i) {
            long long const at = target * channels + i;
            float const want = at < frames * channels ? whole[static_cast<std::size_t>(at)] : 0;
            ASSERT_EQ(got[static_cast<std::size_t>(i)], want)
                << "sample " << at << " after a seek to " << target;
        }
    }
}

TEST_F(MP3FileTest, SeeksAnywhereGiveWhatOneWholeReadGives) {
    TESSEL_REQUIRE_TOOL("lame");
    struct Case {
        std::vector<std::string> options;
        int rate;
    };
    for (Case const& c : {Case{{"-V2"}, 44100}, Case{{"-b", "64"}, 22050}}) {
        std::string const path = Lame(c.options, Signal::kNoise, c.rate, 2, 25.0);
        LSoundSource plain = Open(path);
        std::vector<float> const whole = ReadAll(plain, 8192);
        int const spf = c.rate == 44100 ? 1152 : 576;
        ExpectCutsEqualWholeRead(plain, whole, 2, spf);
        LSoundSource ahead = Open(path, true);
        ExpectCutsEqualWholeRead(ahead, whole, 2, spf);
    }
}

TEST_F(MP3FileTest, ReadsInAnyPiecesEqualOneWholeRead) {
    TESSEL_REQUIRE_TOOL("lame");
    std::string const path = Lame({"-V4"}, Signal::kNoise, 44100, 2, 2.0);
    LSoundSource source = Open(path);
    std::vector<float> const whole = ReadAll(source, 1 << 20);
    for (bool ahead : {false, true}) {
        for (long long piece : {1LL, 7LL, 577LL, 8192LL}) {
            LSoundSource s = Open(path, ahead);
            EXPECT_TRUE(ReadAll(s, piece) == whole) << "pieces of " << piece << ", " << ahead;
        }
    }
}

// ---- VBR and LAME headers ----

// A LAME tag of 36 bytes with the given fields.
std::vector<unsigned char> LameTag(int bitrate, int delay, int padding, int presetBytes) {
    std::vector<unsigned char> tag(36, 0);
    std::memcpy(tag.data(), "LAME3.100", 9);
    tag[9] = 0x14; // revision 1, method 4
    tag[10] = 170;
    tag[20] = static_cast<unsigned char>(bitrate);
    tag[21] = static_cast<unsigned char>(delay >> 4);
    tag[22] = static_cast<unsigned char>((delay & 15) << 4 | padding >> 8);
    tag[23] = static_cast<unsigned char>(padding & 255);
    tag[26] = static_cast<unsigned char>(presetBytes >> 8);
    tag[27] = static_cast<unsigned char>(presetBytes & 255);
    return tag;
}

TEST(MP3LameTag, FieldsUnpackAsLameStoresThem) {
    struct Case {
        int qualityByte, bitrateByte, fileKbps, delay, padding, presetBytes;
        int quality, digit0, digit1, bitrate, preset;
    };
    // Byte 26 carries the surround bits above the preset's 11 bits.
    Case const cases[] = {
        {0, 128, 128, 576, 1234, 0x03E9, 67, 3, 3, 128, 1001},
        {35, 0, 160, 4095, 4095, 0xFFFF, 35, 5, 7, 160, 2047},
        {101, 255, 320, 0, 0, 0xF800, 67, 3, 3, 255, 0},
        {78, 255, 96, 576, 1, 0x0001, 78, 2, 2, 96, 1},
    };
    for (Case const& c : cases) {
        std::vector<unsigned char> const tag =
            LameTag(c.bitrateByte, c.delay, c.padding, c.presetBytes);
        LMP3LameHeader lame;
        ASSERT_TRUE(LMP3DecodeLameTag(tag.data(), tag.size(), c.qualityByte, c.fileKbps, lame));
        EXPECT_TRUE(lame.present);
        EXPECT_STREQ(lame.encoder, "LAME3.100");
        EXPECT_EQ(lame.quality, c.quality) << c.qualityByte;
        EXPECT_EQ(lame.qualityDigits[0], c.digit0) << c.qualityByte;
        EXPECT_EQ(lame.qualityDigits[1], c.digit1) << c.qualityByte;
        EXPECT_EQ(lame.vbrMethod, 4);
        EXPECT_EQ(lame.lowpass, 170);
        EXPECT_EQ(lame.bitrate, c.bitrate) << c.bitrateByte;
        EXPECT_EQ(lame.encoderDelay, c.delay);
        EXPECT_EQ(lame.encoderPadding, c.padding);
        EXPECT_EQ(lame.preset, c.preset);
    }
    std::vector<unsigned char> other = LameTag(128, 576, 0, 0);
    std::memcpy(other.data(), "Lavf", 4);
    LMP3LameHeader lame;
    EXPECT_FALSE(LMP3DecodeLameTag(other.data(), other.size(), 0, 128, lame));
    EXPECT_FALSE(lame.present);
    std::vector<unsigned char> const good = LameTag(128, 576, 0, 0);
    EXPECT_FALSE(LMP3DecodeLameTag(good.data(), 27, 0, 128, lame)) << "too short for its fields";
}

TEST_F(MP3FileTest, LameHeadersOfRealFilesGiveTheInputLength) {
    TESSEL_REQUIRE_TOOL("lame");
    struct Case {
        std::vector<std::string> options;
        LMP3VbrHeader::Kind kind;
        int vbrMethod;
        int lowpass; // the stored byte, 0 to leave unchecked
    };
    Case const cases[] = {
        {{"-b", "128", "--lowpass", "15.5"}, LMP3VbrHeader::kInfo, 1, 155},
        {{"-V2"}, LMP3VbrHeader::kXing, 4, 0},
        {{"--abr", "160"}, LMP3VbrHeader::kXing, 2, 0},
    };
    for (Case const& c : cases) {
        long long input = 0;
        std::string const path = Lame(c.options, Signal::kChord, 44100, 2, 1.3, "x.mp3", &input);
        LMP3FileInfo info;
        ASSERT_TRUE(LMP3File::GetInfo(path.c_str(), info)) << c.options[0];
        EXPECT_EQ(info.vbr.kind, c.kind) << c.options[0];
        EXPECT_EQ(info.cbr, c.kind == LMP3VbrHeader::kInfo) << c.options[0];
        ASSERT_TRUE(info.lame.present) << c.options[0];
        EXPECT_STREQ(info.lame.encoder, "LAME3.100");
        EXPECT_EQ(info.lame.vbrMethod, c.vbrMethod) << c.options[0];
        EXPECT_EQ(info.lame.encoderDelay, 576) << c.options[0];
        EXPECT_EQ(static_cast<long long>(info.vbr.frames) * 1152 - info.lame.encoderDelay -
                      info.lame.encoderPadding,
                  input)
            << c.options[0];
        EXPECT_EQ(info.length, input);
        EXPECT_FALSE(info.lengthEstimated);
        if (c.lowpass > 0) {
            EXPECT_EQ(info.lame.lowpass, c.lowpass);
        }
        if (c.options[0] == "-V2") {
            EXPECT_EQ(info.lame.qualityDigits[1], 2) << "the VBR setting";
        }
    }
}

TEST_F(MP3FileTest, VbriHeaderGivesFramesAndBytes) {
    TESSEL_REQUIRE_TOOL("lame");
    // A first frame with a VBRI header ahead of lame's frames (same version and rate).
    std::string const stream = ReadFileBytes(Lame({"-t", "-b", "128"}));
    std::string frame(417, '\0');
    frame.replace(0, 4, "\xFF\xFB\x90\x64", 4);
    std::string vbri = "VBRI";
    vbri += std::string("\x00\x01\x0F\xA0\x00\x50", 6); // version, delay, quality
    vbri += std::string("\x00\x00\xAA\x0B", 4);         // bytes
    vbri += std::string("\x00\x00\x00\x3E", 4);         // frames
    frame.replace(36, vbri.size(), vbri);
    LMP3FrameHeader header;
    ASSERT_TRUE(header.Read(reinterpret_cast<unsigned char const*>(frame.data())));
    LMP3VbrHeader vbr;
    ASSERT_TRUE(LMP3ReadVbrHeader(reinterpret_cast<unsigned char const*>(frame.data()),
                                  frame.size(), header, vbr));
    EXPECT_EQ(vbr.kind, LMP3VbrHeader::kVbri);
    EXPECT_EQ(vbr.bytes, 0xAA0Bu);
    EXPECT_EQ(vbr.frames, 62u);
    std::string const path = PathOf("vbri.mp3");
    std::string const bytes = frame + stream;
    ASSERT_TRUE(WriteFileBytes(path, bytes.data(), bytes.size()));
    LMP3FileInfo info;
    ASSERT_TRUE(LMP3File::GetInfo(path.c_str(), info));
    EXPECT_EQ(info.vbr.kind, LMP3VbrHeader::kVbri);
    EXPECT_FALSE(info.cbr);
    EXPECT_FALSE(info.lame.present);
    EXPECT_EQ(info.audioOffset, 417u);
    EXPECT_EQ(info.length, 62 * 1152);
    LSoundSource source = Open(path);
    EXPECT_EQ(source->GetEndSample(), 62 * 1152);
}

// ---- Frame headers ----

TEST(MP3FrameHeader, RefusesReservedFieldsAndSizesFramesByVersion) {
    auto read = [](std::uint32_t word, LMP3FrameHeader& h) {
        unsigned char const b[4] = {
            static_cast<unsigned char>(word >> 24), static_cast<unsigned char>(word >> 16),
            static_cast<unsigned char>(word >> 8), static_cast<unsigned char>(word)};
        return h.Read(b);
    };
    LMP3FrameHeader h;
    ASSERT_TRUE(read(0xFFFB9064, h)); // MPEG-1 layer III, 128 kbit/s, 44.1 kHz, joint stereo
    EXPECT_EQ(h.bitrateKbps, 128);
    EXPECT_EQ(h.mode, LMP3FrameHeader::kJointStereo);
    for (std::uint32_t bad : {0xFFEB9064u,  // reserved version
                              0xFFF99064u,  // layer 0
                              0xFFFB9C64u,  // rate index 3
                              0xFFFBF064u,  // bitrate index 15
                              0xFFFB9066u,  // emphasis 2
                              0xFEFB9064u,  // no sync
                              0xFF1B9064u}) // sync cut short
    {
        EXPECT_FALSE(read(bad, h)) << std::hex << bad;
    }
    struct Size {
        std::uint32_t word;
        int bytes, samples, side;
    };
    for (Size const& s : {Size{0xFFFB9064, 417, 1152, 32}, Size{0xFFFB9264, 418, 1152, 32},
                          Size{0xFFFBE0C4, 1044, 1152, 17},   // 320 kbit/s at 44.1 kHz, mono
                          Size{0xFFFBE8C4, 1440, 1152, 17},   // 320 kbit/s at 32 kHz, mono
                          Size{0xFFF38064, 208, 576, 17},     // MPEG-2, 64 kbit/s at 22.05 kHz
                          Size{0xFFF38264, 209, 576, 17},     // ... padded
                          Size{0xFFF314C4, 24, 576, 9},       // MPEG-2, 8 kbit/s at 24 kHz, mono
                          Size{0xFFE318C4, 72, 576, 9},       // MPEG-2.5, 8 kbit/s at 8 kHz, mono
                          Size{0xFFE3E064, 1044, 576, 17}}) { // MPEG-2.5, 160 kbit/s at 11.025 kHz
        ASSERT_TRUE(read(s.word, h)) << std::hex << s.word;
        EXPECT_EQ(h.GetFrameBytes(), s.bytes) << std::hex << s.word;
        EXPECT_EQ(h.GetFrameSamples(), s.samples) << std::hex << s.word;
        EXPECT_EQ(h.GetSideInfoBytes(), s.side) << std::hex << s.word;
    }
}

// ---- Synthesis ----

TEST(MP3PolyphaseSynth, FastFilterBankEqualsTheDirectForm) {
    using llib::detail::LMP3PolyphaseSynth;
    float const* d = llib::detail::GetMp3LookUpTable().synthWindow;
    std::mt19937 random(3);
    std::uniform_real_distribution<float> value(-1.0f, 1.0f);
    int const slots = 40;
    std::vector<float> in(32 * slots);
    for (float& v : in) {
        v = value(random);
    }
    LMP3PolyphaseSynth synth;
    synth.Reset();
    std::vector<float> out(32 * slots);
    synth.Synthesise(in.data(), slots / 2, out.data());
    synth.Synthesise(in.data() + 32 * slots / 2, slots / 2, out.data() + 32 * slots / 2);
    // The textbook form: a 1024-sample shift register of matrixed vectors, windowed and summed.
    std::vector<double> v(1024, 0.0);
    for (int s = 0; s < slots; ++s) {
        std::copy_backward(v.begin(), v.end() - 64, v.end());
        float v64[64];
        LMP3PolyphaseSynth::MatrixMultiplyNoOpt(&in[static_cast<std::size_t>(32 * s)], v64);
        std::copy(v64, v64 + 64, v.begin());
        for (int j = 0; j < 32; ++j) {
            double sum = 0.0;
            for (int i = 0; i < 8; ++i) {
                sum += v[128 * i + j] * d[64 * i + j] + v[128 * i + 96 + j] * d[64 * i + 32 + j];
            }
            ASSERT_NEAR(out[static_cast<std::size_t>(32 * s + j)], sum, 1e-5)
                << "slot " << s << ", sample " << j;
        }
    }
}

// ---- Damage and hostile input ----

class MP3DamageTest : public MP3FileTest {
protected:
    void SetUp() override {
        MP3FileTest::SetUp();
        if (FindTool("lame").empty()) {
            return; // the test itself requires the tool
        }
        m_path = Lame({"-b", "128"}, Signal::kNoise, 44100, 2, 2.0, "clean.mp3");
        m_bytes = ReadFileBytes(m_path);
        LMP3FileInfo info;
        ASSERT_TRUE(LMP3File::GetInfo(m_path.c_str(), info));
        m_offsets = FrameOffsets(m_bytes, info.firstFrameOffset);
        m_skip = info.lame.encoderDelay + 529;
        LSoundSource source = Open(m_path);
        m_length = source->GetEndSample();
        m_clean = ReadAll(source);
    }
    std::string Write(std::string const& bytes) {
        std::string const path = PathOf("damaged.mp3");
        EXPECT_TRUE(WriteFileBytes(path, bytes.data(), bytes.size()));
        return path;
    }
    // The decoded frame that output sample `i` (interleaved stereo) comes from; the file's
    // frame 0 is the Info frame.
    long long FrameOf(std::size_t i) const {
        return (static_cast<long long>(i / 2) + m_skip) / 1152 + 1;
    }

    std::string m_path;
    std::string m_bytes;
    std::vector<std::size_t> m_offsets;
    long long m_skip = 0;
    long long m_length = 0;
    std::vector<float> m_clean;
};

TEST_F(MP3DamageTest, DamageStaysWithinTheFramesThatDependOnIt) {
    TESSEL_REQUIRE_TOOL("lame");
    ASSERT_GT(m_offsets.size(), 60u);
    struct Case {
        char const* name;
        std::size_t frame;
        std::size_t offset; // from the frame's start
        bool header;
    };
    for (Case const& c : {Case{"main data", 20, 200, false}, Case{"side info", 30, 10, false},
                          Case{"sync", 40, 0, true}, Case{"header rate", 50, 2, true}}) {
        std::string bytes = m_bytes;
        std::size_t const at = m_offsets[c.frame] + c.offset;
        for (std::size_t i = at; i < at + (c.header ? 1 : 40); ++i) {
            bytes[i] = static_cast<char>(c.header ? bytes[i] ^ 0x0C : bytes[i] ^ 0x5A);
        }
        LSoundSource source = Open(Write(bytes));
        EXPECT_EQ(source->GetEndSample(), m_length) << c.name;
        std::vector<float> const got = ReadAll(source, 999);
        ASSERT_EQ(got.size(), m_clean.size());
        bool differs = false;
        for (std::size_t i = 0; i < got.size(); ++i) {
            // The damaged frame, two more whose main data may sit in it, and one more for the
            // overlap of the transform and the synthesis filter's memory.
            long long const f = FrameOf(i);
            bool const near =
                f >= static_cast<long long>(c.frame) && f <= static_cast<long long>(c.frame) + 3;
            differs = differs || got[i] != m_clean[i];
            if (!near) {
                ASSERT_EQ(got[i], m_clean[i]) << c.name << ", sample " << i << ", frame " << f;
            }
        }
        EXPECT_TRUE(differs) << c.name;
        if (c.header) {
            EXPECT_GE(LMP3File::GetLostFrames(source), 1) << c.name;
        }
    }
}

TEST_F(MP3DamageTest, GarbageBetweenFramesIsSkipped) {
    TESSEL_REQUIRE_TOOL("lame");
    std::mt19937 random(5);
    for (std::size_t n : {1u, 37u, 150u}) {
        std::string garbage(n, '\0');
        for (char& ch : garbage) {
            ch = static_cast<char>(random() % 4 == 0 ? 0xFF : random());
        }
        std::string bytes = m_bytes;
        bytes.insert(m_offsets[25], garbage);
        LSoundSource source = Open(Write(bytes));
        EXPECT_TRUE(ReadAll(source, 4096) == m_clean) << n << " bytes";
        EXPECT_EQ(LMP3File::GetLostFrames(source), 0) << n << " bytes";
    }
}

TEST_F(MP3DamageTest, TruncatedFileKeepsItsLengthAndDecodesWhatItHolds) {
    TESSEL_REQUIRE_TOOL("lame");
    for (std::size_t size : {m_offsets[1], m_offsets[1] + 3, m_offsets[10] + 200, m_offsets[33],
                             m_offsets[50] - 1, m_bytes.size() - 1}) {
        LSoundSource source = Open(Write(m_bytes.substr(0, size)));
        EXPECT_EQ(source->GetEndSample(), m_length) << size;
        std::vector<float> const got = ReadAll(source, 1234);
        ASSERT_EQ(got.size(), m_clean.size());
        // Frames wholly before the cut decode exactly; the rest reads as silence.
        long long whole = 0;
        while (static_cast<std::size_t>(whole) + 1 < m_offsets.size() &&
               m_offsets[static_cast<std::size_t>(whole) + 1] <= size) {
            ++whole;
        }
        for (std::size_t i = 0; i < got.size(); ++i) {
            ASSERT_EQ(got[i], FrameOf(i) < whole ? m_clean[i] : 0.0f)
                << "cut at " << size << ", sample " << i;
        }
    }
}

TEST_F(MP3FileTest, HostileFilesGiveErrorsNotCrashes) {
    std::mt19937 random(1);
    std::string noise(20000, '\0');
    for (char& c : noise) {
        c = static_cast<char>(random());
    }
    std::string const id3 =
        std::string("ID3\x04\x00\x00\x00\x00\x02\x2C", 10) + std::string(300, 0);
    // Layer II frames: 128 kbit/s at 44.1 kHz, 417 bytes each.
    std::string layer2;
    for (int i = 0; i < 10; ++i) {
        layer2 += std::string("\xFF\xFD\x90\x44", 4) + std::string(413, '\x55');
    }
    struct Case {
        char const* name;
        std::string bytes;
        Code code;
    };
    for (Case const& c :
         {Case{"empty", "", Code::kUnsupported}, Case{"random bytes", noise, Code::kUnsupported},
          Case{"ID3v2 only", id3, Code::kUnsupported},
          Case{"one header", "\xFF\xFB\x90\x64", Code::kUnsupported},
          Case{"layer II", layer2, Code::kUnsupported}}) {
        std::string const path = PathOf("hostile.mp3");
        ASSERT_TRUE(WriteFileBytes(path, c.bytes.data(), c.bytes.size()));
        EXPECT_EQ(LMP3File::OpenSource(path.c_str())->GetError(), c.code) << c.name;
        LMP3FileInfo info;
        EXPECT_FALSE(LMP3File::GetInfo(path.c_str(), info)) << c.name;
    }
    EXPECT_EQ(LMP3File::OpenSource(PathOf("missing.mp3").c_str())->GetError(), Code::kCannotOpen);
}

TEST_F(MP3FileTest, LayerTwoGoesToThePlatformDecoder) {
    TESSEL_REQUIRE_TOOL("ffmpeg");
    std::string const path = PathOf("layer2.mp3");
    std::string output;
    ASSERT_EQ(RunTool({"ffmpeg", "-v", "error", "-f", "lavfi", "-i", "sine=f=440:d=1", "-c:a",
                       "mp2", "-f", "mp2", path},
                      &output),
              0)
        << output;
    LMP3FileInfo info;
    EXPECT_FALSE(LMP3File::GetInfo(path.c_str(), info));
    EXPECT_EQ(info.header.layer, 2);
    EXPECT_EQ(LMP3File::OpenSource(path.c_str())->GetError(), Code::kUnsupported);
    LTestProcess process;
    LSoundSource source;
    ASSERT_EQ(ProcessGenSourceOpenSource(source, path.c_str(), process),
              LProcessResult::kCompleted);
    // Whatever the platform decoder makes of it is what the dispatch gives.
    LSoundSource const platform = LAudioFileLib::OpenSource(path.c_str());
    EXPECT_EQ(source->IsOk(), platform->IsOk());
    EXPECT_EQ(LMP3File::GetLostFrames(source), -1);
    if (platform->IsOk()) {
        EXPECT_EQ(source->GetEndSample(), platform->GetEndSample());
    } else {
        EXPECT_EQ(source->GetError(), Code::kUnsupported);
    }
}

// ---- MP3 inside WAV ----

TEST_F(MP3FileTest, WaveFormatTag85DecodesItsMp3Stream) {
    TESSEL_REQUIRE_TOOL("lame");
    TESSEL_REQUIRE_TOOL("mpg123");
    std::string const mp3 = Lame({"-t", "-b", "128"}, Signal::kChord, 44100, 2, 1.2);
    std::vector<float> const want = Mpg123(mp3);
    std::string const stream = ReadFileBytes(mp3);
    // MPEGLAYER3WAVEFORMAT: the usual fields, then the id, flags, block size, frames per
    // block and codec delay.
    std::string fmt = Le(85, 2) + Le(2, 2) + Le(44100, 4) + Le(16000, 4) + Le(1, 2) + Le(0, 2) +
                      Le(12, 2) + Le(1, 2) + Le(2, 4) + Le(418, 2) + Le(1, 2) + Le(1393, 2);
    ASSERT_EQ(fmt.size(), 30u);
    std::string data = stream;
    if (data.size() % 2 != 0) {
        data += '\0'; // the chunk's pad byte, not part of its size
    }
    std::string body = "WAVEfmt " + Le(30, 4) + fmt + "data" +
                       Le(static_cast<std::uint32_t>(stream.size()), 4) + data;
    std::string const wav = "RIFF" + Le(static_cast<std::uint32_t>(body.size()), 4) + body;
    ASSERT_EQ(Little32(wav, 4) + 8, wav.size());
    std::string const path = PathOf("mp3.wav");
    ASSERT_TRUE(WriteFileBytes(path, wav.data(), wav.size()));
    LSoundSource source = LWaveFile::OpenSource(path.c_str());
    ASSERT_TRUE(source->IsOk()) << static_cast<int>(source->GetError());
    EXPECT_EQ(source->GetSampleRate(), 44100);
    EXPECT_EQ(source->GetChannels(), 2);
    auto const frames = static_cast<long long>(want.size() / 2);
    EXPECT_LE(std::llabs(source->GetEndSample() - frames), 1152)
        << source->GetEndSample() << " " << frames << " " << stream.size();
    std::vector<float> const got = ReadAll(source, 4096);
    EXPECT_GE(LMP3File::GetLostFrames(source), 0) << "read by our decoder";
    ExpectFullAccuracy(got, want, std::min(got.size(), want.size()), "MP3 inside WAV");
}

} // namespace
