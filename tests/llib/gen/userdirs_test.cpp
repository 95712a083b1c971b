// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/gen/userdirs.h"

#include "tests/support/tempdir.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace {

struct DirCase {
    LUserDir which;
    char const* overrideVar;
    char const* xdgVar;
    char const* home; // where the folder is with neither set
};

DirCase const kCases[] = {
    {LUserDir::kConfig, "TESSEL_CONFIG_DIR", "XDG_CONFIG_HOME", "/h/.config/tessel"},
    {LUserDir::kCache, "TESSEL_CACHE_DIR", "XDG_CACHE_HOME", "/h/.cache/tessel"},
    {LUserDir::kData, "TESSEL_DATA_DIR", "XDG_DATA_HOME", "/h/.local/share/tessel"},
    {LUserDir::kState, "TESSEL_STATE_DIR", "XDG_STATE_HOME", "/h/.local/state/tessel"}};

class UserDirsTest : public LTempDirTest {
protected:
    void SetUp() override {
        LTempDirTest::SetUp();
        for (DirCase const& c : kCases) {
            Save(c.overrideVar);
            Save(c.xdgVar);
        }
        Save("HOME");
        Save("TMPDIR");
    }
    void TearDown() override {
        for (auto const& [name, value] : m_saved) {
            value ? (void)::setenv(name.c_str(), value->c_str(), 1)
                  : (void)::unsetenv(name.c_str());
        }
        LTempDirTest::TearDown();
    }

private:
    void Save(char const* name) {
        char const* value = std::getenv(name);
        m_saved.emplace_back(name, value ? std::optional<std::string>(value) : std::nullopt);
        ::unsetenv(name);
    }
    std::vector<std::pair<std::string, std::optional<std::string>>> m_saved;
};

TEST_F(UserDirsTest, OverrideThenAbsoluteXdgBaseThenHomeDecideEachFolder) {
    ::setenv("HOME", "/h", 1);
    for (DirCase const& c : kCases) {
        SCOPED_TRACE(c.overrideVar);
        // Every other folder's override and base are set and must not leak in.
        for (DirCase const& other : kCases) {
            ::setenv(other.overrideVar, other.overrideVar == c.overrideVar ? "" : "/wrong", 1);
            ::setenv(other.xdgVar, other.xdgVar == c.xdgVar ? "relative/base" : "/wrong", 1);
        }
        EXPECT_EQ(LGetUserDir(c.which), c.home); // relative base and empty override: ignored
        ::setenv(c.xdgVar, "", 1);
        EXPECT_EQ(LGetUserDir(c.which), c.home);
        ::setenv(c.xdgVar, "/xdg", 1);
        EXPECT_EQ(LGetUserDir(c.which), "/xdg/tessel");
        ::setenv(c.overrideVar, "/portable", 1);
        EXPECT_EQ(LGetUserDir(c.which), "/portable");
    }
    ::setenv("TMPDIR", "/scratch", 1);
    EXPECT_EQ(LGetUserDir(LUserDir::kTemp), "/scratch");
    ::setenv("TMPDIR", "", 1);
    EXPECT_EQ(LGetUserDir(LUserDir::kTemp), "/tmp");
}

bool IsFolder(std::string const& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

TEST_F(UserDirsTest, MakeDirsCreatesEveryMissingLevelButNotThroughAFile) {
    ASSERT_TRUE(LMakeDirs(Dir() + "/a/b/c"));
    EXPECT_TRUE(IsFolder(Dir() + "/a/b/c"));
    EXPECT_TRUE(LMakeDirs(Dir() + "/a/b/c")); // existing is fine
    EXPECT_TRUE(LMakeDirs(Dir() + "/a//x/"));
    EXPECT_TRUE(IsFolder(Dir() + "/a/x"));
    EXPECT_FALSE(LMakeDirs(""));
    ASSERT_TRUE(WriteFileBytes(PathOf("plain"), "x", 1));
    EXPECT_FALSE(LMakeDirs(PathOf("plain")));
    EXPECT_FALSE(LMakeDirs(PathOf("plain") + "/sub/deeper"));
}

} // namespace
