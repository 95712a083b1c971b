// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/cmdinspect.h"

#include "llib/gen/memstream.h"
#include "llib/gen/sdf.h"
#include "tests/support/oracle.h"
#include "tests/support/tempdir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;
using Writer = LSDFWriter<LOutputStreamByteArray>;

constexpr auto kOpaqueType = static_cast<LSDFValueType>(5);
constexpr auto kUndefinedType = static_cast<LSDFValueType>(0x99);

// Every value type, an opaque and an undefined type, and two levels of nesting.
Bytes EveryTypeFile() {
    LOutputStreamByteArray stream;
    Writer writer;
    unsigned char const opaque[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    unsigned char blob[20];
    for (unsigned char i = 0; i < sizeof blob; ++i) {
        blob[i] = i;
    }
    unsigned char const shortBlob[2] = {0xAB, 0xCD};
    std::string const longText(200, 'a');
    bool const ok = writer.Open(stream, kLSDFFileEffectChain, 3) && writer.WriteBool(1, true) &&
                    writer.WriteInt(2, -5) && writer.WriteInt64(3, 1234567890123) &&
                    writer.WriteFloat(4, 0.25f) && writer.StartChunk(5, kOpaqueType) &&
                    writer.WriteData(opaque, sizeof opaque) && writer.EndChunk(5) &&
                    writer.WriteString(6, "say \"hi\"\n") && writer.StartContainer(7) &&
                    writer.WriteString(1, longText.c_str()) &&
                    writer.WriteBlob(2, blob, sizeof blob) && writer.StartContainer(3) &&
                    writer.WriteInt(1, 9) && writer.EndContainer(3) && writer.EndContainer(7) &&
                    writer.WriteBlob(8, shortBlob, sizeof shortBlob) &&
                    writer.StartChunk(0x1234, kUndefinedType) && writer.WriteData(opaque, 3) &&
                    writer.EndChunk(0x1234) && writer.Close();
    EXPECT_TRUE(ok);
    return stream.GetBytes();
}

std::vector<std::string> Lines(std::string const& text) {
    std::vector<std::string> lines;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t const end = text.find('\n', start);
        if (end == std::string::npos) {
            lines.push_back(text.substr(start));
            break;
        }
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

TEST(Inspect, PrintsEveryChunkIndentedUnderItsContainer) {
    Bytes const file = EveryTypeFile();
    std::string out;
    std::string error;
    ASSERT_TRUE(LInspectStructuredData(file.data(), file.size(), out, error)) << error;
    std::vector<std::string> const expected{
        "file type 11 (effect chain or preset), version 3",
        "0x0000 container (root), 421 bytes",
        "  0x0001 bool, 1 byte: true",
        "  0x0002 int, 4 bytes: -5",
        "  0x0003 int64, 8 bytes: 1234567890123",
        "  0x0004 float, 4 bytes: 0.25",
        "  0x0005 type 5, 8 bytes",
        "  0x0006 string, 10 bytes: \"say \\\"hi\\\"\\x0a\"",
        "  0x0007 container, 273 bytes",
        "    0x0001 string, 201 bytes: \"" + std::string(120, 'a') + "\"...",
        "    0x0002 blob, 20 bytes: 00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f ...",
        "    0x0003 container, 16 bytes",
        "      0x0001 int, 4 bytes: 9",
        "  0x0008 blob, 2 bytes: ab cd",
        "  0x1234 type 153, 3 bytes",
    };
    EXPECT_EQ(Lines(out), expected);
    EXPECT_EQ(out.back(), '\n');
}

TEST(Inspect, AbbreviatesOnlyTextAndBlobsLongerThanShown) {
    LOutputStreamByteArray stream;
    Writer writer;
    std::string const fits(120, 'b');
    std::string const longer(121, 'c');
    unsigned char const blob[17] = {};
    ASSERT_TRUE(writer.Open(stream, kLSDFFileProject, 1) && writer.WriteString(1, fits.c_str()) &&
                writer.WriteString(2, longer.c_str()) && writer.WriteBlob(3, blob, 16) &&
                writer.WriteBlob(4, blob, 17) && writer.WriteBlob(5, blob, 0) && writer.Close());
    std::string out;
    std::string error;
    ASSERT_TRUE(LInspectStructuredData(stream.GetData(), stream.GetSize(), out, error)) << error;
    std::string const zeros16 = "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00";
    std::vector<std::string> const lines = Lines(out);
    ASSERT_EQ(lines.size(), 7u) << out;
    EXPECT_EQ(lines[2], "  0x0001 string, 121 bytes: \"" + fits + "\"");
    EXPECT_EQ(lines[3], "  0x0002 string, 122 bytes: \"" + std::string(120, 'c') + "\"...");
    EXPECT_EQ(lines[4], "  0x0003 blob, 16 bytes: " + zeros16);
    EXPECT_EQ(lines[5], "  0x0004 blob, 17 bytes: " + zeros16 + " ...");
    EXPECT_EQ(lines[6], "  0x0005 blob, 0 bytes");
}

TEST(Inspect, ValueTooShortForItsTypeIsMarkedAndTheTreeGoesOn) {
    LOutputStreamByteArray stream;
    Writer writer;
    unsigned char const two[2] = {1, 2};
    ASSERT_TRUE(writer.Open(stream, 999, 0) && writer.StartChunk(1, LSDFValueType::kInt) &&
                writer.WriteData(two, 2) && writer.EndChunk(1) && writer.WriteBool(2, false) &&
                writer.Close());
    std::string out;
    std::string error;
    ASSERT_TRUE(LInspectStructuredData(stream.GetData(), stream.GetSize(), out, error)) << error;
    EXPECT_EQ(Lines(out), (std::vector<std::string>{
                              "file type 999, version 0",
                              "0x0000 container (root), 27 bytes",
                              "  0x0001 int, 2 bytes (too short for its type)",
                              "  0x0002 bool, 1 byte: false",
                          }));
}

struct CorruptCase {
    char const* name;
    Bytes (*make)(Bytes const& good);
    char const* expectedError; // exact message, or null when only its shape is checked
};

void PrintTo(CorruptCase const& c, std::ostream* os) {
    *os << c.name;
}

class InspectCorrupt : public ::testing::TestWithParam<CorruptCase> {};

TEST_P(InspectCorrupt, GivesOneLineReasonAndNoTree) {
    Bytes const file = GetParam().make(EveryTypeFile());
    std::string out = "stale";
    std::string error;
    EXPECT_FALSE(LInspectStructuredData(file.data(), file.size(), out, error));
    EXPECT_TRUE(out.empty()) << out;
    EXPECT_FALSE(error.empty());
    EXPECT_EQ(error.find('\n'), std::string::npos) << error;
    if (GetParam().expectedError != nullptr) {
        EXPECT_EQ(error, GetParam().expectedError);
    }
}

Bytes Nested(std::size_t levels) {
    Bytes file{'l', 's', 'd', 'f', 1, 0, 11, 0, 0, 0, 0, 0};
    for (std::size_t level = 0; level <= levels; ++level) {
        std::uint64_t const dataBytes = (levels - level) * kLSDFChunkHeaderBytes;
        unsigned char header[kLSDFChunkHeaderBytes] = {};
        llib::detail::PutLE(header, level == 0 ? 0 : 1, 2);
        llib::detail::PutLE(header + 4, dataBytes, 8);
        file.insert(file.end(), header, header + sizeof header);
    }
    file.insert(file.end(), {'l', 's', 'd', 'f'});
    return file;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, InspectCorrupt,
    ::testing::Values(
        CorruptCase{"Empty", [](Bytes const&) { return Bytes{}; },
                    "the file is too short to be a structured data file (at byte 0)"},
        CorruptCase{"Garbage",
                    [](Bytes const&) {
                        std::string const text = "just some text, not a structured file\n";
                        return Bytes(text.begin(), text.end());
                    },
                    "not a structured data file (no \"lsdf\" header) (at byte 12)"},
        CorruptCase{"Truncated",
                    [](Bytes const& good) { return Bytes(good.begin(), good.begin() + 100); },
                    nullptr},
        CorruptCase{"TrailerMissing",
                    [](Bytes const& good) { return Bytes(good.begin(), good.end() - 4); },
                    "the closing \"lsdf\" trailer is missing (the file is truncated)"},
        CorruptCase{"BytesAfterTheTrailer",
                    [](Bytes const& good) {
                        Bytes file = good;
                        file.push_back(0);
                        return file;
                    },
                    nullptr},
        CorruptCase{"ChildLongerThanRoot",
                    [](Bytes const& good) {
                        Bytes file = good;
                        file[24 + 11] = 0x80; // the top byte of the first child's length
                        return file;
                    },
                    "a chunk runs past the end of its container (at byte 24)"},
        CorruptCase{"NestedTooDeeply", [](Bytes const&) { return Nested(1000); }, nullptr}),
    [](auto const& p) { return std::string(p.param.name); });

// ---- The program ----

struct RunResult {
    int status = -1;
    std::string output; // stdout and stderr together
};

RunResult RunCli(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), TESSEL_CLI_PATH);
    RunResult result;
    result.status = RunTool(arguments, &result.output);
    return result;
}

bool IsOneErrorLine(std::string const& output) {
    return output.rfind("tessel-cli: ", 0) == 0 &&
           std::count(output.begin(), output.end(), '\n') == 1 && output.back() == '\n';
}

class InspectProgram : public LTempDirTest {};

TEST_F(InspectProgram, VersionAndHelpSucceed) {
    RunResult const version = RunCli({"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.output.rfind("tessel-cli ", 0), 0u) << version.output;
    for (char const* option : {"--help", "-h"}) {
        RunResult const help = RunCli({option});
        EXPECT_EQ(help.status, 0) << option;
        EXPECT_NE(help.output.find("inspect FILE"), std::string::npos) << help.output;
    }
}

TEST_F(InspectProgram, InspectPrintsTheTreeOfAGoodFile) {
    Bytes const file = EveryTypeFile();
    std::string const path = PathOf("chain.lsdf");
    ASSERT_TRUE(WriteFileBytes(path, file.data(), file.size()));
    std::string expected;
    std::string error;
    ASSERT_TRUE(LInspectStructuredData(file.data(), file.size(), expected, error));
    RunResult const run = RunCli({"inspect", path});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.output, expected);
}

TEST_F(InspectProgram, CorruptOrMissingFileFailsWithOneLine) {
    Bytes const good = EveryTypeFile();
    Bytes const truncated(good.begin(), good.begin() + 60);
    std::string const garbage = "not a structured data file at all";
    ASSERT_TRUE(WriteFileBytes(PathOf("cut.lsdf"), truncated.data(), truncated.size()));
    ASSERT_TRUE(WriteFileBytes(PathOf("junk.lsdf"), garbage.data(), garbage.size()));
    for (char const* name : {"cut.lsdf", "junk.lsdf", "missing.lsdf"}) {
        RunResult const run = RunCli({"inspect", PathOf(name)});
        EXPECT_EQ(run.status, 1) << name;
        EXPECT_TRUE(IsOneErrorLine(run.output)) << run.output;
        EXPECT_NE(run.output.find(PathOf(name)), std::string::npos) << run.output;
    }
}

TEST_F(InspectProgram, OutputThatCannotBeWrittenFailsWithOneLine) {
    if (::access("/dev/full", W_OK) != 0) {
        GTEST_SKIP() << "no /dev/full";
    }
    Bytes const file = EveryTypeFile();
    std::string const path = PathOf("chain.lsdf");
    ASSERT_TRUE(WriteFileBytes(path, file.data(), file.size()));
    for (std::vector<std::string> const& arguments :
         std::vector<std::vector<std::string>>{{"inspect", path}, {"--version"}}) {
        std::vector<std::string> shell{"/bin/sh", "-c", "exec \"$0\" \"$@\" >/dev/full",
                                       TESSEL_CLI_PATH};
        shell.insert(shell.end(), arguments.begin(), arguments.end());
        std::string output;
        EXPECT_EQ(RunTool(shell, &output), 1) << arguments[0];
        EXPECT_TRUE(IsOneErrorLine(output)) << output;
    }
}

TEST_F(InspectProgram, WrongUsageExitsWithTwo) {
    std::string const path = PathOf("any.lsdf");
    for (std::vector<std::string> const& arguments : std::vector<std::vector<std::string>>{
             {}, {"inspect"}, {"inspect", path, path}, {"bogus"}}) {
        RunResult const run = RunCli(arguments);
        EXPECT_EQ(run.status, 2) << arguments.size();
        EXPECT_FALSE(run.output.empty());
    }
}

} // namespace
