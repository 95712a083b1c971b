// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/gen/memstream.h"
#include "llib/gen/sdf.h"
#include "tests/support/oracle.h"
#include "tests/support/tempdir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

// Every value type, an opaque and an undefined type, values too short for their type, and texts
// and blobs on both sides of the abbreviation limits.
Bytes EveryTypeFile() {
    LOutputStreamByteArray stream;
    LSDFWriter<LOutputStreamByteArray> w;
    unsigned char blob[20];
    for (unsigned char i = 0; i < sizeof blob; ++i) {
        blob[i] = i;
    }
    auto const raw = [&w, &blob](std::uint16_t id, unsigned type, std::uint64_t bytes) {
        return w.StartChunk(id, static_cast<LSDFValueType>(type)) && w.WriteData(blob, bytes) &&
               w.EndChunk(id);
    };
    bool const ok = w.Open(stream, kLSDFFileEffectChain, 3) && w.WriteBool(1, true) &&
                    w.WriteInt(2, -5) && w.WriteInt64(3, 1234567890123) && w.WriteFloat(4, 0.25f) &&
                    raw(5, 5, 8) && w.WriteString(6, "say \"hi\"\n") && w.StartContainer(7) &&
                    w.WriteString(1, std::string(121, 'a').c_str()) &&
                    w.WriteString(2, std::string(120, 'b').c_str()) && w.WriteBlob(3, blob, 17) &&
                    w.WriteBlob(4, blob, 16) && w.WriteBlob(5, blob, 0) && w.StartContainer(6) &&
                    w.WriteInt(1, 9) && w.EndContainer(6) && w.EndContainer(7) && raw(8, 2, 2) &&
                    raw(0x1234, 0x99, 3) && w.Close();
    EXPECT_TRUE(ok);
    return stream.GetBytes();
}

std::string EveryTypeTree() {
    std::string const hex = "00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f";
    std::vector<std::string> const lines{
        "file type 11 (effect chain or preset), version 3",
        "0x0000 container (root), 512 bytes",
        "  0x0001 bool, 1 byte: true",
        "  0x0002 int, 4 bytes: -5",
        "  0x0003 int64, 8 bytes: 1234567890123",
        "  0x0004 float, 4 bytes: 0.25",
        "  0x0005 type 5, 8 bytes",
        "  0x0006 string, 10 bytes: \"say \\\"hi\\\"\\x0a\"",
        "  0x0007 container, 364 bytes",
        "    0x0001 string, 122 bytes: \"" + std::string(120, 'a') + "\"...",
        "    0x0002 string, 121 bytes: \"" + std::string(120, 'b') + "\"",
        "    0x0003 blob, 17 bytes: " + hex + " ...",
        "    0x0004 blob, 16 bytes: " + hex,
        "    0x0005 blob, 0 bytes",
        "    0x0006 container, 16 bytes",
        "      0x0001 int, 4 bytes: 9",
        "  0x0008 int, 2 bytes (too short for its type)",
        "  0x1234 type 153, 3 bytes",
    };
    std::string tree;
    for (std::string const& line : lines) {
        tree += line + '\n';
    }
    return tree;
}

// Exit status and stdout and stderr together; `redirect` is appended to the shell command.
std::pair<int, std::string> RunCli(std::vector<std::string> const& arguments,
                                   char const* redirect = "") {
    std::vector<std::string> shell{"/bin/sh", "-c", std::string("exec \"$0\" \"$@\"") + redirect,
                                   TESSEL_CLI_PATH};
    shell.insert(shell.end(), arguments.begin(), arguments.end());
    std::string output;
    int const status = RunTool(shell, &output);
    return {status, output};
}

bool IsOneErrorLine(std::string const& output) {
    return output.rfind("tessel-cli: ", 0) == 0 &&
           std::count(output.begin(), output.end(), '\n') == 1 && output.back() == '\n';
}

class Inspect : public LTempDirTest {};

// The message alone on one line, and no tree.
TEST_F(Inspect, CorruptOrMissingFileFailsWithOneLineReason) {
    Bytes const good = EveryTypeFile();
    Bytes withTail = good;
    withTail.push_back(0);
    Bytes longChild = good;
    longChild[24 + 11] = 0x80; // the top byte of the first child's length
    LOutputStreamByteArray nested;
    LSDFWriter<LOutputStreamByteArray> writer;
    bool ok = writer.Open(nested, kLSDFFileEffectChain, 0);
    for (int level = 0; level < 1000; ++level) {
        ok = ok && writer.StartContainer(1);
    }
    ASSERT_TRUE(ok && writer.Close());
    std::string const text = "just some text, not a structured file\n";
    // An empty message checks only the shape; the last file is never written.
    std::vector<std::pair<Bytes, std::string>> const cases{
        {{}, "the file is too short to be a structured data file (at byte 0)"},
        {Bytes(text.begin(), text.end()),
         "not a structured data file (no \"lsdf\" header) (at byte 12)"},
        {Bytes(good.begin(), good.begin() + 100), ""},
        {Bytes(good.begin(), good.end() - 4),
         "the closing \"lsdf\" trailer is missing (the file is truncated)"},
        {withTail, ""},
        {longChild, "a chunk runs past the end of its container (at byte 24)"},
        {nested.GetBytes(), ""},
        {{}, "cannot open the file: "},
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        auto const& [file, message] = cases[i];
        std::string const path = PathOf(std::to_string(i).c_str());
        ASSERT_TRUE(i + 1 == cases.size() || WriteFileBytes(path, file.data(), file.size()));
        auto const [status, output] = RunCli({"inspect", path});
        EXPECT_EQ(status, 1) << i;
        EXPECT_TRUE(IsOneErrorLine(output)) << output;
        EXPECT_EQ(output.rfind("tessel-cli: " + path + ": " + message, 0), 0u) << output;
    }
}

TEST_F(Inspect, PrintsTheTreeAndExitsZeroTwoForUsageOrOneForAFullOutput) {
    Bytes const file = EveryTypeFile();
    std::string const path = PathOf("chain.lsdf");
    ASSERT_TRUE(WriteFileBytes(path, file.data(), file.size()));
    EXPECT_EQ(RunCli({"inspect", path}), std::make_pair(0, EveryTypeTree()));
    struct Run {
        std::vector<std::string> arguments;
        char const* redirect;
        int status;
    };
    for (Run const& run : std::vector<Run>{{{"--version"}, "", 0},
                                           {{"--help"}, "", 0},
                                           {{"-h"}, "", 0},
                                           {{}, "", 2},
                                           {{"inspect"}, "", 2},
                                           {{"inspect", path, path}, "", 2},
                                           {{"bogus"}, "", 2},
                                           {{"inspect", path}, " >/dev/full", 1},
                                           {{"--version"}, " >/dev/full", 1}}) {
        auto const [status, output] = RunCli(run.arguments, run.redirect);
        EXPECT_EQ(status, run.status) << run.arguments.size() << run.redirect;
        EXPECT_FALSE(output.empty());
        EXPECT_TRUE(run.status != 1 || IsOneErrorLine(output)) << output;
        bool const version = run.status == 0 && run.arguments[0] == "--version";
        EXPECT_TRUE(run.status != 0 ||
                    output.find(version ? "tessel-cli " : "inspect FILE") != std::string::npos)
            << output;
    }
}

} // namespace
