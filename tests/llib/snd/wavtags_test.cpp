// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/wavtags.h"

#include "tests/support/oracle.h"
#include "tests/support/tempdir.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace {

std::uint32_t Get32(std::string const& bytes, std::size_t at) {
    auto const* p = reinterpret_cast<unsigned char const*>(bytes.data() + at);
    return std::uint32_t{p[0]} | std::uint32_t{p[1]} << 8 | std::uint32_t{p[2]} << 16 |
           std::uint32_t{p[3]} << 24;
}

void Put32(std::string& bytes, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        bytes.push_back(static_cast<char>(value >> (8 * i)));
    }
}

std::string Chunk(char const* id, std::string const& body) {
    std::string out(id, 4);
    Put32(out, static_cast<std::uint32_t>(body.size()));
    out += body;
    if (body.size() % 2 != 0) {
        out.push_back('\0');
    }
    return out;
}

// A mono 16-bit 8 kHz file: "fmt ", `before`, "data" with `frames` of a ramp, then `after`.
std::string WavBytes(std::size_t frames, std::string const& before = {},
                     std::string const& after = {}) {
    std::string fmt;
    for (std::uint32_t v : {0x00010001u, 8000u, 16000u, 0x00100002u}) {
        Put32(fmt, v);
    }
    std::string data;
    for (std::size_t i = 0; i < frames; ++i) {
        data.push_back(static_cast<char>(i * 37));
        data.push_back(static_cast<char>(i >> 3));
    }
    std::string body = "WAVE" + Chunk("fmt ", fmt) + before + Chunk("data", data) + after;
    std::string file = "RIFF";
    Put32(file, static_cast<std::uint32_t>(body.size()));
    return file + body;
}

struct ChunkInfo {
    std::string id;
    std::size_t offset; // of the body
    std::uint32_t bytes;
};

// An independent walk of the top-level chunks, to check the writer's output.
std::vector<ChunkInfo> ChunksOf(std::string const& file) {
    std::vector<ChunkInfo> chunks;
    std::size_t at = 12;
    while (at + 8 <= file.size()) {
        std::uint32_t const bytes = Get32(file, at + 4);
        chunks.push_back({file.substr(at, 4), at + 8, bytes});
        at += 8 + bytes + (bytes & 1);
    }
    return chunks;
}

std::string BodyOf(std::string const& file, char const* id) {
    for (ChunkInfo const& c : ChunksOf(file)) {
        if (c.id == id) {
            return file.substr(c.offset, c.bytes);
        }
    }
    return {};
}

std::string IdsOf(std::string const& file) {
    std::string ids;
    for (ChunkInfo const& c : ChunksOf(file)) {
        ids += (ids.empty() ? "" : ",") + c.id;
    }
    return ids;
}

std::map<std::string, std::string> ReadAll(std::string const& path) {
    LFileTagData tags;
    EXPECT_TRUE(LWavTagsRead(path.c_str(), tags));
    std::map<std::string, std::string> out;
    for (std::size_t i = 0; i < tags.GetCount(); ++i) {
        out[tags.GetKeyAt(i)] = tags.GetValueAt(i);
    }
    return out;
}

// A basic (32-byte) SMPTE UMID as hexadecimal text.
constexpr char kUmid[] = "060A2B340101010501010D431300000011223344556677889900112233445566";

class WavTagTest : public LTempDirTest {
protected:
    void SetUp() override {
        LTempDirTest::SetUp();
        m_path = PathOf("a.wav");
        ASSERT_TRUE(WriteFileBytes(m_path, m_original.data(), m_original.size()));
    }

    // Writes `tags` and checks what must hold after every rewrite: the audio unchanged, the RIFF
    // size equal to the file size - 8, and every tag read back.
    std::string WriteChecked(LFileTagData const& tags) {
        EXPECT_TRUE(LWavTagsWrite(m_path.c_str(), tags));
        std::string const file = ReadFileBytes(m_path);
        EXPECT_EQ(BodyOf(file, "data"), BodyOf(m_original, "data"));
        EXPECT_EQ(BodyOf(file, "fmt "), BodyOf(m_original, "fmt "));
        EXPECT_EQ(Get32(file, 4), file.size() - 8);
        auto const read = ReadAll(m_path);
        for (std::size_t i = 0; i < tags.GetCount(); ++i) {
            auto const found = read.find(tags.GetKeyAt(i));
            EXPECT_TRUE(found != read.end() && found->second == tags.GetValueAt(i))
                << tags.GetKeyAt(i) << " did not read back";
        }
        return file;
    }

    std::string m_original = WavBytes(401);
    std::string m_path;
};

TEST(WavTagMapping, InfoTableHoldsBothWaysAndOnlyTheVocabularyIsValid) {
    std::pair<char const*, char const*> const table[] = {
        {"TITLE", "INAM"},       {"ARTIST", "IART"},  {"ALBUMARTIST", "ISTR"},
        {"ALBUM", "IPRD"},       {"DATE", "ICRD"},    {"COMMENT", "ICMT"},
        {"TRACKNUMBER", "ITRK"}, {"GENRE", "IGNR"},   {"COPYRIGHT", "ICOP"},
        {"ENCODEDBY", "ISRC"},   {"ENCODER", "ISFT"}, {"CATEGORY", "ISBJ"}};
    for (auto const& [key, id] : table) {
        EXPECT_STREQ(LWavTagWriter::MappedChunkIdGet(key), id);
        EXPECT_STREQ(LWavTagIterator::MappedKeyGet(id), key);
    }
    EXPECT_STREQ(LWavTagWriter::MappedChunkIdGet("BWFVERSION"), "    ");
    EXPECT_STREQ(LWavTagWriter::MappedChunkIdGet("URL"), "    ");
    EXPECT_EQ(LWavTagIterator::MappedKeyGet("ITCH"), nullptr);

    std::size_t valid = 0;
    for (char const* key : LWavTags) {
        valid += LWavTagWriter::TagFieldIsValid(key) ? 1 : 0;
    }
    EXPECT_EQ(valid, kLWavTagCount);
    for (char const* key : {"marker_count", "TITLES", "TITL", "", "INAM", "LYRICS"}) {
        EXPECT_FALSE(LWavTagWriter::TagFieldIsValid(key)) << key;
    }
}

TEST(WavTagRecord, KeysIgnoreCaseKeepTheirPlaceAndSurviveRemoval) {
    LFileTagData tags;
    tags.Set("title", "a");
    tags.Set("Artist", "b");
    tags.Set("ALBUM", "c");
    tags.Set("TITLE", "a2");
    tags.Remove("artist");
    ASSERT_EQ(tags.GetCount(), 2u);
    EXPECT_STREQ(tags.GetKeyAt(0), "TITLE");
    EXPECT_STREQ(tags.GetValueAt(0), "a2");
    EXPECT_STREQ(tags.Get("album"), "c"); // found through the index after the shift
    EXPECT_EQ(tags.Get("ARTIST"), nullptr);
    tags.Set("genre", "d");
    EXPECT_STREQ(tags.GetKeyAt(2), "GENRE");

    char name[LFileTagData::kNameBytes];
    tags.MarkerNameGet(4, name);
    EXPECT_STREQ(name, "5");
    // 129 two-byte characters: the cut must fall between characters, not inside one.
    std::string longName;
    for (int i = 0; i < 130; ++i) {
        longName += "\xC3\xA9";
    }
    tags.Set("marker_4_name", longName.c_str());
    tags.MarkerNameGet(4, name);
    EXPECT_EQ(std::string(name), longName.substr(0, 258));
}

TEST_F(WavTagTest, EveryChunkKindRoundTrips) {
    LFileTagData tags;
    tags.Set("title", "Morning \xC3\xA9t\xC3\xA9"); // stored as "TITLE", UTF-8 kept
    for (char const* key : {"ARTIST",
                            "ALBUMARTIST",
                            "ALBUM",
                            "COMMENT",
                            "TRACKNUMBER",
                            "GENRE",
                            "COPYRIGHT",
                            "ENCODEDBY",
                            "ENCODER",
                            "CATEGORY",
                            "ORIGINATOR",
                            "REFERENCE",
                            "CLIENTID",
                            "CUTID",
                            "OUTCUE",
                            "USERDEF",
                            "URL",
                            "CLASSIFICATION",
                            "PRODUCERAPPVERSION",
                            "POSTTIMER3USAGE"}) {
        tags.Set(key, (std::string(key) + " value").substr(0, 4).c_str());
    }
    tags.Set("DATE", "2024-02-29");
    tags.Set("TIME", "12:34:56");
    tags.Set("ENDDATE", "2025-01-01");
    tags.Set("TIMEREFLOW", "4294967295");
    tags.Set("TIMEREFHIGH", "7");
    tags.Set("BWFVERSION", "2");
    tags.Set("UMID", kUmid);
    tags.Set("CODINGHISTORY", "A=PCM,F=8000,W=16,M=mono\r\n");
    tags.Set("TAGTEXT", "free text after the fixed part");
    tags.Set("LEVELREFERENCE", "-32768");
    tags.Set("POSTTIMER3VALUE", "96000");
    tags.Set("CARTVERSION", "0101");
    tags.Set("marker_count", "1");
    tags.Set("marker_postype", "1");
    tags.Set("marker_0_pos", "100");
    std::string const id3 = PathOf("tag.id3");
    std::string const id3Bytes = "ID3\x03\x00\x00\x00\x00\x00\x05hello"; // odd: needs a pad
    ASSERT_TRUE(WriteFileBytes(id3, id3Bytes.data(), id3Bytes.size()));
    tags.Id3TagFileSet(id3.c_str());

    std::string const file = WriteChecked(tags);
    EXPECT_EQ(IdsOf(file), "fmt ,data,cue ,id3 ,LIST,DISP,bext,cart");
    EXPECT_EQ(BodyOf(file, "id3 "), id3Bytes);
    EXPECT_NE(::access(id3.c_str(), F_OK), 0) << "the prepared ID3v2 file is consumed";
    LWavTagIterator iterator;
    ASSERT_TRUE(iterator.Open(m_path.c_str()));
    EXPECT_EQ(iterator.GetId3Bytes(), id3Bytes.size());
    EXPECT_EQ(file.substr(iterator.GetId3Offset(), id3Bytes.size()), id3Bytes);
    // The INFO text is zero-terminated with its length counting the zero.
    EXPECT_NE(BodyOf(file, "LIST")
                  .find(std::string("ISRC\x05\x00\x00\x00"
                                    "ENCO\x00",
                                    13)),
              std::string::npos);
}

// The cart and bext fields sit where the published layouts put them, which other programs
// depend on; a round trip alone would not notice a shifted field.
TEST_F(WavTagTest, CartAndBextFieldsSitAtThePublishedOffsets) {
    LFileTagData tags;
    tags.Set("TITLE", "Title");
    tags.Set("CUTID", "Cut");
    tags.Set("ENDTIME", "23:59:59");
    tags.Set("LEVELREFERENCE", "-2");
    tags.Set("POSTTIMER2USAGE", "SEG1");
    tags.Set("POSTTIMER2VALUE", "258");
    tags.Set("URL", "http://x");
    tags.Set("TAGTEXT", "tt");
    tags.Set("COMMENT", "Desc");
    tags.Set("ORIGINATOR", "Orig");
    tags.Set("TIMEREFHIGH", "1");
    tags.Set("BWFVERSION", "1");
    tags.Set("CODINGHISTORY", "ch");
    std::string const file = WriteChecked(tags);
    std::string const cart = BodyOf(file, "cart");
    ASSERT_EQ(cart.size(), 2048u + 2);
    EXPECT_EQ(cart.substr(0, 4), "0101");
    EXPECT_EQ(cart.substr(4, 6), std::string("Title\0", 6));
    EXPECT_EQ(cart.substr(132, 3), "Cut");
    EXPECT_EQ(cart.substr(480, 8), "23:59:59");
    EXPECT_EQ(Get32(cart, 680), 0xFFFFFFFEu);
    EXPECT_EQ(cart.substr(692, 4), "SEG1");
    EXPECT_EQ(Get32(cart, 696), 258u);
    EXPECT_EQ(cart.substr(1024, 8), "http://x");
    EXPECT_EQ(cart.substr(2048), "tt");
    std::string const bext = BodyOf(file, "bext");
    ASSERT_EQ(bext.size(), 602u + 2);
    EXPECT_EQ(bext.substr(0, 4), "Desc");
    EXPECT_EQ(bext.substr(256, 4), "Orig");
    EXPECT_EQ(Get32(bext, 342), 1u);
    EXPECT_EQ(Get32(bext, 346) & 0xFFFF, 1u);
    EXPECT_EQ(bext.substr(602), "ch");
    EXPECT_EQ(BodyOf(file, "DISP"), std::string("\x01\0\0\0Title\0", 10));
}

TEST_F(WavTagTest, RewritesReuseSlotsJunkTheRestAndAppendWhatGrows) {
    LFileTagData tags;
    tags.Set("TITLE", "A rather long title for the first version");
    tags.Set("ARTIST", "Someone");
    std::string file = WriteChecked(tags);
    std::size_t const firstSize = file.size();
    EXPECT_EQ(IdsOf(file), "fmt ,data,LIST,DISP");

    // The same tags again fit their own slots exactly: nothing moves.
    EXPECT_EQ(WriteChecked(tags), file);

    // Shorter: each chunk stays in its slot, the rest of the slot becomes zeroed JUNK.
    tags.Set("TITLE", "Short");
    file = WriteChecked(tags);
    EXPECT_EQ(file.size(), firstSize);
    EXPECT_EQ(IdsOf(file), "fmt ,data,LIST,JUNK,DISP,JUNK");
    EXPECT_EQ(file.find("rather"), std::string::npos) << "old text left in the file";

    // Longer than any slot: appended, the old slots given up as JUNK.
    tags.Set("TITLE", "A title far longer than anything the file held before, to be appended");
    file = WriteChecked(tags);
    EXPECT_GT(file.size(), firstSize);
    EXPECT_EQ(IdsOf(file), "fmt ,data,JUNK,JUNK,JUNK,JUNK,LIST,DISP");

    // A chunk of another kind takes a free slot that fits (the cue points the old INFO list's);
    // one too large for every slot is appended.
    LFileTagData other;
    other.Set("ORIGINATOR", "bext");
    other.Set("marker_count", "1");
    other.Set("marker_0_pos", "5");
    other.Set("marker_postype", "1");
    std::size_t const before = file.size();
    file = WriteChecked(other);
    EXPECT_EQ(IdsOf(file), "fmt ,data,JUNK,JUNK,JUNK,JUNK,cue ,JUNK,JUNK,bext");
    EXPECT_EQ(file.size(), before + 8 + 602);

    // Nothing left: no tag chunk remains.
    file = WriteChecked(LFileTagData());
    EXPECT_EQ(ReadAll(m_path).size(), 0u);
    for (ChunkInfo const& c : ChunksOf(file)) {
        EXPECT_TRUE(c.id == "fmt " || c.id == "data" || c.id == "JUNK") << c.id;
    }
}

struct MarkerCase {
    char const* postype; // nullptr: absent
    char const* rate;    // nullptr: the file's
    char const* pos;
    char const* name;
    std::uint32_t frames;
    char const* nameRead;
};

class WavTagMarkers : public WavTagTest, public ::testing::WithParamInterface<MarkerCase> {};

TEST_P(WavTagMarkers, BecomeCuePointsInFrames) {
    MarkerCase const& c = GetParam();
    LFileTagData tags;
    tags.Set("marker_count", "2");
    if (c.postype != nullptr) {
        tags.Set("marker_postype", c.postype);
    }
    if (c.rate != nullptr) {
        tags.Set("marker_samplerate", c.rate);
    }
    tags.Set("marker_0_pos", "0");
    tags.Set("marker_1_pos", c.pos);
    if (c.name != nullptr) {
        tags.Set("marker_1_name", c.name);
    }
    ASSERT_TRUE(LWavTagsWrite(m_path.c_str(), tags));
    std::string const cue = BodyOf(ReadFileBytes(m_path), "cue ");
    ASSERT_EQ(cue.size(), 4u + 2 * 24);
    EXPECT_EQ(Get32(cue, 0), 2u);
    EXPECT_EQ(cue.substr(4 + 24 + 8, 4), "data");
    EXPECT_EQ(Get32(cue, 4 + 24 + 4), c.frames);
    EXPECT_EQ(Get32(cue, 4 + 24 + 20), c.frames);
    auto read = ReadAll(m_path);
    EXPECT_EQ(read["MARKER_COUNT"], "2");
    EXPECT_EQ(read["MARKER_SAMPLERATE"], "8000");
    EXPECT_EQ(read["MARKER_POSTYPE"], "1");
    EXPECT_EQ(read["MARKER_0_NAME"], "1");
    EXPECT_EQ(read["MARKER_1_POS"], std::to_string(c.frames));
    EXPECT_EQ(read["MARKER_1_NAME"], c.nameRead);
}

INSTANTIATE_TEST_SUITE_P(
    WavTag, WavTagMarkers,
    ::testing::Values(
        // (ms / 1000) x rate + ((ms mod 1000) x rate) / 1000, rounding the part second down.
        MarkerCase{"0", "44100", "1234", "Intro", 54419, "Intr"},
        MarkerCase{nullptr, nullptr, "1999", nullptr, 15992, "2"},
        // Hours of milliseconds at a high rate stay exact.
        MarkerCase{"0", "192000", "22000999", "Ab", 4224191808u, "Ab"},
        MarkerCase{"1", "44100", "4294967295", "Out", 4294967295u, "Out"}));

TEST_F(WavTagTest, ValuesThatCannotBeStoredAreDropped) {
    LFileTagData tags;
    tags.Set("TIMEREFLOW", "123456789012"); // 12 characters
    tags.Set("TIMEREFHIGH", "12ab");
    tags.Set("POSTTIMER1VALUE", "4294967296");
    tags.Set("LEVELREFERENCE", "-");
    tags.Set("UMID", "0G");
    tags.Set("marker_count", "3");
    tags.Set("marker_0_pos", "-1");
    tags.Set("marker_1_pos", "4294967296");
    tags.Set("marker_2_pos", "x");
    tags.Set("marker_postype", "1");
    tags.Set("LYRICS", "not a WAV tag");
    ASSERT_TRUE(LWavTagsWrite(m_path.c_str(), tags));
    std::string const file = ReadFileBytes(m_path);
    EXPECT_EQ(IdsOf(file), "fmt ,data,bext,cart");
    auto const read = ReadAll(m_path);
    for (auto const& [key, value] : read) {
        EXPECT_TRUE(key == "CARTVERSION") << key << "=" << value;
    }
}

// Malformed files: reading must fail or skip the damage, writing must refuse or leave a file
// that reads again, and nothing may be read outside the file or allocated from a stored size.
TEST_F(WavTagTest, HostileFilesFailCleanly) {
    std::string const huge("\xF0\xFF\xFF\x7F", 4);
    std::string const info = "INFOINAM" + huge + "abc";
    struct Case {
        char const* what;
        std::string bytes;
        bool reads;
        bool writes;
    };
    std::string cue = "cue ";
    Put32(cue, 28);
    Put32(cue, 0x7FFFFFFF); // count far beyond the one point present
    cue += std::string(24, '\x01');
    Case const cases[] = {
        {"empty", "", false, false},
        {"riff only", "RIFF", false, false},
        {"not wave", "RIFF\x04\0\0\0AVI ", false, false},
        {"foreign chunk of tiny size", std::string("JUNK\x02\0\0\0", 8) + "abcd", false, false},
        {"chunk beyond the end", WavBytes(4, {}, "LIST" + huge + "INFO"), true, false},
        {"LIST smaller than its item", WavBytes(4, Chunk("LIST", info)), true, true},
        {"cue count beyond the chunk", WavBytes(4, cue), true, true},
        {"short bext", WavBytes(4, Chunk("bext", "Desc")), true, true},
        {"short cart", WavBytes(4, Chunk("cart", "01")), true, true},
        {"tiny cue", WavBytes(4, Chunk("cue ", "ab")), true, true},
        {"odd data at the end", WavBytes(3).substr(0, 44 + 6 - 1) + "\x01", true, true},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_TRUE(WriteFileBytes(m_path, c.bytes.data(), c.bytes.size()));
        LFileTagData read;
        EXPECT_EQ(LWavTagsRead(m_path.c_str(), read), c.reads);
        LFileTagData tags;
        tags.Set("TITLE", "t");
        tags.Set("marker_count", "1");
        tags.Set("marker_0_pos", "2");
        EXPECT_EQ(LWavTagsWrite(m_path.c_str(), tags), c.writes);
        std::string const after = ReadFileBytes(m_path);
        if (!c.writes) {
            EXPECT_EQ(after, c.bytes);
            continue;
        }
        EXPECT_EQ(Get32(after, 4), after.size() - 8);
        auto const back = ReadAll(m_path);
        EXPECT_EQ(back.count("TITLE"), 1u);
        EXPECT_EQ(back.count("MARKER_0_POS"), 1u);
    }
    // The damaged cue chunk yields only the point it holds.
    std::string const file = WavBytes(4, cue);
    ASSERT_TRUE(WriteFileBytes(m_path, file.data(), file.size()));
    EXPECT_EQ(ReadAll(m_path)["MARKER_COUNT"], "1");
}

// A disk that fills up while chunks are appended: the file is taken back to what it was.
TEST_F(WavTagTest, AFailedAppendLeavesTheFileAsItWas) {
    LFileTagData tags;
    tags.Set("COMMENT", "x");
    ASSERT_TRUE(LWavTagsWrite(m_path.c_str(), tags));
    std::string const before = ReadFileBytes(m_path);
    tags.Set("COMMENT", std::string(300, 'y').c_str()); // needs appending; the slot is too small
    auto const oldHandler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit old = {};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old), 0);
    rlimit limited = old;
    limited.rlim_cur = before.size() + 100;
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limited), 0);
    bool const written = LWavTagsWrite(m_path.c_str(), tags);
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &old), 0);
    std::signal(SIGXFSZ, oldHandler);
    EXPECT_FALSE(written);
    EXPECT_EQ(ReadFileBytes(m_path), before);
}

// Past 4 GB the sink keeps writing "data" chunks and the RIFF size saturates; the tags go after
// the last of them. The file is sparse, so this costs no disk space.
TEST_F(WavTagTest, FileOver4GBKeepsItsTagsAfterTheData) {
    std::string header = WavBytes(0).substr(0, 36);
    std::uint64_t const first = 0xFFFFFFD8;
    std::uint64_t const second = 0x12345678;
    Put32(header, 0x61746164); // "data"
    Put32(header, static_cast<std::uint32_t>(first));
    int const fd = ::open(m_path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    std::string second8 = "data";
    Put32(second8, static_cast<std::uint32_t>(second));
    ASSERT_EQ(::pwrite(fd, header.data(), header.size(), 0), 44);
    ASSERT_EQ(::pwrite(fd, second8.data(), 8, 44 + first), 8);
    ASSERT_EQ(::ftruncate(fd, static_cast<off_t>(44 + first + 8 + second)), 0);
    ::close(fd);

    LFileTagData tags;
    tags.Set("TITLE", "big");
    ASSERT_TRUE(LWavTagsWrite(m_path.c_str(), tags));
    struct stat info = {};
    ASSERT_EQ(::stat(m_path.c_str(), &info), 0);
    EXPECT_EQ(static_cast<std::uint64_t>(info.st_size), 44 + first + 8 + second + 24 + 16);
    EXPECT_EQ(ReadAll(m_path)["TITLE"], "big");
    std::string riff(8, '\0');
    int const check = ::open(m_path.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(::pread(check, riff.data(), 8, 0), 8);
    ::close(check);
    EXPECT_EQ(Get32(riff, 4), 0xFFFFFFFEu);
}

TEST_F(WavTagTest, ReadsTheTagsFfmpegWrites) {
    TESSEL_REQUIRE_TOOL("ffmpeg");
    std::string const path = PathOf("ff.wav");
    ASSERT_EQ(RunTool({"ffmpeg",      "-v",
                       "error",       "-y",
                       "-f",          "lavfi",
                       "-i",          "sine=d=0.1:r=8000",
                       "-metadata",   "title=T \xC3\xA9",
                       "-metadata",   "artist=Ar",
                       "-metadata",   "album=Al",
                       "-metadata",   "genre=Ge",
                       "-metadata",   "comment=Co",
                       "-metadata",   "copyright=Cp",
                       "-metadata",   "date=2001",
                       "-metadata",   "originator=Or",
                       "-metadata",   "originator_reference=Re",
                       "-metadata",   "time_reference=4294967301",
                       "-metadata",   "coding_history=A=PCM",
                       "-write_bext", "1",
                       path}),
              0);
    auto read = ReadAll(path);
    EXPECT_EQ(read["TITLE"], "T \xC3\xA9");
    EXPECT_EQ(read["ARTIST"], "Ar");
    EXPECT_EQ(read["ALBUM"], "Al");
    EXPECT_EQ(read["GENRE"], "Ge");
    EXPECT_EQ(read["COMMENT"], "Co");
    EXPECT_EQ(read["COPYRIGHT"], "Cp");
    EXPECT_EQ(read["DATE"], "2001");
    EXPECT_EQ(read["ENCODER"].substr(0, 4), "Lavf");
    EXPECT_EQ(read["ORIGINATOR"], "Or");
    EXPECT_EQ(read["REFERENCE"], "Re");
    EXPECT_EQ(read["TIMEREFLOW"], "5");
    EXPECT_EQ(read["TIMEREFHIGH"], "1");
    EXPECT_EQ(read["CODINGHISTORY"], "A=PCM");
}

TEST_F(WavTagTest, FfprobeReadsTheTagsWritten) {
    TESSEL_REQUIRE_TOOL("ffprobe");
    LFileTagData tags;
    tags.Set("TITLE", "Ti");
    tags.Set("ARTIST", "Ar");
    tags.Set("ALBUM", "Al");
    tags.Set("COMMENT", "Co");
    tags.Set("TRACKNUMBER", "7");
    tags.Set("ENCODEDBY", "En");
    tags.Set("CATEGORY", "Ca");
    tags.Set("REFERENCE", "Re");
    tags.Set("TIMEREFLOW", "5");
    tags.Set("TIMEREFHIGH", "1");
    tags.Set("UMID", kUmid);
    tags.Set("CODINGHISTORY", "A=PCM");
    tags.Set("BWFVERSION", "1"); // ffmpeg shows a UMID only from version 1 on
    WriteChecked(tags);
    std::string out;
    ASSERT_EQ(RunTool({"ffprobe", "-v", "error", "-show_format", "-show_streams", m_path}, &out),
              0);
    std::string const umid = std::string("TAG:umid=0x") + kUmid;
    for (char const* line : {"TAG:title=Ti", "TAG:artist=Ar", "TAG:album=Al", "TAG:comment=Co",
                             "TAG:track=7", "TAG:ISRC=En", "TAG:ISBJ=Ca",
                             "TAG:originator_reference=Re", "TAG:time_reference=4294967301",
                             umid.c_str(), "TAG:coding_history=A=PCM", "duration_ts=401"}) {
        EXPECT_NE(out.find(line), std::string::npos) << line << "\n" << out;
    }
}

} // namespace
