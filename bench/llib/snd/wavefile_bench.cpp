// SPDX-License-Identifier: GPL-3.0-or-later
// Reading a 10-minute 44.1 kHz 16-bit stereo WAV file into float samples, against `cat FILE >
// /dev/null` on the same file in the same run. The file is written once and read once before
// timing, so both read from the page cache: what is compared is our per-byte work against a
// plain copy out of the cache. The counter vs_cat is cat's time over ours (1.0 = as fast as cat).
// The file is "tessel-bench-wav.wav" in the working directory, removed at the end.

#include "llib/snd/wavefile.h"

#include "bench/support/benchsources.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

extern char** environ;

namespace {

constexpr int kRateHz = 44100;
constexpr unsigned char kChannels = 2;
constexpr long long kFrames = 600LL * kRateHz;
constexpr long long kBlockFrames = 8192;

char const* Path() {
    return "tessel-bench-wav.wav";
}

bool MakeFile() {
    static bool const made = [] {
        LSoundSource noise = LMakeSource<LBenchNoiseSource>(kRateHz, kChannels, kFrames, 0.5f);
        LSoundSink sink = LWaveFile::OpenSinkPCM(Path(), kRateHz, kChannels, 16, false);
        std::vector<float> block(static_cast<std::size_t>(kBlockFrames) * kChannels);
        for (long long done = 0; done < kFrames; done += kBlockFrames) {
            long long const n = std::min(kBlockFrames, kFrames - done);
            noise->Read(block.data(), n);
            sink->Write(block.data(), n);
        }
        return !sink->IsFailed();
    }();
    return made;
}

// Seconds for one `cat FILE` with its output to /dev/null, or a negative value on failure.
double TimeCat() {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    char const* argv[] = {"cat", Path(), nullptr};
    auto const start = std::chrono::steady_clock::now();
    pid_t pid = 0;
    int const rc =
        posix_spawnp(&pid, "cat", &actions, nullptr, const_cast<char* const*>(argv), environ);
    posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    if (rc != 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status) ||
        WEXITSTATUS(status) != 0) {
        return -1.0;
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Reads the whole file into float; returns a sample so the work cannot be dropped.
float ReadWhole(std::vector<float>& block) {
    LSoundSource source = LWaveFile::OpenSource(Path());
    float sum = 0.0f;
    for (long long done = 0; done < source->GetEndSample(); done += kBlockFrames) {
        source->Read(block.data(), kBlockFrames);
        sum += block[0];
    }
    return sum;
}

void BM_CatWav(benchmark::State& state) {
    if (!MakeFile()) {
        state.SkipWithError("the file could not be written");
        return;
    }
    for (auto _ : state) {
        if (TimeCat() < 0) {
            state.SkipWithError("cat failed");
            return;
        }
    }
    state.SetItemsProcessed(state.iterations() * kFrames);
}

void BM_WavReadFloat(benchmark::State& state) {
    if (!MakeFile()) {
        state.SkipWithError("the file could not be written");
        return;
    }
    std::vector<float> block(static_cast<std::size_t>(kBlockFrames) * kChannels);
    benchmark::DoNotOptimize(ReadWhole(block)); // into the page cache
    double ours = 0.0;
    double cat = 0.0;
    for (auto _ : state) {
        auto const start = std::chrono::steady_clock::now();
        benchmark::DoNotOptimize(ReadWhole(block));
        ours += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        state.PauseTiming();
        cat += TimeCat();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kFrames);
    state.counters["vs_cat"] = ours > 0.0 ? cat / ours : 0.0;
}

// Runs last (registration order): removes the file.
void BM_Cleanup(benchmark::State& state) {
    for (auto _ : state) {
    }
    (void)unlink(Path());
}

} // namespace

BENCHMARK(BM_CatWav)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(20);
BENCHMARK(BM_WavReadFloat)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(20);
BENCHMARK(BM_Cleanup)->Iterations(1);
