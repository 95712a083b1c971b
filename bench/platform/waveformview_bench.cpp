// SPDX-License-Identifier: GPL-3.0-or-later
// The desktop's two felt speeds on a three-hour 44.1 kHz stereo document: repainting the whole
// waveform view (ruler, two lanes of 2000 columns, selection, cursor) offscreen, fully zoomed out
// and at one frame per pixel, each under a frame (16 ms); and starting playback from the middle
// (the call that opens the document's source, starts the audio device and queues the first
// audio) under 100 ms. The playback figure needs a sound server: bench/scripts/desktop_bench.sh
// starts a private one with a null sink; without one that benchmark reports the error.

#include "editor/sefilegui.h"
#include "llib/snd/cache.h"
#include "llib/snd/peakview.h"
#include "llib/snd/player.h"
#include "platform/qt/qtaudiodevice.h"
#include "platform/qt/waveformview.h"

#include "bench/support/benchmain.h"
#include "bench/support/longitem.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QPainter>
#include <QPixmap>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

namespace {

constexpr long long kFrames = 3LL * 3600 * kBenchLongItemRateHz;
constexpr int kWidth = 2000;
constexpr int kHeight = 600;

struct Document {
    unsigned short item = kLSoundCacheItemNone;
    std::unique_ptr<SEFileGUI> view;
};

Document& GetDocument() {
    static Document document = [] {
        Document made;
        LSoundCache::SetFolder("tessel-bench-cache");
        made.item = MakeBenchLongItem(kFrames, 1LL << 20);
        if (made.item == kLSoundCacheItemNone) {
            return made;
        }
        LCutListAudio audio;
        audio.SetSampleRate(kBenchLongItemRateHz);
        audio.SetChannels(kBenchLongItemChannels);
        audio.AppendSegment(LCutListSegment(made.item, 0, kFrames));
        auto file = std::make_shared<SEFile>("three-hours.wav", audio);
        file->SetSelection({kFrames / 3, kFrames / 2, 0, 0, false});
        file->SetCursor(kFrames / 3);
        made.view = std::make_unique<SEFileGUI>(std::move(file));
        return made;
    }();
    return document;
}

void BM_RepaintView(benchmark::State& state) {
    Document& document = GetDocument();
    if (!document.view) {
        state.SkipWithError("the three-hour cache item could not be made");
        return;
    }
    SEWaveformView view(*document.view);
    view.resize(kWidth, kHeight);
    if (state.range(0) == 0) {
        view.ZoomAll();
    } else {
        view.SetZoom(1.0, static_cast<double>(kFrames / 2), 0);
    }
    QPixmap picture(view.size());
    for (auto _ : state) {
        QPainter painter(&picture);
        view.Render(painter);
    }
    state.SetItemsProcessed(state.iterations() * kWidth);
}

// Argument 0: the Play call. Argument 1: until the device reports the first frames played, the
// sound server's own start-up and buffer on top of the call.
void BM_PlaybackStart(benchmark::State& state) {
    Document& document = GetDocument();
    if (!document.view) {
        state.SkipWithError("the three-hour cache item could not be made");
        return;
    }
    bool const untilHeard = state.range(0) != 0;
    LQtAudioOutput device;
    LSoundPlayer player(device);
    LCutListAudio const& audio = document.view->GetFile()->GetAudio();
    std::string error;
    for (auto _ : state) {
        LSoundSource source = audio.OpenSource();
        source->Seek(kFrames / 2);
        if (!player.Play(source, 0, error)) {
            state.SkipWithError(error.c_str());
            return;
        }
        QElapsedTimer waited;
        waited.start();
        while (untilHeard && player.GetPlayPosition() == kFrames / 2 && waited.elapsed() < 5000) {
            QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
        }
        state.PauseTiming();
        player.Stop();
        state.ResumeTiming();
    }
}

} // namespace

BENCHMARK(BM_RepaintView)->ArgName("zoom")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PlaybackStart)
    ->ArgName("heard")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(10);

int main(int argc, char** argv) {
    if (std::getenv("QT_QPA_PLATFORM") == nullptr) {
        setenv("QT_QPA_PLATFORM", "offscreen", 1);
    }
    QApplication app(argc, argv);
    LBenchTimeReporter reporter;
    if (!LRunBenchmarks(argc, argv, reporter)) {
        return 1;
    }
    std::printf("\n-- the desktop on 3 h of stereo --\n");
    char const* const names[] = {"repaint, zoomed out (target 16 ms)",
                                 "repaint, 1:1 (target 16 ms)"};
    for (int zoom = 0; zoom < 2; ++zoom) {
        double const seconds = reporter.Seconds("BM_RepaintView/zoom:" + std::to_string(zoom));
        if (seconds > 0.0) {
            std::printf("%-38s %8.3f ms\n", names[zoom], seconds * 1e3);
        }
    }
    double const start = reporter.Seconds("BM_PlaybackStart/heard:0/iterations:10");
    if (start > 0.0) {
        std::printf("%-38s %8.3f ms\n", "playback start (target 100 ms)", start * 1e3);
    }
    double const heard = reporter.Seconds("BM_PlaybackStart/heard:1/iterations:10");
    if (heard > 0.0) {
        std::printf("%-38s %8.3f ms\n", "  until the device reports sound", heard * 1e3);
    }
    Document& document = GetDocument();
    document.view.reset();
    LPeakView::ReleaseSummaries();
    if (document.item != kLSoundCacheItemNone) {
        LSoundCache::DecRef(document.item);
    }
    return 0;
}
