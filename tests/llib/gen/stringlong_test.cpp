// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/gen/stringlong.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr char kCanary = '\x5A';

// A caller buffer of `chars` characters with canary bytes after it, to see any write past it.
struct GuardedBuffer {
    explicit GuardedBuffer(std::size_t size) : chars(size), bytes(size + 16, kCanary) {}
    char* Get() { return bytes.data(); }
    [[nodiscard]] bool GuardIntact() const {
        for (std::size_t i = chars; i < bytes.size(); ++i) {
            if (bytes[i] != kCanary) {
                return false;
            }
        }
        return true;
    }
    std::size_t chars;
    std::vector<char> bytes;
};

class StrCopyTest : public ::testing::TestWithParam<std::size_t> {};

TEST_P(StrCopyTest, CopiesWhatFitsAndAlwaysTerminates) {
    std::size_t const chars = GetParam();
    std::string const source = "hello, world";
    GuardedBuffer buffer(chars);
    LStrCopy(buffer.Get(), chars, source.c_str());
    std::size_t const expected = std::min(source.size(), chars - 1);
    EXPECT_EQ(std::string(buffer.Get()), source.substr(0, expected));
    EXPECT_EQ(buffer.Get()[expected], '\0');
    EXPECT_TRUE(buffer.GuardIntact());
}

TEST_P(StrCopyTest, PrintfTruncatesReturnsTheCharactersWrittenAndTerminates) {
    std::size_t const chars = GetParam();
    GuardedBuffer buffer(chars);
    int const n = LStrPrintf(buffer.Get(), chars, "%s-%d", "hello, world", 42);
    std::string const full = "hello, world-42";
    std::size_t const expected = std::min(full.size(), chars - 1);
    EXPECT_EQ(n, static_cast<int>(expected));
    EXPECT_EQ(std::string(buffer.Get()), full.substr(0, expected));
    EXPECT_TRUE(buffer.GuardIntact());
}

INSTANTIATE_TEST_SUITE_P(BufferSizes, StrCopyTest,
                         ::testing::Values(std::size_t{1}, std::size_t{2}, std::size_t{12},
                                           std::size_t{13}, std::size_t{15}, std::size_t{16},
                                           kLMaxText));

TEST(StrCopy, ZeroSizedBufferIsNeverWritten) {
    GuardedBuffer buffer(0);
    LStrCopy(buffer.Get(), 0, "abc");
    EXPECT_EQ(LStrPrintf(buffer.Get(), 0, "%s", "abc"), 0);
    EXPECT_TRUE(buffer.GuardIntact());
}

TEST(StrCopy, NullSourceGivesAnEmptyString) {
    char buffer[8] = "xxxxxxx";
    LStrCopy(buffer, sizeof buffer, nullptr);
    EXPECT_STREQ(buffer, "");
}

class StrFormatTest : public ::testing::TestWithParam<std::size_t> {};

TEST_P(StrFormatTest, FormatsTextsOfAnyLengthWhole) {
    std::string piece(GetParam(), 'x');
    for (std::size_t i = 0; i < piece.size(); i += 97) {
        piece[i] = static_cast<char>('a' + i % 26);
    }
    std::string const out = LStrFormat("<%s|%d|%s>", piece.c_str(), -17, piece.c_str());
    EXPECT_EQ(out, "<" + piece + "|-17|" + piece + ">");
    EXPECT_EQ(std::strlen(out.c_str()), out.size());
}

INSTANTIATE_TEST_SUITE_P(Lengths, StrFormatTest,
                         ::testing::Values(std::size_t{0}, std::size_t{1}, kLMaxText,
                                           std::size_t{1023}, std::size_t{1024},
                                           std::size_t{100000}));

TEST(StrFormat, EmptyResultIsAnEmptyString) {
    EXPECT_EQ(LStrFormat("%s", ""), "");
}

TEST(StringLong, NullTextsAreEmptyStrings) {
    LStringLong fromNull(nullptr);
    EXPECT_TRUE(fromNull.IsEmpty());
    EXPECT_STREQ(fromNull.Get(), "");
    LStringLong text("abc");
    text.Set(nullptr);
    EXPECT_TRUE(text.IsEmpty());
    text.Set("abcdef", 3);
    text.Append("xyz");
    EXPECT_STREQ(text.Get(), "abcxyz");
    EXPECT_EQ(text.GetLength(), 6u);
}

} // namespace
