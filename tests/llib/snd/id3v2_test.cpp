// SPDX-License-Identifier: GPL-3.0-or-later
// ID3v2 text: tags written by lame and ffmpeg, hand-built tags for what they never write (version
// 2.2, unsynchronisation, extended headers, frame flags, odd encodings), and damaged tags.

#include "llib/snd/id3v2.h"

#include "llib/snd/mp3file.h"
#include "tests/support/oracle.h"
#include "tests/support/tempdir.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

Bytes Of(std::string const& s) {
    return Bytes(s.begin(), s.end());
}

// A literal with its embedded zeros.
template <std::size_t N>
Bytes Lit(char const (&s)[N]) {
    return Bytes(s, s + N - 1);
}

Bytes SyncSafe(std::size_t v) {
    return {static_cast<unsigned char>(v >> 21 & 0x7F), static_cast<unsigned char>(v >> 14 & 0x7F),
            static_cast<unsigned char>(v >> 7 & 0x7F), static_cast<unsigned char>(v & 0x7F)};
}

Bytes Big(std::size_t v, int bytes) {
    Bytes b;
    for (int i = bytes - 1; i >= 0; --i) {
        b.push_back(static_cast<unsigned char>(v >> (8 * i)));
    }
    return b;
}

Bytes operator+(Bytes a, Bytes const& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// A frame of `version` with its size stored the way that version stores it.
Bytes Frame(int version, std::string const& id, Bytes const& body, unsigned flags = 0) {
    if (version == 2) {
        return Of(id) + Big(body.size(), 3) + body;
    }
    Bytes const size = version == 3 ? Big(body.size(), 4) : SyncSafe(body.size());
    return Of(id) + size + Big(flags, 2) + body;
}

Bytes Tag(int version, Bytes const& frames, unsigned flags = 0, std::size_t padding = 16) {
    Bytes const body = frames + Bytes(padding, 0);
    return Of("ID3") +
           Bytes{static_cast<unsigned char>(version), 0, static_cast<unsigned char>(flags)} +
           SyncSafe(body.size()) + body;
}

// Inserts a zero after every 0xFF, as unsynchronisation writes it.
Bytes Unsync(Bytes const& b) {
    Bytes out;
    for (unsigned char c : b) {
        out.push_back(c);
        if (c == 0xFF) {
            out.push_back(0);
        }
    }
    return out;
}

struct Reader {
    Bytes data;
    std::size_t bytesRead = 0;
    LID3v2Tag Read() {
        LID3v2Tag tag;
        bytesRead = 0;
        auto const read = [this](unsigned char* out, std::size_t n, std::uint64_t at) {
            std::size_t const got =
                at < data.size() ? std::min<std::size_t>(n, data.size() - at) : 0;
            std::memcpy(out, data.data() + at, got);
            bytesRead += got;
            return got;
        };
        EXPECT_TRUE(LID3v2Read(read, 0, tag));
        return tag;
    }
};

std::string Text(LID3v2Tag const& tag) {
    std::string s;
    for (LID3v2Text const& t : tag.text) {
        s += t.id + "=" + t.value + ";";
    }
    return s;
}

class ID3v2File : public LTempDirTest {};

TEST_F(ID3v2File, TagsOfLameAndFfmpegReadAsWritten) {
    TESSEL_REQUIRE_TOOL("lame");
    TESSEL_REQUIRE_TOOL("ffmpeg");
    std::string const wav = PathOf("in.wav");
    std::string out;
    ASSERT_EQ(RunTool({"ffmpeg", "-v", "error", "-f", "lavfi", "-i", "sine=f=440:d=1", wav}, &out),
              0)
        << out;
    struct Case {
        std::vector<std::string> command;
        int version;
        std::string title, artist, comment;
    };
    std::string const mp3 = PathOf("t.mp3");
    Case const cases[] = {
        {{"lame", "--quiet", "--id3v2-only", "--tt", "Caf\xc3\xa9", "--ta", "Art", "--tc", "Note",
          wav, mp3},
         3,
         "Caf\xc3\xa9",
         "Art",
         "Note"},
        {{"lame", "--quiet", "--id3v2-only", "--id3v2-utf16", "--tt",
          "\xe6\x97\xa5 \xf0\x9f\x8e\xb5", wav, mp3},
         3,
         "\xe6\x97\xa5 \xf0\x9f\x8e\xb5",
         "",
         ""},
        {{"ffmpeg", "-v", "error", "-y", "-i", wav, "-metadata", "title=T\xc3\xaftle", "-metadata",
          "artist=A / B", "-id3v2_version", "4", mp3},
         4,
         "T\xc3\xaftle",
         "A / B",
         ""},
        {{"ffmpeg", "-v", "error", "-y", "-i", wav, "-metadata", "title=\xe6\x97\xa5\xe6\x9c\xac",
          "-id3v2_version", "3", mp3},
         3,
         "\xe6\x97\xa5\xe6\x9c\xac",
         "",
         ""},
    };
    for (Case const& c : cases) {
        ASSERT_EQ(RunTool(c.command, &out), 0) << out;
        LMP3FileInfo info;
        ASSERT_TRUE(LMP3File::GetInfo(mp3.c_str(), info)) << c.command[0];
        EXPECT_EQ(info.id3v2.version, c.version) << c.title;
        EXPECT_EQ(info.id3v2.bytes, info.id3v2Bytes) << c.title;
        EXPECT_EQ(info.id3v2.Find({"TIT2"}), c.title);
        EXPECT_EQ(info.id3v2.Find({"TPE1"}), c.artist) << c.title;
        EXPECT_EQ(info.id3v2.Find({"COMM"}), c.comment) << c.title;
    }
}

TEST(ID3v2, FramesOfEveryVersionAndEncodingDecode) {
    Bytes const utf16le = Bytes{1, 0xFF, 0xFE, 'H', 0, 'i', 0, 0x3C, 0xD8, 0xB5, 0xDF, 0, 0};
    Bytes const utf16be = Bytes{2, 0, 'B', 0, 'E', 0, 0, 0, 'x'}; // two values
    struct Case {
        char const* what;
        Bytes tag;
        std::string want;
    };
    Case const cases[] = {
        {"2.2 frames, comments with and without a description",
         Tag(2, Frame(2, "TT2", Lit("\x00Old")) +
                    Frame(2, "COM",
                          Lit("\x00"
                              "engiTunNORM\x00 1 2")) +
                    Frame(2, "COM",
                          Lit("\x00"
                              "eng\x00Said")) +
                    Frame(2, "PIC", Bytes(40, 0xFF))),
         "TT2=Old;COM=Said;"},
        {"2.3 UTF-16 in both byte orders, extended header, grouping byte",
         Of("ID3") + Bytes{3, 0, 0x40} + SyncSafe(4 + 6 + 10 + utf16le.size() + 10 + 3 + 10 + 5) +
             Big(6, 4) + Bytes(6, 0) + Frame(3, "TIT2", utf16le) +
             Frame(3, "TPE1", Bytes{9, 0, 'G'}, 0x0020) +
             Frame(3, "TALB", Bytes{1, 0xFE, 0xFF, 0, 'B'}),
         "TIT2=Hi\xf0\x9f\x8e\xb5;TPE1=G;TALB=B;"},
        {"2.3 unsynchronised as a whole: a Latin-1 0xFF survives",
         Tag(3,
             Unsync(Frame(3, "TALB", Bytes{0, 'y', 0xFF, 0xE0}) + Frame(3, "TIT2", Lit("\x00Z"))),
             0x80),
         "TALB=y\xc3\xbf\xc3\xa0;TIT2=Z;"},
        {"2.4 UTF-16BE values joined, unsync and data length per frame, compressed skipped",
         Tag(4, Frame(4, "TPE1", utf16be) +
                    Frame(4, "TIT2", Big(5, 4) + Unsync(Bytes{0, 'a', 0xFF, 'b'}), 0x0003) +
                    Frame(4, "TALB", Lit("\x00zip"), 0x0009)),
         "TPE1=BE / x;TIT2=a\xc3\xbf"
         "b;"},
        {"invalid UTF-8, an unpaired surrogate and control characters are replaced",
         Tag(4, Frame(4, "TIT2", Bytes{3, 'a', 0xC0, 0xAF, 'b', '\n', 'c'}) +
                    Frame(4, "TPE1", Bytes{2, 0xD8, 0x00, 0, 'q'})),
         "TIT2=a\xef\xbf\xbd\xef\xbf\xbd"
         "b c;TPE1=\xef\xbf\xbdq;"},
    };
    for (Case const& c : cases) {
        Reader r{c.tag};
        LID3v2Tag const tag = r.Read();
        EXPECT_EQ(Text(tag), c.want) << c.what;
        EXPECT_EQ(tag.bytes, c.tag.size()) << c.what;
    }
}

TEST(ID3v2, LargePicturesAreSkippedUnreadAndDamageKeepsWhatCameBefore) {
    // A 4 MB picture and a 100 kB text before the title: only frame headers and the title are
    // read.
    Reader big{Tag(4, Frame(4, "APIC", Bytes(4 << 20, 0xAB)) +
                          Frame(4, "TIT3", Lit("\x03") + Bytes(100 << 10, 'x')) +
                          Frame(4, "TIT2", Lit("\x03Late")))};
    EXPECT_EQ(Text(big.Read()), "TIT2=Late;");
    EXPECT_LT(big.bytesRead, 1000u);

    Bytes const good = Frame(3, "TIT2", Lit("\x00Kept"));
    Bytes overlong = Tag(3, good + Frame(3, "TPE1", Lit("\x00Lost")));
    overlong[10 + good.size() + 7] = 0x7F; // the second frame now claims far more than the tag
    Bytes truncated = Tag(3, good + Frame(3, "TPE1", Lit("\x00Cut")));
    truncated.resize(truncated.size() - 20);
    Bytes garbage = Tag(3, good + Of("tit2") + Bytes(20, 1));
    for (Bytes const* damaged : {&overlong, &truncated, &garbage}) {
        Reader r{*damaged};
        EXPECT_EQ(Text(r.Read()), "TIT2=Kept;");
    }

    // Not tags at all: a size byte with its top bit set, a version byte of 0xFF.
    for (std::size_t at : {6u, 3u}) {
        Reader r{Tag(3, good)};
        r.data[at] = 0xFF;
        LID3v2Tag tag;
        auto const read = [&r](unsigned char* out, std::size_t n, std::uint64_t offset) {
            std::memcpy(out, r.data.data() + offset, std::min<std::size_t>(n, r.data.size()));
            return std::min<std::size_t>(n, r.data.size());
        };
        EXPECT_FALSE(LID3v2Read(read, 0, tag));
        EXPECT_EQ(LID3v2TagBytes(r.data.data()), 0u);
    }
}

} // namespace
