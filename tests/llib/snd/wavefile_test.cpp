// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/wavefile.h"

#include "llib/gen/stringlong.h"
#include "llib/snd/sampleformats.h"
#include "llib/unix/fd.h"
#include "llib/unix/filelock.h"
#include "tests/support/oracle.h"
#include "tests/support/tempdir.h"
#include "tests/support/testsources.h"

#include <gtest/gtest.h>

#include <fcntl.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <numeric>
#include <string>
#include <tuple>
#include <vector>

namespace {

using namespace std::string_literals;
using Code = LSoundSourceErrorCode;

std::string LE(std::uint32_t v, int bytes) {
    std::string s;
    for (int i = 0; i < bytes; ++i) {
        s += static_cast<char>(v >> (8 * i));
    }
    return s;
}

std::uint32_t GetU32(std::string const& s, std::size_t at) {
    std::uint32_t v = 0;
    std::memcpy(&v, s.data() + at, 4); // the host is little-endian, like the files
    return v;
}

std::string Chunk(std::string const& id, std::string const& body) {
    return id + LE(static_cast<std::uint32_t>(body.size()), 4) + body +
           std::string(body.size() % 2, '\0');
}

std::string Riff(std::string const& chunks) {
    return "RIFF" + LE(static_cast<std::uint32_t>(chunks.size() + 4), 4) + "WAVE" + chunks;
}

std::string Fmt(unsigned tag, unsigned channels, std::uint32_t rate, unsigned bits) {
    unsigned const block = channels * ((bits + 7) / 8);
    return LE(tag, 2) + LE(channels, 2) + LE(rate, 4) + LE(rate * block, 4) + LE(block, 2) +
           LE(bits, 2);
}

// An EXTENSIBLE fmt body whose sub-format GUID starts with `subTag`.
std::string FmtExtensible(unsigned subTag, unsigned channels, unsigned bits, bool knownTail) {
    std::string tail = "\x00\x00\x10\x00\x80\x00\x00\xAA\x00\x38\x9B\x71"s;
    for (char& b : tail) {
        b = static_cast<char>(knownTail ? b : b ^ 0x5a);
    }
    return Fmt(65534, channels, 44100, bits) + LE(22, 2) + LE(bits, 2) + LE(0, 4) + LE(subTag, 4) +
           tail;
}

// Samples as a format stores them, and what reading them back gives.
struct Stored {
    std::string raw;
    std::vector<float> values;
};
using StoreFn = Stored (*)(std::vector<float> const&);

template <class T>
Stored Store(std::vector<float> const& in) {
    auto const n = static_cast<long long>(in.size());
    Stored s{std::string(in.size() * sizeof(T), '\0'), std::vector<float>(in.size())};
    ConvertSamplesOut<T>(reinterpret_cast<T*>(s.raw.data()), in.data(), n);
    ConvertSamplesIn<T>(s.values.data(), reinterpret_cast<T const*>(s.raw.data()), n);
    return s;
}

LWaveFileFormat Format(unsigned tag, unsigned bits, unsigned channels, std::uint32_t rate) {
    LWaveFileFormat f;
    f.formatTag = static_cast<std::uint16_t>(tag);
    f.bitsPerSample = static_cast<std::uint16_t>(bits);
    f.channels = static_cast<std::uint16_t>(channels);
    f.samplesPerSec = rate;
    return f;
}

class WavFileTest : public LTempDirTest {
protected:
    std::string Put(char const* name, std::string const& bytes) {
        std::string const path = PathOf(name);
        EXPECT_TRUE(WriteFileBytes(path, bytes.data(), bytes.size()));
        return path;
    }
    static void WriteAll(LSoundSink sink, std::vector<float> const& samples) {
        ASSERT_FALSE(sink->IsFailed());
        long long const frames = static_cast<long long>(samples.size()) / sink->GetChannels();
        // Uneven pieces, so that block boundaries inside the sink are crossed mid-write.
        for (long long done = 0; done < frames; done += 5000) {
            sink->Write(samples.data() + done * sink->GetChannels(),
                        std::min<long long>(frames - done, 5000));
        }
        EXPECT_FALSE(sink->IsFailed());
        EXPECT_EQ(sink->GetFramesWritten(), frames);
    }
};

// ---- Round trips through every sample format the sinks write ----

struct RoundTripCase {
    char const* name;
    unsigned tag, bits;
    unsigned char channels;
    long long frames;
    StoreFn store;
    float level;
    char const* rawFormat; // ffmpeg's name for the stored samples
};

class WavRoundTrip : public WavFileTest, public ::testing::WithParamInterface<RoundTripCase> {
protected:
    std::vector<float> const input = MakeNoise(GetParam().channels, GetParam().frames, 0.999, 7);
    std::string path; // in the test's folder, which exists only from SetUp on
    void SetUp() override {
        WavFileTest::SetUp();
        path = PathOf("rt.wav");
        RoundTripCase const& c = GetParam();
        WriteAll(LWaveFile::OpenSink(path.c_str(), Format(c.tag, c.bits, c.channels, 22050)),
                 input);
    }
};

TEST_P(WavRoundTrip, ReadsBackWhatTheSampleFormatKeeps) {
    RoundTripCase const& c = GetParam();
    Stored const want = c.store(input);
    LSoundSource source = LWaveFile::OpenSource(path.c_str());
    ASSERT_TRUE(source->IsOk()) << static_cast<int>(source->GetError());
    EXPECT_EQ(source->GetSampleRate(), 22050);
    EXPECT_EQ(source->GetChannels(), c.channels);
    EXPECT_EQ(source->GetEndSample(), c.frames);
    EXPECT_EQ(source->GetMaxMagnitude(), c.level);
    EXPECT_EQ(ReadAll(source, c.frames), want.values);
    // Small reads from before the start to past the end: silence outside the audio.
    std::vector<float> padded(3 * c.channels, 0.0f);
    padded.insert(padded.end(), want.values.begin(), want.values.end());
    padded.resize(padded.size() + 3 * c.channels, 0.0f);
    source->Seek(-3);
    EXPECT_EQ(ReadAll(source, 7, c.frames + 6), padded);
    EXPECT_EQ(source->GetPositionSample(), c.frames + 3);
    // An odd number of data bytes is followed by one pad byte that the data size leaves out.
    std::string const file = ReadFileBytes(path);
    std::size_t const dataBytes = want.raw.size();
    std::size_t const header = c.tag == 6 || c.tag == 7 ? 58 : 46;
    EXPECT_EQ(file.size(), header + dataBytes + dataBytes % 2);
    EXPECT_TRUE(file.compare(header, dataBytes, want.raw) == 0) << "the stored samples";
    EXPECT_EQ(GetU32(file, header - 4), dataBytes);
    EXPECT_EQ(GetU32(file, 4), header - 8 + dataBytes);
    if (header == 58) {
        EXPECT_EQ(file.substr(38, 4), "fact");
        EXPECT_EQ(GetU32(file, 46), c.frames);
    }
    LWaveFileInfo info;
    ASSERT_TRUE(LWaveFileInfoGet(path.c_str(), info));
    EXPECT_EQ(std::tuple(info.formatTag, info.frames, info.dataBytes),
              std::tuple(c.tag, c.frames, dataBytes));
    // The deleting source reads the same and takes the file with it when it goes.
    {
        LSoundSource deleting = LWaveFile::OpenSourceDeletingFileWhenClosed(path.c_str());
        EXPECT_EQ(ReadAll(deleting), want.values);
        EXPECT_TRUE(std::filesystem::exists(path));
    }
    EXPECT_FALSE(std::filesystem::exists(path));
}

// ffmpeg copies out the same stored samples (by its own header reading); sox agrees on the length.
TEST_P(WavRoundTrip, OtherProgramsReadOurFiles) {
    TESSEL_REQUIRE_TOOL("ffmpeg");
    TESSEL_REQUIRE_TOOL("sox");
    RoundTripCase const& c = GetParam();
    std::string const raw = PathOf("back.raw");
    std::string log;
    ASSERT_EQ(RunTool({"ffmpeg", "-nostdin", "-v", "error", "-y", "-i", path, "-f", c.rawFormat,
                       "-c:a", "copy", raw},
                      &log),
              0)
        << log;
    EXPECT_TRUE(ReadFileBytes(raw) == c.store(input).raw);
    log.clear();
    ASSERT_EQ(RunTool({"sox", "--i", "-s", path}, &log), 0) << log;
    EXPECT_EQ(std::stoll(log), c.frames);
}

constexpr float kInt = 32767.0f / 32768.0f;

// s16_stereo holds more than one read-ahead buffer (128 KB), so whole reads cross a refill.
INSTANTIATE_TEST_SUITE_P(
    Formats, WavRoundTrip,
    ::testing::Values(RoundTripCase{"u8_mono_odd", 1, 8, 1, 10001, Store<LSFU8>, kInt, "u8"},
                      RoundTripCase{"s16_stereo", 1, 16, 2, 40000, Store<LSF16>, kInt, "s16le"},
                      // 20 bits are kept in 24-bit containers
                      RoundTripCase{"s20_stereo", 1, 20, 2, 5000, Store<LSFLE24>, kInt, "s24le"},
                      RoundTripCase{"s24_mono_odd", 1, 24, 1, 4097, Store<LSFLE24>, kInt, "s24le"},
                      RoundTripCase{"s32_three", 1, 32, 3, 9000, Store<LSF32>, kInt, "s32le"},
                      RoundTripCase{"f32_stereo", 3, 32, 2, 12345, Store<LSFF32>, 16.0f, "f32le"},
                      RoundTripCase{"alaw_mono_odd", 6, 8, 1, 3001, Store<LSFALAW>, 1.0f, "alaw"},
                      RoundTripCase{"ulaw_stereo", 7, 8, 2, 3000, Store<LSFULAW>, 1.0f, "mulaw"}),
    [](auto const& p) { return std::string(p.param.name); });

// A level between two steps: without dither every sample is the same step; with it they spread
// over neighbouring steps and average to the level. Dither is used only above 8 kHz, and the
// truncating 8-bit container is centred too.
TEST_F(WavFileTest, DitherCentresOnTheInputOnlyWhenAskedAndAbove8kHz) {
    struct Case {
        int rate, bits;
        bool dither;
        double level; // in steps
        long plain;   // the step without dither, or -1 when dithered
    };
    for (Case const c : {Case{44100, 16, true, 1000.3, -1}, Case{44100, 16, false, 1000.3, 1000},
                         Case{8000, 16, true, 1000.3, 1000}, Case{44100, 8, true, 20.25, -1}}) {
        double const full = c.bits == 8 ? 127.0 : 32767.0;
        std::vector<float> const input(200000, static_cast<float>(c.level / full));
        std::string const path = PathOf("d.wav");
        WriteAll(LWaveFile::OpenSinkPCM(path.c_str(), c.rate, 2, c.bits, c.dither), input);
        LSoundSource source = LWaveFile::OpenSource(path.c_str());
        std::vector<long> steps;
        for (float v : ReadAll(source)) {
            steps.push_back(std::lround(v * full));
        }
        auto const [lo, hi] = std::minmax_element(steps.begin(), steps.end());
        if (c.plain < 0) {
            double const sum = std::accumulate(steps.begin(), steps.end(), 0.0);
            EXPECT_NEAR(sum / static_cast<double>(steps.size()), c.level, 0.01) << c.bits;
            EXPECT_GE(*lo, static_cast<long>(c.level) - 1) << c.bits;
            EXPECT_LE(*hi, static_cast<long>(c.level) + 2) << c.bits;
            EXPECT_LT(*lo, *hi) << c.bits;
        } else {
            EXPECT_EQ(std::pair(*lo, *hi), std::pair(c.plain, c.plain)) << c.rate << c.dither;
        }
    }
}

// ---- Headers that are odd but valid, and headers that are not ----

struct HeaderCase {
    char const* name;
    std::string bytes;
    Code code;
    std::vector<float> want = {}; // checked when not empty
};

std::vector<HeaderCase> HeaderCases() {
    auto const ok = [](std::string const& fmt, std::string const& data = "ab") {
        return Riff(Chunk("fmt ", fmt) + Chunk("data", data));
    };
    std::string const s16 = Fmt(1, 1, 8000, 16);
    Stored const s24 = Store<LSFLE24>({0.125f, 1.0f, -1.0f});
    Stored const s32 = Store<LSF32>({0.5f, -0.25f});
    std::string huge = "JUNK" + LE(0x7FFFFFFF, 4); // padded to 2^31
    return {
        {"empty", "", Code::kCorrupt},
        {"not_riff", std::string(64, 'x'), Code::kCorrupt},
        {"short_chunk_before_riff", Chunk("JUNK", "abc") + ok(s16), Code::kCorrupt},
        {"riff_without_fmt", Riff(Chunk("data", "ab")), Code::kCorrupt},
        {"fmt_15_bytes", ok(s16.substr(0, 15)), Code::kCorrupt},
        {"fmt_8193_bytes", ok(s16 + std::string(8193 - 16, '\0')), Code::kCorrupt},
        {"fmt_8192_bytes", ok(s16 + std::string(8192 - 16, '\0')), Code::kNone},
        {"no_channels", ok(Fmt(1, 0, 8000, 16)), Code::kCorrupt},
        {"256_channels", ok(Fmt(1, 256, 8000, 16)), Code::kCorrupt},
        {"rate_0", ok(Fmt(1, 1, 0, 16)), Code::kCorrupt},
        {"rate_196001", ok(Fmt(1, 1, 196001, 16)), Code::kCorrupt},
        {"pcm_0_bits", ok(Fmt(1, 1, 8000, 0)), Code::kCorrupt},
        {"chunk_of_2_gb", Riff(huge + Chunk("fmt ", s16)), Code::kCorrupt},
        {"float_24", ok(Fmt(3, 1, 8000, 24)), Code::kUnsupported},
        {"unknown_tag", ok(Fmt(0x1234, 1, 8000, 16)), Code::kUnsupported},
        {"extensible_unknown_guid", ok(FmtExtensible(1, 1, 16, false)), Code::kUnsupported},
        {"extensible_float_64", ok(FmtExtensible(3, 1, 64, true)), Code::kNone},
        {"ima_adpcm", ok(Fmt(17, 1, 8000, 4)), Code::kCodecRequired},
        {"truespeech", ok(Fmt(34, 1, 8000, 1)), Code::kCodecRequired},
        {"tag_69", ok(Fmt(69, 1, 8000, 4)), Code::kCodecRequired},
        // A chunk before RIFF is skipped when it is long enough to be told from a short header.
        {"foreign_chunks_20_bits_196k",
         Chunk("JUNK", "abcdefg") +
             Riff(Chunk("LIST", "xyz12") + Chunk("fmt ", Fmt(1, 1, 196000, 20)) +
                  Chunk("fact", "1234") + Chunk("data", s24.raw)),
         Code::kNone, s24.values},
        {"extensible_pcm_24", ok(FmtExtensible(1, 1, 24, true), s24.raw), Code::kNone, s24.values},
        {"pcm_28_bits_in_32", ok(Fmt(1, 1, 8000, 28), s32.raw), Code::kNone, s32.values},
        // The audio goes on in the next "data" chunk, with a frame straddling the two.
        {"following_data_chunk",
         Riff(Chunk("fmt ", s16) + "data" + LE(5, 4) + "\1\0\2\0\3"s + "data" + LE(3, 4) +
              "\0\4\0"s + "LIST"),
         Code::kNone,
         {1 / 32767.0f, 2 / 32767.0f, 3 / 32767.0f, 4 / 32767.0f}},
    };
}

TEST_F(WavFileTest, HeadersGiveTheirCodes) {
    for (HeaderCase const& c : HeaderCases()) {
        LSoundSource source = LWaveFile::OpenSource(Put("x.wav", c.bytes).c_str());
        EXPECT_EQ(source->GetError(), c.code) << c.name;
        if (c.code != Code::kNone) {
            EXPECT_EQ(source->GetSampleRate(), 11025) << c.name;
            EXPECT_EQ(source->GetChannels(), 1) << c.name;
        } else if (!c.want.empty()) {
            EXPECT_EQ(ReadAll(source, 1), c.want) << c.name;
        }
    }
    EXPECT_EQ(LWaveFile::OpenSource(PathOf("missing.wav").c_str())->GetError(), Code::kCannotOpen);
    // Cut anywhere inside the header, a file is corrupt; cut inside the data, it reads short.
    std::string const whole = Riff(Chunk("LIST", "ab") + Chunk("fmt ", Fmt(1, 2, 8000, 16)) +
                                   Chunk("data", std::string(40, '\x11')));
    std::size_t const dataStart = whole.size() - 40;
    for (std::size_t cut = 0; cut < whole.size(); ++cut) {
        LSoundSource source = LWaveFile::OpenSource(Put("t.wav", whole.substr(0, cut)).c_str());
        if (cut < dataStart) {
            EXPECT_EQ(source->GetError(), Code::kCorrupt) << cut;
            continue;
        }
        // Whole frames that are there, then silence.
        std::vector<float> const got = ReadAll(source);
        auto const present = static_cast<long>((cut - dataStart) / 4 * 2);
        ASSERT_EQ(got.size(), 20u) << cut;
        EXPECT_EQ(std::find(got.begin(), got.end(), 0.0f) - got.begin(), present) << cut;
        EXPECT_EQ(std::count(got.begin(), got.end(), 0.0f), 20 - present) << cut;
    }
}

TEST_F(WavFileTest, NamesCodecsAndLoadsTheFormatFromTheFmtChunk) {
    char name[kLMaxText];
    auto const named = [&](std::string const& fmt) {
        std::string const path = Put("n.wav", Riff(Chunk("fmt ", fmt)));
        return LGetWaveFileCodecName(path.c_str(), name) ? std::string(name) : "<none>";
    };
    EXPECT_EQ(named(Fmt(17, 1, 8000, 4)), "IMA ADPCM");
    EXPECT_EQ(named(Fmt(0x4321, 1, 8000, 4)), "Microsoft Unknown Wave Format");
    EXPECT_EQ(named(FmtExtensible(3, 2, 32, true)), "IEEE Float");
    EXPECT_FALSE(LGetWaveFileCodecName(Put("j.wav", "junk").c_str(), name));
    // EXTENSIBLE becomes the plain tag, without the extension bytes.
    LWaveFileFormat format;
    ASSERT_TRUE(format.LoadFromPCMWaveFile(PathOf("n.wav").c_str()));
    EXPECT_EQ(std::tuple(format.formatTag, format.extraSize, format.extra.size()),
              std::tuple(3, 0, 0u));
}

// ---- Files whose header was never finalised ----

TEST_F(WavFileTest, UnfinalisedHeaderReadsToTheEndOfTheFile) {
    std::string const path = PathOf("w.wav");
    std::vector<float> const input = MakeNoise(2, 3000, 0.9, 11);
    LSoundSink sink = LWaveFile::OpenSinkPCM(path.c_str(), 44100, 2, 24, false);
    sink->Write(input.data(), 3000);
    // The provisional header is on the disk from the start; the audio may still be on its way
    // (it is written behind), so the crash image is that header in front of the finished audio.
    std::string const provisional = ReadFileBytes(path).substr(0, 46);
    sink.Close();
    EXPECT_EQ(GetU32(provisional, 4), 0xFFFFFFFFu);
    EXPECT_EQ(GetU32(provisional, 42), 0xFFFFFFD9u);
    std::string const crashed = provisional + ReadFileBytes(path).substr(46);
    LSoundSource source = LWaveFile::OpenSource(Put("crashed.wav", crashed).c_str());
    ASSERT_TRUE(source->IsOk());
    EXPECT_EQ(source->GetEndSample(), 3000);
    EXPECT_EQ(ReadAll(source), Store<LSFLE24>(input).values);
}

// ---- Sinks ----

TEST_F(WavFileTest, SinksThatCannotWriteReportFailure) {
    EXPECT_TRUE(
        LWaveFile::OpenSinkPCM(PathOf("no/such/dir.wav").c_str(), 44100, 2, 16, false)->IsFailed());
    std::vector<float> const input(2 * 100000, 0.25f);
    LSoundSink full = LWaveFile::OpenSinkPCM("/dev/full", 44100, 2, 16, false);
    full->Write(input.data(), 100000);
    EXPECT_TRUE(full->IsFailed());
    for (LWaveFileFormat const& f : {Format(3, 64, 2, 44100), Format(0x1234, 16, 2, 44100),
                                     Format(1, 16, 0, 44100), Format(1, 16, 2, 0)}) {
        EXPECT_TRUE(LWaveFile::OpenSink(PathOf("bad.wav").c_str(), f)->IsFailed()) << f.formatTag;
    }
    // A sink writes under a shared lock, so it does not start on a file another program holds
    // exclusively (being rewritten); it gives up after the lock wait.
    std::string const held = Put("held.wav", "busy");
    LFileDescriptor holder;
    ASSERT_TRUE(holder.Open(held.c_str(), O_RDWR));
    LFileLock lock;
    ASSERT_TRUE(lock.Lock(holder, LFileLockMode::kExclusive));
    EXPECT_TRUE(LWaveFile::OpenSinkPCM(held.c_str(), 8000, 1, 16, false)->IsFailed());
    lock.Unlock();
    EXPECT_FALSE(LWaveFile::OpenSinkPCM(held.c_str(), 8000, 1, 16, false)->IsFailed());
}

TEST_F(WavFileTest, StoredFormatFileRoundTripsAndRejectsDamage) {
    LWaveFileFormat saved = Format(17, 4, 1, 22050);
    saved.extraSize = 2;
    saved.extra = {0xf9, 0x01};
    saved.dither = true;
    std::string const path = PathOf("DATA/WavCodec.wff");
    ASSERT_TRUE(saved.SaveToWavCodecFile(path.c_str()));
    LWaveFileFormat loaded;
    ASSERT_TRUE(loaded.LoadFromWavCodecFile(path.c_str()));
    EXPECT_EQ(std::tie(loaded.formatTag, loaded.samplesPerSec, loaded.extra, loaded.dither),
              std::tie(saved.formatTag, saved.samplesPerSec, saved.extra, saved.dither));
    std::string const bytes = ReadFileBytes(path);
    for (std::size_t cut = 0; cut < bytes.size(); ++cut) {
        ASSERT_TRUE(WriteFileBytes(path, bytes.data(), cut));
        EXPECT_FALSE(LWaveFileFormat().LoadFromWavCodecFile(path.c_str())) << cut;
    }
}

// ---- Files written by sox and ffmpeg ----

struct OracleCase {
    char const* name;
    char const* encoding; // sox: -e; ffmpeg: the raw format, and pcm_<it> the codec
    char const* bits;     // sox only
    unsigned channels;
    bool extensible;
    StoreFn store;
};

class WavOracle : public WavFileTest, public ::testing::WithParamInterface<OracleCase> {};

// The raw input holds known stored values; the oracle only wraps them in a WAV file, so our
// reading must equal those values under the system's own conversions. (sox is not asked for
// float files: it passes samples through 32-bit integers and changes the last bits.)
TEST_P(WavOracle, ReadsFilesOtherProgramsWrite) {
    OracleCase const& c = GetParam();
    bool const sox = std::string(c.name).starts_with("sox");
    TESSEL_REQUIRE_TOOL(sox ? "sox" : "ffmpeg");
    Stored const stored = c.store(MakeNoise(c.channels, 4001, 0.99, 5));
    std::string const in = Put("in.raw", stored.raw);
    std::string const out = PathOf("out.wav");
    std::string const ch = std::to_string(c.channels);
    std::string log;
    ASSERT_EQ(
        RunTool(sox ? std::vector<std::string>{"sox", "-t", "raw", "-r", "44100", "-e", c.encoding,
                                               "-b", c.bits, "-c", ch, in, "-t", "wav", out}
                    : std::vector<std::string>{"ffmpeg", "-nostdin", "-v", "error", "-y", "-f",
                                               c.encoding, "-ar", "44100", "-ac", ch, "-i", in,
                                               "-c:a", "pcm_"s + c.encoding, out},
                &log),
        0)
        << log;
    std::string const file = ReadFileBytes(out);
    ASSERT_GT(file.size(), 36u);
    EXPECT_EQ(file.substr(20, 2) == "\xfe\xff", c.extensible) << "the oracle's fmt tag";
    LSoundSource source = LWaveFile::OpenSource(out.c_str());
    ASSERT_TRUE(source->IsOk()) << static_cast<int>(source->GetError());
    EXPECT_EQ(source->GetChannels(), c.channels);
    EXPECT_EQ(source->GetEndSample(), 4001);
    EXPECT_EQ(ReadAll(source, 1000), stored.values);
}

INSTANTIATE_TEST_SUITE_P(Programs, WavOracle,
                         ::testing::ValuesIn(std::vector<OracleCase>{
                             {"sox_s24_stereo", "signed-integer", "24", 2, true, Store<LSFLE24>},
                             {"sox_u8_mono_odd", "unsigned-integer", "8", 1, false, Store<LSFU8>},
                             {"sox_s32_mono", "signed-integer", "32", 1, true, Store<LSF32>},
                             {"sox_alaw_stereo", "a-law", "8", 2, false, Store<LSFALAW>},
                             {"sox_ulaw_mono", "u-law", "8", 1, false, Store<LSFULAW>},
                             {"ffmpeg_s16_four_ext", "s16le", "", 4, true, Store<LSF16>},
                             {"ffmpeg_s24_stereo", "s24le", "", 2, true, Store<LSFLE24>},
                             {"ffmpeg_f32_six_ext", "f32le", "", 6, true, Store<LSFF32>},
                             {"ffmpeg_f64_mono_ext", "f64le", "", 1, true, Store<LSFF64>},
                             {"ffmpeg_alaw_mono", "alaw", "", 1, false, Store<LSFALAW>}}),
                         [](auto const& p) { return std::string(p.param.name); });

} // namespace
