// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/cmdedit.h"

#include "cli/cliprocess.h"
#include "cli/cmdaudio.h"
#include "editor/main.h"
#include "editor/seheadless.h"
#include "editor/sescript.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

// The headless front end with tessel-cli's progress bar and Ctrl+C.
class LCliEditUI final : public SEHeadlessUI {
protected:
    LProcessResult RunWork(char const* title, SEProcessFunction const& work) override {
        LCliProcess process(title);
        LProcessResult const result = work(process);
        process.EndProgress();
        return result;
    }
};

struct Step {
    std::string where; // "step 3 (paste)" or "script.txt:4 (paste)"
    SEScriptStep command;
};

// Prints what the front end showed since the last call: warnings the user must see even when
// the step succeeded (low disk space).
void PrintMessages(LCliEditUI& ui, std::string const& where) {
    for (SEHeadlessUI::Shown const& shown : ui.GetMessages()) {
        std::fprintf(stderr, "tessel-cli: %s: %s: %s\n", where.c_str(), shown.title.c_str(),
                     shown.text.c_str());
    }
    ui.ClearMessages();
}

int RunStep(MainDialog& dialog, LCliEditUI& ui, std::string const& where, int id,
            std::map<std::string, std::string> values) {
    ui.SetValues(std::move(values));
    SEResult const result = dialog.Command(id);
    // A failure's message is printed once, from the last error, not again from the message log.
    if (result == SEResult::kDone) {
        PrintMessages(ui, where);
    } else {
        ui.ClearMessages();
    }
    std::vector<std::string> const unused = ui.GetUnusedValues();
    if (result == SEResult::kDone && !unused.empty()) {
        std::fprintf(stderr, "tessel-cli: %s: the command has no setting '%s'\n", where.c_str(),
                     unused.front().c_str());
        return kCliExitFailed;
    }
    if (result == SEResult::kDone) {
        return kCliExitOk;
    }
    if (result == SEResult::kCancelled && LCliInterrupted()) {
        std::fprintf(stderr, "tessel-cli: %s: stopped; nothing was saved\n", where.c_str());
        return kCliExitStopped;
    }
    std::string const& error = dialog.GetLastError();
    std::fprintf(stderr, "tessel-cli: %s: %s\n", where.c_str(),
                 error.empty() ? "the command did not run" : error.c_str());
    return kCliExitFailed;
}

} // namespace

void LCliPrintEditCommands() {
    std::puts("Commands of 'edit' (name, identifier, what it does):");
    for (SECommandInfo const& c : SECommandTable()) {
        if (c.built) {
            std::printf("  %-20s %-10d %s\n", c.name, c.id, c.text);
        }
    }
    std::puts("\nSettings: select start=TIME end=TIME [low=HZ high=HZ] (with both frequencies the\n"
              "selection is that band only); cursor position=TIME; open path=FILE;\n"
              "save-as path=FILE; window index=N; bookmark name=TEXT;\n"
              "delete-bookmark name=TEXT; rename-bookmark name=TEXT to=TEXT;\n"
              "region name=TEXT; modify-region name=TEXT start=TIME end=TIME;\n"
              "amplify gain-percentage=N (1-400) or preset=NAME; normalize peak-db=DB (-96-0);\n"
              "fade-in / fade-out shape=linear|logarithmic|exponential|sinusoidal;\n"
              "envelope points=TIME:PERCENT,... [shape=...]; envelope-db points=TIME:DB,...;\n"
              "pan pan=N (-100 left to 100 right) or points=TIME:PAN,...;\n"
              "chain / chain-preview path=FILE (an effect chain file);\n"
              "edit-samples points=TIME:VALUE,... TIME is h:mm:ss.fff (or shorter: 1:30,\n"
              "90, 2.5) or a frame count such as 44100smp; envelope and pan times count from\n"
              "the start of the selection. Effects work on the selection, or on the whole\n"
              "file when nothing is selected.");
}

int LCliRunEdit(int argc, char** argv) {
    std::vector<std::string> inputs;
    std::vector<Step> steps;
    std::string output;
    for (int i = 0; i < argc; ++i) {
        char const* const arg = argv[i];
        bool const hasValue = i + 1 < argc;
        if (std::strcmp(arg, "-o") == 0 || std::strcmp(arg, "--output") == 0) {
            if (!hasValue) {
                return LCliUsageError("-o needs a file name");
            }
            output = argv[++i];
        } else if (std::strcmp(arg, "--do") == 0) {
            if (!hasValue) {
                return LCliUsageError("--do needs a command");
            }
            Step step;
            std::string error;
            if (!SEParseScriptLine(argv[++i], step.command, error)) {
                std::string const message = "--do '" + std::string(argv[i]) + "': " + error;
                return LCliUsageError(message.c_str());
            }
            steps.push_back(step);
        } else if (std::strcmp(arg, "--script") == 0) {
            if (!hasValue) {
                return LCliUsageError("--script needs a file");
            }
            char const* const path = argv[++i];
            std::vector<SEScriptStep> script;
            std::string error;
            if (!SELoadScript(path, script, error)) {
                std::fprintf(stderr, "tessel-cli: %s: %s\n", path, error.c_str());
                return kCliExitFailed;
            }
            for (SEScriptStep& command : script) {
                Step step;
                step.where = std::string(path) + ":" + std::to_string(command.line);
                step.command = std::move(command);
                steps.push_back(std::move(step));
            }
        } else if (std::strcmp(arg, "--list") == 0) {
            LCliPrintEditCommands();
            return kCliExitOk;
        } else if (arg[0] == '-' && arg[1] != '\0') {
            std::string const message = std::string("edit: unknown option '") + arg + "'";
            return LCliUsageError(message.c_str());
        } else {
            inputs.emplace_back(arg);
        }
    }
    if (inputs.empty()) {
        return LCliUsageError("edit needs at least one input file");
    }
    if (output.empty()) {
        return LCliUsageError("edit needs an output file (-o OUT)");
    }
    LCliEditUI ui;
    MainDialog dialog(ui);
    for (std::string const& input : inputs) {
        int const status = RunStep(dialog, ui, "opening " + input, SECmd::kOpen, {{"path", input}});
        if (status != kCliExitOk) {
            return status;
        }
    }
    int status = RunStep(dialog, ui, "opening", SECmd::kWindow, {{"index", "1"}});
    for (std::size_t i = 0; i < steps.size() && status == kCliExitOk; ++i) {
        Step const& step = steps[i];
        std::string const where =
            (step.where.empty() ? "step " + std::to_string(i + 1) : step.where) + " (" +
            step.command.name + ")";
        status = RunStep(dialog, ui, where, step.command.id, step.command.values);
    }
    if (status != kCliExitOk) {
        return status;
    }
    return RunStep(dialog, ui, "saving " + output, SECmd::kSaveAs, {{"path", output}});
}
