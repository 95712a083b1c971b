// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/filetagdata.h"

#include <cstdio>
#include <cstring>

std::string LFileTagData::KeyOf(char const* key) {
    std::string result(key);
    for (char& c : result) {
        if (c >= 'a' && c <= 'z') {
            c = static_cast<char>(c - 'a' + 'A');
        }
    }
    return result;
}

void LFileTagData::Set(char const* key, char const* value) {
    if (key == nullptr || value == nullptr) {
        return;
    }
    std::string upper = KeyOf(key);
    auto const found = m_index.find(upper);
    if (found != m_index.end()) {
        m_entries[found->second].value = value;
        return;
    }
    m_index.emplace(upper, m_entries.size());
    m_entries.push_back(Entry{std::move(upper), value});
}

char const* LFileTagData::Get(char const* key) const {
    if (key == nullptr) {
        return nullptr;
    }
    auto const found = m_index.find(KeyOf(key));
    return found != m_index.end() ? m_entries[found->second].value.c_str() : nullptr;
}

void LFileTagData::Remove(char const* key) {
    if (key == nullptr) {
        return;
    }
    auto const found = m_index.find(KeyOf(key));
    if (found == m_index.end()) {
        return;
    }
    std::size_t const position = found->second;
    m_index.erase(found);
    m_entries.erase(m_entries.begin() + static_cast<std::ptrdiff_t>(position));
    for (auto& [name, at] : m_index) {
        if (at > position) {
            --at;
        }
    }
}

void LFileTagData::Clear() {
    m_entries.clear();
    m_index.clear();
    m_id3Path.clear();
}

void LFileTagData::MarkerNameGet(unsigned index, char* name) const {
    char key[48];
    std::snprintf(key, sizeof(key), "marker_%u_name", index);
    char const* value = Get(key);
    if (value == nullptr || value[0] == '\0') {
        std::snprintf(name, kNameBytes, "%u", index + 1);
        return;
    }
    std::size_t bytes = std::strlen(value);
    if (bytes >= kNameBytes) {
        bytes = kNameBytes - 1;
        // Step back over continuation bytes so a cut never leaves half a character.
        while (bytes > 0 && (static_cast<unsigned char>(value[bytes]) & 0xC0) == 0x80) {
            --bytes;
        }
    }
    std::memcpy(name, value, bytes);
    name[bytes] = '\0';
}
