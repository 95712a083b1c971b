// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// SEHeadlessUI: the front end for tests and tessel-cli. It answers every question from values
// given in advance: a command's dialog takes the pending key=value pairs (each may be used once,
// and a key no dialog asked for is reported), file choosers take the pending "path" value or the
// next queued path, and message boxes take the next queued answer or else their last button,
// which is the cautious one ("Cancel", or "OK" when that is all there is). Long work runs on the
// calling thread with an LProcessInterfaceBasic that can be told to stop after a given number of
// progress reports, so a test can cancel work part-way. Everything shown is logged.

#include "editor/seui.h"

#include <deque>
#include <map>
#include <string>
#include <vector>

class SEHeadlessUI : public SEUserInterface {
public:
    struct Shown {
        std::string title;
        std::string text;
        std::string answer;
    };

    // ---- answers ----
    // The values for the next command's dialogs (replacing those not used).
    void SetValues(std::map<std::string, std::string> values);
    // The keys given with SetValues that no dialog asked for.
    [[nodiscard]] std::vector<std::string> GetUnusedValues() const;
    // Answers for the next message boxes (a button's text) and file choosers.
    void QueueAnswer(std::string const& button) { m_answers.push_back(button); }
    void QueuePath(std::string const& path) { m_paths.push_back(path); }
    // The work of the next long operations is stopped after `reports` progress reports (0: at
    // its first poll); negative: never.
    void StopAfterProgressReports(int reports) { m_stopAfter = reports; }

    // ---- what happened ----
    [[nodiscard]] std::vector<Shown> const& GetMessages() const { return m_messages; }
    void ClearMessages() { m_messages.clear(); }
    [[nodiscard]] std::vector<int> const& GetEvents() const { return m_events; }
    void ClearEvents() { m_events.clear(); }
    [[nodiscard]] int GetPlaybackStarts() const { return m_playbackStarts; }
    // The source of the last preview (an empty reference before the first).
    [[nodiscard]] LSoundSource const& GetLastPreview() const { return m_preview; }
    [[nodiscard]] int GetRedraws() const { return m_redraws; }
    [[nodiscard]] std::string const& GetUndoText() const { return m_undoText; }
    [[nodiscard]] std::string const& GetRedoText() const { return m_redoText; }
    [[nodiscard]] bool IsUndoEnabled() const { return m_undoEnabled; }
    [[nodiscard]] bool IsRedoEnabled() const { return m_redoEnabled; }

    // ---- SEUserInterface ----
    int MessageBox(char const* title, char const* text,
                   std::vector<std::string> const& buttons) override;
    LProcessResult RunProcess(char const* title, SEProcessFunction const& work) override;
    bool ChooseFilesToOpen(std::vector<std::string>& paths) override;
    bool ChooseFileToSave(char const* suggestedPath, std::string& path) override;
    bool AskValues(char const* title, SECommandFields& fields) override;
    void DocumentEvent(SEFileGUI& view, int event) override;
    void Redraw(SEFileGUI& view) override;
    void StartPlayback(SEFileGUI& view) override;
    void PlaySource(SEFileGUI& view, LSoundSource const& source) override;
    void UpdateUndoItems(char const* undoLabel, bool undoEnabled, char const* redoLabel,
                         bool redoEnabled) override;

protected:
    // The interface the work of RunProcess reports to; tessel-cli draws a progress bar with its.
    virtual LProcessResult RunWork(char const* title, SEProcessFunction const& work);

private:
    bool TakePath(std::string& path);

    std::map<std::string, std::string> m_values;
    std::map<std::string, bool> m_used;
    std::deque<std::string> m_answers;
    std::deque<std::string> m_paths;
    int m_stopAfter = -1;
    std::vector<Shown> m_messages;
    std::vector<int> m_events;
    int m_playbackStarts = 0;
    LSoundSource m_preview;
    int m_redraws = 0;
    std::string m_undoText;
    std::string m_redoText;
    bool m_undoEnabled = false;
    bool m_redoEnabled = false;
};
