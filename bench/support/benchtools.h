// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Running the peer tools a benchmark prepares its files with.

// Runs the null-terminated argv (found on PATH) with its output to /dev/null; true when it
// exits with 0.
[[nodiscard]] bool LBenchRunQuiet(char const* const* argv);
