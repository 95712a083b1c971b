// SPDX-License-Identifier: GPL-3.0-or-later
// Adding a cache item from a generated source, against dd writing the same number of bytes to
// the same folder in the same run: the cache should run at the disk's speed. Both are timed to
// the data being on the disk (an fsync of the samples; dd's conv=fsync). The length defaults to
// one hour of 44.1 kHz stereo; TESSEL_BENCH_CACHE_SECONDS sets another. The folder is
// "tessel-bench-cache" in the working directory (on the disk under test, unlike a tmpfs /tmp).

#include "llib/snd/cache.h"

#include "bench/support/benchmain.h"
#include "bench/support/benchsources.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

extern char** environ;

namespace {

constexpr int kRateHz = 44100;
constexpr unsigned char kChannels = 2;

long long Frames() {
    char const* seconds = std::getenv("TESSEL_BENCH_CACHE_SECONDS");
    long long const n = seconds != nullptr ? std::atoll(seconds) : 3600;
    return (n > 0 ? n : 3600) * kRateHz;
}

long long Bytes() {
    return Frames() * kChannels * static_cast<long long>(sizeof(float));
}

std::string Folder() {
    return "tessel-bench-cache";
}

class NullProcess final : public LProcessInterfaceBasic {
public:
    bool IsToStop() override { return false; }
};

void BM_CacheItemAdd(benchmark::State& state) {
    LSoundCache::SetFolder(Folder());
    for (auto _ : state) {
        LSoundSource source = LMakeSource<LBenchNoiseSource>(kRateHz, kChannels, Frames(), 0.5f);
        NullProcess process;
        LSoundCacheItemHandle handle;
        long long frames = 0;
        if (LSoundCacheItemAdd(process, source, handle, frames) != LProcessResult::kCompleted) {
            state.SkipWithError("adding the item failed");
            return;
        }
        int const fd =
            open(LSoundCache::GetFilePath(handle.item, kLSoundCacheExtAud).c_str(), O_RDONLY);
        if (fd >= 0) {
            (void)fsync(fd);
            close(fd);
        }
        state.PauseTiming();
        LSoundCache::DecRef(handle.item); // no original: the files go
        state.ResumeTiming();
    }
    state.SetBytesProcessed(state.iterations() * Bytes());
}

void BM_DdSameBytes(benchmark::State& state) {
    std::string const target = Folder() + "/dd.bin";
    long long const megabytes = Bytes() >> 20;
    std::string const of = "of=" + target;
    std::string const count = "count=" + std::to_string(megabytes);
    for (auto _ : state) {
        char const* argv[] = {"dd",          "if=/dev/zero", of.c_str(),    "bs=1M",
                              count.c_str(), "conv=fsync",   "status=none", nullptr};
        pid_t pid = 0;
        if (posix_spawnp(&pid, "dd", nullptr, nullptr, const_cast<char* const*>(argv), environ) !=
            0) {
            state.SkipWithError("dd could not be started");
            return;
        }
        int status = 0;
        (void)waitpid(pid, &status, 0);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            state.SkipWithError("dd failed");
            return;
        }
    }
    (void)unlink(target.c_str());
    state.SetBytesProcessed(state.iterations() * (megabytes << 20));
}

class SummaryReporter final : public benchmark::ConsoleReporter {
public:
    void ReportRuns(std::vector<Run> const& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (Run const& run : runs) {
            auto const found = run.counters.find("bytes_per_second");
            if (!run.error_occurred && found != run.counters.end() &&
                run.run_type == Run::RT_Iteration) {
                double& best = m_rates[run.run_name.function_name];
                best = std::max(best, found->second.value);
            }
        }
    }
    [[nodiscard]] double Get(char const* name) const {
        auto const found = m_rates.find(name);
        return found == m_rates.end() ? 0.0 : found->second;
    }

private:
    std::map<std::string, double> m_rates;
};

} // namespace

BENCHMARK(BM_CacheItemAdd)->Unit(benchmark::kMillisecond)->Iterations(2)->UseRealTime();
BENCHMARK(BM_DdSameBytes)->Unit(benchmark::kMillisecond)->Iterations(2)->UseRealTime();

int main(int argc, char** argv) {
    SummaryReporter reporter;
    if (!LRunBenchmarks(argc, argv, reporter)) {
        return 1;
    }
    double const ours = reporter.Get("BM_CacheItemAdd") / 1048576.0;
    double const dd = reporter.Get("BM_DdSameBytes") / 1048576.0;
    std::printf("\n-- adding a %.0f MB item (%lld s of 44.1 kHz stereo) --\n",
                static_cast<double>(Bytes()) / 1048576.0, Frames() / kRateHz);
    std::printf("cache item add: %.0f MB/s\ndd, same bytes:  %.0f MB/s\n", ours, dd);
    if (ours > 0.0 && dd > 0.0) {
        std::printf("ratio: %.0f%% of dd\n", 100.0 * ours / dd);
    }
    return 0;
}
