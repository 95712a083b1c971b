// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Oracle tools (flac, sox, ffmpeg, ...) for differential tests. A missing tool skips the test on
// a developer's machine but fails it under CI (CI=true), where the setup installs every oracle.

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

// The tool's full path, or empty when it is not on PATH.
[[nodiscard]] std::string FindTool(char const* name);

// Runs `argv` (no shell) and returns its exit status, or -1 when it could not start.
[[nodiscard]] int RunTool(std::vector<std::string> const& argv, std::string* output = nullptr);

// The RMS and the largest absolute difference of two runs of `n` samples.
struct SampleDifference {
    double rms = 0;
    double max = 0;
};
[[nodiscard]] SampleDifference CompareSamples(float const* a, float const* b, std::size_t n);

// mpg123's decoding of the MP3 file `path` as interleaved floats, through the raw file `rawPath`.
// A failure to run mpg123 is recorded as a test failure, with its output, and gives no samples.
[[nodiscard]] std::vector<float> DecodeWithMpg123(std::string const& path,
                                                  std::string const& rawPath);

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
