// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// For benchmark programs that print a summary after the table: parses the arguments, runs the
// benchmarks asked for through `reporter` and shuts the library down. False when an argument was
// not understood (the library has said which); nothing has run then.

#include <benchmark/benchmark.h>

[[nodiscard]] inline bool LRunBenchmarks(int& argc, char** argv,
                                         benchmark::BenchmarkReporter& reporter) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return false;
    }
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return true;
}
