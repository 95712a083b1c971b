// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// A fresh temporary folder per test, with the TESSEL_*_DIR variables pointing into it so no test
// touches the user's settings, cache or data. Removed (with its contents) when the test ends.

#include <gtest/gtest.h>

#include <string>
#include <vector>

class LTempDirTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    [[nodiscard]] std::string const& Dir() const { return m_dir; }
    [[nodiscard]] std::string PathOf(char const* name) const { return m_dir + "/" + name; }
    // The names in `folder` (the test folder when empty), sorted, leaving out the folders that
    // stand in for the user's own: what a test made there, to find leftovers.
    [[nodiscard]] std::vector<std::string> ListNames(std::string const& folder = {}) const;

private:
    std::string m_dir;
};

// Writes `bytes` to `path`, replacing it; false on failure.
[[nodiscard]] bool WriteFileBytes(std::string const& path, void const* data, std::size_t bytes);
// The whole file, or an empty string when it cannot be read.
[[nodiscard]] std::string ReadFileBytes(std::string const& path);
