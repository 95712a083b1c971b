// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/gen/stringlong.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

class StrCopyTest : public ::testing::TestWithParam<std::size_t> {};

// Canary bytes after the caller buffer show any write past it.
TEST_P(StrCopyTest, CopyAndPrintfTruncateTerminateAndStayInTheBuffer) {
    std::size_t const chars = GetParam();
    for (bool printf : {false, true}) {
        std::vector<char> buffer(chars + 16, 'Z');
        std::string const full = printf ? "hello, world-42" : "hello, world";
        int const n = printf ? LStrPrintf(buffer.data(), chars, "%s-%d", "hello, world", 42) : 0;
        if (!printf) {
            LStrCopy(buffer.data(), chars, full.c_str());
        }
        std::size_t const expected = chars == 0 ? 0 : std::min(full.size(), chars - 1);
        if (chars > 0) {
            EXPECT_EQ(std::string(buffer.data()), full.substr(0, expected));
        }
        EXPECT_EQ(n, printf ? static_cast<int>(expected) : 0);
        EXPECT_EQ(std::string(buffer.begin() + static_cast<long>(chars), buffer.end()),
                  std::string(16, 'Z'));
    }
}

INSTANTIATE_TEST_SUITE_P(BufferSizes, StrCopyTest,
                         ::testing::Values(std::size_t{0}, std::size_t{1}, std::size_t{12},
                                           std::size_t{13}, std::size_t{16}, kLMaxText));

TEST(StrFormat, FormatsTextsOfAnyLengthWhole) {
    for (std::size_t length : {std::size_t{0}, kLMaxText, std::size_t{1024}, std::size_t{100000}}) {
        std::string const piece(length, 'x');
        EXPECT_EQ(LStrFormat("<%s|%d|%s>", piece.c_str(), -17, piece.c_str()),
                  "<" + piece + "|-17|" + piece + ">");
    }
}

TEST(StringLong, TextConstructorKeepsTheTextAndNullIsEmpty) {
    EXPECT_STREQ(LStringLong("abc").Get(), "abc");
    EXPECT_STREQ(LStringLong(nullptr).Get(), "");
    char buffer[8] = "xxxxxxx";
    LStrCopy(buffer, sizeof buffer, nullptr);
    EXPECT_STREQ(buffer, "");
    LStringLong text("abc");
    text.Set("abcdef", 3);
    text.Append("xyz");
    EXPECT_STREQ(text.Get(), "abcxyz");
}

} // namespace
