// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// SEUserInterface: everything the editor core asks of a front end while it runs a command:
// message boxes, progress displays, file choosers, the values of a command's dialog, and the
// notifications a view reacts to. The desktop implements it with Qt; SEHeadlessUI (tests,
// tessel-cli) answers from values given in advance. The core never blocks on anything else, so
// a command behaves the same whichever front end drives it.

#include "llib/gen/process.h"
#include "llib/snd/soundsource.h"

#include <functional>
#include <string>
#include <vector>

class LSoundProcess;
class SEFileGUI;

// Notifications to a document's view.
inline constexpr int kSEEventDocumentModified = 132;
inline constexpr int kSEEventDocumentClean = 133;

// How a command ended.
enum class SEResult {
    kDone,        // it ran (or, for a toggle or a selection, took effect)
    kIgnored,     // it needs a document and there is none, or the view is not shown
    kCancelled,   // the user said no, chose no file, or stopped the work
    kFailed,      // it could not be done; the reason was shown and is kept as the last error
    kUnavailable, // the feature behind it has not been built
    kUnknown,     // no command has that identifier
};

// One field of a command's dialog: the front end shows `label` with `value` preset and writes the
// user's answer back into `value`.
struct SECommandField {
    std::string key;
    std::string label;
    std::string value;
};
using SECommandFields = std::vector<SECommandField>;

using SEProcessFunction = std::function<LProcessResult(LProcessInterface&)>;
// Plays an effect, with the settings its dialog holds at the moment, over the selection.
using SEEffectPreview = std::function<void(LSoundProcess&)>;

class SEUserInterface {
public:
    virtual ~SEUserInterface() = default;

    // Shows `text` under `title` with `buttons` (at least one); returns the chosen button's index.
    virtual int MessageBox(char const* title, char const* text,
                           std::vector<std::string> const& buttons) = 0;
    // Runs `work` under a progress display titled `title` that offers to stop it. The work may
    // run on another thread; the call returns when it has ended.
    virtual LProcessResult RunProcess(char const* title, SEProcessFunction const& work) = 0;
    // File choosers; false when the user chose nothing.
    virtual bool ChooseFilesToOpen(std::vector<std::string>& paths) = 0;
    virtual bool ChooseFileToSave(char const* suggestedPath, std::string& path) = 0;
    // A command's dialog; false when the user cancelled it.
    virtual bool AskValues(char const* title, SECommandFields& fields) = 0;
    // An effect's dialog: every parameter of `effect` and its presets, the answers set into
    // `effect`. `preview` (may be empty) plays the effect as the dialog holds it. kDone,
    // kCancelled, or kFailed with `error` set. By default the parameters become the fields of
    // AskValues (SEAskEffectSettings); the desktop shows a dialog built from the parameters.
    virtual SEResult EditEffect(char const* title, LSoundProcess& effect,
                                SEEffectPreview const& preview, std::string& error);

    // A document changed state (kSEEventDocumentModified or kSEEventDocumentClean).
    virtual void DocumentEvent(SEFileGUI& view, int event) {
        (void)view;
        (void)event;
    }
    // The view's picture is out of date (its document, selection or cursor changed).
    virtual void Redraw(SEFileGUI& view) { (void)view; }
    // Playback of the document from its cursor ("AutoPlaybackAfterEffects").
    virtual void StartPlayback(SEFileGUI& view) { (void)view; }
    // Plays `source` (an effect's preview of part of the view's document) until it ends or the
    // user stops it; the call returns at once.
    virtual void PlaySource(SEFileGUI& view, LSoundSource const& source) {
        (void)view;
        (void)source;
    }
    // The Undo and Redo items: their texts and whether they can be chosen.
    virtual void UpdateUndoItems(char const* undoLabel, bool undoEnabled, char const* redoLabel,
                                 bool redoEnabled) {
        (void)undoLabel;
        (void)undoEnabled;
        (void)redoLabel;
        (void)redoEnabled;
    }
};
