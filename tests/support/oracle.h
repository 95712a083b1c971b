// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Oracle tools (flac, sox, ffmpeg, ...) for differential tests. A missing tool skips the test on
// a developer's machine but fails it under CI (CI=true), where the setup installs every oracle.

#include <gtest/gtest.h>

#include <string>
#include <vector>

// The tool's full path, or empty when it is not on PATH.
[[nodiscard]] std::string FindTool(char const* name);

// Runs `argv` (no shell) and returns its exit status, or -1 when it could not start.
[[nodiscard]] int RunTool(std::vector<std::string> const& argv, std::string* output = nullptr);

#define TESSEL_REQUIRE_TOOL(name)                                                                  \
    do {                                                                                           \
        if (FindTool(name).empty()) {                                                              \
            char const* ci = std::getenv("CI");                                                    \
            if (ci != nullptr && std::string(ci) == "true") {                                      \
                FAIL() << "oracle tool '" << (name) << "' is missing under CI";                    \
            }                                                                                      \
            GTEST_SKIP() << "oracle tool '" << (name) << "' is not installed";                     \
        }                                                                                          \
    } while (0)
