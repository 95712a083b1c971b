// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// SECoreUtils: the document-changing half of the main window. Every change of a document runs as
// one modification: StartModifyFile takes the undo snapshot and marks the document modified, the
// work runs under a progress display, then EndModifyFile commits it, or the scope object
// (LFileModifier) rolls it back: the snapshot is restored and dropped, so neither the document
// nor its Undo item shows a trace of the attempt. The edit commands (copy, cut, paste, delete,
// trims, silence, reverse, drawn samples), the ring commands and saving live here too, with the
// application's clipboard.

#include "editor/seeffects.h"
#include "editor/seui.h"
#include "editor/windowmanager.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

class LSettingsStore;

class SECoreUtils {
public:
    // `settings` null: the user's store.
    SECoreUtils(SEWindowManager& windows, SEUserInterface& ui, LSettingsStore* settings = nullptr);

    [[nodiscard]] SEUserInterface& GetUI() const { return m_ui; }
    [[nodiscard]] SEWindowManager& GetWindows() const { return m_windows; }
    [[nodiscard]] LSettingsStore& GetSettings() const;

    // ---- one modification ----
    // Snapshot under `description`, modified and changed set, the view told (event 132) and
    // redrawn. False when there is no document.
    bool StartModifyFile(SEFileGUI* view, char const* description, bool redraw = true);
    bool StartModifyCurrentFile(char const* description);
    // The end of a successful modification: the low-space warning, the redraw and, when set,
    // playback ("AutoPlaybackAfterEffects"). False makes the scope object roll back.
    bool EndModifyFile(SEFileGUI* view);
    bool EndModifyCurrentFile();
    // Drops the snapshot the start took: empties slots current and current + 1 and steps back.
    void CancelModifyFile(SEFileGUI* view);
    // Undoes an uncommitted modification: the snapshot goes back into the document, then
    // CancelModifyFile; the view hears whether the document is modified again.
    void RollBackModifyFile(SEFileGUI* view);
    // The low-space warning: shown when `folder` is a directory whose free space is not larger
    // than the document's samples as float. False when it was shown.
    bool CheckFreeSpace(SEFileGUI const* view, char const* folder);
    // Sets selection and cursor (both clamped into the document) and redraws.
    void ModifySelection(SEFileGUI* view, long long start, long long end, long long cursor,
                         bool redraw = true);
    void SendEvent(SEFileGUI& view, int event);

    // Runs `effect` as one modification described `description`: under a progress display titled
    // with the effect's name; committed on success, rolled back otherwise.
    [[nodiscard]] SEResult RunEffect(SEFileGUI* view, SEEfCutListProcess& effect,
                                     char const* description);

    // ---- commands ----
    SEResult CmUndo(SEFileGUI* view, int reserved = 0);
    SEResult CmRedo(SEFileGUI* view);
    SEResult CmUndoToLastSave(SEFileGUI* view);
    SEResult CmCopy(SEFileGUI* view);
    SEResult CmCut(SEFileGUI* view);
    SEResult CmClear(SEFileGUI* view, char const* description = "Delete");
    // Pastes the clipboard over the selection, or inserts it at `position` (negative: at the
    // cursor) when nothing is selected. The pasted audio is selected afterwards.
    SEResult CmPaste(SEFileGUI* view, long long position = -1);
    SEResult CmTrimStart(SEFileGUI* view);
    SEResult CmTrimEnd(SEFileGUI* view);
    SEResult CmSilence(SEFileGUI* view);
    SEResult CmReverse(SEFileGUI* view);
    // Amplifies the selection (the whole document without one) by `gain`.
    SEResult CmAmplify(SEFileGUI* view, float gain);
    // Fades the selection (the whole document without one) in or out.
    SEResult CmFade(SEFileGUI* view, bool in, LEnvelopeShape shape);
    // Brings the selection's peak (the whole document's without one) to `targetPeak`.
    SEResult CmNormalize(SEFileGUI* view, float targetPeak);
    SEResult CmDCOffsetCorrection(SEFileGUI* view);
    // An envelope or a pan line over the selection, positions from its start.
    SEResult CmEnvelope(SEFileGUI* view, LSPEnvelope const& envelope);
    SEResult CmStereoPan(SEFileGUI* view, LSPPan const& pan);
    // The whole document to `channels` (1: join channels, 2: convert to stereo).
    SEResult CmConvertChannels(SEFileGUI* view, unsigned char channels);
    // Applies the chain to the selection, or plays the selection through it.
    SEResult CmEffectChainApply(SEFileGUI* view,
                                std::shared_ptr<LSoundProcessMulti const> const& chain);
    // Plays `effect` over the selection (the whole document without one), as its dialog's
    // Preview does.
    SEResult CmEffectPreview(SEFileGUI* view, LSoundProcess& effect);
    SEResult CmEffectChainPlay(SEFileGUI* view,
                               std::shared_ptr<LSoundProcessMulti const> const& chain);
    SEResult CmEditSamples(SEFileGUI* view, std::vector<SESamplePoint> const& points);
    SEResult CmBookmark(SEFileGUI* view, char const* name);
    SEResult CmDeleteBookmark(SEFileGUI* view, char const* name);
    SEResult CmRenameBookmark(SEFileGUI* view, char const* name, char const* newName);
    SEResult CmBookmarkDeleteAll(SEFileGUI* view);
    // Adds the selection as a region of the application's shared list ("Add a region").
    SEResult CmSetRegion(SEFileGUI* view, char const* name);
    // Moves the region `name` to [start, end) ("Modify Region").
    SEResult CmModifyRegion(SEFileGUI* view, char const* name, long long start, long long end);
    // Saves to the document's file; a document never saved asks for a name (CmSaveAs).
    SEResult CmSave(SEFileGUI* view);
    // Saves under `path`, or asks for one when it is null; the document takes the new name.
    SEResult CmSaveAs(SEFileGUI* view, char const* path = nullptr);
    // Saves when the document is modified.
    SEResult SaveChanges(SEFileGUI* view);

    // ---- clipboard ----
    [[nodiscard]] bool HasClipboard() const { return m_hasClipboard; }
    [[nodiscard]] LCutListAudio const& GetClipboard() const { return m_clipboard; }
    void SetClipboard(LCutListAudio const& clip);

    // ---- failures ----
    // Shows `text` under `title` and keeps it as the last error; returns kFailed.
    SEResult Fail(char const* title, std::string const& text);
    [[nodiscard]] std::string const& GetLastError() const { return m_lastError; }
    void SetLastError(std::string text) { m_lastError = std::move(text); }
    void ClearLastError() { m_lastError.clear(); }

    // The view a command means: `view`, or the current one; null when that view is missing,
    // hidden or holds no document.
    [[nodiscard]] SEFileGUI* Resolve(SEFileGUI* view) const;

    // Runs `work` under the front end's progress display; a failure is shown under `failTitle`
    // with the work's own message.
    SEResult RunProcess(char const* title, char const* failTitle, SEProcessFunction const& work);

private:
    // Runs an effect of class `Effect` made over the selection (the whole document without one)
    // with `args` after it, as one modification described `description`.
    template <class Effect, class... Args>
    SEResult RunOnRange(SEFileGUI* view, char const* description, Args&&... args);
    // Resolve, and the view's selection; null (the reason kept) when nothing is selected.
    [[nodiscard]] SEFileGUI* ResolveSelected(SEFileGUI* view, SESelection& selection);
    // Plays the source `open` makes over the selection (the whole document without one).
    SEResult PlayProcessed(SEFileGUI* view, std::function<LSoundSource(LSoundSource&)> const& open);
    // Undo, redo or revert through `step`; `nothing` is the reason kept when it cannot.
    SEResult StepRing(SEFileGUI* view, bool (SEFile::*step)(), char const* nothing);
    // After a state came back from the ring: the view hears modified or clean and redraws.
    void ShowRestored(SEFileGUI& view);
    SEResult SaveTo(SEFileGUI& view, std::string const& path);
    // Deletes `range` as one modification, moves the bookmarks after it back, then sets the
    // selection and the cursor.
    SEResult DeleteRange(SEFileGUI& view, char const* description, SESelection const& range,
                         SESelectionState const& selection, long long cursor);

    SEWindowManager& m_windows;
    SEUserInterface& m_ui;
    LSettingsStore* m_settings;
    LCutListAudio m_clipboard;
    bool m_hasClipboard = false;
    std::string m_lastError;
};

// The scope of one modification: started on construction; rolled back on destruction unless
// Commit succeeded. Without a view the current document is meant.
class LFileModifier {
public:
    LFileModifier(SECoreUtils& core, char const* description, SEFileGUI* view = nullptr);
    ~LFileModifier();
    LFileModifier(LFileModifier const&) = delete;
    LFileModifier& operator=(LFileModifier const&) = delete;

    [[nodiscard]] bool IsStarted() const { return m_started; }
    bool Commit();

private:
    SECoreUtils& m_core;
    SEFileGUI* m_view;
    bool m_started = false;
    bool m_committed = false;
};

// True for a document that has never been saved (its name is not a path yet).
[[nodiscard]] bool SEIsUnsavedPath(char const* path);
