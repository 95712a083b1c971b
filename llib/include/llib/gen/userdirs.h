// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Where a user's files live. Each folder follows the XDG base directories with a "tessel"
// sub-folder, and each has an environment override (TESSEL_CONFIG_DIR and friends) that names
// the folder itself, for tests and portable use. The folders are not created here.

#include <string>

enum class LUserDir : unsigned char {
    kConfig = 0, // settings store
    kCache = 1,  // sound cache (its "sound-cache" sub-folder)
    kData = 2,   // stored formats, curves, components
    kState = 3,  // autosave
    kTemp = 4,   // temporary files: $TMPDIR or /tmp
};

[[nodiscard]] std::string LGetUserDir(LUserDir which);

// Creates `path` and its missing parents (mode 0755); true when it exists as a folder after.
[[nodiscard]] bool LMakeDirs(std::string const& path);
