// SPDX-License-Identifier: GPL-3.0-or-later
// Sample format conversions in both directions. Items are individual samples (frames times
// channels). The smaller size is one stereo copy block, resident in cache; the larger one streams
// from memory.

#include "llib/snd/sampleformats.h"

#include "bench/support/benchsources.h"
#include "llib/snd/soundbase.h"

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace {

// Random bytes cover every code, both extremes included.
template <class T>
std::vector<T> MakeStored(long long count) {
    std::vector<T> stored(static_cast<std::size_t>(count));
    auto* const bytes = reinterpret_cast<unsigned char*>(stored.data());
    std::uint32_t state = 7;
    for (std::size_t i = 0; i < stored.size() * sizeof(T); ++i) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        bytes[i] = static_cast<unsigned char>(state >> 24);
    }
    return stored;
}

template <class T>
void BM_ConvertIn(benchmark::State& state) {
    long long const count = state.range(0);
    std::vector<T> const in = MakeStored<T>(count);
    std::vector<float> out(static_cast<std::size_t>(count));
    for (auto _ : state) {
        ConvertSamplesIn<T>(out.data(), in.data(), count);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * count);
    state.SetBytesProcessed(state.iterations() * count * static_cast<long long>(sizeof(T)));
}

template <class T>
void BM_ConvertOut(benchmark::State& state) {
    long long const count = state.range(0);
    // Slightly beyond full scale so the saturating paths are taken too.
    std::vector<float> const in = MakeBenchNoise(count, 1.05f, 11);
    std::vector<T> out(static_cast<std::size_t>(count));
    for (auto _ : state) {
        ConvertSamplesOut<T>(out.data(), in.data(), count);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * count);
    state.SetBytesProcessed(state.iterations() * count * static_cast<long long>(sizeof(T)));
}

constexpr long long kBlockSamples = 2 * kLSoundBlockFrames;
constexpr long long kLargeSamples = 1 << 22;

} // namespace

#define TESSEL_FORMAT_BENCH(T)                                                                     \
    BENCHMARK_TEMPLATE(BM_ConvertIn, T)->Arg(kBlockSamples)->Arg(kLargeSamples);                   \
    BENCHMARK_TEMPLATE(BM_ConvertOut, T)->Arg(kBlockSamples)->Arg(kLargeSamples);

TESSEL_FORMAT_BENCH(LSFU8)
TESSEL_FORMAT_BENCH(LSF16)
TESSEL_FORMAT_BENCH(LSFLE24)
TESSEL_FORMAT_BENCH(LSF32)
TESSEL_FORMAT_BENCH(LSFF32)
