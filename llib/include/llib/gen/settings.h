// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// LSettingsStore: the per-user store of named groups and keys ("Settings"/"FileNameFormat",
// "Cache"/"RetentionDays", one group per output format). On disk it is a UTF-8 text file of
// `[Group]` sections and `Key=Value` lines, names kept as given.
//
// Reads happen under a shared advisory lock. A change is written through at once (or at the end
// of a Batch): under an exclusive lock the store re-reads the file, applies only the keys this
// process changed, writes the result to a temporary file in the same folder, syncs it and renames
// it over the old one. So a crash never leaves a half-written file and two processes writing at
// once lose neither's keys. Getters fall back to the caller's default when a key is missing or
// does not parse. All methods are safe from any thread.

#include "llib/unix/thread.h"

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

class LSettingsStore {
public:
    // `path` is the settings file; nothing is read until the first access.
    explicit LSettingsStore(std::string path);
    LSettingsStore(LSettingsStore const&) = delete;
    LSettingsStore& operator=(LSettingsStore const&) = delete;

    // The user's store: settings.ini in the configuration folder (see userdirs.h).
    static LSettingsStore& GetDefault();

    // Re-reads the file, keeping changes not yet written; a missing file is an empty store.
    [[nodiscard]] bool Reload();

    [[nodiscard]] bool HasKey(char const* group, char const* key);
    [[nodiscard]] std::string GetString(char const* group, char const* key, char const* def);
    [[nodiscard]] int GetInt(char const* group, char const* key, int def);
    [[nodiscard]] long long GetInt64(char const* group, char const* key, long long def);
    [[nodiscard]] double GetDouble(char const* group, char const* key, double def);
    [[nodiscard]] bool GetBool(char const* group, char const* key, bool def);

    // Each setter is written through at once unless a Batch is open; false when the name is not
    // storable (empty, a line break, '=' in a key, ']' in a group) or the file cannot be written.
    [[nodiscard]] bool SetString(char const* group, char const* key, char const* value);
    [[nodiscard]] bool SetInt(char const* group, char const* key, int value);
    [[nodiscard]] bool SetInt64(char const* group, char const* key, long long value);
    [[nodiscard]] bool SetDouble(char const* group, char const* key, double value);
    [[nodiscard]] bool SetBool(char const* group, char const* key, bool value);
    [[nodiscard]] bool Remove(char const* group, char const* key);

    // Writes pending changes now; true when there were none or they were written.
    [[nodiscard]] bool Flush();

    // Defers writing while it lives; the changes are written once when the last Batch ends.
    class Batch {
    public:
        explicit Batch(LSettingsStore& store);
        ~Batch();
        Batch(Batch const&) = delete;
        Batch& operator=(Batch const&) = delete;
        // Ends the batch early and reports whether the write succeeded.
        [[nodiscard]] bool Commit();

    private:
        LSettingsStore* m_store;
    };

    [[nodiscard]] std::string const& GetPath() const { return m_path; }

    // The parsed form of a settings file, in file order. Exposed for tests and the fuzzer.
    struct Group {
        std::string name;
        std::vector<std::pair<std::string, std::string>> keys;
    };
    [[nodiscard]] static std::vector<Group> Parse(std::string const& text);
    [[nodiscard]] static std::string Format(std::vector<Group> const& groups);

private:
    using Key = std::pair<std::string, std::string>;

    bool ReloadLocked();
    void EnsureLoadedLocked();
    std::optional<std::string> LookupLocked(char const* group, char const* key);
    bool SetLocked(char const* group, char const* key, std::optional<std::string> value);
    bool FlushLocked();
    static void Apply(std::vector<Group>& groups, Key const& key,
                      std::optional<std::string> const& value);

    std::string m_path;
    LMutex m_mutex;
    bool m_loaded = false;
    int m_batchDepth = 0;
    std::vector<Group> m_groups; // the file as last read, plus changes
    std::map<Key, std::optional<std::string>>
        m_pending; // changes not yet written (nullopt: removed)
};
