// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/soundtime.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>

namespace {

enum class Form { kText, kText2, kF, kFF, kFFF };

std::string Text(long long ms, Form form) {
    char buffer[kLSoundTimeTextChars];
    LSoundTime const t(ms);
    switch (form) {
    case Form::kText:
        t._GetText(buffer);
        break;
    case Form::kText2:
        t._GetText2(buffer);
        break;
    case Form::kF:
        t._GetTextHMMSSF(buffer);
        break;
    case Form::kFF:
        t._GetTextHMMSSFF(buffer);
        break;
    case Form::kFFF:
        t._GetTextHMMSSFFF(buffer);
        break;
    }
    return buffer;
}

struct TextCase {
    long long ms;
    Form form;
    char const* expected;
};

class SoundTimeText : public ::testing::TestWithParam<TextCase> {};

long long Parse(char const* text) {
    LSoundTime t(12345);
    t.SetText(text);
    return t.GetMs();
}

} // namespace

TEST_P(SoundTimeText, FormatsWithItsRoundingAndFields) {
    TextCase const& c = GetParam();
    EXPECT_EQ(Text(c.ms, c.form), c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    AllForms, SoundTimeText,
    ::testing::Values(
        TextCase{0, Form::kText, "0:00:00.000"}, TextCase{59999, Form::kText, "0:00:59.999"},
        // The 5 ms of rounding carries all the way into the minutes.
        TextCase{59999, Form::kText2, "0:01:00.00"}, TextCase{59994, Form::kText2, "0:00:59.99"},
        TextCase{360000000, Form::kText, "100:00:00.000"},
        TextCase{3723456, Form::kText, "1:02:03.456"},
        TextCase{3723456, Form::kText2, "1:02:03.46"}, TextCase{3723456, Form::kF, "1:02:03.5"},
        TextCase{3723449, Form::kF, "1:02:03.4"}, TextCase{3723456, Form::kFF, "1:02:03.46"},
        TextCase{3723456, Form::kFFF, "1:02:03.456"}, TextCase{-1, Form::kF, "-0:00:00.0"},
        TextCase{-1, Form::kText, "-0:00:00.001"}, TextCase{-3723456, Form::kText2, "-1:02:03.46"},
        // 64-bit hours print whole; the short forms use 32-bit hours.
        TextCase{3600000LL * 3000000000LL, Form::kText, "3000000000:00:00.000"},
        TextCase{LLONG_MIN, Form::kText, "-2562047788015:12:55.808"}));

TEST(SoundTime, SetTextReadsTheLastIntegerFieldAsSeconds) {
    EXPECT_EQ(Parse("90"), 90000);
    EXPECT_EQ(Parse("1:30"), 90000);
    EXPECT_EQ(Parse("1:00:00"), 3600000);
    EXPECT_EQ(Parse("1.5"), 1500);
    EXPECT_EQ(Parse("0:01.25"), 1250);
    EXPECT_EQ(Parse("1:02:03.456"), 3723456);
    EXPECT_EQ(Parse("0.1234"), 123); // digits past the millisecond weigh nothing
    EXPECT_EQ(Parse(".5"), 500);
}

TEST(SoundTime, SetTextIsLenient) {
    EXPECT_EQ(Parse("1:2:3:4"), 3723400); // a third colon starts the fraction
    EXPECT_EQ(Parse("abc"), 0);
    EXPECT_EQ(Parse(""), 0);
    EXPECT_EQ(Parse("1 m 30 s"), 130000); // unknown characters are skipped, digits join
    EXPECT_EQ(Parse("-1:30"), -90000);
    EXPECT_EQ(Parse("1:30-"), -90000); // the sign may stand anywhere
    EXPECT_EQ(Parse("1.5.5"), 1550);   // a second point does not restart the fraction
    // Absurd digit runs wrap instead of trapping.
    (void)Parse("99999999999999999999999999999999999999");
}

TEST(SoundTime, TextFormsReadBackThroughSetText) {
    for (long long ms : {0LL, 1LL, 999LL, 61001LL, 3723456LL, 360000000LL, -5025LL}) {
        EXPECT_EQ(Parse(Text(ms, Form::kText).c_str()), ms) << ms;
        EXPECT_EQ(Parse(Text(ms, Form::kFFF).c_str()), ms) << ms;
    }
}

TEST(SoundTime, IsValidAcceptsOnlyTheEditFieldForms) {
    for (char const* good : {"0", "90", "1:30", "1:2:3:4", "1:00:00.5", "12.", ".5", "1:"}) {
        EXPECT_TRUE(LSoundTime::IsValid(good, false)) << good;
        EXPECT_TRUE(LSoundTime::IsValid(good, true)) << good;
    }
    for (char const* bad : {"", "abc", "1:2:3:4:5", "1.2.3", "1.5:30", "-1", "1 ", "1,5"}) {
        EXPECT_FALSE(LSoundTime::IsValid(bad, false)) << bad;
        EXPECT_FALSE(LSoundTime::IsValid(bad, true)) << bad;
    }
    EXPECT_FALSE(LSoundTime::IsValid(nullptr));
}

TEST(SoundTime, FramesConvertAtTheGivenRate) {
    EXPECT_EQ(LSoundTime::FromFrames(44100, 44100).GetMs(), 1000);
    EXPECT_EQ(LSoundTime::FromFrames(44099, 44100).GetMs(), 999);
    EXPECT_EQ(LSoundTime(1000).ToFrames(48000), 48000);
    // Multi-day positions at high rates do not overflow.
    long long const frames = 192000LL * 3600 * 24 * 400;
    EXPECT_EQ(LSoundTime::FromFrames(frames, 192000).GetMs(), 1000LL * 3600 * 24 * 400);
    EXPECT_EQ(LSoundTime::FromFrames(1000, 0).GetMs(), 0);
}
