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

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

namespace {

void PutU16(std::string& s, unsigned v) {
    s += static_cast<char>(v & 0xff);
    s += static_cast<char>((v >> 8) & 0xff);
}

void PutU32(std::string& s, std::uint32_t v) {
    PutU16(s, v & 0xffff);
    PutU16(s, v >> 16);
}

std::uint32_t GetU32(std::string const& s, std::size_t at) {
    std::uint32_t v = 0;
    for (int i = 3; i >= 0; --i) {
        v = v << 8 | static_cast<unsigned char>(s[at + static_cast<std::size_t>(i)]);
    }
    return v;
}

std::string Chunk(char const* id, std::string const& body) {
    std::string s(id, 4);
    PutU32(s, static_cast<std::uint32_t>(body.size()));
    s += body;
    if (body.size() % 2 != 0) {
        s += '\0';
    }
    return s;
}

std::string Fmt(unsigned tag, unsigned channels, std::uint32_t rate, unsigned bits) {
    std::string s;
    PutU16(s, tag);
    PutU16(s, channels);
    PutU32(s, rate);
    PutU32(s, rate * channels * ((bits + 7) / 8));
    PutU16(s, channels * ((bits + 7) / 8));
    PutU16(s, bits);
    return s;
}

// An EXTENSIBLE fmt body whose sub-format GUID starts with `subTag`.
std::string FmtExtensible(unsigned subTag, unsigned channels, unsigned bits, bool knownTail) {
    std::string s = Fmt(65534, channels, 44100, bits);
    PutU16(s, 22);
    PutU16(s, bits);
    PutU32(s, 0);
    PutU32(s, subTag);
    static unsigned char const tail[12] = {0x00, 0x00, 0x10, 0x00, 0x80, 0x00,
                                           0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};
    for (unsigned char b : tail) {
        s += static_cast<char>(knownTail ? b : b ^ 0x5a);
    }
    return s;
}

std::string Riff(std::string const& chunks) {
    std::string s = "RIFF";
    PutU32(s, static_cast<std::uint32_t>(chunks.size() + 4));
    return s + "WAVE" + chunks;
}

std::string Bytes(std::vector<unsigned char> const& v) {
    return std::string(v.begin(), v.end());
}

template <class T>
std::vector<float> Quantised(std::vector<float> const& in) {
    std::vector<T> stored(in.size());
    ConvertSamplesOut<T>(stored.data(), in.data(), static_cast<long long>(in.size()));
    std::vector<float> out(in.size());
    ConvertSamplesIn<T>(out.data(), stored.data(), static_cast<long long>(in.size()));
    return out;
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
        for (long long done = 0; done < frames;) {
            long long const n = std::min<long long>(frames - done, 5000);
            sink->Write(samples.data() + done * sink->GetChannels(), n);
            done += n;
        }
        EXPECT_FALSE(sink->IsFailed());
        EXPECT_EQ(sink->GetFramesWritten(), frames);
    }
};

// ---- Round trips through every sample format the sinks write ----

struct RoundTripCase {
    char const* name;
    unsigned tag;
    int bits;
    unsigned char channels;
    long long frames;
};

class WavRoundTrip : public WavFileTest, public ::testing::WithParamInterface<RoundTripCase> {};

TEST_P(WavRoundTrip, ReadsBackWhatTheSampleFormatKeeps) {
    RoundTripCase const c = GetParam();
    std::string const path = PathOf("rt.wav");
    std::vector<float> const input = MakeNoise(c.channels, c.frames, 0.999, 7);
    LWaveFileFormat format;
    format.formatTag = static_cast<std::uint16_t>(c.tag);
    format.channels = c.channels;
    format.samplesPerSec = 22050;
    format.bitsPerSample = static_cast<std::uint16_t>(c.bits);
    WriteAll(LWaveFile::OpenSink(path.c_str(), format), input);

    std::vector<float> expected;
    float level = 32767.0f / 32768.0f;
    std::size_t sampleBytes = 1;
    switch (c.tag * 100 + static_cast<unsigned>(c.bits)) {
    case 108:
        expected = Quantised<LSFU8>(input);
        break;
    case 116:
        expected = Quantised<LSF16>(input);
        sampleBytes = 2;
        break;
    case 120: // 20 bits are kept in 24-bit containers
    case 124:
        expected = Quantised<LSFLE24>(input);
        sampleBytes = 3;
        break;
    case 132:
        expected = Quantised<LSF32>(input);
        sampleBytes = 4;
        break;
    case 332:
        expected = input;
        level = 16.0f;
        sampleBytes = 4;
        break;
    case 608:
        expected = Quantised<LSFALAW>(input);
        level = 1.0f;
        break;
    case 708:
        expected = Quantised<LSFULAW>(input);
        level = 1.0f;
        break;
    default:
        FAIL() << "no expectation for " << c.name;
    }
    LSoundSource source = LWaveFile::OpenSource(path.c_str());
    ASSERT_TRUE(source->IsOk()) << static_cast<int>(source->GetError());
    EXPECT_EQ(source->GetSampleRate(), 22050);
    EXPECT_EQ(source->GetChannels(), c.channels);
    EXPECT_EQ(source->GetEndSample(), c.frames);
    EXPECT_EQ(source->GetMaxMagnitude(), level);
    // Reads of any size agree with each other and with the stored values.
    for (long long chunk : {7LL, 4095LL, c.frames}) {
        source->Seek(0);
        EXPECT_EQ(ReadAll(source, chunk), expected) << "reads of " << chunk << " frames";
    }
    // An odd number of data bytes is followed by one pad byte that the data size leaves out.
    std::string const file = ReadFileBytes(path);
    std::size_t const dataBytes = static_cast<std::size_t>(c.frames) * c.channels * sampleBytes;
    std::size_t const header = c.tag == 6 || c.tag == 7 ? 58 : 46;
    EXPECT_EQ(file.size(), header + dataBytes + dataBytes % 2);
    EXPECT_EQ(GetU32(file, header - 4), dataBytes);
    EXPECT_EQ(GetU32(file, 4), header - 8 + dataBytes);
    if (header == 58) {
        EXPECT_EQ(file.substr(38, 4), "fact");
        EXPECT_EQ(GetU32(file, 46), c.frames);
    }

    LWaveFileInfo info;
    ASSERT_TRUE(LWaveFileInfoGet(path.c_str(), info));
    EXPECT_EQ(info.formatTag, c.tag);
    EXPECT_EQ(info.frames, c.frames);
    EXPECT_EQ(info.dataBytes, dataBytes);
}

INSTANTIATE_TEST_SUITE_P(Formats, WavRoundTrip,
                         ::testing::Values(RoundTripCase{"u8_mono_odd", 1, 8, 1, 10001},
                                           RoundTripCase{"s16_stereo", 1, 16, 2, 20000},
                                           RoundTripCase{"s16_five", 1, 16, 5, 8193},
                                           RoundTripCase{"s20_stereo", 1, 20, 2, 5000},
                                           RoundTripCase{"s24_mono_odd", 1, 24, 1, 4097},
                                           RoundTripCase{"s32_three", 1, 32, 3, 9000},
                                           RoundTripCase{"f32_stereo", 3, 32, 2, 12345},
                                           RoundTripCase{"alaw_mono_odd", 6, 8, 1, 3001},
                                           RoundTripCase{"ulaw_stereo", 7, 8, 2, 3000}),
                         [](auto const& p) { return std::string(p.param.name); });

TEST_F(WavFileTest, SeeksAndReadsSilenceOutsideTheAudio) {
    std::string const path = PathOf("s.wav");
    std::vector<float> const input = MakeNoise(2, 1000, 0.5, 3);
    WriteAll(LWaveFile::OpenSinkPCM(path.c_str(), 8000, 2, 16, false), input);
    std::vector<float> const all = Quantised<LSF16>(input);
    LSoundSource source = LWaveFile::OpenSource(path.c_str());
    source->Seek(-3);
    std::vector<float> got = ReadAll(source, 4, 6);
    std::vector<float> want(6, 0.0f);
    want.insert(want.end(), all.begin(), all.begin() + 6);
    EXPECT_EQ(got, want);
    source->Seek(998);
    got = ReadAll(source, 3, 4);
    want.assign(all.end() - 4, all.end());
    want.resize(8, 0.0f);
    EXPECT_EQ(got, want);
    EXPECT_EQ(source->GetPositionSample(), 1002);
}

// ---- Dither ----

TEST_F(WavFileTest, DitherCentresOnTheInputOnlyWhenAskedAndAbove8kHz) {
    // A level between two 16-bit steps: plain rounding always gives 1000, dither averages to it.
    std::vector<float> const input(200000, static_cast<float>(1000.3 / 32767.0));
    for (int rate : {44100, 8000}) {
        for (bool dither : {true, false}) {
            std::string const path = PathOf("d.wav");
            WriteAll(LWaveFile::OpenSinkPCM(path.c_str(), rate, 2, 16, dither), input);
            std::string const file = ReadFileBytes(path);
            double sum = 0;
            int lowest = 1 << 20;
            int highest = -lowest;
            for (std::size_t i = 46; i + 1 < file.size(); i += 2) {
                int const v =
                    static_cast<std::int16_t>(static_cast<unsigned char>(file[i]) |
                                              static_cast<unsigned char>(file[i + 1]) << 8);
                sum += v;
                lowest = std::min(lowest, v);
                highest = std::max(highest, v);
            }
            double const mean = sum / static_cast<double>(input.size());
            if (dither && rate > 8000) {
                EXPECT_NEAR(mean, 1000.3, 0.01);
                EXPECT_GE(lowest, 999);
                EXPECT_LE(highest, 1002);
                EXPECT_LT(lowest, highest);
            } else {
                EXPECT_EQ(lowest, 1000) << rate << " " << dither;
                EXPECT_EQ(highest, 1000) << rate << " " << dither;
            }
        }
    }
    // The truncating 8-bit container is centred too.
    std::vector<float> const eight(100000, static_cast<float>(20.25 / 127.0));
    std::string const path = PathOf("d8.wav");
    WriteAll(LWaveFile::OpenSinkPCM(path.c_str(), 44100, 1, 8, true), eight);
    std::string const file = ReadFileBytes(path);
    double sum = 0;
    for (std::size_t i = 46; i < file.size(); ++i) {
        sum += static_cast<unsigned char>(file[i]) - 128;
    }
    EXPECT_NEAR(sum / static_cast<double>(eight.size()), 20.25, 0.01);
}

// ---- Headers that are odd but valid, and headers that are not ----

TEST_F(WavFileTest, AcceptsForeignChunksExtensibleAndWideContainers) {
    std::string const data = Bytes({0x00, 0x00, 0x10, 0xff, 0xff, 0x7f, 0x01, 0x00, 0x80});
    std::vector<LSFLE24> const stored{{0x00, 0x00, 0x10}, {0xff, 0xff, 0x7f}, {0x01, 0x00, 0x80}};
    std::vector<float> want(3);
    ConvertSamplesIn<LSFLE24>(want.data(), stored.data(), 3);

    // A chunk before RIFF is skipped when it is long enough to be told from a short header.
    std::string const foreign = Chunk("JUNK", "abcdefg");
    std::string const plain =
        foreign + Riff(Chunk("LIST", "xyz12") + Chunk("fmt ", Fmt(1, 1, 196000, 20)) +
                       Chunk("fact", "1234") + Chunk("data", data));
    LSoundSource source = LWaveFile::OpenSource(Put("a.wav", plain).c_str());
    ASSERT_TRUE(source->IsOk());
    EXPECT_EQ(source->GetSampleRate(), 196000);
    EXPECT_EQ(ReadAll(source), want);

    std::string const ext =
        Riff(Chunk("fmt ", FmtExtensible(1, 1, 24, true)) + Chunk("data", data));
    source = LWaveFile::OpenSource(Put("b.wav", ext).c_str());
    ASSERT_TRUE(source->IsOk());
    EXPECT_EQ(ReadAll(source), want);
    LWaveFileFormat format;
    ASSERT_TRUE(format.LoadFromPCMWaveFile(PathOf("b.wav").c_str()));
    EXPECT_EQ(format.formatTag, 1);
    EXPECT_EQ(format.extraSize, 0);

    // 28 bits live in 32-bit containers.
    std::string const wide =
        Riff(Chunk("fmt ", Fmt(1, 1, 8000, 28)) + Chunk("data", Bytes({0, 0, 0, 0x40})));
    source = LWaveFile::OpenSource(Put("c.wav", wide).c_str());
    EXPECT_EQ(ReadAll(source), std::vector<float>{static_cast<float>(0x40000000 / 2147483647.0)});
}

struct CorruptCase {
    char const* name;
    std::string bytes;
    LSoundSourceErrorCode code;
};

std::vector<CorruptCase> CorruptCases() {
    auto const ok = [](std::string fmt) { return Riff(Chunk("fmt ", fmt) + Chunk("data", "ab")); };
    std::string fmt8193 = Fmt(1, 1, 8000, 16);
    fmt8193.resize(8193, '\0');
    std::string fmt8192 = Fmt(1, 1, 8000, 16);
    fmt8192.resize(8192, '\0');
    std::string huge = "JUNK";
    PutU32(huge, 0x7FFFFFFF); // padded to 2^31
    using C = LSoundSourceErrorCode;
    return {
        {"empty", "", C::kCorrupt},
        {"not_riff", std::string(64, 'x'), C::kCorrupt},
        {"short_chunk_before_riff", Chunk("JUNK", "abc") + ok(Fmt(1, 1, 8000, 16)), C::kCorrupt},
        {"riff_without_fmt", Riff(Chunk("data", "ab")), C::kCorrupt},
        {"fmt_15_bytes", ok(Fmt(1, 1, 8000, 16).substr(0, 15)), C::kCorrupt},
        {"fmt_8193_bytes", ok(fmt8193), C::kCorrupt},
        {"fmt_8192_bytes", ok(fmt8192), C::kNone},
        {"no_channels", ok(Fmt(1, 0, 8000, 16)), C::kCorrupt},
        {"256_channels", ok(Fmt(1, 256, 8000, 16)), C::kCorrupt},
        {"rate_0", ok(Fmt(1, 1, 0, 16)), C::kCorrupt},
        {"rate_196001", ok(Fmt(1, 1, 196001, 16)), C::kCorrupt},
        {"pcm_0_bits", ok(Fmt(1, 1, 8000, 0)), C::kCorrupt},
        {"chunk_of_2_gb", Riff(huge + Chunk("fmt ", Fmt(1, 1, 8000, 16))), C::kCorrupt},
        {"ms_adpcm", ok(Fmt(2, 1, 8000, 4)), C::kUnsupported},
        {"float_24", ok(Fmt(3, 1, 8000, 24)), C::kUnsupported},
        {"unknown_tag", ok(Fmt(0x1234, 1, 8000, 16)), C::kUnsupported},
        {"extensible_unknown_guid", ok(FmtExtensible(1, 1, 16, false)), C::kUnsupported},
        {"extensible_float_64", ok(FmtExtensible(3, 1, 64, true)), C::kNone},
        {"ima_adpcm", ok(Fmt(17, 1, 8000, 4)), C::kCodecRequired},
        {"truespeech", ok(Fmt(34, 1, 8000, 1)), C::kCodecRequired},
        {"tag_69", ok(Fmt(69, 1, 8000, 4)), C::kCodecRequired},
    };
}

TEST_F(WavFileTest, MalformedAndUnsupportedHeadersGiveTheirCodes) {
    for (CorruptCase const& c : CorruptCases()) {
        LSoundSource source = LWaveFile::OpenSource(Put("x.wav", c.bytes).c_str());
        EXPECT_EQ(source->GetError(), c.code) << c.name;
        if (c.code != LSoundSourceErrorCode::kNone) {
            EXPECT_EQ(source->GetSampleRate(), 11025) << c.name;
            EXPECT_EQ(source->GetChannels(), 1) << c.name;
        }
    }
    EXPECT_EQ(LWaveFile::OpenSource(PathOf("missing.wav").c_str())->GetError(),
              LSoundSourceErrorCode::kCannotOpen);
    // Cut anywhere inside the header, a file is corrupt; cut inside the data, it reads short.
    std::string const whole = Riff(Chunk("LIST", "ab") + Chunk("fmt ", Fmt(1, 2, 8000, 16)) +
                                   Chunk("data", std::string(40, '\x11')));
    for (std::size_t cut = 0; cut < whole.size(); ++cut) {
        LSoundSource source = LWaveFile::OpenSource(Put("t.wav", whole.substr(0, cut)).c_str());
        if (cut < whole.size() - 40) {
            EXPECT_EQ(source->GetError(), LSoundSourceErrorCode::kCorrupt) << cut;
            continue;
        }
        ASSERT_TRUE(source->IsOk()) << cut;
        std::vector<float> const got = ReadAll(source);
        std::size_t const present = (cut - (whole.size() - 40)) / 4 * 2;
        ASSERT_EQ(got.size(), 20u);
        for (std::size_t i = 0; i < got.size(); ++i) {
            EXPECT_EQ(got[i] == 0.0f, i >= present) << cut << " " << i;
        }
    }
}

TEST_F(WavFileTest, NamesCodecsFromTheFmtChunk) {
    char name[kLMaxText];
    auto const named = [&](std::string const& fmt) {
        std::string const path = Put("n.wav", Riff(Chunk("fmt ", fmt)));
        return LGetWaveFileCodecName(path.c_str(), name) ? std::string(name) : "<none>";
    };
    EXPECT_EQ(named(Fmt(17, 1, 8000, 4)), "IMA ADPCM");
    EXPECT_EQ(named(Fmt(0x4321, 1, 8000, 4)), "Microsoft Unknown Wave Format");
    EXPECT_EQ(named(FmtExtensible(3, 2, 32, true)), "IEEE Float");
    EXPECT_FALSE(LGetWaveFileCodecName(Put("j.wav", "junk").c_str(), name));
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
    EXPECT_EQ(ReadAll(source), Quantised<LSFLE24>(input));
}

TEST_F(WavFileTest, FollowingDataChunksExtendTheAudio) {
    std::string const a = Bytes({1, 0, 2, 0, 3});
    std::string const b = Bytes({0, 4, 0});
    std::string file = Riff(Chunk("fmt ", Fmt(1, 1, 8000, 16)) + "data");
    PutU32(file, 5);
    file += a + "data";
    PutU32(file, 3);
    file += b + "LIST";
    LSoundSource source = LWaveFile::OpenSource(Put("m.wav", file).c_str());
    ASSERT_TRUE(source->IsOk());
    EXPECT_EQ(source->GetEndSample(), 4); // a frame straddles the two chunks
    std::vector<float> const got = ReadAll(source, 1);
    EXPECT_EQ(got, (std::vector<float>{1 / 32767.0f, 2 / 32767.0f, 3 / 32767.0f, 4 / 32767.0f}));
}

// ---- Sinks ----

TEST_F(WavFileTest, SinksThatCannotWriteReportFailure) {
    LWaveFileFormat format;
    EXPECT_TRUE(
        LWaveFile::OpenSinkPCM(PathOf("no/such/dir.wav").c_str(), 44100, 2, 16, false)->IsFailed());
    std::vector<float> const input(2 * 100000, 0.25f);
    LSoundSink full = LWaveFile::OpenSinkPCM("/dev/full", 44100, 2, 16, false);
    full->Write(input.data(), 100000);
    EXPECT_TRUE(full->IsFailed());
    format.formatTag = 3;
    format.bitsPerSample = 64;
    EXPECT_TRUE(LWaveFile::OpenSink(PathOf("f64.wav").c_str(), format)->IsFailed());
    format.formatTag = 0x1234;
    EXPECT_TRUE(LWaveFile::OpenSink(PathOf("unknown.wav").c_str(), format)->IsFailed());
    format.formatTag = 1;
    format.channels = 0;
    EXPECT_TRUE(LWaveFile::OpenSink(PathOf("mono0.wav").c_str(), format)->IsFailed());
}

// A sink writes under a shared lock, so it does not start on a file another program holds
// exclusively (being rewritten); it gives up after the lock wait and reports failure.
TEST_F(WavFileTest, SinkRefusesAFileHeldExclusively) {
    std::string const path = PathOf("held.wav");
    ASSERT_TRUE(WriteFileBytes(path, "busy", 4));
    LFileDescriptor holder;
    ASSERT_TRUE(holder.Open(path.c_str(), O_RDWR));
    LFileLock lock;
    ASSERT_TRUE(lock.Lock(holder, LFileLockMode::kExclusive));
    EXPECT_TRUE(LWaveFile::OpenSinkPCM(path.c_str(), 8000, 1, 16, false)->IsFailed());
    lock.Unlock();
    EXPECT_FALSE(LWaveFile::OpenSinkPCM(path.c_str(), 8000, 1, 16, false)->IsFailed());
}

TEST_F(WavFileTest, DeletingSourceRemovesItsFile) {
    std::string const path = PathOf("temp.wav");
    WriteAll(LWaveFile::OpenSinkPCM(path.c_str(), 44100, 1, 16, false), {0.5f, -0.5f});
    {
        LSoundSource source = LWaveFile::OpenSourceDeletingFileWhenClosed(path.c_str());
        EXPECT_TRUE(source->IsOk());
        EXPECT_EQ(ReadAll(source).size(), 2u);
        EXPECT_TRUE(std::filesystem::exists(path));
    }
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(WavFileTest, StoredFormatFileRoundTripsAndRejectsDamage) {
    LWaveFileFormat saved;
    saved.formatTag = 17;
    saved.channels = 1;
    saved.samplesPerSec = 22050;
    saved.bitsPerSample = 4;
    saved.extraSize = 2;
    saved.extra = {0xf9, 0x01};
    saved.dither = true;
    std::string const path = PathOf("DATA/WavCodec.wff");
    ASSERT_TRUE(saved.SaveToWavCodecFile(path.c_str()));
    LWaveFileFormat loaded;
    ASSERT_TRUE(loaded.LoadFromWavCodecFile(path.c_str()));
    EXPECT_EQ(loaded.formatTag, 17);
    EXPECT_EQ(loaded.samplesPerSec, 22050u);
    EXPECT_EQ(loaded.extra, saved.extra);
    EXPECT_TRUE(loaded.dither);
    std::string const bytes = ReadFileBytes(path);
    for (std::size_t cut = 0; cut < bytes.size(); ++cut) {
        ASSERT_TRUE(WriteFileBytes(path, bytes.data(), cut));
        EXPECT_FALSE(LWaveFileFormat().LoadFromWavCodecFile(path.c_str())) << cut;
    }
}

// ---- Oracles: files written by sox and ffmpeg, and ours read by them ----

struct OracleCase {
    char const* name;
    std::vector<std::string> argv; // {in} and {out} stand for the raw input and the WAV
    int bytesPerSample;
    unsigned channels;
    bool extensible;
};

class WavOracle : public WavFileTest, public ::testing::WithParamInterface<OracleCase> {};

// The raw input holds known stored values; the oracle only wraps them in a WAV file, so our
// reading must equal those values under the system's own conversions. (sox is not asked for
// float files: it passes samples through 32-bit integers and changes the last bits.)
TEST_P(WavOracle, ReadsFilesOtherProgramsWrite) {
    OracleCase const& c = GetParam();
    TESSEL_REQUIRE_TOOL(c.argv[0].c_str());
    long long const frames = 4001;
    std::vector<float> const noise = MakeNoise(c.channels, frames, 0.99, 5);
    long long const count = static_cast<long long>(noise.size());
    std::vector<unsigned char> raw(static_cast<std::size_t>(count * c.bytesPerSample));
    std::vector<float> want(noise.size());
    std::string const kind = c.name;
    auto both = [&](auto tag) {
        using T = decltype(tag);
        auto* stored = reinterpret_cast<T*>(raw.data());
        ConvertSamplesOut<T>(stored, noise.data(), count);
        ConvertSamplesIn<T>(want.data(), stored, count);
    };
    if (kind.find("u8") != std::string::npos) {
        both(LSFU8{});
    } else if (kind.find("s24") != std::string::npos) {
        both(LSFLE24{});
    } else if (kind.find("s32") != std::string::npos) {
        both(LSF32{});
    } else if (kind.find("f32") != std::string::npos) {
        both(LSFF32{});
    } else if (kind.find("f64") != std::string::npos) {
        both(LSFF64{});
    } else if (kind.find("alaw") != std::string::npos) {
        both(LSFALAW{});
    } else if (kind.find("ulaw") != std::string::npos) {
        both(LSFULAW{});
    } else {
        both(LSF16{});
    }
    std::string const in = PathOf("in.raw");
    std::string const out = PathOf("out.wav");
    ASSERT_TRUE(WriteFileBytes(in, raw.data(), raw.size()));
    std::vector<std::string> argv = c.argv;
    for (std::string& a : argv) {
        a = a == "{in}" ? in : a == "{out}" ? out : a;
    }
    std::string log;
    ASSERT_EQ(RunTool(argv, &log), 0) << log;
    std::string const file = ReadFileBytes(out);
    ASSERT_GT(file.size(), 36u);
    EXPECT_EQ(file.substr(20, 2) == "\xfe\xff", c.extensible) << "the oracle's fmt tag";
    LSoundSource source = LWaveFile::OpenSource(out.c_str());
    ASSERT_TRUE(source->IsOk()) << static_cast<int>(source->GetError());
    EXPECT_EQ(source->GetChannels(), c.channels);
    EXPECT_EQ(source->GetEndSample(), frames);
    EXPECT_EQ(ReadAll(source, 1000), want);
}

std::vector<std::string> Sox(char const* encoding, char const* bits, char const* channels) {
    return {"sox", "-t", "raw",    "-r",   "44100", "-e",  encoding, "-b",
            bits,  "-c", channels, "{in}", "-t",    "wav", "{out}"};
}

std::vector<std::string> Ffmpeg(char const* rawFormat, char const* codec, char const* channels) {
    return {"ffmpeg", "-nostdin", "-v",     "error", "-y",   "-f",   rawFormat, "-ar",
            "44100",  "-ac",      channels, "-i",    "{in}", "-c:a", codec,     "{out}"};
}

INSTANTIATE_TEST_SUITE_P(
    Programs, WavOracle,
    ::testing::Values(
        OracleCase{"sox_s24_stereo", Sox("signed-integer", "24", "2"), 3, 2, true},
        OracleCase{"sox_u8_mono_odd", Sox("unsigned-integer", "8", "1"), 1, 1, false},
        OracleCase{"sox_s32_mono", Sox("signed-integer", "32", "1"), 4, 1, true},
        OracleCase{"sox_alaw_stereo", Sox("a-law", "8", "2"), 1, 2, false},
        OracleCase{"sox_ulaw_mono", Sox("u-law", "8", "1"), 1, 1, false},
        OracleCase{"ffmpeg_s16_four_ext", Ffmpeg("s16le", "pcm_s16le", "4"), 2, 4, true},
        OracleCase{"ffmpeg_s24_stereo", Ffmpeg("s24le", "pcm_s24le", "2"), 3, 2, true},
        OracleCase{"ffmpeg_f32_six_ext", Ffmpeg("f32le", "pcm_f32le", "6"), 4, 6, true},
        OracleCase{"ffmpeg_f32_stereo_ext", Ffmpeg("f32le", "pcm_f32le", "2"), 4, 2, true},
        OracleCase{"ffmpeg_f64_mono_ext", Ffmpeg("f64le", "pcm_f64le", "1"), 8, 1, true},
        OracleCase{"ffmpeg_alaw_mono", Ffmpeg("alaw", "pcm_alaw", "1"), 1, 1, false}),
    [](auto const& p) { return std::string(p.param.name); });

// ffmpeg decodes our files to the same stored values (its own decoders, its own header reading),
// and sox agrees on their length.
TEST_F(WavFileTest, OtherProgramsReadOurFiles) {
    TESSEL_REQUIRE_TOOL("ffmpeg");
    TESSEL_REQUIRE_TOOL("sox");
    struct Case {
        unsigned tag;
        int bits;
        char const* rawFormat;
    };
    for (Case const c :
         {Case{1, 8, "u8"}, Case{1, 16, "s16le"}, Case{1, 24, "s24le"}, Case{1, 32, "s32le"},
          Case{3, 32, "f32le"}, Case{6, 8, "alaw"}, Case{7, 8, "mulaw"}}) {
        std::string const path = PathOf("ours.wav");
        std::string const raw = PathOf("back.raw");
        LWaveFileFormat format;
        format.formatTag = static_cast<std::uint16_t>(c.tag);
        format.channels = 1;
        format.samplesPerSec = 16000;
        format.bitsPerSample = static_cast<std::uint16_t>(c.bits);
        WriteAll(LWaveFile::OpenSink(path.c_str(), format), MakeNoise(1, 3001, 0.9, 2));
        std::string const file = ReadFileBytes(path);
        std::size_t const header = c.tag >= 6 ? 58 : 46;
        std::uint32_t const dataBytes = GetU32(file, header - 4);
        std::string log;
        ASSERT_EQ(RunTool({"ffmpeg", "-nostdin", "-v", "error", "-y", "-i", path, "-f", c.rawFormat,
                           "-c:a", "copy", raw},
                          &log),
                  0)
            << log;
        EXPECT_EQ(ReadFileBytes(raw), file.substr(header, dataBytes)) << c.rawFormat;
        ASSERT_EQ(RunTool({"sox", "--i", "-s", path}, &log), 0) << log;
        EXPECT_EQ(std::stoll(log), 3001) << c.rawFormat;
    }
}

} // namespace
