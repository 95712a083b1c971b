// SPDX-License-Identifier: GPL-3.0-or-later
// The source-to-sink copy of ten minutes of 44.1 kHz stereo into a counting sink of the same
// format: no conversion is inserted, so this times the copy loop and the peak limiter that
// always sits in front of the sink. The quiet source never reaches the threshold; the loud one
// exceeds it in every block, so the limiter ramps its gain throughout. Items are frames.

#include "llib/snd/prsourcesink.h"

#include "bench/support/benchsources.h"
#include "llib/snd/peaklimit.h"

#include <benchmark/benchmark.h>

#include <vector>

namespace {

constexpr int kRateHz = 44100;
constexpr unsigned char kChannels = 2;
constexpr long long kFrames = 10LL * 60 * kRateHz;

// Whether the limiter Process inserts reduces the level of this audio (ControlMessage 7).
bool LimiterReduces(float amplitude) {
    LSoundSource source = LMakeSource<LBenchNoiseSource>(kRateHz, kChannels, kFrames, amplitude);
    LSoundSource limiter = LSPPeakLimit(kLPeakLimit16Bit).OpenSource(source);
    std::vector<float> buffer(static_cast<std::size_t>(kLSoundBlockFrames) * kChannels);
    limiter->Read(buffer.data(), kLSoundBlockFrames);
    long reduced = 0;
    return limiter->ControlMessage(7, &reduced) != 0 && reduced != 0;
}

void BM_ProcessSourceToSink(benchmark::State& state) {
    float const amplitude = static_cast<float>(state.range(0)) / 100.0f;
    if (LimiterReduces(amplitude) != (amplitude > kLPeakLimit16Bit)) {
        state.SkipWithError("the limiter does not act as this variant expects");
        return;
    }
    LProcessInterfaceBasic process;
    for (auto _ : state) {
        state.PauseTiming();
        LSoundSource source =
            LMakeSource<LBenchNoiseSource>(kRateHz, kChannels, kFrames, amplitude);
        LSoundSink sink = LMakeSink<LSoundSinkStubBase>(kRateHz, kChannels);
        LPRSourceToSink data("bench", source, sink, false);
        state.ResumeTiming();
        LProcessResult const result = Process(process, data);
        if (result != LProcessResult::kCompleted || sink->GetFramesWritten() != kFrames) {
            state.SkipWithError("the copy did not complete");
            return;
        }
    }
    state.SetItemsProcessed(state.iterations() * kFrames);
}

} // namespace

// Amplitude in hundredths of full scale: 0.5 passes untouched, 1.5 is limited everywhere.
BENCHMARK(BM_ProcessSourceToSink)
    ->ArgName("amplitude%")
    ->Arg(50)
    ->Arg(150)
    ->Unit(benchmark::kMillisecond);
