// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// SEMainWindow: the desktop's main window and its answer to everything the editor core asks of
// a front end. It owns the core's MainDialog (documents, commands, undo), shows each open
// document as a tab holding its waveform view, and turns menus, toolbar buttons, key bindings and
// task-list entries into command identifiers: the view and playback commands it handles itself,
// every other one goes to MainDialog::Command exactly as tessel-cli sends it.
//
// Long work runs under LProgressDialog on a worker thread; while it runs the views show their
// last picture and user input to the window is held back. The player and the recorder run
// threads of their own; the window polls them on timers (the play cursor, the level meter, and
// moving recorded audio into the document on this thread). Without an audio device, playback and
// recording say so and everything else works.
//
// Settings (group "Desktop" of the settings store): "Geometry", "WindowState", "LastFolder" and
// "RecentFile1".."RecentFile8".

#include "editor/main.h"
#include "editor/seui.h"

#include <QByteArray>
#include <QMainWindow>

#include <map>
#include <memory>
#include <string>
#include <vector>

class LQtAudioInput;
class LQtAudioOutput;
class LSettingsStore;
class LSoundPlayer;
class LSoundRecorder;
struct LAudioFormat;
class QAction;
class QLabel;
class QMenu;
class QProgressBar;
class QTabWidget;
class QTimer;
class QTreeWidget;
class SEWaveformView;

// The window's own command identifiers, beside the core's (secommands.h).
namespace SEDesktopCmd {
inline constexpr int kPlay = 3010;
inline constexpr int kPlaySelection = 3011;
inline constexpr int kStop = 3012;
inline constexpr int kPlayStop = 3013;
inline constexpr int kRecordAtCursor = 3014;
inline constexpr int kRecordStop = 3015;
inline constexpr int kRecordFormat = 3016;
inline constexpr int kAudioDevices = 3017;
inline constexpr int kZoomIn = 5005;
inline constexpr int kZoomOut = 5006;
inline constexpr int kZoomSelection = 5007;
inline constexpr int kZoomAll = 5008;
inline constexpr int kVerticalZoomIn = 5009;
inline constexpr int kVerticalZoomOut = 5010;
inline constexpr int kVerticalZoomDefault = 5011;
inline constexpr int kQuit = 1099;
} // namespace SEDesktopCmd

class SEMainWindow : public QMainWindow, public SEUserInterface {
    Q_OBJECT
public:
    static constexpr int kRecentFiles = 8;

    // `settings` null: the user's store.
    explicit SEMainWindow(LSettingsStore* settings = nullptr);
    ~SEMainWindow() override;

    // Runs command `id` as a menu item would; the core's outcome (kDone for the window's own).
    SEResult RunCommand(int id);
    // Opens each file into a new document; the outcome of the first that did not open, if any.
    SEResult OpenFiles(std::vector<std::string> const& paths);

    [[nodiscard]] MainDialog& GetCore() { return m_core; }
    [[nodiscard]] QAction* GetAction(int id) const;
    // The waveform view of the current document, or null.
    [[nodiscard]] SEWaveformView* GetCurrentWaveform() const;
    [[nodiscard]] QTabWidget* GetTabs() const { return m_tabs; }
    [[nodiscard]] QString GetStatusText() const;
    [[nodiscard]] std::vector<std::string> GetRecentFiles() const;
    [[nodiscard]] LSoundPlayer* GetPlayer() const { return m_player.get(); }
    // The rate and channel count a recording into a new file takes: the user's choice from
    // "Recording Format...", 44.1 kHz stereo until one is made.
    [[nodiscard]] LAudioFormat GetRecordFormat() const;
    // The devices playback and recording use: the user's choice from "Audio Devices...", or
    // empty (the system's default) when none was made or the chosen one is no longer listed.
    [[nodiscard]] QByteArray GetAudioDeviceId(bool input) const;
    // Asks, for each document whose file another program changed since it was loaded, saved
    // or last asked about, whether to reload it. Runs whenever the window becomes active.
    void CheckFilesChangedOutside();
    [[nodiscard]] bool IsBusy() const { return m_busy; }

    // ---- SEUserInterface ----
    int MessageBox(char const* title, char const* text,
                   std::vector<std::string> const& buttons) override;
    LProcessResult RunProcess(char const* title, SEProcessFunction const& work) override;
    bool ChooseFilesToOpen(std::vector<std::string>& paths) override;
    bool ChooseFileToSave(char const* suggestedPath, std::string& path) override;
    bool AskValues(char const* title, SECommandFields& fields) override;
    SEResult EditEffect(char const* title, LSoundProcess& effect, SEEffectPreview const& preview,
                        std::string& error) override;
    void DocumentEvent(SEFileGUI& view, int event) override;
    void Redraw(SEFileGUI& view) override;
    void StartPlayback(SEFileGUI& view) override;
    void PlaySource(SEFileGUI& view, LSoundSource const& source) override;
    void UpdateUndoItems(char const* undoLabel, bool undoEnabled, char const* redoLabel,
                         bool redoEnabled) override;

protected:
    void changeEvent(QEvent* event) override;
    void closeEvent(QCloseEvent* event) override;
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dropEvent(QDropEvent* event) override;

private:
    void BuildMenus();
    void BuildTaskList();
    QAction* AddCommand(QMenu* menu, int id, QString const& text, QKeySequence const& key = {});
    // Makes the tabs match the core's views, in order, with the core's current one shown.
    void SyncTabs();
    void UpdateTabTitle(SEFileGUI& view);
    void UpdateStatus();
    void UpdateEnabling();
    [[nodiscard]] SEWaveformView* FindWaveform(SEFileGUI const* view) const;
    bool HandleWindowCommand(int id);
    void AddRecentFile(std::string const& path);
    void RebuildRecentMenu();
    void RestoreSettings();
    void SaveSettings();

    // ---- playback and recording ----
    void Play(bool selectionOnly);
    void StopPlayback();
    void PollPlayer();
    void StartRecording(bool atCursor);
    // The "Recording Format..." dialog; stores the choice unless cancelled.
    void ChooseRecordFormat();
    // The "Audio Devices..." dialog; stores the choice unless cancelled.
    void ChooseAudioDevices();
    void StopRecording();
    void PollRecorder();
    bool EnsureOutput();

    MainDialog m_core;
    LSettingsStore& m_settings;
    bool m_checkingFiles = false; // the check's own questions change the activation
    QTabWidget* m_tabs = nullptr;
    QTreeWidget* m_tasks = nullptr;
    QLabel* m_status = nullptr;
    QProgressBar* m_meter = nullptr;
    QMenu* m_recentMenu = nullptr;
    std::map<int, QAction*> m_actions;
    std::map<SEFileGUI const*, SEWaveformView*> m_waveforms;
    bool m_busy = false;

    std::unique_ptr<LQtAudioOutput> m_output;
    std::unique_ptr<LSoundPlayer> m_player;
    SEFileGUI* m_playingView = nullptr;
    QTimer* m_playTimer = nullptr;
    std::unique_ptr<LQtAudioInput> m_input;
    std::unique_ptr<LSoundRecorder> m_recorder;
    SEFileGUI* m_recordingView = nullptr;
    bool m_recordingIsModification = false;
    QTimer* m_recordTimer = nullptr;
};
