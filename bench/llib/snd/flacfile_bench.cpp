// SPDX-License-Identifier: GPL-3.0-or-later
// FLAC encoding from float and decoding to float of 60 seconds of 44.1 kHz 16-bit stereo that
// behaves like music rather than a test tone: chords of decaying harmonic notes panned apart, a
// bass line the two channels share, short noise bursts on the beat and a low noise floor. Pure
// tones or white noise would let the predictor look better or worse than it does on real
// recordings. The signal is synthesised here, the same on every run.
//
// Counters: bytes (the file's size), pct_of_pcm (that size against the 16-bit PCM), x_realtime
// (seconds of audio per second of wall time). Decoding is timed on our own level-5 file and, when
// `flac` is installed, on the reference encoder's -5 file of the same signal, whose frames use
// predictor orders and subframe kinds ours does not write.
// The files are "tessel-bench-flac-*.flac" in the working directory, removed at the end.

#include "llib/snd/flacfile.h"
#include "llib/snd/wavefile.h"
#include "bench/support/benchtools.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <numbers>
#include <random>
#include <vector>

namespace {

constexpr int kRateHz = 44100;
constexpr unsigned char kChannels = 2;
constexpr int kSeconds = 60;
constexpr long long kFrames = static_cast<long long>(kSeconds) * kRateHz;
constexpr long long kBlockFrames = 8192;
constexpr double kPcmBytes = static_cast<double>(kFrames) * kChannels * 2;

char const* const kOursPath = "tessel-bench-flac-ours.flac";
char const* const kEncodedPath = "tessel-bench-flac-encoded.flac";
char const* const kWavPath = "tessel-bench-flac-input.wav";
char const* const kTheirsPath = "tessel-bench-flac-reference.flac";

double Hz(int midiNote) {
    return 440.0 * std::pow(2.0, (midiNote - 69) / 12.0);
}

// A note of six harmonics falling off as 1/h, each decaying faster than the one below, started
// `t` seconds ago.
double Note(double hz, double t, double decay) {
    double sum = 0.0;
    for (int h = 1; h <= 6; ++h) {
        sum += std::sin(2.0 * std::numbers::pi * hz * h * t) * std::exp(-t * decay * h) / h;
    }
    return sum;
}

// Interleaved 16-bit values scaled to float, so any encoder sees exactly these integers.
std::vector<float> const& Signal() {
    static std::vector<float> const signal = [] {
        // Four bars of four chords, one chord per two seconds, the bass on every half second.
        constexpr std::array<std::array<int, 4>, 4> kChords = {
            {{60, 64, 67, 72}, {57, 60, 64, 69}, {53, 57, 60, 65}, {55, 59, 62, 67}}};
        constexpr std::array<int, 4> kBassSteps = {0, 7, 12, 7};
        constexpr std::array<double, 4> kPan = {0.2, 0.8, 0.35, 0.65};
        std::minstd_rand rng(12345);
        std::uniform_real_distribution<double> white(-1.0, 1.0);
        std::vector<float> out(static_cast<std::size_t>(kFrames) * kChannels);
        for (long long i = 0; i < kFrames; ++i) {
            double const t = static_cast<double>(i) / kRateHz;
            auto const chord = static_cast<std::size_t>(t / 2.0) % kChords.size();
            double const inChord = std::fmod(t, 2.0);
            double const inBeat = std::fmod(t, 0.5);
            auto const step = static_cast<std::size_t>(t / 0.5) % kBassSteps.size();
            double left = 0.0;
            double right = 0.0;
            for (std::size_t n = 0; n < 4; ++n) {
                double const v = 0.09 * Note(Hz(kChords[chord][n]), inChord, 1.2);
                left += v * (1.0 - kPan[n]);
                right += v * kPan[n];
            }
            double const bass =
                0.25 * Note(Hz(kChords[chord][0] - 24 + kBassSteps[step]), inBeat, 3.0);
            double const burst = inBeat < 0.03 ? 0.15 * std::exp(-inBeat * 150.0) : 0.0;
            double const hiss = 3e-4; // about -70 dBFS
            left += bass + burst * white(rng) + hiss * white(rng);
            right += bass + burst * white(rng) + hiss * white(rng);
            for (int c = 0; c < kChannels; ++c) {
                double const v = std::round((c == 0 ? left : right) * 32767.0);
                out[static_cast<std::size_t>(i * kChannels + c)] =
                    static_cast<float>(std::clamp(v, -32768.0, 32767.0) / 32768.0);
            }
        }
        return out;
    }();
    return signal;
}

long long FileBytes(char const* path) {
    struct stat st {};
    return stat(path, &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

bool Encode(char const* path, int compression) {
    LSoundSink sink = LFLACFile::OpenSink(path, kRateHz, kChannels, 16, false, compression);
    std::vector<float> const& signal = Signal();
    for (long long done = 0; done < kFrames; done += kBlockFrames) {
        sink->Write(signal.data() + done * kChannels, std::min(kBlockFrames, kFrames - done));
    }
    return sink->Finish();
}

// Reads the whole file into float; returns a sum so the work cannot be dropped.
float Decode(char const* path, std::vector<float>& block) {
    LSoundSource source = LFLACFile::OpenSource(path);
    float sum = 0.0f;
    for (long long done = 0; done < source->GetEndSample(); done += kBlockFrames) {
        source->Read(block.data(), kBlockFrames);
        sum += block[0];
    }
    return sum;
}

// Runs argv quietly; true when it exits with 0.
bool Run(char const* const* argv) {
    return LBenchRunQuiet(argv);
}

void SetCounters(benchmark::State& state, long long bytes) {
    state.SetItemsProcessed(state.iterations() * kFrames);
    state.counters["bytes"] = static_cast<double>(bytes);
    state.counters["pct_of_pcm"] = 100.0 * static_cast<double>(bytes) / kPcmBytes;
    state.counters["x_realtime"] = benchmark::Counter(
        static_cast<double>(state.iterations()) * kSeconds, benchmark::Counter::kIsRate);
}

void BM_FlacEncode(benchmark::State& state) {
    auto const compression = static_cast<int>(state.range(0));
    (void)Signal(); // synthesised outside the timing
    for (auto _ : state) {
        if (!Encode(kEncodedPath, compression)) {
            state.SkipWithError("the file could not be written");
            return;
        }
    }
    SetCounters(state, FileBytes(kEncodedPath));
}

void BM_FlacDecode(benchmark::State& state) {
    static bool const made = Encode(kOursPath, kLFLACDefaultCompression);
    if (!made) {
        state.SkipWithError("the file could not be written");
        return;
    }
    std::vector<float> block(static_cast<std::size_t>(kBlockFrames) * kChannels);
    benchmark::DoNotOptimize(Decode(kOursPath, block)); // into the page cache
    for (auto _ : state) {
        benchmark::DoNotOptimize(Decode(kOursPath, block));
    }
    SetCounters(state, FileBytes(kOursPath));
}

// The same signal through `flac -5`, by way of a 16-bit WAV.
void BM_FlacDecodeReference(benchmark::State& state) {
    static bool const made = [] {
        LSoundSink sink = LWaveFile::OpenSinkPCM(kWavPath, kRateHz, kChannels, 16, false);
        sink->Write(Signal().data(), kFrames);
        char const* argv[] = {"flac", "-5", "-s", "-f", "-o", kTheirsPath, kWavPath, nullptr};
        return sink->Finish() && Run(argv);
    }();
    if (!made) {
        state.SkipWithError("flac is not installed or failed");
        return;
    }
    std::vector<float> block(static_cast<std::size_t>(kBlockFrames) * kChannels);
    benchmark::DoNotOptimize(Decode(kTheirsPath, block));
    for (auto _ : state) {
        benchmark::DoNotOptimize(Decode(kTheirsPath, block));
    }
    SetCounters(state, FileBytes(kTheirsPath));
}

// Runs last (registration order): removes the files.
void BM_Cleanup(benchmark::State& state) {
    for (auto _ : state) {
    }
    for (char const* path : {kOursPath, kEncodedPath, kWavPath, kTheirsPath}) {
        (void)unlink(path);
    }
}

} // namespace

BENCHMARK(BM_FlacEncode)->Arg(0)->Arg(5)->Arg(8)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_FlacDecode)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_FlacDecodeReference)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Cleanup)->Iterations(1);
