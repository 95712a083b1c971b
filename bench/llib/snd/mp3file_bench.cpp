// SPDX-License-Identifier: GPL-3.0-or-later
// MP3 decoding to float of 60 seconds of 44.1 kHz stereo that behaves like music rather than a
// test tone: chords of decaying harmonic notes panned apart, a bass line both channels share and
// short noise bursts on the beat, so that the encoder mixes long and short blocks, spends its bit
// reservoir and uses joint stereo as it does on recordings. The signal is synthesised here; `lame`
// encodes it once at 128 kbit/s constant and at -V2, in a temporary folder removed at exit.
// Each file is decoded on the calling thread and with the decoding thread ahead of Read.
//
// Counters: frames per second (items), x_realtime (seconds of audio per second of wall time),
// bytes (the file's size).

#include "llib/snd/mp3file.h"
#include "llib/snd/wavefile.h"
#include "bench/support/benchtools.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <numbers>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr int kRateHz = 44100;
constexpr unsigned char kChannels = 2;
constexpr int kSeconds = 60;
constexpr long long kFrames = static_cast<long long>(kSeconds) * kRateHz;
constexpr long long kBlockFrames = 8192;

// A note of six harmonics falling off as 1/h, the upper ones decaying faster, started `t` ago.
double Note(int midiNote, double t, double decay) {
    double const hz = 440.0 * std::pow(2.0, (midiNote - 69) / 12.0);
    double sum = 0.0;
    for (int h = 1; h <= 6; ++h) {
        sum += std::sin(2.0 * std::numbers::pi * hz * h * t) * std::exp(-t * decay * h) / h;
    }
    return sum;
}

bool WriteSignal(char const* path) {
    constexpr std::array<std::array<int, 4>, 4> kChords = {
        {{60, 64, 67, 72}, {57, 60, 64, 69}, {53, 57, 60, 65}, {55, 59, 62, 67}}};
    constexpr std::array<double, 4> kPan = {0.2, 0.8, 0.35, 0.65};
    std::minstd_rand rng(12345);
    std::uniform_real_distribution<double> white(-1.0, 1.0);
    std::vector<float> signal(static_cast<std::size_t>(kFrames) * kChannels);
    for (long long i = 0; i < kFrames; ++i) {
        double const t = static_cast<double>(i) / kRateHz;
        auto const& chord = kChords[static_cast<std::size_t>(t / 2.0) % kChords.size()];
        double const inBeat = std::fmod(t, 0.5);
        double const bass = 0.25 * Note(chord[0] - 24, inBeat, 3.0);
        double const burst = inBeat < 0.03 ? 0.15 * std::exp(-inBeat * 150.0) : 0.0;
        for (std::size_t c = 0; c < kChannels; ++c) {
            double v = bass + burst * white(rng);
            for (std::size_t n = 0; n < chord.size(); ++n) {
                v += 0.09 * Note(chord[n], std::fmod(t, 2.0), 1.2) *
                     (c == 0 ? 1 - kPan[n] : kPan[n]);
            }
            signal[static_cast<std::size_t>(i) * kChannels + c] = static_cast<float>(0.7 * v);
        }
    }
    LSoundSink sink = LWaveFile::OpenSinkPCM(path, kRateHz, kChannels, 16, false);
    sink->Write(signal.data(), kFrames);
    return sink->Finish();
}

// Runs argv quietly; true when it exits with 0.
bool Run(std::vector<char const*> argv) {
    argv.push_back(nullptr);
    return LBenchRunQuiet(argv.data());
}

// The temporary folder with the two encodings; empty paths when lame is missing or fails.
struct Files {
    std::filesystem::path folder;
    std::string cbr;
    std::string vbr;

    Files() {
        std::string pattern = (std::filesystem::temp_directory_path() / "tessel-mp3-XXXXXX");
        if (mkdtemp(pattern.data()) == nullptr) {
            return;
        }
        folder = pattern;
        std::string const wav = folder / "in.wav";
        std::string const cbrPath = folder / "cbr128.mp3";
        std::string const vbrPath = folder / "v2.mp3";
        if (WriteSignal(wav.c_str()) &&
            Run({"lame", "--quiet", "-b", "128", wav.c_str(), cbrPath.c_str()}) &&
            Run({"lame", "--quiet", "-V", "2", wav.c_str(), vbrPath.c_str()})) {
            cbr = cbrPath;
            vbr = vbrPath;
        }
    }
    ~Files() {
        std::error_code ignored;
        std::filesystem::remove_all(folder, ignored);
    }
};

// Reads the whole file into float; returns a sum so the work cannot be dropped, or NaN when the
// file does not decode to its full length without loss.
float Decode(std::string const& path, bool decodeAhead, std::vector<float>& block) {
    LSoundSource source = LMP3File::OpenSource(path.c_str(), decodeAhead);
    float sum = 0.0f;
    for (long long done = 0; done < source->GetEndSample(); done += kBlockFrames) {
        source->Read(block.data(), kBlockFrames);
        sum += block[0];
    }
    bool const whole = source->GetEndSample() == kFrames && LMP3File::GetLostFrames(source) == 0;
    return whole ? sum : std::nanf("");
}

// Arguments: 0 for the 128 kbit/s file, 1 for the -V2 one; 1 to decode ahead on a thread.
void BM_Mp3Decode(benchmark::State& state) {
    static Files const files;
    std::string const& path = state.range(0) == 0 ? files.cbr : files.vbr;
    bool const decodeAhead = state.range(1) != 0;
    std::vector<float> block(static_cast<std::size_t>(kBlockFrames) * kChannels);
    if (path.empty() || std::isnan(Decode(path, decodeAhead, block))) { // also into the page cache
        state.SkipWithError("lame is missing, or its file does not decode whole");
        return;
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(Decode(path, decodeAhead, block));
    }
    state.SetItemsProcessed(state.iterations() * kFrames);
    state.counters["bytes"] = static_cast<double>(std::filesystem::file_size(path));
    state.counters["x_realtime"] = benchmark::Counter(
        static_cast<double>(state.iterations()) * kSeconds, benchmark::Counter::kIsRate);
}

} // namespace

BENCHMARK(BM_Mp3Decode)
    ->ArgsProduct({{0, 1}, {0, 1}})
    ->ArgNames({"vbr", "ahead"})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
