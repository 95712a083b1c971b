// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/gen/settings.h"

#include "llib/gen/userdirs.h"
#include "llib/unix/fd.h"
#include "llib/unix/filelock.h"

#include <cerrno>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::string Trim(std::string const& s) {
    std::size_t b = 0;
    std::size_t e = s.size();
    while (b < e && (s[b] == ' ' || s[b] == '\t')) {
        ++b;
    }
    while (e > b && (s[e - 1] == ' ' || s[e - 1] == '\t')) {
        --e;
    }
    return s.substr(b, e - b);
}

// Values may hold any text; line breaks and backslashes are escaped so one value is one line,
// and tabs and edge spaces are escaped because the reader trims blanks around a value.
std::string EscapeValue(std::string const& v) {
    std::string out;
    out.reserve(v.size());
    for (std::size_t i = 0; i < v.size(); ++i) {
        char const c = v[i];
        if (c == '\\') {
            out += "\\\\";
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c == ' ' && (i == 0 || i + 1 == v.size())) {
            out += "\\s";
        } else {
            out += c;
        }
    }
    return out;
}

std::string UnescapeValue(std::string const& v) {
    std::string out;
    out.reserve(v.size());
    for (std::size_t i = 0; i < v.size(); ++i) {
        if (v[i] != '\\' || i + 1 == v.size()) {
            out += v[i];
            continue;
        }
        char const c = v[++i];
        out += c == 'n' ? '\n' : c == 'r' ? '\r' : c == 't' ? '\t' : c == 's' ? ' ' : c;
    }
    return out;
}

bool IsStorableName(char const* name, char forbidden) {
    if (name == nullptr || name[0] == '\0') {
        return false;
    }
    for (char const* p = name; *p != '\0'; ++p) {
        if (*p == '\n' || *p == '\r' || *p == forbidden) {
            return false;
        }
    }
    // Names are trimmed when read, so edge blanks would not survive a round trip.
    std::size_t const n = std::strlen(name);
    return name[0] != ' ' && name[0] != '\t' && name[n - 1] != ' ' && name[n - 1] != '\t' &&
           name[0] != '[' && name[0] != ';' && name[0] != '#';
}

bool ReadAll(LFileDescriptor& fd, std::string& text) {
    text.clear();
    char buffer[16384];
    std::uint64_t offset = 0;
    for (;;) {
        std::int64_t const n = fd.PReadFull(buffer, sizeof buffer, offset);
        if (n < 0) {
            return false;
        }
        text.append(buffer, static_cast<std::size_t>(n));
        offset += static_cast<std::uint64_t>(n);
        if (n < static_cast<std::int64_t>(sizeof buffer)) {
            return true;
        }
    }
}

// Opens `path` and locks it, retrying when the file was replaced between open and lock (a
// writer renamed a new file over it): a lock on the old file would guard nothing.
bool OpenLockedCurrent(std::string const& path, LFileLockMode mode, LFileDescriptor& fd,
                       LFileLock& lock, bool& missing) {
    std::int64_t const deadline = LGetTickMs() + kLFileLockWaitMs;
    for (;;) {
        missing = false;
        int const flags = mode == LFileLockMode::kExclusive ? (O_RDWR | O_CREAT) : O_RDONLY;
        if (!fd.Open(path.c_str(), flags, 0644)) {
            if (errno == ENOENT && mode == LFileLockMode::kShared) {
                missing = true;
                return true;
            }
            return false;
        }
        int const waitMs = static_cast<int>(std::max<std::int64_t>(0, deadline - LGetTickMs()));
        if (!lock.Lock(fd, mode, waitMs)) {
            return false;
        }
        struct stat held {};
        struct stat named {};
        if (::fstat(fd.Get(), &held) == 0 && ::stat(path.c_str(), &named) == 0 &&
            held.st_dev == named.st_dev && held.st_ino == named.st_ino) {
            return true;
        }
        lock.Unlock();
        fd.Close();
        if (LGetTickMs() >= deadline) {
            return false;
        }
    }
}

} // namespace

LSettingsStore::LSettingsStore(std::string path) : m_path(std::move(path)) {}

LSettingsStore& LSettingsStore::GetDefault() {
    static LSettingsStore store(LGetUserDir(LUserDir::kConfig) + "/settings.ini");
    return store;
}

std::vector<LSettingsStore::Group> LSettingsStore::Parse(std::string const& text) {
    std::vector<Group> groups;
    Group* current = nullptr;
    std::size_t pos = 0;
    while (pos < text.size()) {
        std::size_t eol = text.find('\n', pos);
        if (eol == std::string::npos) {
            eol = text.size();
        }
        std::string line = text.substr(pos, eol - pos);
        pos = eol + 1;
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        std::string const trimmed = Trim(line);
        if (trimmed.empty() || trimmed[0] == ';' || trimmed[0] == '#') {
            continue;
        }
        if (trimmed[0] == '[') {
            std::size_t const close = trimmed.find(']');
            if (close == std::string::npos) {
                current = nullptr; // a broken header: its keys have no group to go to
                continue;
            }
            std::string const name = Trim(trimmed.substr(1, close - 1));
            current = nullptr;
            for (Group& g : groups) {
                if (g.name == name) {
                    current = &g;
                }
            }
            if (current == nullptr) {
                groups.push_back(Group{name, {}});
                current = &groups.back();
            }
            continue;
        }
        std::size_t const eq = line.find('=');
        if (current == nullptr || eq == std::string::npos) {
            continue;
        }
        std::string const key = Trim(line.substr(0, eq));
        std::string const value = UnescapeValue(Trim(line.substr(eq + 1)));
        bool replaced = false;
        for (auto& kv : current->keys) {
            if (kv.first == key) {
                kv.second = value; // the last of duplicated keys wins
                replaced = true;
            }
        }
        if (!replaced) {
            current->keys.emplace_back(key, value);
        }
    }
    return groups;
}

std::string LSettingsStore::Format(std::vector<Group> const& groups) {
    std::string out;
    for (Group const& g : groups) {
        if (g.keys.empty()) {
            continue;
        }
        if (!out.empty()) {
            out += '\n';
        }
        out += '[' + g.name + "]\n";
        for (auto const& kv : g.keys) {
            out += kv.first + '=' + EscapeValue(kv.second) + '\n';
        }
    }
    return out;
}

void LSettingsStore::Apply(std::vector<Group>& groups, Key const& key,
                           std::optional<std::string> const& value) {
    Group* group = nullptr;
    for (Group& g : groups) {
        if (g.name == key.first) {
            group = &g;
        }
    }
    if (group == nullptr) {
        if (!value) {
            return;
        }
        groups.push_back(Group{key.first, {}});
        group = &groups.back();
    }
    for (auto it = group->keys.begin(); it != group->keys.end(); ++it) {
        if (it->first == key.second) {
            if (value) {
                it->second = *value;
            } else {
                group->keys.erase(it);
            }
            return;
        }
    }
    if (value) {
        group->keys.emplace_back(key.second, *value);
    }
}

bool LSettingsStore::Reload() {
    LMutexLock lock(m_mutex);
    return ReloadLocked();
}

bool LSettingsStore::ReloadLocked() {
    LFileDescriptor fd;
    LFileLock fileLock;
    bool missing = false;
    std::string text;
    if (!OpenLockedCurrent(m_path, LFileLockMode::kShared, fd, fileLock, missing)) {
        m_loaded = true; // an unreadable store reads as empty; writes will report the failure
        return false;
    }
    if (!missing && !ReadAll(fd, text)) {
        m_loaded = true;
        return false;
    }
    m_groups = Parse(text);
    for (auto const& [key, value] : m_pending) {
        Apply(m_groups, key, value);
    }
    m_loaded = true;
    return true;
}

void LSettingsStore::EnsureLoadedLocked() {
    if (!m_loaded) {
        (void)ReloadLocked();
    }
}

std::optional<std::string> LSettingsStore::LookupLocked(char const* group, char const* key) {
    EnsureLoadedLocked();
    for (Group const& g : m_groups) {
        if (g.name != group) {
            continue;
        }
        for (auto const& kv : g.keys) {
            if (kv.first == key) {
                return kv.second;
            }
        }
    }
    return std::nullopt;
}

bool LSettingsStore::HasKey(char const* group, char const* key) {
    LMutexLock lock(m_mutex);
    return LookupLocked(group, key).has_value();
}

std::string LSettingsStore::GetString(char const* group, char const* key, char const* def) {
    LMutexLock lock(m_mutex);
    std::optional<std::string> v = LookupLocked(group, key);
    return v ? *v : std::string(def != nullptr ? def : "");
}

long long LSettingsStore::GetInt64(char const* group, char const* key, long long def) {
    std::string const v = GetString(group, key, "");
    if (v.empty()) {
        return def;
    }
    char* end = nullptr;
    errno = 0;
    long long const n = std::strtoll(v.c_str(), &end, 10);
    return (errno != 0 || end == v.c_str() || *end != '\0') ? def : n;
}

int LSettingsStore::GetInt(char const* group, char const* key, int def) {
    long long const n = GetInt64(group, key, def);
    return (n < INT32_MIN || n > INT32_MAX) ? def : static_cast<int>(n);
}

double LSettingsStore::GetDouble(char const* group, char const* key, double def) {
    std::string const v = GetString(group, key, "");
    if (v.empty()) {
        return def;
    }
    // from_chars, not strtod: the desktop runs under the user's locale, where strtod would stop
    // at the '.' of a file written elsewhere (or under another locale).
    char const* first = v.data() + (v[0] == '+' ? 1 : 0);
    char const* const last = v.data() + v.size();
    double d = 0.0;
    auto const [end, error] = std::from_chars(first, last, d);
    return (error != std::errc() || end != last) ? def : d;
}

bool LSettingsStore::GetBool(char const* group, char const* key, bool def) {
    std::string const v = GetString(group, key, "");
    if (v == "1" || v == "true") {
        return true;
    }
    if (v == "0" || v == "false") {
        return false;
    }
    return def;
}

bool LSettingsStore::SetLocked(char const* group, char const* key,
                               std::optional<std::string> value) {
    if (!IsStorableName(group, ']') || !IsStorableName(key, '=')) {
        return false;
    }
    EnsureLoadedLocked();
    Key const k{group, key};
    Apply(m_groups, k, value);
    m_pending[k] = std::move(value);
    return m_batchDepth > 0 || FlushLocked();
}

bool LSettingsStore::SetString(char const* group, char const* key, char const* value) {
    LMutexLock lock(m_mutex);
    return SetLocked(group, key, std::string(value != nullptr ? value : ""));
}

bool LSettingsStore::SetInt(char const* group, char const* key, int value) {
    return SetInt64(group, key, value);
}

bool LSettingsStore::SetInt64(char const* group, char const* key, long long value) {
    return SetString(group, key, std::to_string(value).c_str());
}

bool LSettingsStore::SetDouble(char const* group, char const* key, double value) {
    // The shortest text that reads back to the same double, with a '.' whatever the locale.
    char text[64];
    auto const result = std::to_chars(text, text + sizeof text - 1, value);
    *result.ptr = '\0';
    return SetString(group, key, text);
}

bool LSettingsStore::SetBool(char const* group, char const* key, bool value) {
    return SetString(group, key, value ? "1" : "0");
}

bool LSettingsStore::Remove(char const* group, char const* key) {
    LMutexLock lock(m_mutex);
    return SetLocked(group, key, std::nullopt);
}

bool LSettingsStore::Flush() {
    LMutexLock lock(m_mutex);
    return FlushLocked();
}

bool LSettingsStore::FlushLocked() {
    if (m_pending.empty()) {
        return true;
    }
    std::string const folder = m_path.substr(0, m_path.rfind('/') + 1);
    if (!folder.empty() && !LMakeDirs(folder)) {
        return false;
    }
    LFileDescriptor fd;
    LFileLock fileLock;
    bool missing = false;
    if (!OpenLockedCurrent(m_path, LFileLockMode::kExclusive, fd, fileLock, missing)) {
        return false;
    }
    // Merge into what is on disk now, so keys written by another process since our last read
    // survive; only the keys this process changed are applied.
    std::string text;
    if (!ReadAll(fd, text)) {
        return false;
    }
    std::vector<Group> groups = Parse(text);
    for (auto const& [key, value] : m_pending) {
        Apply(groups, key, value);
    }
    std::string const out = Format(groups);

    std::string tempPath = m_path + ".XXXXXX";
    LFileDescriptor temp(::mkostemp(tempPath.data(), O_CLOEXEC));
    if (!temp.IsOpen()) {
        return false;
    }
    // The new file keeps the old one's permissions (a user may have made it private); the one
    // just created by the lock step got the default mode under the user's umask.
    struct stat held {};
    mode_t const mode = ::fstat(fd.Get(), &held) == 0 ? (held.st_mode & 07777) : 0644;
    bool ok =
        ::fchmod(temp.Get(), mode) == 0 && temp.WriteAll(out.data(), out.size()) && temp.Sync();
    ok = temp.Close() && ok;
    // The rename happens while the old file is still locked, so no writer can slip between
    // our read and our replace.
    if (!ok || ::rename(tempPath.c_str(), m_path.c_str()) != 0) {
        ::unlink(tempPath.c_str());
        return false;
    }
    m_groups = std::move(groups);
    m_pending.clear();
    return true;
}

LSettingsStore::Batch::Batch(LSettingsStore& store) : m_store(&store) {
    LMutexLock lock(m_store->m_mutex);
    ++m_store->m_batchDepth;
}

LSettingsStore::Batch::~Batch() {
    (void)Commit();
}

bool LSettingsStore::Batch::Commit() {
    if (m_store == nullptr) {
        return true;
    }
    LMutexLock lock(m_store->m_mutex);
    bool const ok = --m_store->m_batchDepth > 0 || m_store->FlushLocked();
    m_store = nullptr;
    return ok;
}
