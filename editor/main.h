// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// MainDialog: the main window's command handler, without the window. Menus, toolbar, key
// bindings and the task list deliver command identifiers (secommands.h) to Command, which runs
// the handler on the current document and then recomputes the Undo and Redo items. What a
// command must ask the user (a file, a range, a confirmation) it asks through the front end's
// SEUserInterface, so the desktop, the tests and tessel-cli drive exactly the same code.

#include "editor/secommands.h"
#include "editor/secoreutils.h"
#include "editor/seui.h"
#include "editor/windowmanager.h"

#include <string>

class LSettingsStore;

class MainDialog {
public:
    // `settings` null: the user's store.
    explicit MainDialog(SEUserInterface& ui, LSettingsStore* settings = nullptr);
    MainDialog(MainDialog const&) = delete;
    MainDialog& operator=(MainDialog const&) = delete;

    // Runs command `id`. `notify` tells where it came from (0 menu, 1 key, 2 toolbar or task
    // list); no command depends on it. The outcome's reason, when it did not run, is
    // GetLastError().
    SEResult Command(int id, int notify = 0);

    // ---- handlers ----
    SEResult CmNew();
    // Opens `path` into a new document, made current.
    SEResult CmOpenFile(char const* path);
    // Reads the document's file again, as one modification described "Reload" (so Undo brings
    // back what was there); the document is then clean, as just opened. For a file that another
    // program changed (SEFile::TestForFileModifications).
    SEResult CmReloadFile(SEFileGUI* view);
    SEResult CmOpen();
    // Closes `view` (the current one when null), asking first when it holds unsaved changes.
    SEResult CmCloseFileWindow(SEFileGUI* view = nullptr);
    SEResult CmSaveAs();
    SEResult CmSaveAll();
    SEResult CmSelectAll();
    SEResult CmSelectNone();
    SEResult CmSelectRange();
    SEResult CmSetCursor();
    SEResult CmEditSamples();
    SEResult CmPasteAsNew();
    SEResult CmWindow();
    SEResult CmBookmark();
    SEResult CmAmplify();
    SEResult CmNormalize();
    SEResult CmEnvelope(bool decibels);
    SEResult CmStereoPan();
    SEResult CmEffectChain(bool preview);
    SEResult CmFade(bool in);
    SEResult CmBookmarkEdit(int id);
    SEResult CmSetRegion();
    SEResult CmModifyRegion();

    // Recomputes the Undo and Redo items from the current document's ring.
    void UpdateUndoMenuItem();
    [[nodiscard]] std::string const& GetUndoItemText() const { return m_undoText; }
    [[nodiscard]] std::string const& GetRedoItemText() const { return m_redoText; }
    [[nodiscard]] bool IsUndoItemEnabled() const { return m_undoEnabled; }
    [[nodiscard]] bool IsRedoItemEnabled() const { return m_redoEnabled; }

    [[nodiscard]] SEWindowManager& GetWindows() { return m_windows; }
    [[nodiscard]] SECoreUtils& GetCore() { return m_core; }
    [[nodiscard]] SEFileGUI* GetCurrentView() const { return m_core.Resolve(nullptr); }
    [[nodiscard]] std::string const& GetLastError() const { return m_core.GetLastError(); }

private:
    SEResult Dispatch(int id);
    // Decodes `path` into `audio` under a progress display titled `titleFormat` with the path.
    SEResult ReadFileAudio(char const* titleFormat, char const* failTitle, std::string const& path,
                           LCutListAudio& audio);
    // The file's tags into the document (none but a WAV file's are read yet).
    static void ReadFileTags(std::string const& path, SEFile& file);
    SEResult BadValue(char const* title, std::string const& text) {
        return m_core.Fail(title, text);
    }

    SEUserInterface& m_ui;
    SEWindowManager m_windows;
    SECoreUtils m_core;
    std::string m_undoText = "Undo ";
    std::string m_redoText = "Redo ";
    bool m_undoEnabled = false;
    bool m_redoEnabled = false;
};

// Reads a position typed into a command's field: a time in one of LSoundTime's forms ("90",
// "1:30", "0:01:30.250") converted to frames at `rateHz`, or a frame count written with the
// suffix "smp" ("44100smp"). False for anything else, negative values included.
[[nodiscard]] bool SEParsePosition(char const* text, int rateHz, long long& frames);
// A list of points "POSITION:VALUE,..." (positions as SEParsePosition reads them, values any
// finite number). On failure `bad` is the item that is not a point.
struct SEParsedPoint {
    long long position = 0;
    double value = 0.0;
};
[[nodiscard]] bool SEParsePoints(std::string const& text, int rateHz,
                                 std::vector<SEParsedPoint>& points, std::string& bad);
// A whole number from `minimum` to `maximum`, nothing else in the text.
[[nodiscard]] bool SEParseInt(char const* text, long long minimum, long long maximum,
                              long long& value);
