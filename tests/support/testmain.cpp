// SPDX-License-Identifier: GPL-3.0-or-later
// The main of every test binary: GoogleTest plus a listener that fails any test which ends with
// more live sources, sinks or cache references than it began with (debug builds count them).

#include "llib/snd/soundbase.h"

#include <gtest/gtest.h>

namespace {

class LiveObjectListener final : public ::testing::EmptyTestEventListener {
public:
    void OnTestStart(::testing::TestInfo const&) override {
        for (int k = 0; k < 3; ++k) {
            m_before[k] = LSoundLiveCount(static_cast<LSoundLiveKind>(k));
        }
    }
    void OnTestEnd(::testing::TestInfo const&) override {
        static char const* const kNames[3] = {"sources", "sinks", "cache references"};
        for (int k = 0; k < 3; ++k) {
            long const now = LSoundLiveCount(static_cast<LSoundLiveKind>(k));
            EXPECT_EQ(now, m_before[k]) << "the test leaked " << kNames[k];
        }
    }

private:
    long m_before[3] = {};
};

} // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::UnitTest::GetInstance()->listeners().Append(new LiveObjectListener);
    return RUN_ALL_TESTS();
}
