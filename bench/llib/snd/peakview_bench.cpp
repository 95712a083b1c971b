// SPDX-License-Identifier: GPL-3.0-or-later
// The waveform's columns: one repaint (2000 columns of a three-hour 44.1 kHz stereo document)
// must take well under a frame (16 ms) at every zoom, and stay so after the document has been
// cut into a thousand segments. Items processed are columns.
//
// The item is a real cache item made cheaply: its ".aud" is a sparse file of the full length
// with real samples written around the middle (where the zoomed-in repaints look), and its
// ".grf" holds the peaks of those samples there and of a synthesised swelling signal elsewhere.
// It is written into "tessel-bench-cache" in the working directory and deleted at the end.

#include "llib/snd/cache.h"
#include "llib/snd/cutlistaudio.h"
#include "llib/snd/peakview.h"

#include "bench/support/benchmain.h"
#include "bench/support/benchsources.h"
#include "bench/support/longitem.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr int kRateHz = kBenchLongItemRateHz;
constexpr long long kFrames = 3LL * 3600 * kRateHz;
constexpr long long kMiddle = kFrames / 2;
constexpr long long kRealFrames = 1LL << 20; // real samples, centred on the middle
constexpr int kColumns = 2000;
constexpr int kCuts = 1000;
constexpr long long kCutFrames = kRateHz / 10;

struct Documents {
    unsigned short item = kLSoundCacheItemNone;
    LCutListAudio whole;
    LCutListAudio cut; // after kCuts deletions of a tenth of a second
};

Documents& GetDocuments() {
    static Documents documents = [] {
        Documents made;
        LSoundCache::SetFolder("tessel-bench-cache");
        made.item = MakeBenchLongItem(kFrames, kRealFrames);
        if (made.item == kLSoundCacheItemNone) {
            return made;
        }
        made.whole.SetSampleRate(kRateHz);
        made.whole.SetChannels(kBenchLongItemChannels);
        made.whole.AppendSegment(LCutListSegment(made.item, 0, kFrames));
        made.cut = made.whole;
        std::mt19937 random(11);
        for (int i = 0; i < kCuts; ++i) {
            long long const length = made.cut.GetLengthFrames();
            long long const at =
                std::uniform_int_distribution<long long>(0, length - kCutFrames)(random);
            made.cut.EfDelete(at, at + kCutFrames);
        }
        return made;
    }();
    return documents;
}

// Where `list` plays the item's middle frame, so that zoomed-in repaints of both documents
// look at the real samples.
double MiddleOf(LCutListAudio const& list) {
    long long at = 0;
    for (LCutListSegment const& segment : list.GetSegments()) {
        long long const inside = kMiddle - segment.GetOffsetFrames();
        if (inside >= 0 && inside < segment.GetLengthFrames()) {
            return static_cast<double>(at + inside);
        }
        at += segment.GetLengthFrames();
    }
    return static_cast<double>(list.GetLengthFrames()) / 2.0;
}

// range(0): 0 zoomed out to the whole document, 1 one frame a column, 2 4096 frames a column,
// 3 255 frames a column, the widest drawn from samples (all but the first centred on the
// middle); range(1): 0 the whole document, 1 after the cuts.
void BM_Repaint(benchmark::State& state) {
    Documents& documents = GetDocuments();
    if (documents.item == kLSoundCacheItemNone) {
        state.SkipWithError("the item could not be made");
        return;
    }
    LCutListAudio const& list = state.range(1) == 0 ? documents.whole : documents.cut;
    double const perColumn[] = {static_cast<double>(list.GetLengthFrames()) / kColumns, 1.0, 4096.0,
                                255.0};
    double const framesPerColumn = perColumn[state.range(0)];
    double const start =
        state.range(0) == 0 ? 0.0 : MiddleOf(list) - framesPerColumn * kColumns / 2;
    LPeakView view;
    std::vector<LPeakColumn> columns;
    for (auto _ : state) {
        if (!view.GetColumns(list, start, framesPerColumn, kColumns, columns)) {
            state.SkipWithError("the columns could not be read");
            return;
        }
        benchmark::DoNotOptimize(columns.data());
    }
    state.SetItemsProcessed(state.iterations() * kColumns);
    state.counters["segments"] = static_cast<double>(list.GetSegmentCount());
}

// The first repaint of a document: the item's summary is built from its whole ".grf".
void BM_FirstRepaintZoomedOut(benchmark::State& state) {
    Documents& documents = GetDocuments();
    if (documents.item == kLSoundCacheItemNone) {
        state.SkipWithError("the item could not be made");
        return;
    }
    double const framesPerColumn = static_cast<double>(kFrames) / kColumns;
    LPeakView view;
    std::vector<LPeakColumn> columns;
    for (auto _ : state) {
        LPeakView::ReleaseSummaries();
        if (!view.GetColumns(documents.whole, 0.0, framesPerColumn, kColumns, columns)) {
            state.SkipWithError("the columns could not be read");
            return;
        }
        benchmark::DoNotOptimize(columns.data());
    }
    state.SetItemsProcessed(state.iterations() * kColumns);
}

} // namespace

BENCHMARK(BM_Repaint)
    ->ArgNames({"zoom", "cut"})
    ->ArgsProduct({{0, 1, 2, 3}, {0, 1}})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FirstRepaintZoomedOut)->Unit(benchmark::kMillisecond);

int main(int argc, char** argv) {
    LBenchTimeReporter reporter;
    if (!LRunBenchmarks(argc, argv, reporter)) {
        return 1;
    }
    char const* const names[] = {"zoomed out", "one frame a column", "4096 frames a column",
                                 "255 frames a column"};
    std::printf("\n-- waveform columns, %d columns of 3 h stereo (target: well under 16 ms) --\n",
                kColumns);
    for (int zoom = 0; zoom < 4; ++zoom) {
        for (int cut = 0; cut < 2; ++cut) {
            double const seconds = reporter.Seconds("BM_Repaint/zoom:" + std::to_string(zoom) +
                                                    "/cut:" + std::to_string(cut));
            if (seconds > 0.0) {
                std::printf("%-22s %-20s %8.3f ms\n", names[zoom],
                            cut == 0 ? "one segment" : "after 1000 cuts", seconds * 1e3);
            }
        }
    }
    double const first = reporter.Seconds("BM_FirstRepaintZoomedOut");
    if (first > 0.0) {
        std::printf("%-43s %8.3f ms\n", "first repaint (summary built)", first * 1e3);
    }
    Documents& documents = GetDocuments();
    documents.whole.Clear();
    documents.cut.Clear();
    LPeakView::ReleaseSummaries();
    if (documents.item != kLSoundCacheItemNone) {
        LSoundCache::DecRef(documents.item);
    }
    return 0;
}
