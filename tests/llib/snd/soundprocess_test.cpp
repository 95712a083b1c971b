// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/gain.h"
#include "llib/snd/soundprocessmulti.h"

#include "tests/support/tempdir.h"
#include "tests/support/testsources.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <string>
#include <vector>

namespace {

std::vector<float> ReadInBlocks(LSoundSource& source, long long frames, long long block) {
    std::vector<float> out(static_cast<std::size_t>(frames) * source->GetChannels());
    for (long long at = 0; at < frames; at += block) {
        source->Read(out.data() + at * source->GetChannels(), std::min(block, frames - at));
    }
    return out;
}

std::vector<float> Sine(long long frames, unsigned channels) {
    std::vector<float> samples;
    for (long long f = 0; f < frames; ++f) {
        for (unsigned c = 0; c < channels; ++c) {
            samples.push_back(static_cast<float>(std::sin(0.01 * static_cast<double>(f) + c)));
        }
    }
    return samples;
}

TEST(LSPGainTest, ParameterIsPercentRoundedUpAndReadAsSixteenBits) {
    LSPGain gain;
    ASSERT_EQ(gain.GetNumParameters(), 1);
    LSoundProcessParameter p;
    gain.GetParameterByIndex(0, &p);
    ASSERT_TRUE(p.IsInitialised());
    EXPECT_EQ(p.GetType(), LSoundProcessParameterType::kInt);
    EXPECT_STREQ(p.GetName(), "Gain Percentage");
    EXPECT_STREQ(p.GetUnit(), "%");
    EXPECT_EQ(p.GetValueSize(), 4);
    EXPECT_EQ(p.GetMinimum<int>(), 1);
    EXPECT_EQ(p.GetMaximum<int>(), 400);
    EXPECT_EQ(p.GetValue<int>(), 100);

    for (auto const& [percent, factor] :
         {std::pair{400, 4.0f}, std::pair{1, 0.01f}, std::pair{110, 1.1f}}) {
        gain.SetParameterByIndex(0, &percent);
        EXPECT_EQ(gain.GetGain(), factor);
        gain.GetParameterByIndex(0, &p);
        EXPECT_EQ(p.GetValue<int>(), percent) << "the value shown must be the value set";
    }
    gain.SetGain(0.333f);
    gain.GetParameterByIndex(0, &p);
    EXPECT_EQ(p.GetValue<int>(), 34);
    // Only the low 16 bits count: 0x10064 reads as 100.
    int const wide = 0x10064;
    gain.SetParameterByIndex(0, &wide);
    EXPECT_EQ(gain.GetGain(), 1.0f);

    // Out of range: the description is left as it was and nothing changes.
    gain.SetParameterByIndex(1, &wide);
    LSoundProcessParameter untouched;
    gain.GetParameterByIndex(1, &untouched);
    EXPECT_FALSE(untouched.IsInitialised());
    // A description reused for another effect's parameter takes the new type and size.
    p.Init<double>(LSoundProcessParameterType::kDouble, 0.1, 2.0, "Pitch", "");
    EXPECT_EQ(p.GetValueSize(), 8);
    EXPECT_EQ(p.GetMaximum<double>(), 2.0);
    EXPECT_EQ(p.GetValue<int>(), 0); // asked at the wrong size
}

TEST(LSPGainTest, PresetsByNameAndWhichOneMatches) {
    LSPGain gain;
    ASSERT_EQ(gain.GetNumPresets(), 4);
    std::vector<std::string> names;
    char name[kLMaxText];
    for (int i = 0; i < gain.GetNumPresets(); ++i) {
        gain.GetPresetsName(i, name);
        names.emplace_back(name);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"Quarter Volume", "Half Volume", "Double Volume",
                                               "Triple Volume"}));
    EXPECT_EQ(gain.GetIndexInPreset(), -1);
    gain.SetPreset(2);
    EXPECT_EQ(gain.GetGain(), 2.0f);
    EXPECT_EQ(gain.GetIndexInPreset(), 2);
    gain.SetPreset(4);
    gain.SetPreset(-1);
    EXPECT_EQ(gain.GetGain(), 2.0f);
    gain.SetGain(0.2501f); // shown as 26%: no preset
    EXPECT_EQ(gain.GetIndexInPreset(), -1);
}

TEST(LSPGainTest, SourceMultipliesEverySampleInAnyBlockSize) {
    std::vector<float> const input = Sine(20000, 3);
    for (float const factor : {2.0f, 0.5f, 1.0f, -0.75f}) {
        LSPGain gain(factor);
        std::vector<std::vector<float>> outputs;
        for (long long block : {1LL, 7LL, 8192LL}) {
            LSoundSource in = LMakeSource<LTestBufferSource>(44100, 3, input);
            LSoundSource out = gain.OpenSource(in);
            EXPECT_EQ(out->GetMaxMagnitude() == 16.0f,
                      factor > 1.0f || in->GetMaxMagnitude() == 16.0f);
            outputs.push_back(ReadInBlocks(out, 20000, block));
        }
        for (std::size_t i = 0; i < input.size(); ++i) {
            ASSERT_EQ(outputs[0][i], input[i] * factor) << factor << " at " << i;
        }
        EXPECT_EQ(outputs[1], outputs[0]);
        EXPECT_EQ(outputs[2], outputs[0]);
    }
    LSPGain two(2.0f);
    LSoundSource in = LMakeSource<LTestBufferSource>(44100, 1, std::vector<float>{0.25f});
    LSoundSource out = two.OpenSource(in);
    float value = 0.0f;
    out->Read(&value, 1);
    EXPECT_EQ(value, 0.5f);
    // The source keeps its own copy: changing the effect afterwards changes nothing.
    two.SetGain(3.0f);
    out->Seek(0);
    out->Read(&value, 1);
    EXPECT_EQ(value, 0.5f);
    std::unique_ptr<LSoundProcess> copy = two.GetNewCopy();
    two.SetBypassed(true);
    EXPECT_EQ(static_cast<LSPGain&>(*copy).GetGain(), 3.0f);
    EXPECT_FALSE(two.GetNewCopy()->IsBypassed());
}

class LSoundProcessRecordTest : public LTempDirTest {
protected:
    // Writes a chain file whose top level `write` fills, then loads it into `chain`.
    bool WriteAndLoad(std::function<bool(LSoundProcessWriter&)> const& write,
                      LSoundProcessMulti& chain, std::string* error = nullptr) {
        std::string const path = PathOf("chain.lsdf");
        {
            LOutputStreamFile file;
            LSoundProcessWriter writer;
            if (!file.Open(path.c_str()) || !writer.Open(file, kLSDFFileEffectChain, 1) ||
                !write(writer) || !writer.Close() || !file.Close()) {
                return false;
            }
        }
        std::string message;
        bool const ok = LLoadEffectChainFile(path.c_str(), chain, message);
        if (error != nullptr) {
            *error = message;
        }
        return ok;
    }

    static std::vector<int> Types(LSoundProcessMulti const& chain) {
        std::vector<int> types;
        for (LSoundProcess const& effect : chain.GetList()) {
            types.push_back(effect.GetSoundProcessType());
        }
        return types;
    }
    static float GainOf(LSoundProcess const& effect) {
        return static_cast<LSPGain const&>(effect).GetGain();
    }
};

TEST_F(LSoundProcessRecordTest, GainRecordsRoundTripAndOldFixedPointGainsLoad) {
    LSoundProcessMulti chain;
    auto gain = std::make_unique<LSPGain>(0.75f);
    gain->SetBypassed(true);
    chain.Add(std::move(gain));
    chain.Add(std::make_unique<LSPGain>(3.0f));
    std::string error;
    ASSERT_TRUE(LSaveEffectChainFile(PathOf("saved.lsdf").c_str(), chain, error)) << error;
    LSoundProcessMulti loaded;
    ASSERT_TRUE(LLoadEffectChainFile(PathOf("saved.lsdf").c_str(), loaded, error)) << error;
    ASSERT_EQ(Types(loaded), (std::vector<int>{1, 1}));
    EXPECT_EQ(GainOf(*loaded.GetList().GetHead()), 0.75f);
    EXPECT_TRUE(loaded.GetList().GetHead()->IsBypassed());
    EXPECT_EQ(GainOf(*loaded.GetList().GetHead()->GetNext()), 3.0f);
    EXPECT_FALSE(loaded.GetList().GetHead()->GetNext()->IsBypassed());

    // Older records: a 8.24 fixed-point gain at the top level; one too short for it gives 0;
    // unknown tags are skipped; a float chunk too short leaves the default.
    LSoundProcessMulti old;
    ASSERT_TRUE(WriteAndLoad(
        [](LSoundProcessWriter& w) {
            return w.WriteInt(0x2000, 1) && w.StartContainer(0x1000) &&
                   w.WriteInt(0x2000, 0x00C00000) && w.WriteString(0x2345, "later field") &&
                   w.EndContainer(0x1000) && w.WriteInt(0x2000, 1) && w.StartContainer(0x1000) &&
                   w.WriteBool(0x2000, true) && w.EndContainer(0x1000) && w.WriteInt(0x2000, 1) &&
                   w.StartContainer(0x1000) && w.WriteBool(0x2001, true) && w.EndContainer(0x1000);
        },
        old));
    ASSERT_EQ(Types(old), (std::vector<int>{1, 1, 1}));
    EXPECT_EQ(GainOf(*old.GetList().GetHead()), 0.75f);
    EXPECT_EQ(GainOf(*old.GetList().GetHead()->GetNext()), 0.0f);
    EXPECT_EQ(GainOf(*old.GetList().GetHead()->GetNext()->GetNext()), 1.0f);
}

TEST_F(LSoundProcessRecordTest, ChainsKeepUnknownEffectsDropTheEqualiserAndStopWhereTold) {
    LSoundProcessMulti chain;
    ASSERT_TRUE(WriteAndLoad(
        [](LSoundProcessWriter& w) {
            return w.WriteInt(0x2000, 1) && w.StartContainer(0x1000) &&
                   w.WriteFloat(0x2001, 2.0f) && w.EndContainer(0x1000) &&
                   // a point-list equaliser: never part of a chain
                   w.WriteInt(0x2000, 9) && w.StartContainer(0x1000) && w.WriteInt(0x2002, 5) &&
                   w.EndContainer(0x1000) &&
                   // an effect this build cannot run, with settings of its own
                   w.WriteInt(0x2000, 25) && w.StartContainer(0x1000) && w.StartContainer(0x1000) &&
                   w.WriteBool(0x2000, true) && w.EndContainer(0x1000) && w.WriteInt(0x2003, 77) &&
                   w.EndContainer(0x1000) && w.WriteString(0x3000, "ignored between effects") &&
                   w.WriteInt(0x2000, 1) && w.StartContainer(0x1000) &&
                   w.WriteFloat(0x2001, 0.5f) && w.EndContainer(0x1000) &&
                   // a container without a type number ends the chain
                   w.StartContainer(0x1000) && w.WriteFloat(0x2001, 9.0f) &&
                   w.EndContainer(0x1000) && w.WriteInt(0x2000, 1) && w.StartContainer(0x1000) &&
                   w.EndContainer(0x1000);
        },
        chain));
    ASSERT_EQ(Types(chain), (std::vector<int>{1, 25, 1}));
    LSoundProcess const& unknown = *chain.GetList().GetHead()->GetNext();
    char name[kLMaxText];
    unknown.GetName(name);
    EXPECT_STREQ(name, "Unknown");
    EXPECT_TRUE(unknown.IsBypassed());

    // Saved again, the unknown effect's record comes back as it was read.
    std::string error;
    ASSERT_TRUE(LSaveEffectChainFile(PathOf("again.lsdf").c_str(), chain, error)) << error;
    ASSERT_TRUE(LSaveEffectChainFile(PathOf("again2.lsdf").c_str(), chain, error)) << error;
    LSoundProcessMulti again;
    ASSERT_TRUE(LLoadEffectChainFile(PathOf("again.lsdf").c_str(), again, error)) << error;
    ASSERT_EQ(Types(again), (std::vector<int>{1, 25, 1}));
    ASSERT_TRUE(LSaveEffectChainFile(PathOf("again2.lsdf").c_str(), again, error)) << error;
    EXPECT_EQ(ReadFileBytes(PathOf("again.lsdf")), ReadFileBytes(PathOf("again2.lsdf")));

    LSoundProcessMulti stopped;
    ASSERT_TRUE(WriteAndLoad(
        [](LSoundProcessWriter& w) {
            return w.WriteInt(0x2000, 1) && w.StartContainer(0x1000) && w.EndContainer(0x1000) &&
                   w.WriteInt(0x2000, 0x4000) && w.StartContainer(0x1000) &&
                   w.EndContainer(0x1000) && w.WriteInt(0x2000, 1) && w.StartContainer(0x1000) &&
                   w.EndContainer(0x1000);
        },
        stopped));
    EXPECT_EQ(Types(stopped), (std::vector<int>{1}));

    // A damaged file: what comes before the damage loads, and the message says so.
    std::string const bytes = ReadFileBytes(PathOf("again.lsdf"));
    ASSERT_TRUE(WriteFileBytes(PathOf("cut.lsdf"), bytes.data(), bytes.size() - 30));
    LSoundProcessMulti damaged;
    EXPECT_FALSE(LLoadEffectChainFile(PathOf("cut.lsdf").c_str(), damaged, error));
    EXPECT_NE(error.find("is damaged"), std::string::npos) << error;
    EXPECT_EQ(Types(damaged), (std::vector<int>{1, 25}));
    // Cut exactly between two effects: nothing is corrupt, but the file is still incomplete.
    LSoundProcessMulti one;
    one.Add(std::make_unique<LSPGain>(2.0f));
    ASSERT_TRUE(LSaveEffectChainFile(PathOf("one.lsdf").c_str(), one, error)) << error;
    std::string const head = ReadFileBytes(PathOf("one.lsdf"));
    std::string const whole = ReadFileBytes(PathOf("again.lsdf"));
    // Both files start with the same first effect; only the root's length differs.
    ASSERT_TRUE(WriteFileBytes(PathOf("short.lsdf"), whole.data(), head.size() - 4));
    LSoundProcessMulti shortened;
    EXPECT_FALSE(LLoadEffectChainFile(PathOf("short.lsdf").c_str(), shortened, error));
    EXPECT_NE(error.find("is cut off"), std::string::npos) << error;
    EXPECT_EQ(Types(shortened), (std::vector<int>{1}));
    EXPECT_FALSE(LLoadEffectChainFile(PathOf("none.lsdf").c_str(), damaged, error));
    EXPECT_NE(error.find("Cannot open the file"), std::string::npos) << error;
}

TEST(LSoundProcessMultiTest, OpeningSkipsBypassedEffectsAndMayReturnTheInputItself) {
    LSoundProcessMulti chain;
    LSoundSource input = LMakeSource<LTestBufferSource>(8000, 1, std::vector<float>{0.5f, -0.25f});
    std::uint16_t const references = input.GetReferenceCount();
    {
        LSoundSource same = chain.OpenSource(input);
        EXPECT_EQ(same.Get(), input.Get());
        EXPECT_EQ(input.GetReferenceCount(), references + 1);
    }
    chain.Add(std::make_unique<LSPGain>(4.0f));
    chain.GetList().GetHead()->SetBypassed(true);
    chain.Add(std::make_unique<LSPUnknown>(18));
    EXPECT_EQ(chain.OpenSource(input).Get(), input.Get());

    chain.Add(std::make_unique<LSPGain>(2.0f));
    chain.Add(std::make_unique<LSPGain>(0.25f));
    LSoundSource out = chain.OpenSource(input);
    float values[2] = {};
    out->Read(values, 2);
    EXPECT_EQ(values[0], 0.25f);
    EXPECT_EQ(values[1], -0.125f);
    // A copy of the chain copies every effect with its bypass flag.
    LSoundProcessMulti const copy = chain;
    ASSERT_EQ(copy.GetList().GetCount(), 4u);
    EXPECT_TRUE(copy.GetList().GetHead()->IsBypassed());
    EXPECT_EQ(copy.GetList().GetHead()->GetNext()->GetSoundProcessType(), 18);
}

} // namespace
