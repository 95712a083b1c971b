// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/cliprocess.h"

#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>

namespace {

std::atomic<bool> g_interrupted{false};

extern "C" void OnInterrupt(int) {
    if (g_interrupted.exchange(true)) {
        // The second press: the user does not want to wait for the stop.
        std::signal(SIGINT, SIG_DFL);
        std::raise(SIGINT);
    }
}

constexpr int kBarWidth = 40;

} // namespace

void LCliInstallInterruptHandler() {
    struct sigaction action {};
    action.sa_handler = OnInterrupt;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
}

bool LCliInterrupted() {
    return g_interrupted.load();
}

LCliProcess::LCliProcess(char const* label)
    : m_label(label != nullptr ? label : ""), m_terminal(isatty(STDOUT_FILENO) == 1) {}

LCliProcess::~LCliProcess() {
    EndProgress();
}

bool LCliProcess::IsToStop() {
    return LCliInterrupted() || LProcessInterfaceBasic::IsToStop();
}

void LCliProcess::SetProgress(double fraction) {
    LProcessInterfaceBasic::SetProgress(fraction);
    if (!m_terminal) {
        return;
    }
    double const clamped = fraction < 0.0 ? 0.0 : fraction > 1.0 ? 1.0 : fraction;
    int const percent = static_cast<int>(clamped * 100.0);
    if (percent == m_shown) {
        return;
    }
    m_shown = percent;
    int const filled = percent * kBarWidth / 100;
    std::string bar(static_cast<std::size_t>(filled), '#');
    bar.append(static_cast<std::size_t>(kBarWidth - filled), ' ');
    std::printf("\r%s [%s] %3d%%", m_label.c_str(), bar.c_str(), percent);
    std::fflush(stdout);
}

void LCliProcess::EndProgress() {
    if (m_terminal && m_shown >= 0) {
        std::printf("\r%*s\r", static_cast<int>(m_label.size()) + kBarWidth + 8, "");
        std::fflush(stdout);
    }
    m_shown = -1;
}
