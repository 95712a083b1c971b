// SPDX-License-Identifier: GPL-3.0-or-later
// The editor's edits as the user runs them: delete, paste, undo and redo through MainDialog's
// command dispatch, on a three-hour 44.1 kHz stereo document cut into 10,000 segments, as a long
// recording is after an evening of editing. Each must stay under a millisecond: an edit moves
// segments and an undo copies a list of them, neither may touch a sample.
//
// Every timed command is paired with one that puts the document back (an undo, or the redo an
// undo needs), run with the clock paused, so each iteration starts from the same document and
// the same undo ring and the times cannot drift. Before timing, a separate copy of the document
// goes through rounds of delete, paste, undo and redo while the cache folder is watched: if any
// file in it grows or appears, samples were copied, and every benchmark fails with that.
//
// The segments lie over 16 real cache items of five seconds, written once into a temporary
// folder (with the settings file beside them) that is removed at the end. Nothing timed reads
// or writes a file, so the folder may live on a tmpfs.

#include "editor/main.h"
#include "editor/seheadless.h"
#include "llib/gen/settings.h"
#include "llib/snd/cache.h"
#include "llib/snd/cutlistaudio.h"

#include "bench/support/benchcommand.h"
#include "bench/support/benchmain.h"
#include "bench/support/benchsources.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

namespace {

constexpr int kRateHz = 44100;
constexpr long long kDocumentFrames = 3LL * 3600 * kRateHz;
constexpr long long kSegments = 10000;
constexpr long long kSegmentFrames = kDocumentFrames / kSegments; // 1.08 s, exactly
// Sixteen items rather than one: 10,000 segments over a single item would take its 16-bit
// reference count to the ceiling within six undo snapshots, and a saturated item behaves
// differently (it is never released again).
constexpr int kItems = 16;
constexpr long long kItemFrames = 5LL * kRateHz;
constexpr long long kMinute = 60LL * kRateHz;
// The deleted minute and the paste position fall inside segments, so the edits split some, as
// real ones do.
constexpr long long kSelectionStart = kDocumentFrames / 2 + 12345;
constexpr long long kPastePosition = kDocumentFrames / 3 + 6789;
constexpr long long kClipStart = kDocumentFrames / 5 + 321;
// More rounds than the ring has slots, so the check also sees old snapshots being dropped.
constexpr int kCheckRounds = 40;

class NullProcess final : public LProcessInterfaceBasic {
public:
    bool IsToStop() override { return false; }
};

// One editor with one open document, made on first use.
struct Session {
    std::string dir;
    std::vector<unsigned short> items;
    LCutListAudio built; // the document as made, for the check's copy
    std::unique_ptr<LSettingsStore> settings;
    SEHeadlessUI ui;
    std::unique_ptr<MainDialog> dialog;
    SEFileGUI* view = nullptr;
    std::string error;  // why nothing can be timed
    std::string report; // what the cache folder check found
};

std::unique_ptr<Session>& SessionSlot() {
    static std::unique_ptr<Session> session;
    return session;
}

// Runs command `id` on the current document; an error message unless it ran and left the
// document `frames` long.
std::string RunCommand(Session& s, int id, long long frames) {
    return RunBenchCommand(s.ui, *s.dialog, id, frames);
}

void Select(Session& s, long long start, long long end) {
    s.dialog->GetCore().ModifySelection(s.dialog->GetCurrentView(), start, end, start);
}

// What in `after` is not in `before` or is larger there: bytes and files.
struct Growth {
    std::uintmax_t bytes = 0;
    int files = 0;
};
Growth GrowthOf(std::map<std::string, std::uintmax_t> const& before,
                std::map<std::string, std::uintmax_t> const& after) {
    Growth growth;
    for (auto const& [name, bytes] : after) {
        auto const old = before.find(name);
        if (old == before.end() || bytes > old->second) {
            growth.bytes += bytes - (old == before.end() ? 0 : old->second);
            ++growth.files;
        }
    }
    return growth;
}

// Rounds of delete, paste, undo and redo on a copy of the document, with the cache folder
// listed after every round: audio written for an edit would be released again once its
// snapshot leaves the ring, so only a look at each step sees it. Sets s.error when a file in the
// folder grew or appeared, or a command failed.
void CheckNoSamplesCopied(Session& s) {
    std::string const folder = LSoundCache::GetFolder();
    std::map<std::string, std::uintmax_t> const before = BenchFileSizes(folder);
    SEFileGUI& copy = s.dialog->GetWindows().Add(std::make_shared<SEFile>(s.built));
    std::string failed;
    Growth grown;
    for (int round = 0; round < kCheckRounds && failed.empty() && grown.files == 0; ++round) {
        Select(s, kSelectionStart, kSelectionStart + kMinute);
        failed = RunCommand(s, SECmd::kDelete, kDocumentFrames - kMinute);
        if (failed.empty()) {
            Select(s, kPastePosition, kPastePosition);
            failed = RunCommand(s, SECmd::kPaste, kDocumentFrames);
        }
        if (failed.empty()) {
            failed = RunCommand(s, SECmd::kUndo, kDocumentFrames - kMinute);
        }
        if (failed.empty()) {
            failed = RunCommand(s, SECmd::kRedo, kDocumentFrames);
        }
        grown = GrowthOf(before, BenchFileSizes(folder));
    }
    s.dialog->GetWindows().Remove(&copy);
    char text[200];
    if (!failed.empty()) {
        s.error = "checking the cache folder: " + failed;
    } else if (grown.files > 0) {
        std::snprintf(text, sizeof text,
                      "the cache folder grew by %ju bytes in %d files during rounds of delete, "
                      "paste, undo and redo: samples were copied",
                      grown.bytes, grown.files);
        s.error = text;
    } else {
        std::uintmax_t total = 0;
        for (auto const& [name, bytes] : before) {
            total += bytes;
        }
        std::snprintf(text, sizeof text,
                      "cache folder during %d rounds of delete, paste, undo and redo: unchanged "
                      "(%zu files, %.1f MB)",
                      kCheckRounds, before.size(), static_cast<double>(total) / 1048576.0);
        s.report = text;
    }
}

Session& GetSession() {
    std::unique_ptr<Session>& slot = SessionSlot();
    if (slot) {
        return *slot;
    }
    slot = std::make_unique<Session>();
    Session& s = *slot;
    char const* const tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr && tmp[0] != '\0' ? tmp : "/tmp") +
                          "/tessel-editops-bench.XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
        s.error = "no temporary folder could be made";
        return s;
    }
    s.dir = pattern;
    LSoundCache::SetFolder(s.dir + "/cache");
    s.settings = std::make_unique<LSettingsStore>(s.dir + "/settings.ini");

    for (int i = 0; i < kItems; ++i) {
        LSoundSource noise = LMakeSource<LBenchNoiseSource>(kRateHz, 2, kItemFrames, 0.5f, 65536,
                                                            static_cast<std::uint32_t>(i + 1));
        NullProcess process;
        LSoundCacheItemHandle handle;
        long long frames = 0;
        if (LSoundCacheItemAdd(process, noise, handle, frames) != LProcessResult::kCompleted ||
            frames != kItemFrames) {
            s.error = "a cache item could not be written";
            return s;
        }
        s.items.push_back(handle.item);
    }
    // Neighbours in the list come from different items and places, as after real editing.
    s.built.SetSampleRate(kRateHz);
    s.built.SetChannels(2);
    for (long long i = 0; i < kSegments; ++i) {
        unsigned short const item = s.items[static_cast<std::size_t>((i * 7) % kItems)];
        long long const offset = (i * 7919) % (kItemFrames - kSegmentFrames);
        s.built.AppendSegment(std::make_unique<LCutListSegment>(item, offset, kSegmentFrames));
    }

    s.dialog = std::make_unique<MainDialog>(s.ui, s.settings.get());
    // As opened from a file: clean, with nothing to undo.
    auto file = std::make_shared<SEFile>((s.dir + "/edited.wav").c_str(), s.built);
    file->SetModified(false);
    file->SetFileClean();
    s.view = &s.dialog->GetWindows().Add(std::move(file));
    // The clipboard: a minute from elsewhere in the document, as a copy leaves it.
    Select(s, kClipStart, kClipStart + kMinute);
    s.error = RunCommand(s, SECmd::kCopy, kDocumentFrames);
    if (s.error.empty()) {
        CheckNoSamplesCopied(s);
    }
    return s;
}

// The session with the document as built and `start`..`end` selected; null (the benchmark
// skipped) when it cannot be had.
Session* Ready(benchmark::State& state, long long start, long long end) {
    Session& s = GetSession();
    if (s.error.empty()) {
        LCutListAudio const& audio = s.view->GetFile()->GetAudio();
        if (s.dialog->GetCurrentView() != s.view || audio.GetLengthFrames() != kDocumentFrames ||
            audio.GetSegmentCount() != static_cast<std::size_t>(kSegments)) {
            s.error = "an earlier benchmark left the document changed";
        }
    }
    if (!s.error.empty()) {
        state.SkipWithError(s.error.c_str());
        return nullptr;
    }
    Select(s, start, end);
    return &s;
}

// Times `timed` (leaving `timedFrames`), then puts the document back with `restore` (leaving
// `restoreFrames`) with the clock stopped.
void TimePair(benchmark::State& state, Session& s, int timed, long long timedFrames, int restore,
              long long restoreFrames) {
    for (auto _ : state) {
        SEResult const result = s.dialog->Command(timed);
        state.PauseTiming();
        std::string error;
        if (result != SEResult::kDone) {
            error = "the timed command did not run: " + s.dialog->GetLastError();
        } else if (s.view->GetFile()->GetAudio().GetLengthFrames() != timedFrames) {
            error = "the timed command left the document at the wrong length";
        } else {
            error = RunCommand(s, restore, restoreFrames);
        }
        if (!error.empty()) {
            state.SkipWithError(error.c_str());
            break;
        }
        state.ResumeTiming();
    }
}

// Delete of a one-minute selection; undone untimed.
void BM_Delete(benchmark::State& state) {
    Session* const s = Ready(state, kSelectionStart, kSelectionStart + kMinute);
    if (s != nullptr) {
        TimePair(state, *s, SECmd::kDelete, kDocumentFrames - kMinute, SECmd::kUndo,
                 kDocumentFrames);
    }
}

// Paste of the one-minute clipboard at the cursor; undone untimed.
void BM_Paste(benchmark::State& state) {
    Session* const s = Ready(state, kPastePosition, kPastePosition);
    if (s != nullptr) {
        TimePair(state, *s, SECmd::kPaste, kDocumentFrames + kMinute, SECmd::kUndo,
                 kDocumentFrames);
    }
}

// The undo that follows an edit: it also snapshots the present state for Redo, so it is the
// dearer kind. The delete before it runs untimed.
void BM_Undo(benchmark::State& state) {
    Session* const s = Ready(state, kSelectionStart, kSelectionStart + kMinute);
    if (s == nullptr) {
        return;
    }
    for (auto _ : state) {
        state.PauseTiming();
        std::string const error = RunCommand(*s, SECmd::kDelete, kDocumentFrames - kMinute);
        if (!error.empty()) {
            state.SkipWithError(error.c_str());
            break;
        }
        state.ResumeTiming();
        SEResult const result = s->dialog->Command(SECmd::kUndo);
        if (result != SEResult::kDone ||
            s->view->GetFile()->GetAudio().GetLengthFrames() != kDocumentFrames) {
            state.SkipWithError("the undo did not restore the document");
            break;
        }
    }
    s->ui.ClearEvents();
}

// Undo and redo stepping through the ring (no new snapshot): redo timed, undo untimed.
void BM_Redo(benchmark::State& state) {
    Session* const s = Ready(state, kSelectionStart, kSelectionStart + kMinute);
    if (s == nullptr) {
        return;
    }
    std::string error = RunCommand(*s, SECmd::kDelete, kDocumentFrames - kMinute);
    if (error.empty()) {
        error = RunCommand(*s, SECmd::kUndo, kDocumentFrames);
    }
    if (!error.empty()) {
        state.SkipWithError(error.c_str());
        return;
    }
    TimePair(state, *s, SECmd::kRedo, kDocumentFrames - kMinute, SECmd::kUndo, kDocumentFrames);
}

// The same stepping with the undo timed: what each further undo of a series costs.
void BM_UndoAgain(benchmark::State& state) {
    Session* const s = Ready(state, kSelectionStart, kSelectionStart + kMinute);
    if (s == nullptr) {
        return;
    }
    std::string const error = RunCommand(*s, SECmd::kDelete, kDocumentFrames - kMinute);
    if (!error.empty()) {
        state.SkipWithError(error.c_str());
        return;
    }
    TimePair(state, *s, SECmd::kUndo, kDocumentFrames, SECmd::kRedo, kDocumentFrames - kMinute);
    // Back to the document as built for whatever runs next.
    (void)RunCommand(*s, SECmd::kUndo, kDocumentFrames);
}

} // namespace

BENCHMARK(BM_Delete)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Paste)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Undo)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Redo)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_UndoAgain)->Unit(benchmark::kMicrosecond);

int main(int argc, char** argv) {
    LBenchTimeReporter reporter;
    if (!LRunBenchmarks(argc, argv, reporter)) {
        return 1;
    }
    std::printf("\n-- edits of a 3-hour stereo document of 10,000 segments (target < 1000 us "
                "each) --\n");
    struct Line {
        char const* name;
        char const* text;
    };
    Line const lines[] = {{"BM_Delete", "delete of a one-minute selection"},
                          {"BM_Paste", "paste of a one-minute clip"},
                          {"BM_Undo", "undo, first after the edit"},
                          {"BM_Redo", "redo"},
                          {"BM_UndoAgain", "undo, after a redo"}};
    for (Line const& line : lines) {
        double const seconds = reporter.Seconds(line.name);
        if (seconds > 0.0) {
            std::printf("%-34s %8.1f us%s\n", line.text, seconds * 1e6,
                        seconds < 1e-3 ? "" : "   OVER TARGET");
        }
    }
    std::unique_ptr<Session>& slot = SessionSlot();
    if (slot) {
        std::printf("%s\n", slot->report.empty() ? slot->error.c_str() : slot->report.c_str());
        // The document, its snapshots and the clipboard go first; then the items' own
        // references, which deletes their files.
        std::vector<unsigned short> const items = slot->items;
        std::string const dir = slot->dir;
        slot.reset();
        for (unsigned short const item : items) {
            LSoundCache::DecRef(item);
        }
        if (!dir.empty()) {
            std::error_code ignored;
            std::filesystem::remove_all(dir, ignored);
        }
    }
    return 0;
}
