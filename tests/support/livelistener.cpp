// SPDX-License-Identifier: GPL-3.0-or-later
#include "tests/support/livelistener.h"

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

void InstallLiveObjectListener() {
    ::testing::UnitTest::GetInstance()->listeners().Append(new LiveObjectListener);
}
