// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// LFileTagData: the audio tag record that file readers fill and file writers consume. It is an
// ordered store of UTF-8 key/value pairs: keys are compared without regard to ASCII case and kept
// upper-case, values are kept as given, and the first Set of a key fixes its place in the order.
//
// Markers travel through the same store as plain keys, so a record can be shown, edited and
// copied without knowing about them:
//   "marker_count"       number of markers, indexed from 0
//   "marker_samplerate"  rate that positions in milliseconds are converted with (absent: the
//                        file's own rate)
//   "marker_postype"     0 or absent: positions are milliseconds, anything else: sample frames
//   "marker_%u_pos"      position of marker %u
//   "marker_%u_name"     name of marker %u (MarkerNameGet supplies a default)
//
// The record may also name a prepared ID3v2 tag file (a temporary file made by the tag layer);
// the WAV tag writer copies it into the file's "id3 " chunk and deletes it afterwards.
//
// A record is a plain value owned by its user and driven by one thread at a time.

#include <cstddef>
#include <map>
#include <string>
#include <vector>

class LFileTagData {
public:
    // Size of the caller buffers that names are written into, terminating zero included.
    static constexpr std::size_t kNameBytes = 260;

    // Replaces the value of `key` (keeping its place) or appends the pair. Null arguments are
    // ignored; an empty value is stored as such.
    void Set(char const* key, char const* value);
    // The value of `key`, or nullptr when it is absent. Valid until the record changes.
    [[nodiscard]] char const* Get(char const* key) const;
    void Remove(char const* key);
    void Clear();

    [[nodiscard]] std::size_t GetCount() const { return m_entries.size(); }
    [[nodiscard]] char const* GetKeyAt(std::size_t i) const { return m_entries[i].key.c_str(); }
    [[nodiscard]] char const* GetValueAt(std::size_t i) const { return m_entries[i].value.c_str(); }

    // Writes marker `index`'s name into `name` (kNameBytes, always terminated, cut at a UTF-8
    // character boundary). A marker without a name is named by its number counted from 1, so
    // that markers stay told apart by writers that keep only a short prefix of the name.
    void MarkerNameGet(unsigned index, char* name) const;

    void Id3TagFileSet(char const* path) { m_id3Path = path != nullptr ? path : ""; }
    // Path of the prepared ID3v2 tag file; empty when there is none.
    [[nodiscard]] char const* Id3TagFileGet() const { return m_id3Path.c_str(); }

private:
    struct Entry {
        std::string key; // upper-case
        std::string value;
    };

    [[nodiscard]] static std::string KeyOf(char const* key);

    std::vector<Entry> m_entries;
    std::map<std::string, std::size_t> m_index; // upper-case key -> position in m_entries
    std::string m_id3Path;
};

// The record as the audio formats use it: no data of its own beyond the general record.
using LFileTagDataAudio = LFileTagData;
