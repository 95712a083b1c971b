// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Command scripts: main-window commands written as text, one per line, for tessel-cli and batch
// jobs. A line is a command's name or identifier (decimal, or hexadecimal with "0x") followed by
// settings KEY=VALUE separated by blanks; a value with blanks is written in double quotes, in
// which \" and \\ stand for themselves. Blank lines and lines starting with "#" are skipped.
//
//     select start=0:01.5 end=0:03
//     cut
//     cursor position=44100smp
//     paste
//     0x63757420

#include <map>
#include <string>
#include <string_view>
#include <vector>

struct SEScriptStep {
    int line = 0;     // 1-based line in its script; 0 for a single command
    std::string name; // the command's name as the table gives it
    int id = 0;
    std::map<std::string, std::string> values;
};

inline constexpr std::size_t kSEScriptMaxBytes = 1 << 24;
inline constexpr std::size_t kSEScriptMaxSteps = 1 << 16;

// Parses one command. False with a message for an unknown command, a malformed setting, a
// setting given twice or an unterminated quote.
[[nodiscard]] bool SEParseScriptLine(std::string_view text, SEScriptStep& step, std::string& error);
// Parses a whole script into `steps` (appended). The message names the line at fault.
[[nodiscard]] bool SEParseScript(std::string_view text, std::vector<SEScriptStep>& steps,
                                 std::string& error);
// Reads and parses a script file, at most kSEScriptMaxBytes long.
[[nodiscard]] bool SELoadScript(char const* path, std::vector<SEScriptStep>& steps,
                                std::string& error);
