// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// For benchmark programs that print a summary after the table: parses the arguments, runs the
// benchmarks asked for through `reporter` and shuts the library down. False when an argument was
// not understood (the library has said which); nothing has run then.

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

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

// The console table, keeping each benchmark's time per iteration (real time, in seconds) for
// the summary: the median when the run was repeated, else the single run's. Single-threaded, like
// the library's reporting.
class LBenchTimeReporter final : public benchmark::ConsoleReporter {
public:
    void ReportRuns(std::vector<Run> const& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (Run const& run : runs) {
            bool const median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (!run.error_occurred && (run.run_type == Run::RT_Iteration || median)) {
                // Repetitions come first and the median after them, so it has the last word.
                m_seconds[run.run_name.str()] =
                    run.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(run.time_unit);
            }
        }
    }
    // The time of the benchmark named as in the table (without an aggregate's suffix); 0 when it
    // did not run or failed.
    [[nodiscard]] double Seconds(std::string const& name) const {
        auto const found = m_seconds.find(name);
        return found == m_seconds.end() ? 0.0 : found->second;
    }

private:
    std::map<std::string, double> m_seconds;
};
