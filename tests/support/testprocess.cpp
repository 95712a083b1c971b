// SPDX-License-Identifier: GPL-3.0-or-later
#include "tests/support/testprocess.h"

bool LTestProcess::IsToStop() {
    int const poll = polls++;
    return (m_stopAfterPolls >= 0 && poll >= m_stopAfterPolls) ||
           LProcessInterfaceBasic::IsToStop();
}

void LTestProcess::SetError(char const* message) {
    errors.emplace_back(message != nullptr ? message : "");
    LProcessInterfaceBasic::SetError(message);
}

void LTestProcess::SetStatus(char const* text, int line) {
    statuses.emplace_back(line, text != nullptr ? text : "");
    LProcessInterfaceBasic::SetStatus(text, line);
}

void LTestProcess::SetProgress(double fraction) {
    progress.push_back(fraction);
    LProcessInterfaceBasic::SetProgress(fraction);
}
