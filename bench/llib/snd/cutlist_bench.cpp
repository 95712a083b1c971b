// SPDX-License-Identifier: GPL-3.0-or-later
// The cut list: edits must cost what the number of segments costs, never what the audio's length
// costs, and reading or drawing a list of many segments must cost about what one segment does.
//
// Edits run on lists of 10, 1,000 and 100,000 segments over one 10-hour item (edits never touch
// samples, so the item needs no files). Peaks and reading use a real one-hour stereo item,
// written once into "tessel-bench-cache" in the working directory and deleted at the end.

#include "llib/snd/cache.h"
#include "llib/snd/cutlistaudio.h"

#include "bench/support/benchmain.h"
#include "bench/support/benchsources.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr int kRateHz = 44100;
constexpr long long kTenHours = 10LL * 3600 * kRateHz;
constexpr long long kOneHour = 3600LL * kRateHz;

class NullProcess final : public LProcessInterfaceBasic {
public:
    bool IsToStop() override { return false; }
};

// The items every benchmark shares, made on first use.
struct Items {
    unsigned short tenHours = kLSoundCacheItemNone; // a number only
    unsigned short oneHour = kLSoundCacheItemNone;  // real files, stereo
};

Items& GetItems() {
    static Items items = [] {
        Items made;
        LSoundCache::SetFolder("tessel-bench-cache");
        made.tenHours = LSoundCache::ItemCreateNewAndIncRef();
        LSoundSource noise = LMakeSource<LBenchNoiseSource>(kRateHz, 2, kOneHour, 0.5f);
        NullProcess process;
        LSoundCacheItemHandle handle;
        long long frames = 0;
        if (LSoundCacheItemAdd(process, noise, handle, frames) == LProcessResult::kCompleted) {
            made.oneHour = handle.item;
            // Read once, so every reading benchmark starts from the page cache alike.
            LSoundSource item = LSoundCacheOpenSource(made.oneHour);
            std::vector<float> buffer(65536 * 2);
            for (long long left = kOneHour; left > 0; left -= 65536) {
                item->Read(buffer.data(), std::min<long long>(left, 65536));
            }
        }
        return made;
    }();
    return items;
}

// `count` segments over `item` (of `itemFrames` frames), in shuffled order so neighbours in the
// list are not neighbours in the item, as after real editing.
LCutListAudio MakeList(unsigned short item, long long itemFrames, long long count) {
    LCutListAudio list;
    list.SetSampleRate(kRateHz);
    list.SetChannels(2);
    long long const length = itemFrames / count;
    std::vector<long long> order(static_cast<std::size_t>(count));
    std::iota(order.begin(), order.end(), 0);
    std::shuffle(order.begin(), order.end(), std::mt19937(7));
    for (long long const i : order) {
        list.AppendSegment(std::make_unique<LCutListSegment>(item, i * length, length));
    }
    return list;
}

// A delete of a range inside the middle of the list and the insert that puts a segment back:
// the pair an edit makes, keeping the list's size steady across iterations.
void BM_DeleteInsert(benchmark::State& state) {
    LCutListAudio list = MakeList(GetItems().tenHours, kTenHours, state.range(0));
    LCutListAudio clip = MakeList(GetItems().tenHours, kTenHours / state.range(0), 1);
    long long const middle = list.GetLengthFrames() / 2 + 12345;
    long long const span = clip.GetLengthFrames();
    for (auto _ : state) {
        list.EfDelete(middle, middle + span);
        list.EfInsert(middle, clip);
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_EfDelete(benchmark::State& state) {
    LCutListAudio list = MakeList(GetItems().tenHours, kTenHours, state.range(0));
    long long const middle = list.GetLengthFrames() / 2 + 12345;
    for (auto _ : state) {
        state.PauseTiming();
        LCutListAudio edited = list;
        state.ResumeTiming();
        edited.EfDelete(middle, middle + kRateHz);
        state.PauseTiming();
        edited = LCutListAudio();
        state.ResumeTiming();
    }
}

void BM_EfInsert(benchmark::State& state) {
    LCutListAudio list = MakeList(GetItems().tenHours, kTenHours, state.range(0));
    LCutListAudio clip = MakeList(GetItems().tenHours, kRateHz, 1);
    long long const middle = list.GetLengthFrames() / 2 + 12345;
    for (auto _ : state) {
        list.EfInsert(middle, clip);
        state.PauseTiming();
        list.EfDelete(middle, middle + clip.GetLengthFrames());
        state.ResumeTiming();
    }
}

// A tenth of the list copied out, as for the clipboard.
void BM_EfCopy(benchmark::State& state) {
    LCutListAudio list = MakeList(GetItems().tenHours, kTenHours, state.range(0));
    long long const start = list.GetLengthFrames() / 3;
    long long const end = start + list.GetLengthFrames() / 10;
    for (auto _ : state) {
        LCutListAudio out;
        list.EfCopy(start, end, out);
        benchmark::DoNotOptimize(out.GetSegmentCount());
    }
}

// The whole list copied, as every undo snapshot does.
void BM_WholeCopy(benchmark::State& state) {
    LCutListAudio list = MakeList(GetItems().tenHours, kTenHours, state.range(0));
    for (auto _ : state) {
        LCutListAudio copy = list;
        benchmark::DoNotOptimize(copy.GetSegmentCount());
    }
}

void BM_GrfBufferGetOneHour(benchmark::State& state) {
    LCutListAudio list = MakeList(GetItems().oneHour, kOneHour, 1);
    std::vector<LCutListGrfFrame> peaks;
    for (auto _ : state) {
        if (!list.GrfBufferGet(peaks, 0, list.GetLengthFrames())) {
            state.SkipWithError("the peaks could not be read");
            return;
        }
        benchmark::DoNotOptimize(peaks.data());
    }
}

// The whole hour read as a source through `range(0)` segments.
void BM_ReadSegments(benchmark::State& state) {
    LCutListAudio list = MakeList(GetItems().oneHour, kOneHour, state.range(0));
    std::vector<float> buffer(8192 * 2);
    for (auto _ : state) {
        LSoundSource source = list.OpenSource();
        for (long long left = source->GetEndSample(); left > 0; left -= 8192) {
            source->Read(buffer.data(), std::min<long long>(left, 8192));
        }
        benchmark::DoNotOptimize(buffer.data());
    }
    state.SetItemsProcessed(state.iterations() * list.GetLengthFrames());
}

} // namespace

BENCHMARK(BM_DeleteInsert)->Arg(10)->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_EfDelete)->Arg(10)->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_EfInsert)->Arg(10)->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_EfCopy)->Arg(10)->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_WholeCopy)->Arg(10)->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_GrfBufferGetOneHour)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReadSegments)
    ->Arg(1)
    ->Arg(1000)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MinTime(2.0);

int main(int argc, char** argv) {
    LBenchTimeReporter reporter;
    if (!LRunBenchmarks(argc, argv, reporter)) {
        return 1;
    }

    double const pair = reporter.Seconds("BM_DeleteInsert/1000");
    double const peaks = reporter.Seconds("BM_GrfBufferGetOneHour");
    double const one = reporter.Seconds("BM_ReadSegments/1/min_time:2.000/real_time");
    double const many = reporter.Seconds("BM_ReadSegments/1000/min_time:2.000/real_time");
    std::printf("\n-- cut list --\n");
    std::printf("delete + insert, 1,000 segments: %.2f us (target < 50)\n", pair * 1e6);
    std::printf("peaks of a whole one-hour stereo item: %.2f ms (target < 20)\n", peaks * 1e3);
    if (one > 0.0 && many > 0.0) {
        std::printf("reading 1,000 segments: %.0f%% of the speed of one (target >= 80%%)\n",
                    100.0 * one / many);
    }
    Items const& items = GetItems();
    LSoundCache::DecRef(items.tenHours);
    LSoundCache::DecRef(items.oneHour);
    return 0;
}
