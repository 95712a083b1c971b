// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The process interface of tessel-cli's long commands: a progress bar while standard output is
// a terminal (nothing otherwise, so scripts and pipes see only results), and Ctrl+C taken as a
// stop request that the operation honours between blocks. A second Ctrl+C ends the program at
// once, as users expect when a stop takes too long.

#include "llib/gen/process.h"

#include <string>

class LCliProcess final : public LProcessInterfaceBasic {
public:
    // `label` precedes the bar ("Converting", "Reading").
    explicit LCliProcess(char const* label);
    ~LCliProcess() override;
    LCliProcess(LCliProcess const&) = delete;
    LCliProcess& operator=(LCliProcess const&) = delete;

    [[nodiscard]] bool IsToStop() override;
    void SetProgress(double fraction) override;
    // Clears the bar's line, so a message printed next starts on a clean line.
    void EndProgress();

private:
    std::string m_label;
    bool m_terminal;
    int m_shown = -1; // the percentage on screen, -1 for none
};

// Makes Ctrl+C a stop request for every LCliProcess (call once, at start).
void LCliInstallInterruptHandler();
// True once Ctrl+C has been pressed.
[[nodiscard]] bool LCliInterrupted();
