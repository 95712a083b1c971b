// SPDX-License-Identifier: GPL-3.0-or-later
// Command scripts: any bytes must parse or be refused with a message; a parsed script written
// out again in canonical form must parse to the same steps; and running its first commands on a
// small document through the main window's dispatch (file commands left out) must neither crash
// nor leave the document in a state its own checks refuse.

#include "editor/main.h"
#include "editor/seheadless.h"
#include "editor/sescript.h"
#include "llib/snd/cache.h"

#include <stdlib.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

std::string Quote(std::string const& value) {
    std::string out = "\"";
    for (char const c : value) {
        if (c == '"' || c == '\\') {
            out += '\\';
        }
        out += c;
    }
    return out + "\"";
}

// Commands that read or write files by name are left out: a path such as /dev/stdin would
// block, and saving would fill the disk.
bool TouchesFiles(int id) {
    return id == SECmd::kOpen || id == SECmd::kSave || id == SECmd::kSaveAs ||
           id == SECmd::kSaveAll || id == SECmd::kSaveChanges || id == SECmd::kClose ||
           id == SECmd::kEffectChain || id == SECmd::kEffectChainPreview;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    static bool const ready = [] {
        char folder[] = "/tmp/tessel-fuzz-script-XXXXXX";
        if (::mkdtemp(folder) == nullptr) {
            std::abort();
        }
        LSoundCache::SetFolder(std::string(folder) + "/cache");
        ::setenv("XDG_CONFIG_HOME", folder, 1);
        return true;
    }();
    (void)ready;

    std::string const text(reinterpret_cast<char const*>(data), size);
    std::vector<SEScriptStep> steps;
    std::string error;
    if (!SEParseScript(text, steps, error)) {
        if (error.empty()) {
            std::abort();
        }
        return 0;
    }
    std::string canonical;
    for (SEScriptStep const& step : steps) {
        canonical += step.name;
        for (auto const& [key, value] : step.values) {
            canonical += " " + Quote(key) + "=" + Quote(value);
        }
        canonical += "\n";
    }
    // A key never holds "=" (it ends at the first) and nothing holds a line break, so quoting
    // every key and value must give back exactly the same steps.
    std::vector<SEScriptStep> again;
    if (!SEParseScript(canonical, again, error) || again.size() != steps.size()) {
        std::fprintf(stderr, "the canonical form does not parse: %s\n", error.c_str());
        std::abort();
    }
    for (std::size_t i = 0; i < steps.size(); ++i) {
        if (again[i].id != steps[i].id || again[i].values != steps[i].values) {
            std::fprintf(stderr, "step %zu reads back differently\n", i);
            std::abort();
        }
    }

    SEHeadlessUI ui;
    MainDialog dialog(ui);
    LCutListAudio audio;
    audio.SetSampleRate(8000);
    audio.SetChannels(2);
    audio.EfInsertSilence(0, 1000);
    SEFileGUI& view = dialog.GetWindows().Add(std::make_shared<SEFile>("fuzz", audio));
    for (std::size_t i = 0; i < steps.size() && i < 64; ++i) {
        if (TouchesFiles(steps[i].id) || dialog.GetWindows().GetCount() == 0) {
            continue;
        }
        SEFile const* const file = dialog.GetCurrentView() != nullptr
                                       ? dialog.GetCurrentView()->GetFile()
                                       : view.GetFile();
        // Rendering commands on a huge document would only measure the disk.
        if (file->GetAudio().GetLengthFrames() > 100000 &&
            (steps[i].id == SECmd::kReverse || steps[i].id == SECmd::kPaste ||
             steps[i].id == SECmd::kPasteAsNew)) {
            continue;
        }
        ui.SetValues(steps[i].values);
        (void)dialog.Command(steps[i].id);
        SEFileGUI const* const current = dialog.GetCurrentView();
        if (current != nullptr) {
            SEFile const& f = *current->GetFile();
            long long const length = f.GetAudio().GetLengthFrames();
            SESelectionState const& s = f.GetSelection();
            if (s.start < 0 || s.end < s.start || s.end > length || f.GetCursor() < 0 ||
                f.GetCursor() > length) {
                std::fprintf(stderr, "selection %lld-%lld cursor %lld outside %lld\n", s.start,
                             s.end, f.GetCursor(), length);
                std::abort();
            }
        }
    }
    return 0;
}
