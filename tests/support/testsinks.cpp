// SPDX-License-Identifier: GPL-3.0-or-later
#include "tests/support/testsinks.h"

LTestCapturingSink::LTestCapturingSink(int rateHz, unsigned char channels, int failOnWrite)
    : LSoundSinkBase(rateHz, channels), m_failOnWrite(failOnWrite) {}

void LTestCapturingSink::Write(float const* buffer, long long frames) {
    m_writes.push_back(frames);
    if (IsFailed() || frames <= 0) {
        return;
    }
    if (m_failOnWrite > 0 && static_cast<int>(m_writes.size()) == m_failOnWrite) {
        SetFailed();
        return;
    }
    m_samples.insert(m_samples.end(), buffer, buffer + frames * GetChannels());
    AddFramesWritten(frames);
}
