// SPDX-License-Identifier: GPL-3.0-or-later
// FLAC files: our encoder's files against the flac tool, flac's files through our decoder, and
// what the source does with seeks, damage, truncation and broken headers.

#include "llib/snd/flacfile.h"

#include "llib/gen/md5.h"
#include "llib/gen/settings.h"
#include "llib/snd/flaccodec.h"
#include "llib/snd/flacstream.h"
#include "llib/snd/gensource.h"
#include "llib/snd/sampleformats.h"
#include "tests/support/oracle.h"
#include "tests/support/tempdir.h"
#include "tests/support/testprocess.h"
#include "tests/support/testsources.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

namespace {

using Code = LSoundSourceErrorCode;

// Calls `f` with the stored sample format of `bits` (flac's raw little-endian signed form).
template <class F>
void WithFormat(int bits, F f) {
    if (bits == 8) {
        f(LSFS8{});
    } else if (bits == 16) {
        f(LSF16{});
    } else if (bits == 24) {
        f(LSFLE24{});
    } else {
        f(LSF32{});
    }
}

// Samples in flac's raw form. Our writer rounds as the WAV writer of the depth does, so these
// are its conversions.
std::string StoreRaw(std::vector<float> const& in, int bits) {
    std::string raw(in.size() * static_cast<std::size_t>((bits + 7) / 8), '\0');
    WithFormat(bits, [&](auto tag) {
        using T = decltype(tag);
        ConvertSamplesOut<T>(reinterpret_cast<T*>(raw.data()), in.data(),
                             static_cast<long long>(in.size()));
    });
    return raw;
}

// What the WAV reader makes of raw samples.
std::vector<float> ReadRaw(std::string const& raw, int bits) {
    std::vector<float> out(raw.size() / static_cast<std::size_t>((bits + 7) / 8));
    WithFormat(bits, [&](auto tag) {
        using T = decltype(tag);
        ConvertSamplesIn<T>(out.data(), reinterpret_cast<T const*>(raw.data()),
                            static_cast<long long>(out.size()));
    });
    return out;
}

enum class Signal { kNoise, kSine, kSilence, kSquare, kSame, kOpposite, kExtremes };

// `frames` of `signal` on every channel, reproducibly from `seed`.
std::vector<float> Make(Signal signal, unsigned channels, long long frames, std::uint32_t seed) {
    std::vector<float> s = MakeNoise(channels, frames, 0.9, seed);
    std::mt19937 random(seed);
    for (long long i = 0; i < frames; ++i) {
        float const first = s[static_cast<std::size_t>(i * channels)];
        for (unsigned c = 0; c < channels; ++c) {
            float& v = s[static_cast<std::size_t>(i * channels + c)];
            // Extremes go beyond full scale: the most negative and positive codes.
            v = signal == Signal::kSine
                    ? static_cast<float>(0.7 * std::sin(0.01 * i * (c + 1)) + 0.001 * v)
                : signal == Signal::kSilence  ? 0.0f
                : signal == Signal::kSquare   ? ((i / (37 + c)) % 2 == 0 ? 1.0f : -1.0f)
                : signal == Signal::kSame     ? first
                : signal == Signal::kOpposite ? (c % 2 == 0 ? first : -first)
                : signal == Signal::kExtremes ? ((random() & 1) != 0 ? 1.5f : -1.5f)
                                              : v;
        }
    }
    return s;
}

class FLACFileTest : public LTempDirTest {
protected:
    // Writes `samples` with our encoder in uneven pieces, so blocks are crossed mid-write.
    static void Encode(std::string const& path, std::vector<float> const& samples, int rate,
                       unsigned char channels, int bits, int compression, bool dither = false) {
        LSoundSink sink =
            LFLACFile::OpenSink(path.c_str(), rate, channels, bits, dither, compression);
        ASSERT_FALSE(sink->IsFailed());
        long long const frames = static_cast<long long>(samples.size()) / channels;
        for (long long done = 0; done < frames; done += 3001) {
            sink->Write(samples.data() + done * channels, std::min<long long>(frames - done, 3001));
        }
        ASSERT_TRUE(sink->Finish());
        EXPECT_EQ(sink->GetFramesWritten(), frames);
    }
    // Runs flac on raw samples `raw` with extra `options`; the file's path.
    std::string FlacFromRaw(std::string const& raw, int bits, unsigned channels, int rate,
                            std::vector<std::string> const& options, char const* name = "f") {
        std::string const rawPath = PathOf((std::string(name) + ".raw").c_str());
        std::string const path = PathOf((std::string(name) + ".flac").c_str());
        EXPECT_TRUE(WriteFileBytes(rawPath, raw.data(), raw.size()));
        std::vector<std::string> args = {
            "flac", "-s", "-f", "--force-raw-format", "--endian=little", "--sign=signed"};
        args.insert(args.end(),
                    {"--channels=" + std::to_string(channels), "--bps=" + std::to_string(bits),
                     "--sample-rate=" + std::to_string(rate)});
        args.insert(args.end(), options.begin(), options.end());
        args.insert(args.end(), {"-o", path, rawPath});
        std::string output;
        EXPECT_EQ(RunTool(args, &output), 0) << output;
        return path;
    }
    // A flac-made file of 30000 frames in blocks of 4096 (8 frames): its bytes and where each
    // frame starts (syncs whose headers parse and whose numbers follow on).
    void MakeFramed(std::vector<float>& samples, std::string& bytes,
                    std::vector<std::size_t>& offsets) {
        std::string const path = MakeReference(samples, 30000, {"-b", "4096"});
        LFLACFileInfo info;
        ASSERT_TRUE(LFLACFile::GetInfo(path.c_str(), info));
        bytes = ReadFileBytes(path);
        auto const* data = reinterpret_cast<unsigned char const*>(bytes.data());
        for (std::size_t i = info.firstFrameOffset; i + 1 < bytes.size(); ++i) {
            llib::detail::LFLACFrameHeader header;
            if (data[i] == 0xFF &&
                llib::detail::LFLACParseFrameHeader(data + i, bytes.size() - i, info.streamInfo,
                                                    header) &&
                header.number == offsets.size()) {
                offsets.push_back(i);
            }
        }
        ASSERT_EQ(offsets.size(), 8u);
    }
    // A flac-made file of 16-bit stereo noise and tones and its samples as floats.
    std::string MakeReference(std::vector<float>& samples, long long frames = 30000,
                              std::vector<std::string> const& options = {"-b", "1152"}) {
        std::string const raw = StoreRaw(Make(Signal::kSine, 2, frames, 3), 16);
        samples = ReadRaw(raw, 16);
        return FlacFromRaw(raw, 16, 2, 44100, options, "ref");
    }
};

LSoundSource Open(std::string const& path) {
    LSoundSource source = LFLACFile::OpenSource(path.c_str());
    EXPECT_TRUE(source->IsOk()) << static_cast<int>(source->GetError());
    return source;
}

long long LostFrames(LSoundSource const& source) {
    auto const* flac = source.GetAs<LFLACSource>();
    return flac != nullptr ? flac->GetLostFrames() : -1;
}

// ---- Our files through flac ----

struct EncodeCase {
    int bits;
    unsigned char channels;
    int compression;
    long long frames;
    Signal signal;
    int rate;
};

class FLACEncode : public FLACFileTest, public ::testing::WithParamInterface<EncodeCase> {};

TEST_P(FLACEncode, FlacAcceptsOurFilesAndDecodesThemBitExactly) {
    TESSEL_REQUIRE_TOOL("flac");
    EncodeCase const& c = GetParam();
    std::vector<float> const input = Make(c.signal, c.channels, c.frames, 17);
    std::string const path = PathOf("ours.flac");
    ASSERT_NO_FATAL_FAILURE(Encode(path, input, c.rate, c.channels, c.bits, c.compression));
    std::string const want = StoreRaw(input, c.bits);
    std::string output;
    ASSERT_EQ(RunTool({"flac", "-t", "-s", path}, &output), 0) << output;
    std::string const decoded = PathOf("decoded.raw");
    ASSERT_EQ(RunTool({"flac", "-d", "-s", "-f", "--force-raw-format", "--endian=little",
                       "--sign=signed", "-o", decoded, path},
                      &output),
              0)
        << output;
    EXPECT_TRUE(ReadFileBytes(decoded) == want) << "flac's decoding differs from our samples";

    // STREAMINFO: the totals and the digest of the samples in the same raw form.
    LFLACFileInfo info;
    ASSERT_TRUE(LFLACFile::GetInfo(path.c_str(), info));
    EXPECT_EQ(info.streamInfo.totalFrames, static_cast<std::uint64_t>(c.frames));
    EXPECT_EQ(info.streamInfo.bitsPerSample, static_cast<unsigned>(c.bits));
    EXPECT_EQ(info.streamInfo.channels, c.channels);
    EXPECT_EQ(info.streamInfo.sampleRateHz, static_cast<std::uint32_t>(c.rate));
    EXPECT_EQ(info.vendor, "Tessel");
    LMD5 md5;
    md5.Update(want.data(), want.size());
    std::string const digest = LMD5::ToHex(md5.Finish());
    EXPECT_EQ(LMD5::ToHex(info.streamInfo.md5), digest);
    if (!FindTool("metaflac").empty()) {
        std::string shown;
        ASSERT_EQ(RunTool({"metaflac", "--show-md5sum", path}, &shown), 0);
        EXPECT_EQ(shown.substr(0, 32), digest);
    }
    // Our own reader gives what the WAV reader gives for the same samples.
    LSoundSource source = Open(path);
    EXPECT_EQ(source->GetEndSample(), c.frames);
    EXPECT_EQ(ReadAll(source), ReadRaw(want, c.bits));
    EXPECT_EQ(LostFrames(source), 0);
}

using S = Signal;
constexpr long long kLong = 3 * 4096 + 17; // three whole blocks and a short one

INSTANTIATE_TEST_SUITE_P(
    Cases, FLACEncode,
    ::testing::Values(
        EncodeCase{16, 2, 5, kLong, S::kNoise, 44100}, EncodeCase{16, 2, 0, 4097, S::kSine, 48000},
        EncodeCase{16, 2, 3, 4095, S::kSame, 44100},
        EncodeCase{16, 2, 8, 4096, S::kOpposite, 44100},
        EncodeCase{16, 2, 1, 9000, S::kExtremes, 44100}, EncodeCase{16, 1, 5, 1, S::kNoise, 8000},
        EncodeCase{16, 2, 5, 0, S::kSilence, 44100}, EncodeCase{16, 3, 5, 5000, S::kSilence, 37800},
        EncodeCase{16, 8, 8, 4097, S::kSine, 96000}, EncodeCase{16, 1, 8, kLong, S::kSquare, 22050},
        EncodeCase{8, 1, 5, 10000, S::kSine, 11025}, EncodeCase{8, 2, 8, 10000, S::kSquare, 44100},
        EncodeCase{8, 6, 3, 4096, S::kNoise, 44100}, EncodeCase{24, 2, 5, kLong, S::kNoise, 96000},
        EncodeCase{24, 2, 0, 5000, S::kOpposite, 44100},
        EncodeCase{24, 2, 3, 9000, S::kExtremes, 44100},
        EncodeCase{24, 6, 3, 5000, S::kSine, 48000}, EncodeCase{24, 8, 0, kLong, S::kNoise, 192000},
        EncodeCase{32, 2, 5, 5000, S::kNoise, 44100},
        EncodeCase{32, 2, 0, 5000, S::kOpposite, 44100},
        EncodeCase{32, 2, 2, 5000, S::kSame, 44100},
        EncodeCase{32, 1, 5, 4096, S::kExtremes, 44100},
        EncodeCase{32, 2, 8, 5000, S::kExtremes, 44100}));

// ---- flac's files through our decoder ----

struct DecodeCase {
    int level;
    int bits;
    unsigned channels;
    int rate;
    int block;  // 0: flac's choice
    int wasted; // low bits left zero in every sample
};

class FLACDecode : public FLACFileTest, public ::testing::WithParamInterface<DecodeCase> {};

TEST_P(FLACDecode, FilesMadeByFlacReadAsTheirSamples) {
    TESSEL_REQUIRE_TOOL("flac");
    DecodeCase const& c = GetParam();
    long long const frames = c.block > 4608 ? 2 * c.block + 99 : 20000;
    std::vector<float> signal = Make(Signal::kSine, c.channels, frames, 5);
    std::vector<float> const noise = Make(Signal::kNoise, c.channels, frames, 6);
    for (std::size_t i = 0; i < signal.size(); ++i) {
        // Silence, then tones, then tones with noise, then the channels' extremes.
        long long const frame = static_cast<long long>(i) / c.channels;
        signal[i] = frame < 2000           ? 0.0f
                    : frame < frames / 2   ? signal[i]
                    : frame < frames - 300 ? 0.6f * signal[i] + 0.3f * noise[i]
                                           : (noise[i] > 0 ? 1.5f : -1.5f);
    }
    std::string raw = StoreRaw(signal, c.bits);
    std::size_t const width = static_cast<std::size_t>(c.bits / 8);
    for (std::size_t i = 0; i < raw.size(); i += width) { // low bits zero in every sample
        raw[i] = static_cast<char>(raw[i] & ~((1 << c.wasted) - 1));
    }
    std::vector<std::string> options = {"-" + std::to_string(c.level)};
    if (c.block > 0) {
        options.insert(options.end(), {"-b", std::to_string(c.block)});
    }
    if (c.block > 16384) {
        options.push_back("--lax");
    }
    std::string const path = FlacFromRaw(raw, c.bits, c.channels, c.rate, options);
    LSoundSource source = Open(path);
    ASSERT_TRUE(source->IsOk());
    EXPECT_EQ(source->GetSampleRate(), c.rate);
    EXPECT_EQ(source->GetChannels(), c.channels);
    EXPECT_EQ(source->GetEndSample(), frames);
    EXPECT_TRUE(ReadAll(source, 5000) == ReadRaw(raw, c.bits));
    EXPECT_EQ(LostFrames(source), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Levels, FLACDecode,
    ::testing::Values(DecodeCase{0, 16, 2, 44100, 0, 0}, DecodeCase{1, 16, 2, 44100, 0, 0},
                      DecodeCase{2, 16, 2, 44100, 0, 0}, DecodeCase{3, 16, 2, 44100, 0, 0},
                      DecodeCase{4, 16, 2, 44100, 0, 0}, DecodeCase{5, 16, 2, 44100, 0, 0},
                      DecodeCase{6, 16, 2, 44100, 0, 0}, DecodeCase{7, 16, 2, 44100, 0, 0},
                      DecodeCase{8, 16, 2, 44100, 0, 0}));

INSTANTIATE_TEST_SUITE_P(
    Formats, FLACDecode,
    ::testing::Values(DecodeCase{5, 8, 1, 11025, 192, 0}, DecodeCase{8, 8, 2, 22050, 0, 0},
                      DecodeCase{5, 16, 3, 37800, 1152, 0}, DecodeCase{8, 16, 8, 22050, 4608, 0},
                      DecodeCase{5, 16, 2, 44100, 0, 3}, DecodeCase{5, 24, 6, 96000, 4608, 0},
                      DecodeCase{8, 24, 2, 192000, 16384, 0}, DecodeCase{0, 24, 1, 48000, 0, 0},
                      DecodeCase{6, 24, 2, 44100, 0, 4}, DecodeCase{5, 32, 2, 44100, 0, 0},
                      DecodeCase{8, 32, 1, 96000, 0, 0}, DecodeCase{5, 16, 2, 44100, 65535, 0}));

TEST_F(FLACFileTest, LeadingId3TagAndOtherMetadataBlocksAreSkipped) {
    TESSEL_REQUIRE_TOOL("flac");
    std::vector<float> samples;
    std::string const plain = ReadFileBytes(MakeReference(samples));
    // An ID3v2 tag of 300 bytes (a synchsafe size), with and without its footer.
    for (bool footer : {false, true}) {
        std::string tag = std::string("ID3\x04\x00", 5) + static_cast<char>(footer ? 0x10 : 0) +
                          std::string("\x00\x00\x02\x2C", 4) + std::string(300, 'x');
        if (footer) {
            tag += std::string("3DI\x04\x00\x10\x00\x00\x02\x2C", 10);
        }
        std::string const path = PathOf("tagged.flac");
        std::string const bytes = tag + plain;
        ASSERT_TRUE(WriteFileBytes(path, bytes.data(), bytes.size()));
        LFLACFileInfo info;
        ASSERT_TRUE(LFLACFile::GetInfo(path.c_str(), info)) << footer;
        EXPECT_EQ(info.vendor.rfind("reference libFLAC", 0), 0u) << info.vendor;
        LSoundSource source = Open(path);
        EXPECT_TRUE(ReadAll(source) == samples) << footer;
    }
}

// ---- Reading in pieces and seeking ----

TEST_F(FLACFileTest, ReadsInAnyPiecesAndSeeksAnywhereAsOneWholeRead) {
    TESSEL_REQUIRE_TOOL("flac");
    std::vector<float> samples;
    std::string const path = MakeReference(samples);
    long long const frames = static_cast<long long>(samples.size()) / 2;
    for (long long piece : {1LL, 7LL, 4095LL, 65537LL}) {
        LSoundSource source = Open(path);
        EXPECT_TRUE(ReadAll(source, piece) == samples) << "pieces of " << piece;
    }
    LSoundSource source = Open(path);
    std::mt19937 random(9);
    std::vector<long long> targets = {frames - 1, 0, frames, 1151, 1152, frames - 1, 3};
    for (int i = 0; i < 30; ++i) {
        targets.push_back(static_cast<long long>(random() % static_cast<unsigned>(frames)));
    }
    for (long long target : targets) {
        long long const n = 1 + static_cast<long long>(random() % 3000);
        source->Seek(target);
        EXPECT_EQ(source->GetPositionSample(), target);
        std::vector<float> got(static_cast<std::size_t>(2 * n), 9.0f);
        source->Read(got.data(), n);
        for (long long i = 0; i < n; ++i) {
            long long const at = target + i;
            for (int c = 0; c < 2; ++c) {
                float const want = at < frames ? samples[static_cast<std::size_t>(2 * at + c)] : 0;
                ASSERT_EQ(got[static_cast<std::size_t>(2 * i + c)], want)
                    << "frame " << at << " after a seek to " << target;
            }
        }
    }
}

// ---- Damage ----

struct DamageCase {
    char const* name;
    int frame;  // -1: the last
    int offset; // from the frame's start; -1: its middle
};

class FLACDamage : public FLACFileTest, public ::testing::WithParamInterface<DamageCase> {};

TEST_P(FLACDamage, DamagedFrameReadsAsSilenceOfItsLength) {
    TESSEL_REQUIRE_TOOL("flac");
    std::vector<float> samples;
    std::string bytes;
    std::vector<std::size_t> offsets;
    ASSERT_NO_FATAL_FAILURE(MakeFramed(samples, bytes, offsets));
    DamageCase const& c = GetParam();
    std::size_t const frame = c.frame < 0 ? offsets.size() - 1 : static_cast<std::size_t>(c.frame);
    std::size_t const end = frame + 1 < offsets.size() ? offsets[frame + 1] : bytes.size();
    std::size_t const at =
        offsets[frame] +
        static_cast<std::size_t>(c.offset >= 0 ? c.offset : (end - offsets[frame]) / 2);
    bytes[at] = static_cast<char>(bytes[at] ^ 0x10);
    std::string const path = PathOf("damaged.flac");
    ASSERT_TRUE(WriteFileBytes(path, bytes.data(), bytes.size()));

    LSoundSource source = Open(path);
    EXPECT_EQ(source->GetEndSample(), 30000);
    std::vector<float> const got = ReadAll(source, 1000);
    ASSERT_EQ(got.size(), samples.size());
    std::size_t const from = frame * 4096 * 2;
    std::size_t const to = std::min(samples.size(), from + 4096 * 2);
    for (std::size_t i = 0; i < got.size(); ++i) {
        ASSERT_EQ(got[i], i >= from && i < to ? 0.0f : samples[i]) << "sample " << i;
    }
    EXPECT_EQ(LostFrames(source), 1);
}

INSTANTIATE_TEST_SUITE_P(Cases, FLACDamage,
                         ::testing::Values(DamageCase{"FirstMiddle", 0, -1},
                                           DamageCase{"ThirdMiddle", 3, -1},
                                           DamageCase{"LastMiddle", -1, -1},
                                           DamageCase{"ThirdHeader", 3, 4},
                                           DamageCase{"ThirdCrc", 3, 5}),
                         [](auto const& test) { return std::string(test.param.name); });

TEST_F(FLACFileTest, TruncatedFileKeepsItsLengthAndDecodesWhatItHolds) {
    TESSEL_REQUIRE_TOOL("flac");
    std::vector<float> samples;
    std::string bytes;
    std::vector<std::size_t> offsets;
    ASSERT_NO_FATAL_FAILURE(MakeFramed(samples, bytes, offsets));
    std::string const cut = PathOf("cut.flac");
    for (std::size_t size : {offsets[0], offsets[0] + 3, offsets[2] + 1, offsets[5] - 1,
                             offsets[7] + 20, bytes.size() - 1}) {
        ASSERT_TRUE(WriteFileBytes(cut, bytes.data(), size));
        LSoundSource source = Open(cut);
        EXPECT_EQ(source->GetEndSample(), 30000) << size;
        std::vector<float> const got = ReadAll(source, 777);
        // Whole frames before the cut decode exactly; the rest reads as silence.
        std::size_t const whole = static_cast<std::size_t>(
            std::upper_bound(offsets.begin(), offsets.end(), size) - offsets.begin());
        std::size_t const kept = std::min(samples.size(), (whole > 0 ? whole - 1 : 0) * 4096 * 2);
        for (std::size_t i = 0; i < got.size(); ++i) {
            ASSERT_EQ(got[i], i < kept ? samples[i] : 0.0f)
                << "cut at " << size << ", sample " << i;
        }
    }
}

TEST_F(FLACFileTest, BrokenHeadersGiveTheirErrors) {
    TESSEL_REQUIRE_TOOL("flac");
    std::vector<float> samples;
    std::string const good = ReadFileBytes(MakeReference(samples, 5000));
    struct Case {
        char const* name;
        std::string bytes;
        Code code;
    };
    std::string noMarker = good;
    noMarker[3] = 'X';
    std::string shortInfo = good;
    shortInfo[7] = 33; // STREAMINFO of 33 bytes
    std::string noRate = good;
    noRate[8 + 10] = 0;
    noRate[8 + 11] = 0;
    noRate[8 + 12] = static_cast<char>(noRate[8 + 12] & 0x0F);
    std::string tooLong = good;
    tooLong[42 + 1] = 0x7F; // the block after STREAMINFO claims 8 MB
    std::string notFirst = good;
    notFirst[4] = 0x01; // a PADDING block where STREAMINFO must be
    Case const cases[] = {
        {"empty", "", Code::kUnsupported},
        {"no marker", noMarker, Code::kUnsupported},
        {"short STREAMINFO", shortInfo, Code::kCorrupt},
        {"rate 0", noRate, Code::kCorrupt},
        {"block beyond the file", tooLong, Code::kCorrupt},
        {"STREAMINFO not first", notFirst, Code::kCorrupt},
        {"marker only", "fLaC", Code::kCorrupt},
    };
    std::string const path = PathOf("broken.flac");
    for (Case const& c : cases) {
        ASSERT_TRUE(WriteFileBytes(path, c.bytes.data(), c.bytes.size()));
        EXPECT_EQ(LFLACFile::OpenSource(path.c_str())->GetError(), c.code) << c.name;
        LFLACFileInfo info;
        EXPECT_FALSE(LFLACFile::GetInfo(path.c_str(), info)) << c.name;
    }
    EXPECT_EQ(LFLACFile::OpenSource(PathOf("missing.flac").c_str())->GetError(), Code::kCannotOpen);
}

TEST_F(FLACFileTest, UnknownTotalIsFoundFromTheLastFrame) {
    TESSEL_REQUIRE_TOOL("flac");
    std::vector<float> samples;
    std::string const made = MakeReference(samples, 10001, {"-b", "4096"});
    std::string const ours = PathOf("ours.flac");
    ASSERT_NO_FATAL_FAILURE(Encode(ours, samples, 44100, 2, 16, 5));
    for (std::string const& path : {made, ours}) {
        std::string bytes = ReadFileBytes(path);
        // The 36-bit total: the low half of STREAMINFO's 14th byte and the four bytes after it.
        bytes[8 + 13] = static_cast<char>(bytes[8 + 13] & 0xF0);
        std::fill(bytes.begin() + 8 + 14, bytes.begin() + 8 + 18, '\0');
        std::string const patched = PathOf("unknown.flac");
        ASSERT_TRUE(WriteFileBytes(patched, bytes.data(), bytes.size()));
        LSoundSource source = Open(patched);
        EXPECT_EQ(source->GetEndSample(), 10001) << path;
        EXPECT_TRUE(ReadAll(source) == samples) << path;
    }
}

// ---- Writing ----

TEST_F(FLACFileTest, DitherChangesSamplesByAtMostOneStepAndRepeatsExactly) {
    for (int bits : {8, 16}) {
        // A quiet tone between the codes, where rounding alone would be a fixed pattern.
        std::vector<float> const input = MakeSine(44100, 2, 440.0, 0.2, 20000);
        std::string const plain = PathOf("plain.flac");
        std::string const first = PathOf("first.flac");
        std::string const second = PathOf("second.flac");
        ASSERT_NO_FATAL_FAILURE(Encode(plain, input, 44100, 2, bits, 5, false));
        ASSERT_NO_FATAL_FAILURE(Encode(first, input, 44100, 2, bits, 5, true));
        ASSERT_NO_FATAL_FAILURE(Encode(second, input, 44100, 2, bits, 5, true));
        EXPECT_EQ(ReadFileBytes(first), ReadFileBytes(second)) << bits;
        LSoundSource a = Open(plain);
        LSoundSource b = Open(first);
        std::vector<float> const undithered = ReadAll(a);
        std::vector<float> const dithered = ReadAll(b);
        ASSERT_EQ(undithered.size(), dithered.size());
        double const scale = bits == 8 ? 127.0 : 32767.0;
        std::size_t changed = 0;
        for (std::size_t i = 0; i < dithered.size(); ++i) {
            long const steps =
                std::lround(dithered[i] * scale) - std::lround(undithered[i] * scale);
            ASSERT_LE(std::labs(steps), 1) << bits << " bits, sample " << i;
            changed += steps != 0 ? 1 : 0;
        }
        EXPECT_GT(changed, dithered.size() / 10) << bits;
    }
}

TEST_F(FLACFileTest, DispatchReadsWithOurDecoderAndWritesTheChosenDepth) {
    std::vector<float> const input = Make(Signal::kSine, 2, 9000, 2);
    LSettingsStore store(PathOf("settings.ini"));
    ASSERT_TRUE(store.SetInt("FlacEncoder", "BitDepth", 24));
    struct Case {
        char const* name;
        std::vector<LGenSinkFormat::Setting> settings;
        int bits; // the save's --bits, 0 for none
        int depth;
    };
    Case const cases[] = {
        {"stored.flac", {}, 0, 24},
        {"override.FLAC", {{"FlacEncoder", "BitDepth", "8"}}, 0, 8},
        {"bits.flac", {{"FlacEncoder", "BitDepth", "8"}}, 32, 32},
        {"level0.flac", {{"FlacEncoder", "Compression", "0"}}, 16, 16},
        {"level8.flac", {{"FlacEncoder", "Compression", "8"}}, 16, 16},
    };
    for (Case const& c : cases) {
        std::string const path = PathOf(c.name);
        LGenSinkFormat format;
        format.settings = c.settings;
        format.bits = c.bits;
        {
            LSoundSink sink = LGenSinkOpenSink(path.c_str(), 44100, 2, nullptr, &format, &store);
            ASSERT_FALSE(sink->IsFailed()) << c.name;
            sink->Write(input.data(), 9000);
            ASSERT_TRUE(sink->Finish()) << c.name;
        }
        LFLACFileInfo info;
        ASSERT_TRUE(LFLACFile::GetInfo(path.c_str(), info)) << c.name;
        EXPECT_EQ(info.streamInfo.bitsPerSample, static_cast<unsigned>(c.depth)) << c.name;
        LTestProcess process;
        LSoundSource source;
        ASSERT_EQ(ProcessGenSourceOpenSource(source, path.c_str(), process),
                  LProcessResult::kCompleted);
        EXPECT_NE(source.GetAs<LFLACSource>(), nullptr) << c.name;
        EXPECT_EQ(ReadAll(source), ReadRaw(StoreRaw(input, c.depth), c.depth)) << c.name;
    }
    // The level reaches the encoder.
    EXPECT_NE(ReadFileBytes(PathOf("level0.flac")), ReadFileBytes(PathOf("level8.flac")));
    LGenSinkFormat floats;
    floats.floatSamples = true;
    EXPECT_TRUE(
        LGenSinkOpenSink(PathOf("f.flac").c_str(), 44100, 2, nullptr, &floats, &store)->IsFailed());
}

} // namespace
