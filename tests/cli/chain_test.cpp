// SPDX-License-Identifier: GPL-3.0-or-later
// tessel-cli chain, run as the program a user runs, on chain files the engine writes.
#include "llib/snd/gain.h"
#include "llib/snd/soundprocessmulti.h"
#include "tests/support/oracle.h"
#include "tests/support/tempdir.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

class CliChainTest : public LTempDirTest {
protected:
    int Cli(std::vector<std::string> args, std::string* output) {
        args.insert(args.begin(), {TESSEL_CLI_PATH, "chain"});
        output->clear();
        return RunTool(args, output);
    }
};

TEST_F(CliChainTest, PrintsEachEffectWithItsSettingsAndWhatADamagedFileHeld) {
    LSoundProcessMulti chain;
    auto loud = std::make_unique<LSPGain>(2.0f);
    loud->SetBypassed(true);
    chain.Add(std::move(loud));
    chain.Add(std::make_unique<LSPUnknown>(25));
    chain.Add(std::make_unique<LSPGain>(0.333f));
    std::string error;
    ASSERT_TRUE(LSaveEffectChainFile(PathOf("c.lsdf").c_str(), chain, error)) << error;
    std::string out;
    EXPECT_EQ(Cli({PathOf("c.lsdf")}, &out), 0) << out;
    EXPECT_EQ(out, "1. Amplify (type 1), bypassed\n"
                   "   Gain Percentage: 200 %\n"
                   "   (preset \"Double Volume\")\n"
                   "2. Unknown (type 25)\n"
                   "3. Amplify (type 1)\n"
                   "   Gain Percentage: 34 %\n");

    std::string const bytes = ReadFileBytes(PathOf("c.lsdf"));
    ASSERT_TRUE(WriteFileBytes(PathOf("cut.lsdf"), bytes.data(), bytes.size() - 10));
    EXPECT_EQ(Cli({PathOf("cut.lsdf")}, &out), 1);
    EXPECT_EQ(out.rfind("1. Amplify (type 1), bypassed\n", 0), 0u) << out;
    EXPECT_NE(out.find("is damaged"), std::string::npos) << out;
    EXPECT_EQ(out.find("3. Amplify"), std::string::npos) << out;

    ASSERT_TRUE(WriteFileBytes(PathOf("junk.lsdf"), "not a chain", 11));
    EXPECT_EQ(Cli({PathOf("junk.lsdf")}, &out), 1);
    EXPECT_NE(out.find("is not an effect chain file"), std::string::npos) << out;
    EXPECT_EQ(Cli({}, &out), 2);
}

} // namespace
