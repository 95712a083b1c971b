// SPDX-License-Identifier: GPL-3.0-or-later
// The rate converter, 44.1 kHz to 48 kHz stereo, against the machine's arithmetic floor and
// against libsamplerate's fastest sinc converter on the same input in the same run.
//
// The floor: every output sample of every channel is a dot product of 63 taps, so a core that
// does M multiply-adds per second cannot make more than M / 63 output samples per second, or
// M / 126 stereo frames. M is measured here with independent FMA chains held in registers, in
// the widest vector instructions the converter's fastest build uses. Items are output frames for
// the converters and multiply-adds for the peak loops; main() prints the summary after the table.

#include "llib/snd/convertrate.h"

#include "bench/support/benchmain.h"
#include "bench/support/benchsources.h"
#include "llib/snd/ratekernel.h"

#include <benchmark/benchmark.h>

#if defined(__x86_64__)
#include <immintrin.h>
#endif
#ifdef TESSEL_HAVE_SAMPLERATE
#include <samplerate.h>
#endif

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace {

constexpr int kInRateHz = 44100;
constexpr int kOutRateHz = 48000;
constexpr unsigned char kChannels = 2;
constexpr long long kInputFrames = 10LL * kInRateHz;
constexpr long long kReadFrames = 8192;
constexpr double kTapsPerSample = kLConvertRateTaps;

// ---- the converters ----

void BM_ConvertRate(benchmark::State& state) {
    LSoundSource noise = LMakeSource<LBenchNoiseSource>(kInRateHz, kChannels, kInputFrames, 0.5f);
    LSoundSource converter = LMakeSource<LSRCConvertRate>(noise, kOutRateHz, false, false);
    long long const outFrames = converter->GetEndSample();
    std::vector<float> buffer(static_cast<std::size_t>(kReadFrames) * kChannels);
    for (auto _ : state) {
        converter->Seek(0);
        for (long long left = outFrames; left > 0; left -= kReadFrames) {
            converter->Read(buffer.data(), std::min(left, kReadFrames));
        }
        benchmark::DoNotOptimize(buffer.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * outFrames);
}

// The kernel alone, over interleaved input already in memory: what the converter costs without
// pulling its input.
void BM_RateKernel(benchmark::State& state) {
    LConvertRateBase const filter(kInRateHz, kOutRateHz, kLConvertRateTaps, false);
    llib::detail::RateLayout const layout = llib::detail::MakeRateLayout(filter, kChannels);
    std::vector<float> const input =
        MakeBenchNoise(kInputFrames * kChannels + llib::detail::kRateReadPastEnd, 0.5f, 1);
    long long const readGroups = kReadFrames / layout.frames;
    std::vector<float> out(static_cast<std::size_t>(kReadFrames) * kChannels);
    long long made = 0;
    for (auto _ : state) {
        llib::detail::RateKernelState kernelState{0, 0};
        for (;;) {
            long long const n = std::min(
                readGroups, llib::detail::RateGroupsThatFit(layout, kernelState, kInputFrames));
            llib::detail::RateKernelRun(layout, input.data(), kernelState, out.data(), n);
            made += n * layout.frames;
            if (n < readGroups) {
                break;
            }
        }
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(made);
}

#ifdef TESSEL_HAVE_SAMPLERATE
void BM_LibsamplerateSincFastest(benchmark::State& state) {
    // The same audio the converter benchmark reads from its noise source.
    LBenchNoiseSource source(kInRateHz, kChannels, kInputFrames, 0.5f);
    std::vector<float> input(static_cast<std::size_t>(kInputFrames) * kChannels);
    source.Read(input.data(), kInputFrames);
    int error = 0;
    SRC_STATE* converter = src_new(SRC_SINC_FASTEST, kChannels, &error);
    if (converter == nullptr) {
        state.SkipWithError(src_strerror(error));
        return;
    }
    std::vector<float> buffer(static_cast<std::size_t>(kReadFrames) * kChannels);
    long long made = 0;
    for (auto _ : state) {
        src_reset(converter);
        SRC_DATA data{};
        data.src_ratio = static_cast<double>(kOutRateHz) / kInRateHz;
        long long used = 0;
        for (;;) {
            long long const chunk = std::min(kReadFrames, kInputFrames - used);
            data.data_in = input.data() + used * kChannels;
            data.input_frames = static_cast<long>(chunk);
            data.data_out = buffer.data();
            data.output_frames = static_cast<long>(kReadFrames);
            data.end_of_input = used + chunk == kInputFrames ? 1 : 0;
            if (src_process(converter, &data) != 0) {
                state.SkipWithError("src_process failed");
                break;
            }
            used += data.input_frames_used;
            made += data.output_frames_gen;
            if (data.end_of_input != 0 && data.output_frames_gen == 0) {
                break;
            }
        }
        benchmark::DoNotOptimize(buffer.data());
        benchmark::ClobberMemory();
    }
    src_delete(converter);
    state.SetItemsProcessed(made);
}
#endif

// ---- the peak multiply-add rate ----

#if defined(__x86_64__)
constexpr long long kPeakLoops = 1 << 16;

// Twelve chains hide the FMA latency on every current x86 core; each update is x = x * a + b
// with |a| < 1, so the values settle instead of overflowing or turning denormal. The chains are
// named one by one so they stay in registers whatever the optimisation level.
#define TESSEL_PEAK_LOOP(V, SET, FMA, ADD)                                                         \
    V x0 = SET(seed), x1 = SET(seed + 1.0f), x2 = SET(seed + 2.0f), x3 = SET(seed + 3.0f);         \
    V x4 = SET(seed + 4.0f), x5 = SET(seed + 5.0f), x6 = SET(seed + 6.0f), x7 = SET(seed + 7.0f);  \
    V x8 = SET(seed + 8.0f), x9 = SET(seed + 9.0f), x10 = SET(seed + 10.0f);                       \
    V x11 = SET(seed + 11.0f);                                                                     \
    for (long long n = 0; n < kPeakLoops; ++n) {                                                   \
        x0 = FMA(x0, a, b);                                                                        \
        x1 = FMA(x1, a, b);                                                                        \
        x2 = FMA(x2, a, b);                                                                        \
        x3 = FMA(x3, a, b);                                                                        \
        x4 = FMA(x4, a, b);                                                                        \
        x5 = FMA(x5, a, b);                                                                        \
        x6 = FMA(x6, a, b);                                                                        \
        x7 = FMA(x7, a, b);                                                                        \
        x8 = FMA(x8, a, b);                                                                        \
        x9 = FMA(x9, a, b);                                                                        \
        x10 = FMA(x10, a, b);                                                                      \
        x11 = FMA(x11, a, b);                                                                      \
    }                                                                                              \
    V const sum = ADD(ADD(ADD(ADD(x0, x1), ADD(x2, x3)), ADD(ADD(x4, x5), ADD(x6, x7))),           \
                      ADD(ADD(x8, x9), ADD(x10, x11)));

constexpr long long kPeakChains = 12;

__attribute__((target("avx2,fma"))) float FmaPeakAvx2(float seed) {
    __m256 const a = _mm256_set1_ps(0.999f);
    __m256 const b = _mm256_set1_ps(0.001f);
    TESSEL_PEAK_LOOP(__m256, _mm256_set1_ps, _mm256_fmadd_ps, _mm256_add_ps)
    return _mm256_cvtss_f32(sum);
}

__attribute__((target("avx512f"))) float FmaPeakAvx512(float seed) {
    __m512 const a = _mm512_set1_ps(0.999f);
    __m512 const b = _mm512_set1_ps(0.001f);
    TESSEL_PEAK_LOOP(__m512, _mm512_set1_ps, _mm512_fmadd_ps, _mm512_add_ps)
    // Read through memory: GCC 12's _mm512_reduce_add_ps and _mm512_cvtss_f32 paths trip
    // -Wuninitialized.
    float lanes[16];
    _mm512_storeu_ps(lanes, sum);
    return lanes[0];
}
#undef TESSEL_PEAK_LOOP

void BM_FmaPeakAvx2(benchmark::State& state) {
    if (!__builtin_cpu_supports("avx2") || !__builtin_cpu_supports("fma")) {
        state.SkipWithError("no AVX2 with FMA on this machine");
        return;
    }
    float seed = 1.0f;
    for (auto _ : state) {
        seed = FmaPeakAvx2(seed) * 1e-3f;
        benchmark::DoNotOptimize(seed);
    }
    state.SetItemsProcessed(state.iterations() * kPeakLoops * kPeakChains * 8);
}

void BM_FmaPeakAvx512(benchmark::State& state) {
    if (!__builtin_cpu_supports("avx512f")) {
        state.SkipWithError("no AVX-512 on this machine");
        return;
    }
    float seed = 1.0f;
    for (auto _ : state) {
        seed = FmaPeakAvx512(seed) * 1e-3f;
        benchmark::DoNotOptimize(seed);
    }
    state.SetItemsProcessed(state.iterations() * kPeakLoops * kPeakChains * 16);
}
#endif

// ---- the summary ----

struct Rates {
    double best = 0.0;   // the fastest repetition
    double median = 0.0; // the median aggregate, when repetitions were asked for
    // The figure the summary uses: the fastest repetition, or the median when only aggregates
    // were reported. The fastest is the least disturbed by other work on the machine.
    [[nodiscard]] double Value() const { return best > 0.0 ? best : median; }
};

// The console table as usual, plus each family's items per second for the summary.
class SummaryReporter final : public benchmark::ConsoleReporter {
public:
    void ReportRuns(std::vector<Run> const& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (Run const& run : runs) {
            auto const found = run.counters.find("items_per_second");
            if (run.error_occurred || found == run.counters.end()) {
                continue;
            }
            Rates& rates = m_rates[run.run_name.function_name];
            double const value = found->second.value;
            if (run.run_type == Run::RT_Iteration) {
                rates.best = std::max(rates.best, value);
            } else if (run.aggregate_name == "median") {
                rates.median = value;
            }
        }
    }

    [[nodiscard]] Rates Get(std::string const& name) const {
        auto const found = m_rates.find(name);
        return found == m_rates.end() ? Rates{} : found->second;
    }

private:
    std::map<std::string, Rates> m_rates;
};

void PrintRate(char const* label, Rates rates, char const* unit) {
    if (rates.best > 0.0 && rates.median > 0.0) {
        std::printf("%s: %.4g %s (best), %.4g (median)\n", label, rates.best, unit, rates.median);
    } else {
        std::printf("%s: %.4g %s\n", label, rates.Value(), unit);
    }
}

void PrintSummary(SummaryReporter const& reporter) {
    Rates const peak256 = reporter.Get("BM_FmaPeakAvx2");
    Rates const peak512 = reporter.Get("BM_FmaPeakAvx512");
    Rates const ours = reporter.Get("BM_ConvertRate");
    Rates const kernel = reporter.Get("BM_RateKernel");
    Rates const theirs = reporter.Get("BM_LibsamplerateSincFastest");

    std::printf("\n-- 44100 -> 48000 Hz stereo, %d taps --\n", kLConvertRateTaps);
    // The converter's fastest build is AVX2 with FMA; a wider peak is shown but not the floor.
    double const peak = peak256.Value();
    if (peak > 0.0) {
        PrintRate("peak multiply-adds (AVX2+FMA, 8 lanes)", peak256, "MAC/s");
    }
    if (peak512.Value() > 0.0) {
        PrintRate("peak multiply-adds (AVX-512, 16 lanes)", peak512, "MAC/s");
    }
    double floorFrames = 0.0;
    if (peak <= 0.0) {
        std::printf("floor: not measured (run BM_FmaPeakAvx2 too)\n");
    } else {
        floorFrames = peak / kTapsPerSample / kChannels;
        std::printf("floor: %.4g output samples/s per channel, %.4g stereo frames/s\n",
                    peak / kTapsPerSample, floorFrames);
    }
    auto const printOurs = [floorFrames](char const* label, Rates rates) {
        if (rates.Value() <= 0.0) {
            return;
        }
        std::printf("%s: %.4g frames/s", label, rates.Value());
        if (floorFrames > 0.0) {
            std::printf(" (%.1f%% of floor)", 100.0 * rates.Value() / floorFrames);
        }
        std::printf("\n");
    };
    printOurs("ours (LSRCConvertRate)", ours);
    printOurs("ours (kernel only)", kernel);
#ifdef TESSEL_HAVE_SAMPLERATE
    if (theirs.Value() > 0.0) {
        std::printf("libsamplerate SINC_FASTEST: %.4g frames/s\n", theirs.Value());
        if (ours.Value() > 0.0) {
            std::printf("ratio ours/libsamplerate: %.2f\n", ours.Value() / theirs.Value());
        }
    }
#else
    (void)theirs;
    std::printf("libsamplerate comparison skipped: built without libsamplerate0-dev\n");
#endif
}

} // namespace

#if defined(__x86_64__)
BENCHMARK(BM_FmaPeakAvx2);
BENCHMARK(BM_FmaPeakAvx512);
#endif
BENCHMARK(BM_ConvertRate)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RateKernel)->Unit(benchmark::kMillisecond);
#ifdef TESSEL_HAVE_SAMPLERATE
BENCHMARK(BM_LibsamplerateSincFastest)->Unit(benchmark::kMillisecond);
#endif

int main(int argc, char** argv) {
    SummaryReporter reporter;
    if (!LRunBenchmarks(argc, argv, reporter)) {
        return 1;
    }
    PrintSummary(reporter);
    return 0;
}
