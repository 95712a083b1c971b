// SPDX-License-Identifier: GPL-3.0-or-later
// Settings file parser: any bytes must parse, and writing the parsed form out and parsing it
// again must give the same groups, keys and values (a group without keys is not written).

#include "llib/gen/settings.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace {

std::vector<LSettingsStore::Group> ParseWithKeys(std::string const& text) {
    std::vector<LSettingsStore::Group> groups = LSettingsStore::Parse(text);
    std::erase_if(groups, [](LSettingsStore::Group const& g) { return g.keys.empty(); });
    return groups;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::vector<LSettingsStore::Group> const parsed =
        ParseWithKeys(std::string(reinterpret_cast<char const*>(data), size));
    std::vector<LSettingsStore::Group> const again = ParseWithKeys(LSettingsStore::Format(parsed));
    bool const same = std::equal(
        parsed.begin(), parsed.end(), again.begin(), again.end(),
        [](auto const& a, auto const& b) { return a.name == b.name && a.keys == b.keys; });
    if (!same) {
        __builtin_trap();
    }
    return 0;
}
