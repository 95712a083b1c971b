// SPDX-License-Identifier: GPL-3.0-or-later
// LMD5 against the published MD5 test suite, and pieces of any size against one whole update.

#include "llib/gen/md5.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <string>
#include <vector>

namespace {

std::string Digest(std::string const& text) {
    LMD5 md5;
    md5.Update(text.data(), text.size());
    return LMD5::ToHex(md5.Finish());
}

TEST(MD5, MatchesTheReferenceTestSuite) {
    struct Case {
        char const* text;
        char const* digest;
    };
    Case const cases[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
         "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"1234567890123456789012345678901234567890"
         "1234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
    };
    for (Case const& c : cases) {
        EXPECT_EQ(Digest(c.text), c.digest) << '"' << c.text << '"';
    }
}

TEST(MD5, PiecewiseUpdatesEqualOneUpdateAcrossBlockAndPaddingEdges) {
    // Lengths either side of where the length field no longer fits the last block (56) and of
    // whole blocks (64, 128); splits either side of the same edges, including empty pieces.
    std::string data(300, '\0');
    for (std::size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<char>(i * 131 + 7);
    }
    std::vector<std::size_t> const lengths = {55, 56, 57, 63, 64, 65, 119, 120, 127, 128, 129, 300};
    std::vector<std::size_t> const splits = {0, 1, 55, 56, 57, 63, 64, 65, 120, 128};
    for (std::size_t length : lengths) {
        std::string const whole = Digest(data.substr(0, length));
        for (std::size_t split : splits) {
            if (split > length) {
                continue;
            }
            LMD5 md5;
            md5.Update(data.data(), split);
            // The rest in pieces of 3, so pending bytes are topped up many times.
            for (std::size_t at = split; at < length; at += 3) {
                md5.Update(data.data() + at, std::min<std::size_t>(3, length - at));
            }
            EXPECT_EQ(LMD5::ToHex(md5.Finish()), whole) << length << " bytes split at " << split;
        }
    }
    // Reset starts again: the same object gives the same digest twice.
    LMD5 md5;
    md5.Update("abc", 3);
    (void)md5.Finish();
    md5.Reset();
    md5.Update("abc", 3);
    EXPECT_EQ(LMD5::ToHex(md5.Finish()), "900150983cd24fb0d6963f7d28e17f72");
}

} // namespace
