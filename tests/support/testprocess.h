// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// A process interface that records what a long operation reports and can ask it to stop after a
// given number of IsToStop polls.

#include "llib/gen/process.h"

#include <string>
#include <vector>

class LTestProcess final : public LProcessInterfaceBasic {
public:
    // `stopAfterPolls` >= 0: IsToStop answers true from that poll on (0 = from the first).
    explicit LTestProcess(int stopAfterPolls = -1) : m_stopAfterPolls(stopAfterPolls) {}

    [[nodiscard]] bool IsToStop() override;
    void SetError(char const* message) override;
    void SetStatus(char const* text, int line) override;
    void SetProgress(double fraction) override;

    std::vector<double> progress;
    std::vector<std::string> errors;
    std::vector<std::pair<int, std::string>> statuses;
    int polls = 0;

private:
    int m_stopAfterPolls;
};
