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

// Saves the variables the lookup reads and puts them back after the test.
class UserDirsTest : public LTempDirTest {
protected:
    void SetUp() override {
        LTempDirTest::SetUp();
        for (char const* name : kNames) {
            char const* value = std::getenv(name);
            m_saved.push_back(value != nullptr ? std::optional<std::string>(value) : std::nullopt);
            ::unsetenv(name);
        }
    }
    void TearDown() override {
        for (std::size_t i = 0; i < kNames.size(); ++i) {
            if (m_saved[i]) {
                ::setenv(kNames[i], m_saved[i]->c_str(), 1);
            } else {
                ::unsetenv(kNames[i]);
            }
        }
        LTempDirTest::TearDown();
    }

private:
    static inline std::vector<char const*> const kNames = {"TESSEL_CONFIG_DIR",
                                                           "TESSEL_CACHE_DIR",
                                                           "TESSEL_DATA_DIR",
                                                           "TESSEL_STATE_DIR",
                                                           "XDG_CONFIG_HOME",
                                                           "XDG_CACHE_HOME",
                                                           "XDG_DATA_HOME",
                                                           "XDG_STATE_HOME",
                                                           "HOME",
                                                           "TMPDIR"};
    std::vector<std::optional<std::string>> m_saved;
};

struct DirCase {
    LUserDir which;
    char const* overrideVar;
    char const* xdgVar;
    char const* homeRelative;
};

void PrintTo(DirCase const& c, std::ostream* os) {
    *os << c.overrideVar;
}

class UserDirCaseTest : public UserDirsTest, public ::testing::WithParamInterface<DirCase> {};

TEST_P(UserDirCaseTest, OverrideWinsOverXdgAndHome) {
    ::setenv("HOME", "/home/someone", 1);
    ::setenv(GetParam().xdgVar, "/xdg/base", 1);
    ::setenv(GetParam().overrideVar, "/portable/place", 1);
    EXPECT_EQ(LGetUserDir(GetParam().which), "/portable/place");
}

TEST_P(UserDirCaseTest, AbsoluteXdgBaseGetsATesselSubfolder) {
    ::setenv("HOME", "/home/someone", 1);
    ::setenv(GetParam().xdgVar, "/xdg/base", 1);
    EXPECT_EQ(LGetUserDir(GetParam().which), "/xdg/base/tessel");
}

TEST_P(UserDirCaseTest, RelativeOrEmptyXdgBaseFallsBackToHome) {
    ::setenv("HOME", "/home/someone", 1);
    std::string const expected =
        std::string("/home/someone/") + GetParam().homeRelative + "/tessel";
    ::setenv(GetParam().xdgVar, "relative/base", 1);
    EXPECT_EQ(LGetUserDir(GetParam().which), expected);
    ::setenv(GetParam().xdgVar, "", 1);
    ::setenv(GetParam().overrideVar, "", 1); // an empty override is no override
    EXPECT_EQ(LGetUserDir(GetParam().which), expected);
    ::unsetenv(GetParam().xdgVar);
    EXPECT_EQ(LGetUserDir(GetParam().which), expected);
}

TEST_P(UserDirCaseTest, OtherFoldersOverridesDoNotLeakIn) {
    ::setenv("HOME", "/home/someone", 1);
    for (char const* name :
         {"TESSEL_CONFIG_DIR", "TESSEL_CACHE_DIR", "TESSEL_DATA_DIR", "TESSEL_STATE_DIR"}) {
        if (std::string(name) != GetParam().overrideVar) {
            ::setenv(name, "/wrong", 1);
        }
    }
    EXPECT_EQ(LGetUserDir(GetParam().which),
              std::string("/home/someone/") + GetParam().homeRelative + "/tessel");
}

INSTANTIATE_TEST_SUITE_P(
    Folders, UserDirCaseTest,
    ::testing::Values(DirCase{LUserDir::kConfig, "TESSEL_CONFIG_DIR", "XDG_CONFIG_HOME", ".config"},
                      DirCase{LUserDir::kCache, "TESSEL_CACHE_DIR", "XDG_CACHE_HOME", ".cache"},
                      DirCase{LUserDir::kData, "TESSEL_DATA_DIR", "XDG_DATA_HOME", ".local/share"},
                      DirCase{LUserDir::kState, "TESSEL_STATE_DIR", "XDG_STATE_HOME",
                              ".local/state"}));

TEST_F(UserDirsTest, TempFolderFollowsTmpdir) {
    ::setenv("TMPDIR", "/scratch", 1);
    EXPECT_EQ(LGetUserDir(LUserDir::kTemp), "/scratch");
    ::setenv("TMPDIR", "", 1);
    EXPECT_EQ(LGetUserDir(LUserDir::kTemp), "/tmp");
}

bool IsFolder(std::string const& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

TEST_F(UserDirsTest, MakeDirsCreatesEveryMissingLevel) {
    std::string const deep = Dir() + "/a/b/c/d";
    ASSERT_TRUE(LMakeDirs(deep));
    EXPECT_TRUE(IsFolder(deep));
    EXPECT_TRUE(LMakeDirs(deep));              // existing is fine
    EXPECT_TRUE(LMakeDirs(Dir() + "/a/b/x/")); // a trailing slash too
    EXPECT_TRUE(IsFolder(Dir() + "/a/b/x"));
    EXPECT_TRUE(LMakeDirs(Dir() + "/a//y"));
    EXPECT_TRUE(IsFolder(Dir() + "/a/y"));
    EXPECT_FALSE(LMakeDirs(""));
}

TEST_F(UserDirsTest, MakeDirsFailsUnderOrOnARegularFile) {
    std::string const file = PathOf("plain");
    ASSERT_TRUE(WriteFileBytes(file, "x", 1));
    EXPECT_FALSE(LMakeDirs(file));
    EXPECT_FALSE(LMakeDirs(file + "/sub"));
    EXPECT_FALSE(LMakeDirs(file + "/sub/deeper"));
    EXPECT_FALSE(IsFolder(file + "/sub"));
}

} // namespace
