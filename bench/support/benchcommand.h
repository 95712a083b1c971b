// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Runs one editor command for a benchmark, through the same dispatch the menus use, and says
// what went wrong (empty when it ran and left the current document `frames` long). The headless
// front end's logs are cleared each time so they do not grow across iterations.

#include "editor/main.h"
#include "editor/seheadless.h"

#include <map>
#include <string>
#include <utility>

[[nodiscard]] inline std::string RunBenchCommand(SEHeadlessUI& ui, MainDialog& dialog, int id,
                                                 long long frames,
                                                 std::map<std::string, std::string> values = {}) {
    ui.SetValues(std::move(values));
    SEResult const result = dialog.Command(id);
    ui.ClearEvents();
    ui.ClearMessages();
    std::string const command = "command " + std::to_string(id);
    if (result != SEResult::kDone) {
        std::string const error = dialog.GetLastError();
        return command +
               " did not run: " + (error.empty() ? std::string("no reason given") : error);
    }
    SEFileGUI const* const view = dialog.GetCurrentView();
    long long const length = view != nullptr ? view->GetFile()->GetAudio().GetLengthFrames() : -1;
    if (length != frames) {
        return command + " left " + std::to_string(length) + " frames, not " +
               std::to_string(frames);
    }
    return {};
}
