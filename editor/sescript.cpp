// SPDX-License-Identifier: GPL-3.0-or-later
#include "editor/sescript.h"

#include "editor/secommands.h"
#include "llib/gen/filestream.h"
#include "llib/gen/stringlong.h"

#include <cerrno>
#include <charconv>
#include <cstring>

namespace {

bool IsBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r';
}

// Reads one word (a command or KEY=VALUE) from `text` at `at`, unquoting quoted parts.
bool ReadWord(std::string_view text, std::size_t& at, std::string& word, std::string& error) {
    word.clear();
    bool quoted = false;
    for (; at < text.size(); ++at) {
        char const c = text[at];
        if (quoted) {
            if (c == '\\' && at + 1 < text.size() &&
                (text[at + 1] == '"' || text[at + 1] == '\\')) {
                word += text[++at];
            } else if (c == '"') {
                quoted = false;
            } else {
                word += c;
            }
        } else if (c == '"') {
            quoted = true;
        } else if (IsBlank(c)) {
            break;
        } else {
            word += c;
        }
    }
    if (quoted) {
        error = "a quoted value has no closing quote";
        return false;
    }
    return true;
}

bool ParseIdentifier(std::string const& word, int& id) {
    char const* begin = word.c_str();
    char const* const end = begin + word.size();
    int base = 10;
    if (word.size() > 2 && word[0] == '0' && (word[1] == 'x' || word[1] == 'X')) {
        begin += 2;
        base = 16;
    }
    unsigned value = 0;
    auto const [stop, failure] = std::from_chars(begin, end, value, base);
    if (failure != std::errc() || stop != end || begin == end) {
        return false;
    }
    id = static_cast<int>(value);
    return true;
}

} // namespace

bool SEParseScriptLine(std::string_view text, SEScriptStep& step, std::string& error) {
    std::size_t at = 0;
    while (at < text.size() && IsBlank(text[at])) {
        ++at;
    }
    std::string word;
    if (!ReadWord(text, at, word, error)) {
        return false;
    }
    if (word.empty()) {
        error = "no command is given";
        return false;
    }
    SECommandInfo const* info = SEFindCommandByName(word.c_str());
    int id = 0;
    if (info == nullptr && ParseIdentifier(word, id)) {
        info = SEFindCommand(id);
    }
    if (info == nullptr) {
        error = "unknown command '" + word + "'";
        return false;
    }
    step.name = info->name;
    step.id = info->id;
    step.values.clear();
    while (at < text.size()) {
        while (at < text.size() && IsBlank(text[at])) {
            ++at;
        }
        if (at >= text.size()) {
            break;
        }
        if (!ReadWord(text, at, word, error)) {
            return false;
        }
        std::size_t const equals = word.find('=');
        if (equals == std::string::npos || equals == 0) {
            error = "'" + word + "' is not a setting: write KEY=VALUE";
            return false;
        }
        std::string const key = word.substr(0, equals);
        if (!step.values.emplace(key, word.substr(equals + 1)).second) {
            error = "the setting '" + key + "' is given twice";
            return false;
        }
    }
    return true;
}

bool SEParseScript(std::string_view text, std::vector<SEScriptStep>& steps, std::string& error) {
    int line = 0;
    for (std::size_t at = 0; at <= text.size();) {
        std::size_t end = text.find('\n', at);
        if (end == std::string_view::npos) {
            end = text.size();
        }
        std::string_view const row = text.substr(at, end - at);
        at = end + 1;
        ++line;
        std::size_t first = 0;
        while (first < row.size() && IsBlank(row[first])) {
            ++first;
        }
        if (first == row.size() || row[first] == '#') {
            continue;
        }
        if (row.find('\0') != std::string_view::npos) {
            error = LStrFormat("line %d: the line holds a NUL character", line);
            return false;
        }
        if (steps.size() >= kSEScriptMaxSteps) {
            error =
                LStrFormat("line %d: a script holds at most %zu commands", line, kSEScriptMaxSteps);
            return false;
        }
        SEScriptStep step;
        std::string message;
        if (!SEParseScriptLine(row, step, message)) {
            error = LStrFormat("line %d: %s", line, message.c_str());
            return false;
        }
        step.line = line;
        steps.push_back(std::move(step));
    }
    return true;
}

bool SELoadScript(char const* path, std::vector<SEScriptStep>& steps, std::string& error) {
    LInputStreamFile file;
    if (!file.Open(path)) {
        error = LStrFormat("cannot open the script: %s", std::strerror(errno));
        return false;
    }
    if (file.GetSize() > kSEScriptMaxBytes) {
        error = LStrFormat("the script is larger than %zu bytes", kSEScriptMaxBytes);
        return false;
    }
    std::string text(static_cast<std::size_t>(file.GetSize()), '\0');
    if (!file.Read(text.data(), text.size())) {
        error = "cannot read the script";
        return false;
    }
    return SEParseScript(text, steps, error);
}
