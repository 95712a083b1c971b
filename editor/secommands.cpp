// SPDX-License-Identifier: GPL-3.0-or-later
#include "editor/secommands.h"

#include <array>
#include <cstring>

namespace {

constexpr bool kDoc = true;
constexpr bool kNoDoc = false;
constexpr bool kBuilt = true;
constexpr bool kLater = false;

constexpr std::array kCommands = {
    SECommandInfo{1001, "new", "Create a new empty sound file", kNoDoc, kBuilt},
    SECommandInfo{1002, "open", "Open an existing file", kNoDoc, kBuilt},
    SECommandInfo{1003, "close", "Close the current file", kDoc, kBuilt},
    SECommandInfo{1004, "save", "Save this file", kDoc, kBuilt},
    SECommandInfo{1005, "save-as", "Save this file under a new name", kDoc, kBuilt},
    SECommandInfo{1007, "load-cd", "Load tracks from CD", kNoDoc, kLater},
    SECommandInfo{1010, "save-changes", "Save the changes of this file", kDoc, kBuilt},
    SECommandInfo{1011, "open-project", "Open a project", kNoDoc, kLater},
    SECommandInfo{1012, "close-project", "Close the project", kNoDoc, kLater},
    SECommandInfo{1015, "convert-rate", "Convert the sample rate", kDoc, kLater},
    SECommandInfo{1054, "new-tab", "Open a new tabbed window", kNoDoc, kLater},

    SECommandInfo{2001, "select-all", "Select the whole file", kDoc, kBuilt},
    SECommandInfo{2002, "select-none", "Select nothing", kDoc, kBuilt},
    SECommandInfo{2003, "select", "Select a range of time", kDoc, kBuilt},
    SECommandInfo{2004, "copy", "Copy selection", kDoc, kBuilt},
    SECommandInfo{2005, "paste", "Paste", kDoc, kBuilt},
    SECommandInfo{2006, "cursor", "Move the cursor", kDoc, kBuilt},
    SECommandInfo{2007, "edit-samples", "Draw sample values", kDoc, kBuilt},
    SECommandInfo{2009, "paste-mix", "Paste Mix", kDoc, kLater},
    SECommandInfo{2010, "delete", "Delete selection", kDoc, kBuilt},
    SECommandInfo{2015, "mix-file", "Mix with File", kDoc, kLater},
    SECommandInfo{2017, "auto-trim-ends", "Trim start and end", kDoc, kLater},
    SECommandInfo{2018, "trim-start", "Trim the start", kDoc, kBuilt},
    SECommandInfo{2019, "trim-end", "Trim the end", kDoc, kBuilt},
    SECommandInfo{2020, "auto-trim", "Trim automatically", kDoc, kLater},
    SECommandInfo{2021, "split", "Split into two files", kDoc, kLater},
    SECommandInfo{2025, "silence", "Silence the selection", kDoc, kBuilt},
    SECommandInfo{2037, "trim-silences", "Trim silences", kDoc, kLater},
    SECommandInfo{2039, "paste-mix-1", "Paste mix (first mode)", kDoc, kLater},
    SECommandInfo{2040, "paste-mix-2", "Paste mix (second mode)", kDoc, kLater},
    SECommandInfo{2041, "batch-join", "Batch Join many files", kNoDoc, kLater},
    SECommandInfo{2046, "redact", "Redact the selection", kDoc, kLater},
    SECommandInfo{2053, "paste-new", "Paste as a new file", kNoDoc, kBuilt},
    SECommandInfo{2070, "revert", "Undo to the last save", kDoc, kBuilt},
    SECommandInfo{SECmd::kCut, "cut", "Cut selection", kDoc, kBuilt},

    SECommandInfo{3001, "record", "Record audio", kNoDoc, kLater},
    SECommandInfo{3003, "play-speed-normal", "Play at normal speed", kNoDoc, kLater},
    SECommandInfo{3004, "play-speed-half", "Play at half speed", kNoDoc, kLater},
    SECommandInfo{3005, "play-speed-double", "Play at double speed", kNoDoc, kLater},
    SECommandInfo{3028, "metronome", "Metronome on or off", kNoDoc, kLater},
    SECommandInfo{3031, "pre-roll", "Recording pre-roll on or off", kNoDoc, kLater},

    SECommandInfo{4001, "amplify", "Amplify louder or softer", kDoc, kBuilt},
    SECommandInfo{4002, "normalize", "Normalize to optimal level", kDoc, kBuilt},
    SECommandInfo{4004, "echo", "Echo", kDoc, kLater},
    SECommandInfo{4005, "reverb", "Reverb", kDoc, kLater},
    SECommandInfo{4006, "fade-in", "Fade In", kDoc, kBuilt},
    SECommandInfo{4007, "fade-out", "Fade Out", kDoc, kBuilt},
    SECommandInfo{4009, "auto-gain", "Automatic Gain Control", kDoc, kLater},
    SECommandInfo{4010, "noise-reduction", "Remove noise or hiss", kDoc, kLater},
    SECommandInfo{4011, "high-pass", "High-pass (low-cut) filter", kDoc, kLater},
    SECommandInfo{4012, "compressor", "Compressor", kDoc, kLater},
    SECommandInfo{4013, "envelope", "Volume envelope", kDoc, kBuilt},
    SECommandInfo{4014, "speed-pitch", "Speed and pitch by profile", kDoc, kLater},
    SECommandInfo{4015, "speed-pitch-1", "Speed and pitch (first preset)", kDoc, kLater},
    SECommandInfo{4016, "speed-pitch-2", "Speed and pitch (second preset)", kDoc, kLater},
    SECommandInfo{4017, "speed-pitch-3", "Speed and pitch (third preset)", kDoc, kLater},
    SECommandInfo{4018, "dc-offset", "DC Offset Correction", kDoc, kBuilt},
    SECommandInfo{4019, "reverse", "Reverse", kDoc, kBuilt},
    SECommandInfo{4023, "to-stereo", "Convert to stereo", kDoc, kBuilt},
    SECommandInfo{4026, "manual-noise-reduction", "Manual noise reduction", kDoc, kLater},
    SECommandInfo{4027, "spectral-noise-reduction", "Spectral noise reduction", kDoc, kLater},
    SECommandInfo{4029, "reduce-vocals", "Reduce vocals", kDoc, kLater},
    SECommandInfo{4031, "phaser", "Phaser", kDoc, kLater},
    SECommandInfo{4032, "flanger", "Flanger", kDoc, kLater},
    SECommandInfo{4033, "vibrato", "Vibrato", kDoc, kLater},
    SECommandInfo{4034, "tremolo", "Tremolo", kDoc, kLater},
    SECommandInfo{4035, "doppler", "Doppler", kDoc, kLater},
    SECommandInfo{4036, "wah-wah", "Wah-wah", kDoc, kLater},
    SECommandInfo{4037, "chorus", "Chorus", kDoc, kLater},
    SECommandInfo{4038, "distortion", "Distortion", kDoc, kLater},
    SECommandInfo{4039, "am-radio", "AM Radio Effect", kDoc, kLater},
    SECommandInfo{4040, "telephone", "Telephone Effect", kDoc, kLater},
    SECommandInfo{4042, "voice-change", "Voice change", kDoc, kLater},
    SECommandInfo{4043, "noise-gate", "Noise gate", kDoc, kLater},
    SECommandInfo{4045, "low-pass", "Low-pass filter", kDoc, kLater},
    SECommandInfo{4048, "voice-change-2", "Voice change (second form)", kDoc, kLater},
    SECommandInfo{4051, "envelope-db", "Volume envelope in decibels", kDoc, kBuilt},
    SECommandInfo{4052, "auto-fades", "Automatic fades", kDoc, kLater},
    SECommandInfo{4056, "crossfade-loop", "Crossfade loop", kDoc, kLater},
    SECommandInfo{4101, "pan", "Stereo pan", kDoc, kBuilt},
    SECommandInfo{4102, "join-channels", "Join the channels into one", kDoc, kBuilt},
    SECommandInfo{4103, "chain", "Apply an effect chain", kDoc, kBuilt},
    SECommandInfo{4104, "chain-preview", "Preview an effect chain", kDoc, kBuilt},

    SECommandInfo{5002, "tile", "Tile the windows", kNoDoc, kLater},
    SECommandInfo{5003, "cascade", "Cascade the windows", kNoDoc, kLater},
    SECommandInfo{5004, "auto-arrange", "Arrange the windows automatically", kNoDoc, kLater},
    SECommandInfo{5009, "vzoom-in", "Vertical zoom in", kDoc, kLater},
    SECommandInfo{5010, "vzoom-out", "Vertical zoom out", kDoc, kLater},
    SECommandInfo{5011, "vzoom-default", "Vertical zoom to default", kDoc, kLater},
    SECommandInfo{5014, "display-mode", "Waveform display mode", kDoc, kLater},
    SECommandInfo{5019, "spectral-view", "Spectral view on or off", kDoc, kLater},
    SECommandInfo{5020, "window", "Make another open file current", kNoDoc, kBuilt},

    SECommandInfo{7003, "batch", "Batch edit many files", kNoDoc, kLater},
    SECommandInfo{7004, "text-to-speech", "Convert text to speech", kNoDoc, kLater},
    SECommandInfo{7006, "sound-library", "Load from sound library", kNoDoc, kLater},

    SECommandInfo{8001, "bookmark", "Set a bookmark at the cursor", kDoc, kBuilt},
    SECommandInfo{8002, "delete-bookmark", "Delete a bookmark", kDoc, kBuilt},
    SECommandInfo{8003, "rename-bookmark", "Rename a bookmark", kDoc, kBuilt},
    SECommandInfo{8004, "delete-all-bookmarks", "Delete all bookmarks", kDoc, kBuilt},
    SECommandInfo{8005, "assemble-regions", "Assemble regions into a file", kNoDoc, kLater},
    SECommandInfo{8006, "region", "Add a region", kDoc, kBuilt},
    SECommandInfo{8007, "modify-region", "Move a region", kDoc, kBuilt},
    SECommandInfo{8011, "save-all", "Save all files", kNoDoc, kBuilt},

    SECommandInfo{9401, "undo", "Undo last action", kDoc, kBuilt},
    SECommandInfo{9402, "redo", "Redo last action", kDoc, kBuilt},
};

constexpr std::array kTasks = {
    SETaskListEntry{1, 1001, "Create a new empty sound file",
                    "Start a new file to record or paste into"},
    SETaskListEntry{1, 1002, "Open an existing file", "Open one or more audio files for editing"},
    SETaskListEntry{1, 1004, "Save this file", "Save the current file in its format"},
    SETaskListEntry{1, 1007, "Load tracks from CD", "Import audio tracks from a CD"},
    SETaskListEntry{1, 3001, "Record audio", "Record from the audio input"},
    SETaskListEntry{2, SECmd::kCut, "Cut selection", "Move the selection to the clipboard"},
    SETaskListEntry{2, 2004, "Copy selection", "Copy the selection to the clipboard"},
    SETaskListEntry{2, 2005, "Paste", "Paste at the cursor or over the selection"},
    SETaskListEntry{2, 2009, "Paste Mix", "Mix the clipboard into the file"},
    SETaskListEntry{2, 2010, "Delete selection", "Remove the selected audio"},
    SETaskListEntry{2, 2015, "Mix with File", "Mix another file into this one"},
    SETaskListEntry{2, 2017, "Trim start and end", "Remove silence at the start and end"},
    SETaskListEntry{2, 2021, "Split into two files", "Split the file at the cursor"},
    SETaskListEntry{2, 2041, "Batch Join many files", "Join many files into one"},
    SETaskListEntry{2, 9401, "Undo last action", "Undo the previous change to this file"},
    SETaskListEntry{2, 9402, "Redo last action", "Redo the last undone change to this file"},
    SETaskListEntry{3, 4001, "Amplify louder or softer", "Change the volume of the selection"},
    SETaskListEntry{3, 4002, "Normalize to optimal level", "Bring the peak to a set level"},
    SETaskListEntry{3, 4006, "Fade In", "Fade the selection in from silence"},
    SETaskListEntry{3, 4007, "Fade Out", "Fade the selection out to silence"},
    SETaskListEntry{3, 4010, "Remove noise or hiss", "Reduce steady background noise"},
    SETaskListEntry{4, 7003, "Batch edit many files", "Apply the same commands to many files"},
    SETaskListEntry{4, 7004, "Convert text to speech", "Make speech from text in a new file"},
    SETaskListEntry{4, 7006, "Load from sound library", "Import a sound from the library"},
};

} // namespace

std::span<SECommandInfo const> SECommandTable() {
    return kCommands;
}

SECommandInfo const* SEFindCommand(int id) {
    for (SECommandInfo const& c : kCommands) {
        if (c.id == id) {
            return &c;
        }
    }
    return nullptr;
}

SECommandInfo const* SEFindCommandByName(char const* name) {
    for (SECommandInfo const& c : kCommands) {
        if (std::strcmp(c.name, name) == 0) {
            return &c;
        }
    }
    return nullptr;
}

std::span<SETaskListEntry const> SETaskList() {
    return kTasks;
}
