// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/gen/settings.h"

#include "llib/unix/signalobject.h"
#include "tests/support/oracle.h"
#include "tests/support/tempdir.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cfloat>
#include <climits>
#include <clocale>
#include <cmath>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <limits>
#include <string>
#include <sys/inotify.h>
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
        if (DIR* dir = ::opendir(m_folder.c_str())) {
            while (dirent const* entry = ::readdir(dir)) {
                if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) {
                    names.emplace_back(entry->d_name);
                }
            }
            ::closedir(dir);
        }
        return names;
    }

    void WriteText(std::string const& text) const {
        ASSERT_TRUE(WriteFileBytes(m_path, text.data(), text.size()));
    }

    std::string m_folder;
    std::string m_path;
};

// Waits for child `pid` and returns its exit status (-1 when it did not exit normally).
int WaitChild(pid_t pid) {
    int status = 0;
    if (::waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) {
        return -1;
    }
    return WEXITSTATUS(status);
}

// ---- Values ----

class SettingsStringTest : public SettingsTest,
                           public ::testing::WithParamInterface<std::string> {};

TEST_P(SettingsStringTest, ValueReadsBackExactlyFromAFreshStore) {
    {
        LSettingsStore store(m_path);
        ASSERT_TRUE(store.SetString("Group", "Key", GetParam().c_str()));
        ASSERT_TRUE(store.SetString("Group", "After", "next line intact"));
        EXPECT_EQ(store.GetString("Group", "Key", "default"), GetParam());
    }
    LSettingsStore fresh(m_path);
    EXPECT_EQ(fresh.GetString("Group", "Key", "default"), GetParam());
    EXPECT_EQ(fresh.GetString("Group", "After", ""), "next line intact");
}

INSTANTIATE_TEST_SUITE_P(Texts, SettingsStringTest,
                         ::testing::Values("", "plain", "two\nlines", "\n", "cr\r\nlf",
                                           "back\\slash", "\\", "ends\\", "\\n is not a newline",
                                           "a=b=c", "=", " leading", "trailing ", "  both  ", " ",
                                           "\tleading tab", "trailing tab\t", "\t", " \t mixed \t ",
                                           "[NotAGroup]", "; not a comment", "# not a comment",
                                           "ünïcödé ✓", "%s %d %n"));

class SettingsDoubleTest : public SettingsTest, public ::testing::WithParamInterface<double> {};

TEST_P(SettingsDoubleTest, DoubleReadsBackBitForBit) {
    {
        LSettingsStore store(m_path);
        ASSERT_TRUE(store.SetDouble("Numbers", "Value", GetParam()));
    }
    LSettingsStore fresh(m_path);
    double const got = fresh.GetDouble("Numbers", "Value", 12345.0);
    if (std::isnan(GetParam())) {
        EXPECT_TRUE(std::isnan(got));
    } else {
        EXPECT_EQ(std::memcmp(&got, &GetParam(), sizeof got), 0) << got;
    }
}

INSTANTIATE_TEST_SUITE_P(Values, SettingsDoubleTest,
                         ::testing::Values(0.0, -0.0, 0.1, 1.0 / 3.0, -2.0 / 3.0, 44100.0,
                                           123456789.123456789, 1e-300, 4.9e-324, DBL_MAX, -DBL_MAX,
                                           DBL_MIN, 0.30000000000000004,
                                           std::numeric_limits<double>::infinity(),
                                           std::numeric_limits<double>::quiet_NaN()));

TEST_F(SettingsTest, IntegersAndBoolsReadBackAtTheirLimits) {
    {
        LSettingsStore store(m_path);
        ASSERT_TRUE(store.SetInt("I", "Min", INT_MIN));
        ASSERT_TRUE(store.SetInt("I", "Max", INT_MAX));
        ASSERT_TRUE(store.SetInt64("I", "Min64", LLONG_MIN));
        ASSERT_TRUE(store.SetInt64("I", "Max64", LLONG_MAX));
        ASSERT_TRUE(store.SetBool("B", "Yes", true));
        ASSERT_TRUE(store.SetBool("B", "No", false));
    }
    LSettingsStore fresh(m_path);
    EXPECT_EQ(fresh.GetInt("I", "Min", 0), INT_MIN);
    EXPECT_EQ(fresh.GetInt("I", "Max", 0), INT_MAX);
    EXPECT_EQ(fresh.GetInt64("I", "Min64", 0), LLONG_MIN);
    EXPECT_EQ(fresh.GetInt64("I", "Max64", 0), LLONG_MAX);
    EXPECT_TRUE(fresh.GetBool("B", "Yes", false));
    EXPECT_FALSE(fresh.GetBool("B", "No", true));
    // An int read of a value beyond int falls back rather than wrapping.
    EXPECT_EQ(fresh.GetInt("I", "Max64", -7), -7);
    EXPECT_EQ(fresh.GetInt("I", "Min64", -7), -7);
}

struct ParseCase {
    char const* text;
    int asInt;         // with default -1
    long long asInt64; // with default -1
    double asDouble;   // with default -1.5
    int asBool;        // with default true: 1 true, 0 false
};

void PrintTo(ParseCase const& c, std::ostream* os) {
    *os << '"' << c.text << '"';
}

class SettingsParseTest : public SettingsTest, public ::testing::WithParamInterface<ParseCase> {};

TEST_P(SettingsParseTest, GettersParseOrFallBackToTheDefault) {
    WriteText(std::string("[G]\nk=") + GetParam().text + "\n");
    LSettingsStore store(m_path);
    EXPECT_EQ(store.GetInt("G", "k", -1), GetParam().asInt);
    EXPECT_EQ(store.GetInt64("G", "k", -1), GetParam().asInt64);
    EXPECT_EQ(store.GetDouble("G", "k", -1.5), GetParam().asDouble);
    EXPECT_EQ(store.GetBool("G", "k", true), GetParam().asBool != 0);
    // A missing key always gives the default.
    EXPECT_EQ(store.GetInt("G", "missing", 77), 77);
    EXPECT_EQ(store.GetString("Nope", "k", "def"), "def");
}

INSTANTIATE_TEST_SUITE_P(
    Texts, SettingsParseTest,
    ::testing::Values(ParseCase{"42", 42, 42, 42.0, 1}, ParseCase{"-17", -17, -17, -17.0, 1},
                      ParseCase{"2147483647", INT_MAX, INT_MAX, 2147483647.0, 1},
                      ParseCase{"2147483648", -1, 2147483648LL, 2147483648.0, 1},
                      ParseCase{"-2147483649", -1, -2147483649LL, -2147483649.0, 1},
                      ParseCase{"9223372036854775808", -1, -1, 9223372036854775808.0, 1},
                      ParseCase{"12abc", -1, -1, -1.5, 1}, ParseCase{"", -1, -1, -1.5, 1},
                      ParseCase{"2.5", -1, -1, 2.5, 1}, ParseCase{"1", 1, 1, 1.0, 1},
                      ParseCase{"0", 0, 0, 0.0, 0}, ParseCase{"false", -1, -1, -1.5, 0},
                      ParseCase{"true", -1, -1, -1.5, 1}, ParseCase{"yes", -1, -1, -1.5, 1},
                      ParseCase{"1.5x", -1, -1, -1.5, 1}, ParseCase{"+2.5", -1, -1, 2.5, 1},
                      ParseCase{"1e400", -1, -1, -1.5, 1}));

// ---- Names ----

struct NameCase {
    char const* group;
    char const* key;
};

void PrintTo(NameCase const& c, std::ostream* os) {
    *os << '[' << c.group << "] " << c.key;
}

class SettingsBadNameTest : public SettingsTest, public ::testing::WithParamInterface<NameCase> {};

TEST_P(SettingsBadNameTest, NameThatCannotBeStoredIsRefused) {
    LSettingsStore store(m_path);
    EXPECT_FALSE(store.SetString(GetParam().group, GetParam().key, "v"));
    EXPECT_FALSE(store.SetInt(GetParam().group, GetParam().key, 1));
    EXPECT_FALSE(store.Remove(GetParam().group, GetParam().key));
    EXPECT_FALSE(store.HasKey(GetParam().group, GetParam().key));
    EXPECT_TRUE(FolderEntries().empty());
    // A good name after a refused one still works and writes only itself.
    ASSERT_TRUE(store.SetString("Good", "Name", "v"));
    EXPECT_EQ(ReadFileBytes(m_path), "[Good]\nName=v\n");
}

INSTANTIATE_TEST_SUITE_P(Names, SettingsBadNameTest,
                         ::testing::Values(NameCase{"", "k"}, NameCase{"G", ""},
                                           NameCase{"a]b", "k"}, NameCase{"two\nlines", "k"},
                                           NameCase{"G", "two\nlines"}, NameCase{"G", "cr\rkey"},
                                           NameCase{"G", "a=b"}, NameCase{" G", "k"},
                                           NameCase{"G\t", "k"}, NameCase{"G", " k"},
                                           NameCase{"G", "k "}, NameCase{"G", ";k"},
                                           NameCase{"G", "#k"}, NameCase{"G", "[k"}));

TEST_F(SettingsTest, UnusualButStorableNamesRoundTrip) {
    std::vector<NameCase> const names = {{"Output Format", "Bits Per Sample"},
                                         {"x.y", "k[1]"},
                                         {"Grüße", "Schlüssel"},
                                         {"a=b", "c]d"},
                                         {"G;x", "k;x"},
                                         {"G", "k#1"}};
    {
        LSettingsStore store(m_path);
        for (NameCase const& n : names) {
            ASSERT_TRUE(store.SetString(n.group, n.key, n.key)) << n.group << " " << n.key;
        }
    }
    LSettingsStore fresh(m_path);
    for (NameCase const& n : names) {
        EXPECT_EQ(fresh.GetString(n.group, n.key, "missing"), n.key) << n.group;
    }
}

// ---- Writing ----

TEST_F(SettingsTest, RemoveDeletesTheKeyAndAnEmptiedGroup) {
    {
        LSettingsStore store(m_path);
        ASSERT_TRUE(store.SetInt("Keep", "a", 1));
        ASSERT_TRUE(store.SetInt("Gone", "b", 2));
        ASSERT_TRUE(store.SetInt("Keep", "c", 3));
        ASSERT_TRUE(store.Remove("Gone", "b"));
        ASSERT_TRUE(store.Remove("Keep", "c"));
        EXPECT_TRUE(store.Remove("Keep", "never-there"));
        EXPECT_FALSE(store.HasKey("Keep", "c"));
    }
    EXPECT_EQ(ReadFileBytes(m_path), "[Keep]\na=1\n");
    LSettingsStore fresh(m_path);
    EXPECT_FALSE(fresh.HasKey("Gone", "b"));
    EXPECT_EQ(fresh.GetInt("Keep", "a", 0), 1);
}

int CountRenamesOnto(int inotifyFd, char const* name) {
    int count = 0;
    alignas(inotify_event) char buffer[4096];
    for (;;) {
        ssize_t const n = ::read(inotifyFd, buffer, sizeof buffer);
        if (n <= 0) {
            return count;
        }
        for (ssize_t at = 0; at < n;) {
            auto const* event = reinterpret_cast<inotify_event const*>(buffer + at);
            if ((event->mask & IN_MOVED_TO) != 0 && event->len > 0 &&
                std::strcmp(event->name, name) == 0) {
                ++count;
            }
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
    }
}

TEST_F(SettingsTest, BatchWritesNothingUntilTheOutermostEndsThenWritesOnce) {
    LSettingsStore store(m_path);
    ASSERT_TRUE(store.SetString("G", "before", "1"));
    std::string const before = ReadFileBytes(m_path);
    LFileDescriptor watch(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    ASSERT_TRUE(watch.IsOpen());
    ASSERT_GE(::inotify_add_watch(watch.Get(), m_folder.c_str(), IN_MOVED_TO | IN_CREATE), 0);
    {
        LSettingsStore::Batch batch(store);
        for (int i = 0; i < 20; ++i) {
            ASSERT_TRUE(store.SetInt("G", ("k" + std::to_string(i)).c_str(), i));
        }
        {
            LSettingsStore::Batch inner(store);
            ASSERT_TRUE(store.SetString("H", "inner", "x"));
            ASSERT_TRUE(store.Remove("G", "before"));
        }
        EXPECT_EQ(ReadFileBytes(m_path), before);
        EXPECT_EQ(store.GetInt("G", "k7", -1), 7); // visible here before it is written
        EXPECT_FALSE(store.HasKey("G", "before"));
        EXPECT_EQ(CountRenamesOnto(watch.Get(), "settings.ini"), 0);
    }
    EXPECT_EQ(CountRenamesOnto(watch.Get(), "settings.ini"), 1);
    LSettingsStore fresh(m_path);
    EXPECT_EQ(fresh.GetInt("G", "k19", -1), 19);
    EXPECT_EQ(fresh.GetString("H", "inner", ""), "x");
    EXPECT_FALSE(fresh.HasKey("G", "before"));
}

TEST_F(SettingsTest, CommittedBatchDoesNotEndTheNextOne) {
    LSettingsStore store(m_path);
    {
        LSettingsStore::Batch batch(store);
        ASSERT_TRUE(store.SetInt("G", "a", 1));
        EXPECT_TRUE(batch.Commit());
        EXPECT_EQ(LSettingsStore(m_path).GetInt("G", "a", 0), 1);
        ASSERT_TRUE(store.SetInt("G", "b", 2)); // written through: the batch is over
        EXPECT_EQ(LSettingsStore(m_path).GetInt("G", "b", 0), 2);
    }
    std::string const written = ReadFileBytes(m_path);
    {
        LSettingsStore::Batch batch(store);
        ASSERT_TRUE(store.SetInt("G", "c", 3));
        EXPECT_EQ(ReadFileBytes(m_path), written);
    }
    EXPECT_EQ(LSettingsStore(m_path).GetInt("G", "c", 0), 3);
}

TEST_F(SettingsTest, HandEditedFileReadsAsAPersonWouldExpect) {
    WriteText("; written by hand\r\n"
              "# another comment\r\n"
              "\r\n"
              "Orphan=before any group\r\n"
              "[Settings]\r\n"
              "  FileNameFormat =  %n-%d  \r\n"
              "RetentionDays=7\r\n"
              "RetentionDays = 9\r\n"
              "\t \r\n"
              "Empty=\r\n"
              "Equation = a=b\r\n"
              "NoEqualsSign\r\n"
              "[Broken\r\n"
              "Lost=1\r\n"
              "[ Cache ]\r\n"
              "Size=10\r\n"
              "  ; indented comment=1\r\n"
              "[Settings]\r\n"
              "Late=yes");
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
    EXPECT_EQ(fresh.GetInt("Settings", "RetentionDays", 0), 9);
    EXPECT_EQ(fresh.GetString("Settings", "Late", ""), "yes");
    EXPECT_EQ(fresh.GetInt("Cache", "Size", 0), 11);
}

TEST_F(SettingsTest, WriteMergesKeysAnotherStoreWroteSinceTheLastRead) {
    LSettingsStore first(m_path);
    LSettingsStore second(m_path);
    ASSERT_TRUE(first.SetString("G", "shared", "first"));
    EXPECT_FALSE(second.HasKey("G", "x")); // loads before the other store writes
    ASSERT_TRUE(first.SetString("G", "fromFirst", "1"));
    ASSERT_TRUE(second.SetString("G", "fromSecond", "2"));
    ASSERT_TRUE(second.Remove("G", "nothing"));
    ASSERT_TRUE(first.Remove("G", "shared"));

    LSettingsStore fresh(m_path);
    EXPECT_EQ(fresh.GetString("G", "fromFirst", ""), "1");
    EXPECT_EQ(fresh.GetString("G", "fromSecond", ""), "2");
    EXPECT_FALSE(fresh.HasKey("G", "shared"));
}

TEST_F(SettingsTest, ReloadSeesOtherWritesAndKeepsUnwrittenChanges) {
    LSettingsStore mine(m_path);
    LSettingsStore other(m_path);
    ASSERT_TRUE(other.SetString("G", "a", "old"));
    EXPECT_EQ(mine.GetString("G", "a", ""), "old");
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
    EXPECT_EQ(fresh.GetString("G", "a", ""), "new");
    EXPECT_EQ(fresh.GetString("G", "pending", ""), "p");
    EXPECT_FALSE(fresh.HasKey("G", "doomed"));
}

TEST_F(SettingsTest, MissingFileIsAnEmptyStoreAndWritesLeaveNoTempFile) {
    LSettingsStore store(m_path);
    EXPECT_TRUE(store.Reload());
    EXPECT_FALSE(store.HasKey("G", "k"));
    EXPECT_TRUE(store.Flush()); // nothing pending
    EXPECT_TRUE(FolderEntries().empty());
    for (int i = 0; i < 10; ++i) {
        ASSERT_TRUE(store.SetInt("G", ("k" + std::to_string(i % 3)).c_str(), i));
        ASSERT_TRUE(store.Remove("G", "k0"));
    }
    EXPECT_EQ(FolderEntries(), std::vector<std::string>{"settings.ini"});
    struct stat st {};
    ASSERT_EQ(::stat(m_path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
}

TEST_F(SettingsTest, StoreWhoseFolderCannotBeMadeFailsWritesAndAnswersDefaults) {
    std::string const blocker = PathOf("blocker");
    ASSERT_TRUE(WriteFileBytes(blocker, "x", 1));
    LSettingsStore store(blocker + "/sub/settings.ini");
    EXPECT_FALSE(store.SetInt("G", "a", 1));
    EXPECT_FALSE(store.SetString("G", "b", "x"));
    EXPECT_FALSE(store.Flush());
    EXPECT_EQ(store.GetInt("G", "unset", 5), 5);
    EXPECT_EQ(store.GetString("Other", "k", "def"), "def");
    EXPECT_FALSE(store.Reload());
    {
        LSettingsStore::Batch batch(store);
        ASSERT_TRUE(store.SetInt("G", "c", 3)); // deferred: nothing fails yet
        EXPECT_FALSE(batch.Commit());
    }
    EXPECT_EQ(ReadFileBytes(blocker), "x");
}

TEST_F(SettingsTest, ThreadsSharingAStoreLoseNoKeys) {
    LSettingsStore store(m_path);
    std::atomic<int> failures{0};
    auto writer = [&](char prefix) {
        for (int i = 0; i < 30; ++i) {
            std::string const key = prefix + std::to_string(i);
            if (!store.SetInt("T", key.c_str(), i)) {
                ++failures;
            }
        }
    };
    LThread a;
    LThread b;
    ASSERT_TRUE(a.Start([&] { writer('a'); }));
    ASSERT_TRUE(b.Start([&] { writer('b'); }));
    a.Join();
    b.Join();
    EXPECT_EQ(failures, 0);
    LSettingsStore fresh(m_path);
    for (int i = 0; i < 30; ++i) {
        EXPECT_EQ(fresh.GetInt("T", ("a" + std::to_string(i)).c_str(), -1), i);
        EXPECT_EQ(fresh.GetInt("T", ("b" + std::to_string(i)).c_str(), -1), i);
    }
}

// ---- Several processes ----

TEST_F(SettingsTest, TwoProcessesWritingAtOnceLoseNeithersKeys) {
    constexpr int kKeys = 150;
    int gate[2];
    ASSERT_EQ(::pipe2(gate, O_CLOEXEC), 0);
    pid_t children[2] = {-1, -1};
    for (int c = 0; c < 2; ++c) {
        children[c] = ::fork();
        ASSERT_GE(children[c], 0);
        if (children[c] == 0) {
            ::close(gate[1]);
            char go = 0;
            (void)!::read(gate[0], &go, 1); // both start together when the gate closes
            LSettingsStore store(m_path);
            int failures = 0;
            for (int i = 0; i < kKeys; ++i) {
                std::string const key =
                    std::string(1, static_cast<char>('a' + c)) + std::to_string(i);
                failures += store.SetInt("Shared", key.c_str(), i * 10 + c) ? 0 : 1;
            }
            ::_exit(failures == 0 ? 0 : 1);
        }
    }
    ::close(gate[0]);
    ::close(gate[1]);
    EXPECT_EQ(WaitChild(children[0]), 0) << "a write failed in the first process";
    EXPECT_EQ(WaitChild(children[1]), 0) << "a write failed in the second process";

    LSettingsStore fresh(m_path);
    int missing = 0;
    for (int c = 0; c < 2; ++c) {
        for (int i = 0; i < kKeys; ++i) {
            std::string const key = std::string(1, static_cast<char>('a' + c)) + std::to_string(i);
            missing += fresh.GetInt("Shared", key.c_str(), -1) == i * 10 + c ? 0 : 1;
        }
    }
    EXPECT_EQ(missing, 0) << "of " << 2 * kKeys << " keys";
    EXPECT_EQ(FolderEntries(), std::vector<std::string>{"settings.ini"});
}

TEST_F(SettingsTest, ReaderInAnotherProcessNeverSeesAHalfWrittenFile) {
    {
        LSettingsStore store(m_path);
        ASSERT_TRUE(store.SetString("Fixed", "Known", "present"));
        ASSERT_TRUE(store.SetString("Fixed", "Big", std::string(50000, 'a').c_str()));
    }
    int ready[2];
    int done[2];
    ASSERT_EQ(::pipe2(ready, O_CLOEXEC), 0);
    ASSERT_EQ(::pipe2(done, O_CLOEXEC), 0);
    pid_t const reader = ::fork();
    ASSERT_GE(reader, 0);
    if (reader == 0) {
        ::close(ready[0]);
        ::close(done[1]);
        ::fcntl(done[0], F_SETFL, O_NONBLOCK);
        LSettingsStore store(m_path);
        int result = 0;
        bool announced = false;
        bool stop = false;
        do {
            if (!store.Reload() || store.GetString("Fixed", "Known", "") != "present") {
                result = 1;
                break;
            }
            // A value must come whole from one version of the file.
            std::string const big = store.GetString("Fixed", "Big", "");
            if (big.size() != 50000 || big.find_first_not_of(big[0]) != std::string::npos) {
                result = 2;
                break;
            }
            if (!announced) {
                char const r = 'r';
                (void)!::write(ready[1], &r, 1);
                announced = true;
            }
            char byte = 0;
            stop = ::read(done[0], &byte, 1) >= 0; // the writer closed its end
        } while (!stop);
        ::_exit(result);
    }
    ::close(ready[1]);
    ::close(done[0]);
    char r = 0;
    ASSERT_EQ(::read(ready[0], &r, 1), 1);
    LSettingsStore writer(m_path);
    for (int i = 0; i < 40; ++i) {
        std::string const big(50000, static_cast<char>('b' + i % 20));
        ASSERT_TRUE(writer.SetString("Fixed", "Big", big.c_str()));
        ASSERT_TRUE(writer.SetInt("Other", ("k" + std::to_string(i)).c_str(), i));
    }
    ::close(done[1]);
    ::close(ready[0]);
    EXPECT_EQ(WaitChild(reader), 0) << "1: key missing or reload failed, 2: torn value";
}

// ---- Locale ----

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

TEST_F(SettingsTest, RewriteKeepsThePermissionsTheUserGaveTheFile) {
    WriteText("[A]\nB=1\n");
    ASSERT_EQ(::chmod(m_path.c_str(), 0600), 0);
    LSettingsStore store(m_path);
    ASSERT_TRUE(store.SetInt("A", "C", 2));
    struct stat st {};
    ASSERT_EQ(::stat(m_path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_EQ(LSettingsStore(m_path).GetInt("A", "C", 0), 2);
}

} // namespace
