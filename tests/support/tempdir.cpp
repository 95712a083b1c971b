// SPDX-License-Identifier: GPL-3.0-or-later
#include "tests/support/tempdir.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

void LTempDirTest::SetUp() {
    std::string pattern = (std::filesystem::temp_directory_path() / "tessel-test-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    m_dir = pattern;
    for (char const* name : {"CONFIG", "CACHE", "DATA", "STATE"}) {
        std::string const dir = m_dir + "/" + name;
        std::filesystem::create_directories(dir);
        ::setenv((std::string("TESSEL_") + name + "_DIR").c_str(), dir.c_str(), 1);
    }
}

void LTempDirTest::TearDown() {
    std::error_code ec;
    std::filesystem::remove_all(m_dir, ec);
    for (char const* name : {"CONFIG", "CACHE", "DATA", "STATE"}) {
        ::unsetenv((std::string("TESSEL_") + name + "_DIR").c_str());
    }
}

std::vector<std::string> LTempDirTest::ListNames(std::string const& folder) const {
    std::vector<std::string> names;
    std::error_code ec;
    for (auto const& entry :
         std::filesystem::directory_iterator(folder.empty() ? m_dir : folder, ec)) {
        std::string name = entry.path().filename().string();
        if (name != "CONFIG" && name != "CACHE" && name != "DATA" && name != "STATE") {
            names.push_back(std::move(name));
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool WriteFileBytes(std::string const& path, void const* data, std::size_t bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(static_cast<char const*>(data), static_cast<std::streamsize>(bytes));
    return static_cast<bool>(out);
}

std::string ReadFileBytes(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}
