// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Sinks for tests: one that keeps everything it is given, and one that fails on cue.

#include "llib/snd/soundsink.h"

#include <vector>

class LTestCapturingSink final : public LSoundSinkBase {
public:
    // `failOnWrite` > 0 makes that Write (1-based) fail: its data is dropped and the sink fails.
    LTestCapturingSink(int rateHz, unsigned char channels, int failOnWrite = 0);

    void Write(float const* buffer, long long frames) override;

    [[nodiscard]] std::vector<float> const& GetSamples() const { return m_samples; }
    [[nodiscard]] std::vector<long long> const& GetWrites() const { return m_writes; }

private:
    int m_failOnWrite;
    std::vector<float> m_samples;
    std::vector<long long> m_writes;
};
