// SPDX-License-Identifier: GPL-3.0-or-later
#include "editor/secommands.h"
#include "editor/sescript.h"

#include "tests/support/tempdir.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

namespace {

TEST(SEScriptTest, CommandsByNameOrIdentifierWithTheirSettings) {
    SEScriptStep step;
    std::string error;
    ASSERT_TRUE(SEParseScriptLine("  select start=0:01.5\tend=\"0:03\"  ", step, error)) << error;
    EXPECT_EQ(step.id, SECmd::kSelect);
    EXPECT_EQ(step.name, "select");
    EXPECT_EQ(step.values,
              (std::map<std::string, std::string>{{"start", "0:01.5"}, {"end", "0:03"}}));
    ASSERT_TRUE(SEParseScriptLine("0x63757420", step, error));
    EXPECT_EQ(step.name, "cut");
    EXPECT_TRUE(step.values.empty());
    ASSERT_TRUE(SEParseScriptLine("9401", step, error));
    EXPECT_EQ(step.name, "undo");
    // Quotes may hold blanks, quotes and backslashes, and may sit anywhere in a word.
    ASSERT_TRUE(SEParseScriptLine(R"(bookmark name="Verse \"one\" \\ A"x)", step, error));
    EXPECT_EQ(step.values.at("name"), R"(Verse "one" \ Ax)");
    ASSERT_TRUE(SEParseScriptLine("save-as path=", step, error));
    EXPECT_EQ(step.values.at("path"), "");
}

TEST(SEScriptTest, MalformedCommandsSayWhatIsWrong) {
    struct Case {
        char const* text;
        char const* message;
    };
    for (Case const& c :
         {Case{"", "no command is given"}, Case{"frobnicate", "unknown command 'frobnicate'"},
          Case{"99999", "unknown command '99999'"}, Case{"0x", "unknown command '0x'"},
          Case{"select start", "'start' is not a setting: write KEY=VALUE"},
          Case{"select =3", "'=3' is not a setting: write KEY=VALUE"},
          Case{"select a=1 a=2", "the setting 'a' is given twice"},
          Case{"bookmark name=\"open", "a quoted value has no closing quote"}}) {
        SEScriptStep step;
        std::string error;
        EXPECT_FALSE(SEParseScriptLine(c.text, step, error)) << c.text;
        EXPECT_EQ(error, c.message) << c.text;
    }
}

TEST_F(LTempDirTest, ScriptsSkipCommentsAndNameTheLineAtFault) {
    std::string const good = "# move the chorus\n\nselect start=1 end=2\r\n  cut\n# done\npaste";
    ASSERT_TRUE(WriteFileBytes(PathOf("good.txt"), good.data(), good.size()));
    std::vector<SEScriptStep> steps;
    std::string error;
    ASSERT_TRUE(SELoadScript(PathOf("good.txt").c_str(), steps, error)) << error;
    ASSERT_EQ(steps.size(), 3u);
    EXPECT_EQ(steps[0].line, 3);
    EXPECT_EQ(steps[0].values.at("end"), "2");
    EXPECT_EQ(steps[1].line, 4);
    EXPECT_EQ(steps[2].name, "paste");

    steps.clear();
    EXPECT_FALSE(SEParseScript("cut\npaste\nselect start\n", steps, error));
    EXPECT_EQ(error, "line 3: 'start' is not a setting: write KEY=VALUE");
    EXPECT_FALSE(SEParseScript(std::string("cut\npa\0ste\n", 11), steps, error));
    EXPECT_EQ(error, "line 2: the line holds a NUL character");
    EXPECT_FALSE(SELoadScript(PathOf("absent.txt").c_str(), steps, error));
    EXPECT_NE(error.find("cannot open the script"), std::string::npos);

    std::string many;
    for (std::size_t i = 0; i <= kSEScriptMaxSteps; ++i) {
        many += "undo\n";
    }
    steps.clear();
    EXPECT_FALSE(SEParseScript(many, steps, error));
    EXPECT_EQ(error, "line 65537: a script holds at most 65536 commands");
}

TEST(SECommandTableTest, IdentifiersAndNamesAreUniqueAndTheTaskListPointsAtCommands) {
    std::set<int> ids;
    std::set<std::string> names;
    for (SECommandInfo const& c : SECommandTable()) {
        EXPECT_TRUE(ids.insert(c.id).second) << c.id;
        EXPECT_TRUE(names.insert(c.name).second) << c.name;
        EXPECT_EQ(SEFindCommandByName(c.name), &c);
    }
    for (SETaskListEntry const& t : SETaskList()) {
        SECommandInfo const* const c = SEFindCommand(t.id);
        ASSERT_NE(c, nullptr) << t.id;
        EXPECT_STREQ(c->text, t.text) << t.id;
        EXPECT_GE(t.group, 1);
        EXPECT_LE(t.group, 4);
    }
}

} // namespace
