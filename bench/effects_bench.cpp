// SPDX-License-Identifier: GPL-3.0-or-later
// Amplify and a linear fade-in as the user runs them, through MainDialog's command dispatch, on a
// document opened from a 10-minute 44.1 kHz stereo WAV with all of it selected. Each time runs
// from the command to the document holding the result. Amplify only sets segment gains, so its
// time must not grow with the length: what it costs is the undo snapshot and storing the gain in
// the settings file. The fade renders the ten minutes into new cache audio, so its frames per
// second are the figure to watch (the summary gives them as a multiple of real time).
//
// Every timed command is undone with the clock paused, so each iteration starts from the same
// document and the same undo ring. Before timing, each effect is run once and read back at the
// start, the middle and the end of the document against the input's samples (a half, and the
// ramp from 0 at the first frame to 1 at the selection's end), then undone and read back again;
// and the cache folder is watched across the amplify, which must not write audio. Any of these
// failing fails every benchmark with the reason.
//
// The WAV, the cache and the settings live in a temporary folder (the TESSEL_*_DIR variables
// point into it, so neither the user's cache nor their settings are touched) that is removed at
// the end. The fades write 211 MB into it per iteration: put TMPDIR on the disk to be measured.

#include "editor/main.h"
#include "editor/seheadless.h"
#include "llib/gen/settings.h"
#include "llib/snd/cache.h"
#include "llib/snd/cutlistaudio.h"
#include "llib/snd/gensource.h"

#include "bench/support/benchcommand.h"
#include "bench/support/benchmain.h"
#include "bench/support/benchsources.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

namespace {

constexpr int kRateHz = 44100;
constexpr unsigned char kChannels = 2;
constexpr long long kDocumentFrames = 10LL * 60 * kRateHz;
// Windows read back by the checks: the ends of a fade are where an off-by-one shows, the middle
// where a wrong slope does. The middle one is off any 256-frame grid the ramp might use.
constexpr long long kCheckFrames = 4096;
constexpr long long kCheckStarts[] = {0, kDocumentFrames / 2 + 12345,
                                      kDocumentFrames - kCheckFrames};
// The ramp is stepped in float between exact points; its drift stays far below a 16-bit LSB
// (3.1e-5), which a misplaced or reversed ramp exceeds by orders of magnitude.
constexpr float kFadeTolerance = 2e-5f;

class NullProcess final : public LProcessInterfaceBasic {
public:
    bool IsToStop() override { return false; }
};

// One editor with the WAV open, made on first use.
struct Session {
    std::string dir;
    std::unique_ptr<LSettingsStore> settings;
    SEHeadlessUI ui;
    std::unique_ptr<MainDialog> dialog;
    SEFileGUI* view = nullptr;
    unsigned short item = kLSoundCacheItemNone; // the input's cache item
    std::vector<std::vector<float>> original;   // the input at kCheckStarts
    std::string error;                          // why nothing can be timed
    std::string report;                         // what the checks found
};

std::unique_ptr<Session>& SessionSlot() {
    static std::unique_ptr<Session> session;
    return session;
}

// Runs command `id` with `values` for its dialog; an error message when it did not run or left
// the document at another length.
std::string RunCommand(Session& s, int id, std::map<std::string, std::string> values = {}) {
    return RunBenchCommand(s.ui, *s.dialog, id, kDocumentFrames, std::move(values));
}

std::vector<float> ReadFrames(LCutListAudio const& audio, long long start) {
    std::vector<float> frames(static_cast<std::size_t>(kCheckFrames) * kChannels);
    LSoundSource source = audio.OpenSource();
    source->Seek(start);
    source->Read(frames.data(), kCheckFrames);
    return frames;
}

// Compares the document at kCheckStarts with the input scaled by gain(frame); an error message
// naming the first sample off by more than `tolerance`.
template <typename Gain>
std::string CompareWithInput(Session const& s, char const* what, Gain gain, float tolerance) {
    LCutListAudio const& audio = s.view->GetFile()->GetAudio();
    for (std::size_t w = 0; w < std::size(kCheckStarts); ++w) {
        std::vector<float> const got = ReadFrames(audio, kCheckStarts[w]);
        std::vector<float> const& in = s.original[w];
        for (std::size_t i = 0; i < got.size(); ++i) {
            long long const frame = kCheckStarts[w] + static_cast<long long>(i / kChannels);
            double const expected = static_cast<double>(in[i]) * gain(frame);
            if (std::fabs(static_cast<double>(got[i]) - expected) > tolerance) {
                char text[200];
                std::snprintf(text, sizeof text,
                              "%s: frame %lld channel %zu is %.7f, expected %.7f", what, frame,
                              i % kChannels, static_cast<double>(got[i]), expected);
                return text;
            }
        }
    }
    return {};
}

// The document is the input as opened: one segment over its item, at unit gain.
bool IsAsOpened(Session const& s) {
    LCutListAudio const& audio = s.view->GetFile()->GetAudio();
    LCutListSegment const* const head = audio.GetHead();
    return s.dialog->GetCurrentView() == s.view && audio.GetLengthFrames() == kDocumentFrames &&
           audio.GetSegmentCount() == 1 && head != nullptr && head->GetItem() == s.item &&
           head->GetOffsetFrames() == 0 && head->GetGain() == 1.0f;
}

// Each effect once, read back, undone and read back. Sets s.error at the first fault.
void CheckEffects(Session& s) {
    auto const half = [](long long) { return 0.5; };
    auto const unit = [](long long) { return 1.0; };
    auto const fadeIn = [](long long frame) {
        return static_cast<double>(frame) / static_cast<double>(kDocumentFrames);
    };
    std::string const folder = LSoundCache::GetFolder();
    std::map<std::string, std::uintmax_t> const before = BenchFileSizes(folder);
    std::string error = RunCommand(s, SECmd::kAmplify, {{"gain-percentage", "50"}});
    if (error.empty() && BenchFileSizes(folder) != before) {
        error = "amplify wrote into the cache folder: it rendered audio";
    }
    if (error.empty()) {
        error = CompareWithInput(s, "after amplify", half, 0.0f);
    }
    if (error.empty()) {
        error = RunCommand(s, SECmd::kUndo);
    }
    if (error.empty()) {
        error = CompareWithInput(s, "after undoing amplify", unit, 0.0f);
    }
    if (error.empty()) {
        error = RunCommand(s, SECmd::kFadeIn, {{"shape", "linear"}});
    }
    if (error.empty()) {
        error = CompareWithInput(s, "after fade-in", fadeIn, kFadeTolerance);
    }
    if (error.empty()) {
        error = RunCommand(s, SECmd::kUndo);
    }
    if (error.empty()) {
        error = CompareWithInput(s, "after undoing fade-in", unit, 0.0f);
    }
    if (error.empty() && !IsAsOpened(s)) {
        error = "undo did not give back the document as opened";
    }
    if (!error.empty()) {
        s.error = "checking the effects: " + error;
        return;
    }
    s.report = "read back at 3 places: amplify halves, fade-in ramps 0 to 1, undo restores; "
               "amplify leaves the cache folder unchanged";
}

void MakeSession(Session& s) {
    char const* const tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr && tmp[0] != '\0' ? tmp : "/tmp") +
                          "/tessel-effects-bench.XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
        s.error = "no temporary folder could be made";
        return;
    }
    s.dir = pattern;
    // Before anything reads them: the stored formats and the autosave would otherwise be looked
    // for in the user's folders.
    for (char const* const name : {"CONFIG", "CACHE", "DATA", "STATE"}) {
        std::string const sub = s.dir + "/" + name;
        ::setenv((std::string("TESSEL_") + name + "_DIR").c_str(), sub.c_str(), 1);
    }
    LSoundCache::SetFolder(s.dir + "/CACHE");
    s.settings = std::make_unique<LSettingsStore>(s.dir + "/CONFIG/settings.ini");

    std::string const wav = s.dir + "/in.wav";
    {
        LSoundSource noise =
            LMakeSource<LBenchNoiseSource>(kRateHz, kChannels, kDocumentFrames, 0.5f, 65536, 7U);
        NullProcess process;
        LGenSinkFormat format;
        format.bits = 16;
        if (ProcessGenSaveSource(process, noise, wav.c_str(), kRateHz, kChannels, &format,
                                 nullptr) != LProcessResult::kCompleted) {
            s.error = "the input WAV could not be written";
            return;
        }
    }
    s.dialog = std::make_unique<MainDialog>(s.ui, s.settings.get());
    // Opened as the user opens a file, so the document lies on a cache item decoded from it.
    s.error = RunCommand(s, SECmd::kOpen, {{"path", wav}});
    if (!s.error.empty()) {
        return;
    }
    s.view = s.dialog->GetCurrentView();
    LCutListAudio const& audio = s.view->GetFile()->GetAudio();
    if (audio.GetSampleRate() != kRateHz || audio.GetChannels() != kChannels ||
        audio.GetSegmentCount() != 1) {
        s.error = "the WAV did not open as one stereo 44.1 kHz segment";
        return;
    }
    s.item = audio.GetHead()->GetItem();
    for (long long const start : kCheckStarts) {
        s.original.push_back(ReadFrames(audio, start));
    }
    s.dialog->GetCore().ModifySelection(s.view, 0, kDocumentFrames, 0);
    CheckEffects(s);
}

Session& GetSession() {
    std::unique_ptr<Session>& slot = SessionSlot();
    if (!slot) {
        slot = std::make_unique<Session>();
        MakeSession(*slot);
    }
    return *slot;
}

// The session with the document as opened and all of it selected; null (the benchmark skipped)
// when it cannot be had.
Session* Ready(benchmark::State& state) {
    Session& s = GetSession();
    if (s.error.empty() && !IsAsOpened(s)) {
        s.error = "an earlier benchmark left the document changed";
    }
    if (!s.error.empty()) {
        state.SkipWithError(s.error.c_str());
        return nullptr;
    }
    s.dialog->GetCore().ModifySelection(s.view, 0, kDocumentFrames, 0);
    return &s;
}

// Times command `id` with `values`, each run undone with the clock stopped.
void TimeEffect(benchmark::State& state, int id, std::map<std::string, std::string> const& values) {
    Session* const s = Ready(state);
    if (s == nullptr) {
        return;
    }
    for (auto _ : state) {
        state.PauseTiming();
        s->ui.SetValues(values);
        state.ResumeTiming();
        SEResult const result = s->dialog->Command(id);
        state.PauseTiming();
        std::string error;
        if (result != SEResult::kDone) {
            error = "the timed command did not run: " + s->dialog->GetLastError();
        } else if (s->view->GetFile()->GetAudio().GetLengthFrames() != kDocumentFrames) {
            error = "the timed command left the document at another length";
        } else {
            error = RunCommand(*s, SECmd::kUndo);
        }
        if (error.empty() && !IsAsOpened(*s)) {
            error = "the undo did not give back the document as opened";
        }
        if (!error.empty()) {
            state.SkipWithError(error.c_str());
            break;
        }
        state.ResumeTiming();
    }
    long long const frames = static_cast<long long>(state.iterations()) * kDocumentFrames;
    state.SetItemsProcessed(frames);
    // The float frames the document's reader delivers for the selection.
    state.SetBytesProcessed(frames * kChannels * static_cast<long long>(sizeof(float)));
}

void BM_Amplify(benchmark::State& state) {
    TimeEffect(state, SECmd::kAmplify, {{"gain-percentage", "50"}});
}

void BM_FadeInLinear(benchmark::State& state) {
    TimeEffect(state, SECmd::kFadeIn, {{"shape", "linear"}});
}

} // namespace

// Wall time: the fade's cost includes writing its cache file.
BENCHMARK(BM_Amplify)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_FadeInLinear)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(3.0);

int main(int argc, char** argv) {
    LBenchTimeReporter reporter;
    if (!LRunBenchmarks(argc, argv, reporter)) {
        return 1;
    }
    std::printf("\n-- effects over a 10-minute stereo 44.1 kHz selection --\n");
    double const amplify = reporter.Seconds("BM_Amplify/real_time");
    if (amplify > 0.0) {
        std::printf("%-24s %10.1f us\n", "amplify to 50 %", amplify * 1e6);
    }
    double const fade = reporter.Seconds("BM_FadeInLinear/min_time:3.000/real_time");
    if (fade > 0.0) {
        double const audioSeconds = static_cast<double>(kDocumentFrames) / kRateHz;
        std::printf("%-24s %10.1f ms   %.1f Mframes/s, %.0f x real time\n", "linear fade-in",
                    fade * 1e3, static_cast<double>(kDocumentFrames) / fade / 1e6,
                    audioSeconds / fade);
    }
    std::unique_ptr<Session>& slot = SessionSlot();
    if (slot) {
        std::printf("%s\n", slot->report.empty() ? slot->error.c_str() : slot->report.c_str());
        // The document and its undo snapshots go first, which releases their cache items.
        std::string const dir = slot->dir;
        slot.reset();
        if (!dir.empty()) {
            std::error_code ignored;
            std::filesystem::remove_all(dir, ignored);
        }
    }
    return 0;
}
