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

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <tuple>
#include <vector>

namespace {

using namespace std::string_literals;

std::uint32_t Get32(std::string const& bytes, std::size_t at) {
    auto const* p = reinterpret_cast<unsigned char const*>(bytes.data() + at);
    return std::uint32_t{p[0]} | std::uint32_t{p[1]} << 8 | std::uint32_t{p[2]} << 16 |
           std::uint32_t{p[3]} << 24;
}

std::string Le32(std::uint32_t v) {
    return {static_cast<char>(v), static_cast<char>(v >> 8), static_cast<char>(v >> 16),
            static_cast<char>(v >> 24)};
}

std::string Chunk(char const* id, std::string const& body) {
    return id + Le32(body.size()) + body + (body.size() % 2 != 0 ? "\0"s : ""s);
}

// A mono 16-bit 8 kHz file: "fmt ", `before`, "data" with `frames` of a ramp, then `after`.
std::string WavBytes(std::size_t frames, std::string const& before = {},
                     std::string const& after = {}) {
    std::string data;
    for (std::size_t i = 0; i < frames; ++i) {
        data += {static_cast<char>(i * 37), static_cast<char>(i >> 3)};
    }
    std::string const fmt = Le32(0x00010001) + Le32(8000) + Le32(16000) + Le32(0x00100002);
    std::string const body = "WAVE" + Chunk("fmt ", fmt) + before + Chunk("data", data) + after;
    return "RIFF" + Le32(body.size()) + body;
}

// An independent walk of the top-level chunks, to check the writer's output: the ids in file
// order, and the body of the first chunk of each id.
struct Walk {
    std::string ids;
    std::map<std::string, std::string> bodies;
};
Walk ChunksOf(std::string const& file) {
    Walk walk;
    for (std::size_t at = 12; at + 8 <= file.size();) {
        std::uint32_t const bytes = Get32(file, at + 4);
        if (!walk.ids.empty())
            walk.ids += ',';
        walk.ids.append(file, at, 4);
        walk.bodies.emplace(file.substr(at, 4), file.substr(at + 8, bytes));
        at += 8 + bytes + (bytes & 1);
    }
    return walk;
}

std::vector<std::string> Split(std::string const& items) {
    std::vector<std::string> out;
    for (std::size_t at = 0; at < items.size();) {
        std::size_t const end = std::min(items.find('|', at), items.size());
        out.push_back(items.substr(at, end - at));
        at = end + 1;
    }
    return out;
}

// Tags from "KEY=value" items separated by '|'.
LFileTagData TagsOf(std::string const& items) {
    LFileTagData tags;
    for (std::string const& item : Split(items)) {
        tags.Set(item.substr(0, item.find('=')).c_str(), item.substr(item.find('=') + 1).c_str());
    }
    return tags;
}

// The tags read from `path`, checking that every tag of `expected` is among them.
LFileTagData ReadExpecting(std::string const& path, LFileTagData const& expected = {}) {
    LFileTagData read;
    EXPECT_TRUE(LWavTagsRead(path.c_str(), read));
    for (std::size_t i = 0; i < expected.GetCount(); ++i) {
        EXPECT_STREQ(read.Get(expected.GetKeyAt(i)), expected.GetValueAt(i))
            << expected.GetKeyAt(i);
    }
    return read;
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

    // Writes `tags` and checks what must hold after every rewrite: the audio unmoved, the RIFF
    // size equal to the file size - 8, and every tag read back.
    std::string WriteChecked(LFileTagData const& tags) {
        EXPECT_TRUE(LWavTagsWrite(m_path.c_str(), tags));
        std::string const file = ReadFileBytes(m_path);
        EXPECT_EQ(file.substr(8, m_original.size() - 8), m_original.substr(8)); // in place
        EXPECT_EQ(Get32(file, 4), file.size() - 8);
        ReadExpecting(m_path, tags);
        return file;
    }

    std::string m_original = WavBytes(401);
    std::string m_path;
};

TEST(WavTagRecord, KeysIgnoreCaseKeepTheirPlaceAndSurviveRemoval) {
    LFileTagData tags = TagsOf("title=a|Artist=b|ALBUM=c|TITLE=a2");
    tags.Remove("artist");
    ASSERT_EQ(tags.GetCount(), 2u);
    EXPECT_STREQ(tags.GetKeyAt(0), "TITLE");
    EXPECT_STREQ(tags.GetValueAt(0), "a2");
    EXPECT_STREQ(tags.Get("album"), "c"); // found through the index after the shift
    EXPECT_EQ(tags.Get("ARTIST"), nullptr);

    char name[LFileTagData::kNameBytes];
    tags.MarkerNameGet(4, name);
    EXPECT_STREQ(name, "5");
    // 130 two-byte characters: the cut must fall between characters, not inside one.
    std::string longName;
    while (longName.size() < 260) {
        longName += "\xC3\xA9";
    }
    tags.Set("marker_4_name", longName.c_str());
    tags.MarkerNameGet(4, name);
    EXPECT_EQ(std::string(name), longName.substr(0, 258));

    for (char const* key : {"marker_count", "TITLES", "TITL", "", "INAM", "LYRICS"}) {
        EXPECT_FALSE(LWavTagWriter::TagFieldIsValid(key)) << key;
    }
    EXPECT_TRUE(LWavTagWriter::TagFieldIsValid("posttimer8value"));
    EXPECT_STREQ(LWavTagWriter::MappedChunkIdGet("URL"), "    ");
    EXPECT_EQ(LWavTagIterator::MappedKeyGet("ITCH"), nullptr);
}

// Every kind of chunk reads back, and the cart and bext fields sit where the published layouts
// put them, which other programs depend on; a round trip alone would not notice a shifted field.
TEST_F(WavTagTest, EveryChunkKindRoundTripsWithItsFieldsInPlace) {
    LFileTagData tags = TagsOf(
        "title=Ti \xC3\xA9|DATE=2024-02-29|TIME=12:34:56|ENDDATE=2025-01-01|TIMEREFLOW=4294967295|"
        "TIMEREFHIGH=7|BWFVERSION=2|CODINGHISTORY=A=PCM\r\n|TAGTEXT=free text|CARTVERSION=0101|"
        "LEVELREFERENCE=-32768|POSTTIMER3VALUE=96000|marker_count=1|marker_postype=1|"
        "marker_0_pos=100");
    tags.Set("UMID", kUmid);
    // The rest hold the start of their own name.
    for (std::string const& key :
         Split("ARTIST|ALBUMARTIST|ALBUM|COMMENT|TRACKNUMBER|GENRE|COPYRIGHT|ENCODEDBY|ENCODER|"
               "CATEGORY|ORIGINATOR|REFERENCE|CLIENTID|CUTID|OUTCUE|USERDEF|URL|CLASSIFICATION|"
               "PRODUCERAPPVERSION|POSTTIMER3USAGE|ENDTIME")) {
        tags.Set(key.c_str(), key.substr(0, 4).c_str());
    }
    std::string const id3 = PathOf("tag.id3");
    std::string const id3Bytes = "ID3\x03\0\0\0\0\0\x05hello"s; // odd: needs a pad
    ASSERT_TRUE(WriteFileBytes(id3, id3Bytes.data(), id3Bytes.size()));
    tags.Id3TagFileSet(id3.c_str());

    std::string const file = WriteChecked(tags);
    Walk chunks = ChunksOf(file);
    EXPECT_EQ(chunks.ids, "fmt ,data,cue ,id3 ,LIST,DISP,bext,cart");
    EXPECT_NE(::access(id3.c_str(), F_OK), 0) << "the prepared ID3v2 file is consumed";
    LWavTagIterator iterator;
    ASSERT_TRUE(iterator.Open(m_path.c_str()));
    EXPECT_EQ(iterator.GetId3Bytes(), id3Bytes.size());
    EXPECT_EQ(file.substr(iterator.GetId3Offset(), id3Bytes.size()), id3Bytes);
    // The INFO text is zero-terminated with its length counting the zero.
    EXPECT_NE(chunks.bodies["LIST"].find("ISRC\x05\0\0\0ENCO\0"s), std::string::npos);
    EXPECT_EQ(chunks.bodies["DISP"], "\x01\0\0\0Ti \xC3\xA9\0"s);

    std::string const& cart = chunks.bodies["cart"];
    std::string const& bext = chunks.bodies["bext"];
    EXPECT_EQ(cart.size(), 2048u + 9);
    EXPECT_EQ(bext.size(), 602u + 7);
    // clang-format off
    std::tuple<std::string const&, std::size_t, std::string> const fields[] = {
        {cart, 0, "0101"}, {cart, 4, "Ti \xC3\xA9\0"s}, {cart, 68, "ARTI\0"s}, {cart, 132, "CUTI"},
        {cart, 196, "CLIE"}, {cart, 260, "CATE"}, {cart, 324, "CLAS"}, {cart, 388, "OUTC"},
        {cart, 452, "2024-02-29"}, {cart, 462, "12:34:56"}, {cart, 470, "2025-01-01"},
        {cart, 480, "ENDT"}, {cart, 488, "ENCO"}, {cart, 552, "PROD"}, {cart, 616, "USER"},
        {cart, 680, Le32(0xFFFF8000)}, {cart, 700, "POST"}, {cart, 704, Le32(96000)},
        {cart, 1024, "URL\0"s}, {cart, 2048, "free text"},
        {bext, 0, "COMM\0"s}, {bext, 256, "ORIG"}, {bext, 288, "REFE"}, {bext, 320, "2024-02-29"},
        {bext, 330, "12:34:56"}, {bext, 338, Le32(0xFFFFFFFF)}, {bext, 342, Le32(7)},
        {bext, 346, "\x02\0"s}, {bext, 348, "\x06\x0A\x2B\x34"}, {bext, 378, "\x55\x66\0\0"s},
        {bext, 602, "A=PCM\r\n"}};
    // clang-format on
    for (auto const& [body, at, bytes] : fields) {
        EXPECT_EQ(body.substr(at, bytes.size()), bytes)
            << (&body == &cart ? "cart " : "bext ") << at;
    }
}

TEST_F(WavTagTest, RewritesReuseSlotsJunkTheRestAndAppendWhatGrows) {
    LFileTagData tags = TagsOf("TITLE=A rather long title for the first version|ARTIST=Someone");
    std::string file = WriteChecked(tags);
    std::size_t const firstSize = file.size();
    EXPECT_EQ(ChunksOf(file).ids, "fmt ,data,LIST,DISP");

    // The same tags again fit their own slots exactly: nothing moves.
    EXPECT_EQ(WriteChecked(tags), file);

    // Shorter: each chunk stays in its slot, the rest of the slot becomes zeroed JUNK.
    tags.Set("TITLE", "Short");
    file = WriteChecked(tags);
    EXPECT_EQ(file.size(), firstSize);
    EXPECT_EQ(ChunksOf(file).ids, "fmt ,data,LIST,JUNK,DISP,JUNK");
    EXPECT_EQ(file.find("rather"), std::string::npos) << "old text left in the file";

    // Longer than any slot: appended, the old slots given up as JUNK.
    tags.Set("TITLE", "A title far longer than anything the file held before, to be appended");
    file = WriteChecked(tags);
    EXPECT_GT(file.size(), firstSize);
    EXPECT_EQ(ChunksOf(file).ids, "fmt ,data,JUNK,JUNK,JUNK,JUNK,LIST,DISP");

    // A chunk of another kind takes a free slot that fits (the cue points the old INFO list's);
    // one too large for every slot is appended.
    std::size_t const before = file.size();
    file = WriteChecked(TagsOf("ORIGINATOR=bext|marker_count=1|marker_0_pos=5|marker_postype=1"));
    EXPECT_EQ(ChunksOf(file).ids, "fmt ,data,JUNK,JUNK,JUNK,JUNK,cue ,JUNK,JUNK,bext");
    EXPECT_EQ(file.size(), before + 8 + 602);

    // Nothing left: no tag chunk remains.
    file = WriteChecked(LFileTagData());
    EXPECT_EQ(ReadExpecting(m_path).GetCount(), 0u);
    EXPECT_EQ(ChunksOf(file).ids, "fmt ,data,JUNK,JUNK,JUNK,JUNK,JUNK,JUNK,JUNK,JUNK");
}

TEST_F(WavTagTest, MarkersBecomeCuePointsInFrames) {
    // postype and rate (nullptr: absent, so milliseconds and the file's rate), position and name
    // written; frames and name read.
    std::tuple<char const*, char const*, char const*, char const*, std::uint32_t, char const*> const
        cases[] = {
            // (ms / 1000) x rate + ((ms mod 1000) x rate) / 1000, rounding the part second down.
            {"0", "44100", "1234", "Intro", 54419, "Intr"},
            {nullptr, nullptr, "1999", nullptr, 15992, "2"},
            // Hours of milliseconds at a high rate stay exact.
            {"0", "192000", "22000999", "Ab", 4224191808u, "Ab"},
            {"1", "44100", "4294967295", "Out", 4294967295u, "Out"}};
    for (auto const& [postype, rate, pos, name, frames, nameRead] : cases) {
        SCOPED_TRACE(pos);
        LFileTagData tags = TagsOf("marker_count=2|marker_0_pos=0");
        tags.Set("marker_postype", postype); // a null value sets nothing
        tags.Set("marker_samplerate", rate);
        tags.Set("marker_1_pos", pos);
        tags.Set("marker_1_name", name);
        ASSERT_TRUE(LWavTagsWrite(m_path.c_str(), tags));
        std::string const cue = ChunksOf(ReadFileBytes(m_path)).bodies["cue "];
        ASSERT_EQ(cue.size(), 4u + 2 * 24);
        EXPECT_EQ(Get32(cue, 0), 2u);
        EXPECT_EQ(cue.substr(4 + 24 + 4), Le32(frames) + "data" + Le32(0) + Le32(0) + Le32(frames));
        ReadExpecting(m_path, TagsOf("MARKER_COUNT=2|MARKER_SAMPLERATE=8000|MARKER_POSTYPE=1|"
                                     "MARKER_0_NAME=1|MARKER_1_NAME="s +
                                     nameRead + "|MARKER_1_POS=" + std::to_string(frames)));
    }
}

TEST_F(WavTagTest, ValuesThatCannotBeStoredAreDropped) {
    ASSERT_TRUE(LWavTagsWrite(
        m_path.c_str(),
        TagsOf("TIMEREFLOW=123456789012|TIMEREFHIGH=12ab|LEVELREFERENCE=-|UMID=0G|"
               "POSTTIMER1VALUE=4294967296|marker_count=3|marker_0_pos=-1|"
               "marker_1_pos=4294967296|marker_2_pos=x|marker_postype=1|LYRICS=not a WAV tag")));
    EXPECT_EQ(ChunksOf(ReadFileBytes(m_path)).ids, "fmt ,data,bext,cart");
    LFileTagData const read = ReadExpecting(m_path);
    EXPECT_EQ(read.GetCount(), 1u);
    EXPECT_STREQ(read.Get("CARTVERSION"), "0101");
}

// Malformed files: reading must fail or skip the damage, writing must refuse or leave a file
// that reads again, and nothing may be read outside the file or allocated from a stored size.
TEST_F(WavTagTest, HostileFilesFailCleanly) {
    std::string const huge = "\xF0\xFF\xFF\x7F";
    // A cue count far beyond the one point present.
    std::string const cue = "cue " + Le32(28) + Le32(0x7FFFFFFF) + std::string(24, '\x01');
    // What, the file, whether it reads and writes, and the marker count read (nullptr: none).
    std::tuple<char const*, std::string, bool, bool, char const*> const cases[] = {
        {"empty", "", false, false, nullptr},
        {"riff only", "RIFF", false, false, nullptr},
        {"not wave", "RIFF\x04\0\0\0AVI "s, false, false, nullptr},
        {"foreign chunk of tiny size", "JUNK\x02\0\0\0abcd"s, false, false, nullptr},
        {"chunk beyond the end", WavBytes(4, {}, "LIST" + huge + "INFO"), true, false, nullptr},
        {"LIST smaller than its item", WavBytes(4, Chunk("LIST", "INFOINAM" + huge + "abc")), true,
         true, nullptr},
        {"cue count beyond the chunk", WavBytes(4, cue), true, true, "1"},
        {"short bext", WavBytes(4, Chunk("bext", "Desc")), true, true, nullptr},
        {"short cart", WavBytes(4, Chunk("cart", "01")), true, true, nullptr},
        {"tiny cue", WavBytes(4, Chunk("cue ", "ab")), true, true, nullptr},
        {"odd data at the end", WavBytes(3).substr(0, 44 + 6 - 1) + "\x01", true, true, nullptr},
    };
    for (auto const& [what, bytes, reads, writes, markers] : cases) {
        SCOPED_TRACE(what);
        ASSERT_TRUE(WriteFileBytes(m_path, bytes.data(), bytes.size()));
        LFileTagData read;
        EXPECT_EQ(LWavTagsRead(m_path.c_str(), read), reads);
        EXPECT_STREQ(read.Get("marker_count"), markers);
        EXPECT_EQ(LWavTagsWrite(m_path.c_str(), TagsOf("TITLE=t|marker_count=1|marker_0_pos=2")),
                  writes);
        std::string const after = ReadFileBytes(m_path);
        EXPECT_EQ(after == bytes, !writes); // refused: untouched
        if (writes) {
            EXPECT_EQ(Get32(after, 4), after.size() - 8);
            ReadExpecting(m_path, TagsOf("TITLE=t|MARKER_COUNT=1"));
        }
    }
}

// A disk that fills up while chunks are appended: the file is taken back to what it was.
TEST_F(WavTagTest, AFailedAppendLeavesTheFileAsItWas) {
    ASSERT_TRUE(LWavTagsWrite(m_path.c_str(), TagsOf("COMMENT=x")));
    std::string const before = ReadFileBytes(m_path);
    // Needs appending: the slot is too small.
    LFileTagData const tags = TagsOf("COMMENT=" + std::string(300, 'y'));
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
    std::uint64_t const first = 0xFFFFFFD8;
    std::uint64_t const second = 0x12345678;
    std::string const header = WavBytes(0).substr(0, 36) + "data" + Le32(first);
    std::string const second8 = "data" + Le32(second);
    int const fd = ::open(m_path.c_str(), O_RDWR | O_TRUNC | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::pwrite(fd, header.data(), header.size(), 0), 44);
    ASSERT_EQ(::pwrite(fd, second8.data(), 8, 44 + first), 8);
    ASSERT_EQ(::ftruncate(fd, static_cast<off_t>(44 + first + 8 + second)), 0);

    EXPECT_TRUE(LWavTagsWrite(m_path.c_str(), TagsOf("TITLE=big")));
    struct stat info = {};
    EXPECT_EQ(::fstat(fd, &info), 0);
    EXPECT_EQ(static_cast<std::uint64_t>(info.st_size), 44 + first + 8 + second + 24 + 16);
    ReadExpecting(m_path, TagsOf("TITLE=big"));
    std::string riff(8, '\0');
    EXPECT_EQ(::pread(fd, riff.data(), 8, 0), 8);
    ::close(fd);
    EXPECT_EQ(Get32(riff, 4), 0xFFFFFFFEu);
}

TEST_F(WavTagTest, FfmpegAndTheReaderAndWriterAgree) {
    TESSEL_REQUIRE_TOOL("ffmpeg");
    TESSEL_REQUIRE_TOOL("ffprobe");
    std::string const path = PathOf("ff.wav");
    std::vector<std::string> argv = {"ffmpeg",      "-v",    "error", "-y",
                                     "-f",          "lavfi", "-i",    "sine=d=0.1:r=8000",
                                     "-write_bext", "1"};
    for (std::string const& metadata :
         Split("title=T \xC3\xA9|artist=Ar|album=Al|genre=Ge|comment=Co|copyright=Cp|date=2001|"
               "originator=Or|originator_reference=Re|time_reference=4294967301|"
               "coding_history=A=PCM")) {
        argv.insert(argv.end(), {"-metadata", metadata});
    }
    argv.push_back(path);
    ASSERT_EQ(RunTool(argv), 0);
    LFileTagData const read = ReadExpecting(
        path, TagsOf("TITLE=T \xC3\xA9|ARTIST=Ar|ALBUM=Al|GENRE=Ge|COMMENT=Co|COPYRIGHT=Cp|"
                     "DATE=2001|ORIGINATOR=Or|REFERENCE=Re|TIMEREFLOW=5|TIMEREFHIGH=1|"
                     "CODINGHISTORY=A=PCM"));
    EXPECT_EQ(std::strncmp(read.Get("ENCODER") ? read.Get("ENCODER") : "", "Lavf", 4), 0);

    // And ffprobe reads what is written here. It shows a UMID only from bext version 1 on.
    LFileTagData tags = TagsOf(
        "TITLE=Ti|ARTIST=Ar|ALBUMARTIST=Aa|ALBUM=Al|DATE=2001|COMMENT=Co|TRACKNUMBER=7|GENRE=Ge|"
        "COPYRIGHT=Cp|ENCODEDBY=En|ENCODER=Ec|CATEGORY=Ca|REFERENCE=Re|TIMEREFLOW=5|TIMEREFHIGH=1|"
        "CODINGHISTORY=A=PCM|BWFVERSION=1");
    tags.Set("UMID", kUmid);
    WriteChecked(tags);
    std::string out;
    ASSERT_EQ(RunTool({"ffprobe", "-v", "error", "-show_format", "-show_streams", m_path}, &out),
              0);
    for (std::string const& line :
         Split("TAG:title=Ti|TAG:artist=Ar|TAG:ISTR=Aa|TAG:album=Al|TAG:date=2001|TAG:comment=Co|"
               "TAG:track=7|TAG:genre=Ge|TAG:copyright=Cp|TAG:ISRC=En|TAG:encoder=Ec|TAG:ISBJ=Ca|"
               "TAG:originator_reference=Re|TAG:time_reference=4294967301|"
               "TAG:coding_history=A=PCM|duration_ts=401|TAG:umid=0x"s +
               kUmid)) {
        EXPECT_NE(out.find(line), std::string::npos) << line << "\n" << out;
    }
}

} // namespace
