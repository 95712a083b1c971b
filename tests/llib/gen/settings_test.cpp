// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/gen/settings.h"

#include "llib/unix/thread.h"
#include "tests/support/oracle.h"
#include "tests/support/tempdir.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <climits>
#include <clocale>
#include <cmath>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <limits>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

class SettingsTest : public LTempDirTest {
protected:
    void SetUp() override {
        LTempDirTest::SetUp();
        m_folder = Dir() + "/CONFIG";
        m_path = m_folder + "/settings.ini";
    }
    [[nodiscard]] std::vector<std::string> FolderEntries() const {
        std::vector<std::string> names;
        std::error_code error;
        for (auto const& entry : std::filesystem::directory_iterator(m_folder, error)) {
            names.push_back(entry.path().filename());
        }
        return names;
    }
    void WriteText(std::string const& text) const {
        ASSERT_TRUE(WriteFileBytes(m_path, text.data(), text.size()));
    }
    [[nodiscard]] unsigned FileMode() const {
        return static_cast<unsigned>(std::filesystem::status(m_path).permissions());
    }
    std::string m_folder;
    std::string m_path;
};

// Runs `body` in a child process; WaitChild gives its exit code, -1 when it did not exit.
pid_t Fork(std::function<int()> const& body) {
    pid_t const pid = ::fork();
    if (pid == 0) {
        ::_exit(body());
    }
    return pid;
}

int WaitChild(pid_t pid) {
    int status = 0;
    return ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string Key(char prefix, int i) {
    return prefix + std::to_string(i);
}

TEST_F(SettingsTest, ValuesReadBackExactlyFromAFreshStore) {
    // clang-format off
    std::vector<std::string> const texts = {"", "two\nlines", "cr\r\nlf", "\\", "ends\\",
        "\\n is not a newline", "a=b=c", " leading", "trailing ", " ", "\tleading tab",
        "trailing tab\t", " \t mixed \t ", "[NotAGroup]", "; not a comment", "# not a comment",
        "ünïcödé ✓", "%s %d %n"};
    std::vector<double> const doubles = {0.0, -0.0, 0.1, 1.0 / 3.0, -2.0 / 3.0,
        123456789.123456789, 4.9e-324, DBL_MAX, -DBL_MAX, DBL_MIN, 0.30000000000000004,
        std::numeric_limits<double>::infinity()};
    // clang-format on
    {
        LSettingsStore store(m_path);
        for (std::size_t i = 0; i < texts.size(); ++i) {
            ASSERT_TRUE(store.SetString("S", Key('k', int(i)).c_str(), texts[i].c_str()));
        }
        for (std::size_t i = 0; i < doubles.size(); ++i) {
            ASSERT_TRUE(store.SetDouble("D", Key('k', int(i)).c_str(), doubles[i]));
        }
        ASSERT_TRUE(store.SetDouble("D", "nan", std::numeric_limits<double>::quiet_NaN()));
        ASSERT_TRUE(store.SetInt("I", "Min", INT_MIN) && store.SetInt("I", "Max", INT_MAX));
        ASSERT_TRUE(store.SetInt64("I", "Min64", LLONG_MIN) && store.SetBool("B", "No", false));
    }
    LSettingsStore fresh(m_path);
    for (std::size_t i = 0; i < texts.size(); ++i) {
        EXPECT_EQ(fresh.GetString("S", Key('k', int(i)).c_str(), "default"), texts[i]);
    }
    for (std::size_t i = 0; i < doubles.size(); ++i) {
        double const got = fresh.GetDouble("D", Key('k', int(i)).c_str(), 12345.0);
        EXPECT_EQ(std::memcmp(&got, &doubles[i], sizeof got), 0) << doubles[i] << " " << got;
    }
    EXPECT_TRUE(std::isnan(fresh.GetDouble("D", "nan", 0.0)));
    EXPECT_EQ(fresh.GetInt("I", "Min", 0), INT_MIN);
    EXPECT_EQ(fresh.GetInt("I", "Max", 0), INT_MAX);
    EXPECT_EQ(fresh.GetInt64("I", "Min64", 0), LLONG_MIN);
    EXPECT_FALSE(fresh.GetBool("B", "No", true));
}

struct ParseCase {
    char const* text;
    int asInt;         // with default -1
    long long asInt64; // with default -1
    double asDouble;   // with default -1.5
    bool asBool;       // with default true
};

TEST_F(SettingsTest, GettersParseOrFallBackToTheDefault) {
    // clang-format off
    std::vector<ParseCase> const cases = {{"-17", -17, -17, -17.0, true},
        {"2147483648", -1, 2147483648LL, 2147483648.0, true}, {"0", 0, 0, 0.0, false},
        {"-2147483649", -1, -2147483649LL, -2147483649.0, true}, {"1e400", -1, -1, -1.5, true},
        {"9223372036854775808", -1, -1, 9223372036854775808.0, true}, {"", -1, -1, -1.5, true},
        {"12abc", -1, -1, -1.5, true}, {"+2.5", -1, -1, 2.5, true}, {"1.5x", -1, -1, -1.5, true},
        {"false", -1, -1, -1.5, false}};
    // clang-format on
    std::string text;
    for (std::size_t i = 0; i < cases.size(); ++i) {
        text += Key('k', int(i)) + "=" + cases[i].text + "\n";
    }
    WriteText("[G]\n" + text);
    LSettingsStore store(m_path);
    for (std::size_t i = 0; i < cases.size(); ++i) {
        std::string const key = Key('k', int(i));
        SCOPED_TRACE(cases[i].text);
        EXPECT_EQ(store.GetInt("G", key.c_str(), -1), cases[i].asInt);
        EXPECT_EQ(store.GetInt64("G", key.c_str(), -1), cases[i].asInt64);
        EXPECT_EQ(store.GetDouble("G", key.c_str(), -1.5), cases[i].asDouble);
        EXPECT_EQ(store.GetBool("G", key.c_str(), true), cases[i].asBool);
    }
    EXPECT_EQ(store.GetInt("G", "missing", 77), 77);
}

TEST_F(SettingsTest, NamesThatCannotBeStoredAreRefusedAndUnusualOnesRoundTrip) {
    std::vector<std::pair<char const*, char const*>> const bad = {
        {"", "k"},        {"G", ""},    {"a]b", "k"}, {"two\nlines", "k"},
        {"G", "cr\rkey"}, {"G", "a=b"}, {" G", "k"},  {"G\t", "k"},
        {"G", "k "},      {"G", ";k"},  {"G", "#k"},  {"G", "[k"}};
    std::vector<std::pair<char const*, char const*>> const good = {
        {"Output Format", "Bits Per Sample"}, {"Grüße", "k[1]"}, {"a=b", "c]d"}, {"G;x", "k#1"}};
    LSettingsStore store(m_path);
    for (auto const& [group, key] : bad) {
        EXPECT_FALSE(store.SetString(group, key, "v")) << group << "|" << key;
        EXPECT_FALSE(store.Remove(group, key)) << group << "|" << key;
    }
    EXPECT_TRUE(FolderEntries().empty());
    for (auto const& [group, key] : good) {
        ASSERT_TRUE(store.SetString(group, key, key)) << group << "|" << key;
    }
    LSettingsStore fresh(m_path);
    for (auto const& [group, key] : good) {
        EXPECT_EQ(fresh.GetString(group, key, "missing"), key) << group;
    }
}

TEST_F(SettingsTest, RemoveDeletesTheKeyAndAnEmptiedGroup) {
    LSettingsStore store(m_path);
    ASSERT_TRUE(store.SetInt("Keep", "a", 1) && store.SetInt("Gone", "b", 2));
    ASSERT_TRUE(store.SetInt("Keep", "c", 3));
    ASSERT_TRUE(store.Remove("Gone", "b") && store.Remove("Keep", "c"));
    EXPECT_TRUE(store.Remove("Keep", "never-there"));
    EXPECT_EQ(ReadFileBytes(m_path), "[Keep]\na=1\n");
}

TEST_F(SettingsTest, BatchDefersWritesUntilTheOutermostEndsOrCommits) {
    LSettingsStore store(m_path);
    ASSERT_TRUE(store.SetString("G", "before", "1"));
    std::string const before = ReadFileBytes(m_path);
    {
        LSettingsStore::Batch batch(store);
        ASSERT_TRUE(store.SetInt("G", "k", 7));
        {
            LSettingsStore::Batch inner(store);
            ASSERT_TRUE(store.Remove("G", "before"));
        }
        EXPECT_EQ(ReadFileBytes(m_path), before);
        EXPECT_EQ(store.GetInt("G", "k", -1), 7); // visible here before it is written
        EXPECT_FALSE(store.HasKey("G", "before"));
    }
    EXPECT_EQ(LSettingsStore(m_path).GetInt("G", "k", -1), 7);
    EXPECT_FALSE(LSettingsStore(m_path).HasKey("G", "before"));
    {
        LSettingsStore::Batch batch(store);
        ASSERT_TRUE(store.SetInt("G", "a", 1));
        EXPECT_TRUE(batch.Commit());
        EXPECT_EQ(LSettingsStore(m_path).GetInt("G", "a", 0), 1);
        ASSERT_TRUE(store.SetInt("G", "b", 2)); // written through: the batch is over
        EXPECT_EQ(LSettingsStore(m_path).GetInt("G", "b", 0), 2);
    }
    LSettingsStore::Batch next(store); // the committed one ending must not end this one
    ASSERT_TRUE(store.SetInt("G", "c", 3));
    EXPECT_FALSE(LSettingsStore(m_path).HasKey("G", "c"));
}

TEST_F(SettingsTest, HandEditedFileReadsAsAPersonWouldExpect) {
    // clang-format off
    WriteText("; written by hand\r\n# another comment\r\n\r\nOrphan=before any group\r\n"
              "[Settings]\r\n  FileNameFormat =  %n-%d  \r\nRetentionDays=7\r\n"
              "RetentionDays = 9\r\n\t \r\nEmpty=\r\nEquation = a=b\r\nNoEqualsSign\r\n"
              "[Broken\r\nLost=1\r\n[ Cache ]\r\nSize=10\r\n  ; indented comment=1\r\n"
              "[Settings]\r\nLate=yes");
    // clang-format on
    LSettingsStore store(m_path);
    EXPECT_EQ(store.GetString("Settings", "FileNameFormat", ""), "%n-%d");
    EXPECT_EQ(store.GetInt("Settings", "RetentionDays", 0), 9);
    EXPECT_TRUE(store.HasKey("Settings", "Empty"));
    EXPECT_EQ(store.GetString("Settings", "Empty", "def"), "");
    EXPECT_EQ(store.GetString("Settings", "Equation", ""), "a=b");
    EXPECT_EQ(store.GetString("Settings", "Late", ""), "yes"); // no line end at all
    EXPECT_EQ(store.GetInt("Cache", "Size", 0), 10);
    EXPECT_FALSE(store.HasKey("Settings", "Orphan"));
    EXPECT_FALSE(store.HasKey("Settings", "NoEqualsSign"));
    // Keys under a broken header belong to no group, least of all the one before it.
    EXPECT_FALSE(store.HasKey("Settings", "Lost"));
    EXPECT_FALSE(store.HasKey("Broken", "Lost"));
    EXPECT_FALSE(store.HasKey("Cache", "; indented comment"));

    // A write keeps what the person wrote.
    ASSERT_TRUE(store.SetInt("Cache", "Size", 11));
    LSettingsStore fresh(m_path);
    EXPECT_EQ(fresh.GetString("Settings", "FileNameFormat", ""), "%n-%d");
    EXPECT_EQ(fresh.GetString("Settings", "Late", ""), "yes");
    EXPECT_EQ(fresh.GetInt("Cache", "Size", 0), 11);
}

// The write merges with what other stores wrote since this one read, and a Reload keeps what
// this one has not written yet.
TEST_F(SettingsTest, WriteMergesOtherStoresKeysAndReloadKeepsUnwrittenChanges) {
    LSettingsStore mine(m_path);
    LSettingsStore other(m_path);
    ASSERT_TRUE(other.SetString("G", "a", "old"));
    ASSERT_TRUE(mine.SetString("G", "shared", "mine"));
    EXPECT_EQ(mine.GetString("G", "a", ""), "old");
    ASSERT_TRUE(other.SetString("G", "fromOther", "1"));
    ASSERT_TRUE(mine.Remove("G", "shared"));
    EXPECT_EQ(LSettingsStore(m_path).GetString("G", "fromOther", ""), "1");
    {
        LSettingsStore::Batch batch(mine);
        ASSERT_TRUE(mine.SetString("G", "pending", "p"));
        ASSERT_TRUE(mine.Remove("G", "doomed"));
        ASSERT_TRUE(other.SetString("G", "a", "new"));
        ASSERT_TRUE(other.SetString("G", "doomed", "x"));
        ASSERT_TRUE(mine.Reload());
        EXPECT_EQ(mine.GetString("G", "a", ""), "new");
        EXPECT_EQ(mine.GetString("G", "pending", ""), "p");
        EXPECT_FALSE(mine.HasKey("G", "doomed"));
        EXPECT_FALSE(LSettingsStore(m_path).HasKey("G", "pending"));
    }
    LSettingsStore fresh(m_path);
    EXPECT_EQ(fresh.GetString("G", "fromOther", ""), "1");
    EXPECT_EQ(fresh.GetString("G", "a", ""), "new");
    EXPECT_EQ(fresh.GetString("G", "pending", ""), "p");
    EXPECT_FALSE(fresh.HasKey("G", "doomed"));
    EXPECT_FALSE(fresh.HasKey("G", "shared"));
}

TEST_F(SettingsTest, WritesLeaveNoTempFileAndKeepThePermissionsTheUserGave) {
    LSettingsStore store(m_path);
    EXPECT_TRUE(store.Reload()); // a missing file is an empty store
    EXPECT_TRUE(store.Flush());
    EXPECT_TRUE(FolderEntries().empty());
    for (int i = 0; i < 10; ++i) {
        ASSERT_TRUE(store.SetInt("G", Key('k', i % 3).c_str(), i) && store.Remove("G", "k0"));
    }
    EXPECT_EQ(FolderEntries(), std::vector<std::string>{"settings.ini"});
    EXPECT_EQ(FileMode(), 0644u);
    ASSERT_EQ(::chmod(m_path.c_str(), 0600), 0);
    ASSERT_TRUE(store.SetInt("A", "C", 2));
    EXPECT_EQ(FileMode(), 0600u);
}

TEST_F(SettingsTest, StoreWhoseFolderCannotBeMadeFailsWritesAndAnswersDefaults) {
    std::string const blocker = PathOf("blocker");
    ASSERT_TRUE(WriteFileBytes(blocker, "x", 1));
    LSettingsStore store(blocker + "/sub/settings.ini");
    EXPECT_FALSE(store.SetInt("G", "a", 1));
    EXPECT_FALSE(store.Reload());
    EXPECT_EQ(store.GetInt("G", "unset", 5), 5);
    {
        LSettingsStore::Batch batch(store);
        ASSERT_TRUE(store.SetInt("G", "c", 3)); // deferred: nothing fails yet
        EXPECT_FALSE(batch.Commit());
    }
    EXPECT_FALSE(store.Flush());
    EXPECT_EQ(ReadFileBytes(blocker), "x");
}

TEST_F(SettingsTest, WriteThatRunsOutOfSpaceLeavesTheOldFileWhole) {
    WriteText("[G]\nold=1\n");
    pid_t const child = Fork([&] {
        LSettingsStore store(m_path);
        std::signal(SIGXFSZ, SIG_IGN); // the write then fails with EFBIG, as on a full disk
        rlimit const limit{1000, 1000};
        return ::setrlimit(RLIMIT_FSIZE, &limit) == 0 &&
                       !store.SetString("G", "big", std::string(5000, 'x').c_str())
                   ? 0
                   : 1;
    });
    EXPECT_EQ(WaitChild(child), 0);
    EXPECT_EQ(ReadFileBytes(m_path), "[G]\nold=1\n");
    EXPECT_EQ(FolderEntries(), std::vector<std::string>{"settings.ini"});
}

// Two writers at once, as threads on one store or as processes on their own stores, lose nothing.
TEST_F(SettingsTest, ConcurrentWritersLoseNoKeys) {
    constexpr int kKeys = 100;
    auto writeKeys = [this](LSettingsStore& store, char prefix) {
        int failures = 0;
        for (int i = 0; i < kKeys; ++i) {
            failures += store.SetInt("Shared", Key(prefix, i).c_str(), i) ? 0 : 1;
        }
        return failures;
    };
    {
        LSettingsStore store(m_path);
        int threadFailures = 0;
        LThread thread;
        ASSERT_TRUE(thread.Start([&] { threadFailures = writeKeys(store, 'a'); }));
        int const failures = writeKeys(store, 'b');
        thread.Join();
        EXPECT_EQ(failures + threadFailures, 0);
    }
    int gate[2];
    ASSERT_EQ(::pipe2(gate, O_CLOEXEC), 0);
    pid_t children[2];
    for (char const prefix : {'c', 'd'}) {
        children[prefix - 'c'] = Fork([&] {
            ::close(gate[1]);
            char go = 0;
            (void)!::read(gate[0], &go, 1); // both start together when the gate closes
            LSettingsStore store(m_path);
            return writeKeys(store, prefix) == 0 ? 0 : 1;
        });
    }
    ::close(gate[0]);
    ::close(gate[1]);
    EXPECT_EQ(WaitChild(children[0]), 0) << "a write failed in the first process";
    EXPECT_EQ(WaitChild(children[1]), 0) << "a write failed in the second process";
    LSettingsStore fresh(m_path);
    int missing = 0;
    for (char const prefix : {'a', 'b', 'c', 'd'}) {
        for (int i = 0; i < kKeys; ++i) {
            missing += fresh.GetInt("Shared", Key(prefix, i).c_str(), -1) == i ? 0 : 1;
        }
    }
    EXPECT_EQ(missing, 0) << "of " << 4 * kKeys << " keys";
    EXPECT_EQ(FolderEntries(), std::vector<std::string>{"settings.ini"});
}

TEST_F(SettingsTest, ReaderInAnotherProcessNeverSeesAHalfWrittenFile) {
    LSettingsStore writer(m_path);
    ASSERT_TRUE(writer.SetString("Fixed", "Known", "present"));
    ASSERT_TRUE(writer.SetString("Fixed", "Big", std::string(50000, 'a').c_str()));
    int ready[2];
    int done[2];
    ASSERT_EQ(::pipe2(ready, O_CLOEXEC), 0);
    ASSERT_EQ(::pipe2(done, O_CLOEXEC | O_NONBLOCK), 0);
    pid_t const reader = Fork([&] {
        ::close(ready[0]);
        ::close(done[1]);
        LSettingsStore store(m_path);
        char byte = 'r';
        do {
            if (!store.Reload() || store.GetString("Fixed", "Known", "") != "present") {
                return 1;
            }
            // A value must come whole from one version of the file.
            std::string const big = store.GetString("Fixed", "Big", "");
            if (big.size() != 50000 || big.find_first_not_of(big[0]) != std::string::npos) {
                return 2;
            }
            if (byte == 'r') {
                (void)!::write(ready[1], &byte, 1);
                byte = 0;
            }
        } while (::read(done[0], &byte, 1) < 0); // until the writer closes its end
        return 0;
    });
    ::close(ready[1]);
    ::close(done[0]);
    char r = 0;
    ASSERT_EQ(::read(ready[0], &r, 1), 1);
    for (int i = 0; i < 40; ++i) {
        ASSERT_TRUE(
            writer.SetString("Fixed", "Big", std::string(50000, char('b' + i % 20)).c_str()));
        ASSERT_TRUE(writer.SetInt("Other", Key('k', i).c_str(), i));
    }
    ::close(done[1]);
    ::close(ready[0]);
    EXPECT_EQ(WaitChild(reader), 0) << "1: key missing or reload failed, 2: torn value";
}

TEST_F(SettingsTest, DoublesAreWrittenAndReadTheSameUnderACommaLocale) {
    std::string const previous = std::setlocale(LC_NUMERIC, nullptr);
    if (std::setlocale(LC_NUMERIC, "de_DE.UTF-8") == nullptr) {
        // Not installed system-wide: compile it into the test folder (the locale sources come
        // with Debian's "locales" package, which the setup installs).
        TESSEL_REQUIRE_TOOL("localedef");
        std::string const folder = Dir() + "/locale";
        ASSERT_EQ(::mkdir(folder.c_str(), 0755), 0);
        std::string output;
        (void)RunTool({"localedef", "-i", "de_DE", "-f", "UTF-8", folder + "/de_DE.UTF-8"},
                      &output);
        ::setenv("LOCPATH", folder.c_str(), 1);
        char const* const made = std::setlocale(LC_NUMERIC, "de_DE.UTF-8");
        ::unsetenv("LOCPATH");
        ASSERT_NE(made, nullptr) << "could not make the de_DE.UTF-8 locale: " << output;
    }
    WriteText("[N]\nQuarter=0.25\n");
    LSettingsStore store(m_path);
    double const quarter = store.GetDouble("N", "Quarter", -1.0);
    bool const written = store.SetDouble("N", "Half", 0.5);
    std::setlocale(LC_NUMERIC, previous.c_str());
    EXPECT_EQ(quarter, 0.25);
    ASSERT_TRUE(written);
    EXPECT_EQ(LSettingsStore(m_path).GetString("N", "Half", ""), "0.5");
}

} // namespace
