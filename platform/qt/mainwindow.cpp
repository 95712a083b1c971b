// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/qt/mainwindow.h"

#include "editor/secommands.h"
#include "llib/gen/settings.h"
#include "llib/gen/stringlong.h"
#include "llib/snd/player.h"
#include "llib/snd/recorder.h"
#include "llib/snd/soundtime.h"
#include "platform/qt/qtaudiodevice.h"
#include "platform/qt/waveformview.h"

#include <QAction>
#include <QApplication>
#include <QCloseEvent>
#include <QDockWidget>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFileInfo>
#include <QHeaderView>
#include <QIcon>
#include <QLabel>
#include <QMenuBar>
#include <QMimeData>
#include <QProgressBar>
#include <QStatusBar>
#include <QStyle>
#include <QTabWidget>
#include <QTimer>
#include <QToolBar>
#include <QTreeWidget>

#include <algorithm>

namespace {

constexpr char const kGroup[] = "Desktop";

QString TimeText(long long frames, int rateHz) {
    char text[64];
    LSoundTime::FromFrames(frames, rateHz > 0 ? rateHz : 1)._GetText(text);
    return QString::fromLatin1(text);
}

LSettingsStore& UserSettings(LSettingsStore* given, MainDialog& core) {
    return given != nullptr ? *given : core.GetCore().GetSettings();
}

} // namespace

SEMainWindow::SEMainWindow(LSettingsStore* settings)
    : m_core(*this, settings), m_settings(UserSettings(settings, m_core)) {
    setWindowTitle(QStringLiteral("Tessel"));
    setAcceptDrops(true);
    m_tabs = new QTabWidget(this);
    m_tabs->setDocumentMode(true);
    m_tabs->setTabsClosable(true);
    m_tabs->setMovable(false);
    setCentralWidget(m_tabs);
    connect(m_tabs, &QTabWidget::currentChanged, this, [this](int index) {
        if (index >= 0) {
            (void)m_core.GetWindows().SetCurrent(static_cast<std::size_t>(index));
        }
        m_core.UpdateUndoMenuItem();
        UpdateStatus();
        UpdateEnabling();
    });
    connect(m_tabs, &QTabWidget::tabCloseRequested, this, [this](int index) {
        if (SEFileGUI* view = m_core.GetWindows().At(static_cast<std::size_t>(index))) {
            if (view == m_recordingView) {
                StopRecording(); // the recording writes into the document being closed
            }
            (void)m_core.CmCloseFileWindow(view);
            SyncTabs();
        }
    });

    m_status = new QLabel(this);
    statusBar()->addWidget(m_status, 1);
    m_meter = new QProgressBar(this);
    m_meter->setRange(0, 1000);
    m_meter->setTextVisible(false);
    m_meter->setMaximumWidth(160);
    m_meter->setToolTip(tr("Recording level"));
    m_meter->hide();
    statusBar()->addPermanentWidget(m_meter);

    m_playTimer = new QTimer(this);
    m_playTimer->setInterval(30);
    connect(m_playTimer, &QTimer::timeout, this, &SEMainWindow::PollPlayer);
    m_recordTimer = new QTimer(this);
    m_recordTimer->setInterval(50);
    connect(m_recordTimer, &QTimer::timeout, this, &SEMainWindow::PollRecorder);

    BuildMenus();
    BuildTaskList();
    RestoreSettings();
    m_core.UpdateUndoMenuItem();
    UpdateStatus();
    UpdateEnabling();
}

SEMainWindow::~SEMainWindow() {
    StopRecording();
    StopPlayback();
    // The views go with the core's window manager; the tab pages must not outlive them.
    while (m_tabs->count() > 0) {
        QWidget* page = m_tabs->widget(0);
        m_tabs->removeTab(0);
        delete page;
    }
}

QAction* SEMainWindow::AddCommand(QMenu* menu, int id, QString const& text,
                                  QKeySequence const& key) {
    auto* action = new QAction(text, this);
    if (!key.isEmpty()) {
        action->setShortcut(key);
    }
    if (SECommandInfo const* info = SEFindCommand(id)) {
        action->setStatusTip(QString::fromUtf8(info->text));
    }
    connect(action, &QAction::triggered, this, [this, id] { (void)RunCommand(id); });
    menu->addAction(action);
    m_actions[id] = action;
    return action;
}

void SEMainWindow::BuildMenus() {
    using namespace SECmd;
    namespace D = SEDesktopCmd;
    QMenu* file = menuBar()->addMenu(tr("&File"));
    AddCommand(file, kNew, tr("&New"), QKeySequence::New);
    AddCommand(file, kOpen, tr("&Open..."), QKeySequence::Open);
    m_recentMenu = file->addMenu(tr("Open &Recent"));
    AddCommand(file, kSave, tr("&Save"), QKeySequence::Save);
    AddCommand(file, kSaveAs, tr("Save &As..."), QKeySequence::SaveAs);
    AddCommand(file, kSaveAll, tr("Save A&ll"));
    file->addSeparator();
    AddCommand(file, kClose, tr("&Close"), QKeySequence::Close);
    AddCommand(file, D::kQuit, tr("&Quit"), QKeySequence::Quit);

    QMenu* edit = menuBar()->addMenu(tr("&Edit"));
    AddCommand(edit, kUndo, tr("Undo"), QKeySequence::Undo);
    AddCommand(edit, kRedo, tr("Redo"), QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_Z));
    AddCommand(edit, kRevert, tr("Undo to Last Save"));
    edit->addSeparator();
    AddCommand(edit, kCut, tr("Cu&t"), QKeySequence::Cut);
    AddCommand(edit, kCopy, tr("&Copy"), QKeySequence::Copy);
    AddCommand(edit, kPaste, tr("&Paste"), QKeySequence::Paste);
    AddCommand(edit, kPasteAsNew, tr("Paste as &New File"));
    AddCommand(edit, kDelete, tr("&Delete"), QKeySequence::Delete);
    edit->addSeparator();
    AddCommand(edit, kSelectAll, tr("Select &All"), QKeySequence::SelectAll);
    AddCommand(edit, kSelectNone, tr("Select &None"), QKeySequence(Qt::CTRL | Qt::Key_D));
    AddCommand(edit, kSelect, tr("Select &Range..."));
    AddCommand(edit, kCursor, tr("Move C&ursor..."));
    edit->addSeparator();
    AddCommand(edit, kTrimStart, tr("Trim &Start"));
    AddCommand(edit, kTrimEnd, tr("Trim &End"));
    AddCommand(edit, kSilence, tr("&Silence"));
    edit->addSeparator();
    AddCommand(edit, kBookmark, tr("Set &Bookmark..."), QKeySequence(Qt::CTRL | Qt::Key_B));
    AddCommand(edit, kDeleteAllBookmarks, tr("Delete All Bookmarks"));

    QMenu* effects = menuBar()->addMenu(tr("Effe&cts"));
    AddCommand(effects, kAmplify, tr("&Amplify..."));
    AddCommand(effects, kNormalize, tr("&Normalize..."));
    AddCommand(effects, kFadeIn, tr("Fade &In..."));
    AddCommand(effects, kFadeOut, tr("Fade &Out..."));
    AddCommand(effects, kEnvelope, tr("&Envelope..."));
    AddCommand(effects, kEnvelopeDb, tr("Envelope in &dB..."));
    AddCommand(effects, kPan, tr("Stereo &Pan..."));
    AddCommand(effects, kDCOffset, tr("&DC Offset Correction"));
    AddCommand(effects, kReverse, tr("&Reverse"));
    effects->addSeparator();
    AddCommand(effects, kToStereo, tr("Convert to &Stereo"));
    AddCommand(effects, kJoinChannels, tr("&Join Channels"));
    effects->addSeparator();
    AddCommand(effects, kEffectChain, tr("Apply Effect &Chain..."));
    AddCommand(effects, kEffectChainPreview, tr("Play Through Effect Chain..."));

    QMenu* view = menuBar()->addMenu(tr("&View"));
    AddCommand(view, D::kZoomIn, tr("Zoom &In"), QKeySequence::ZoomIn);
    AddCommand(view, D::kZoomOut, tr("Zoom &Out"), QKeySequence::ZoomOut);
    AddCommand(view, D::kZoomSelection, tr("Zoom to &Selection"),
               QKeySequence(Qt::CTRL | Qt::Key_E));
    AddCommand(view, D::kZoomAll, tr("Zoom to &All"), QKeySequence(Qt::CTRL | Qt::Key_0));
    view->addSeparator();
    AddCommand(view, D::kVerticalZoomIn, tr("Vertical Zoom In"),
               QKeySequence(Qt::SHIFT | Qt::Key_Up));
    AddCommand(view, D::kVerticalZoomOut, tr("Vertical Zoom Out"),
               QKeySequence(Qt::SHIFT | Qt::Key_Down));
    AddCommand(view, D::kVerticalZoomDefault, tr("Vertical Zoom Default"));

    QMenu* play = menuBar()->addMenu(tr("&Playback"));
    AddCommand(play, D::kPlayStop, tr("&Play / Stop"), QKeySequence(Qt::Key_Space));
    AddCommand(play, D::kPlay, tr("Play from &Cursor"));
    AddCommand(play, D::kPlaySelection, tr("Play &Selection"));
    AddCommand(play, D::kStop, tr("S&top"));
    play->addSeparator();
    AddCommand(play, kRecord, tr("&Record New File"), QKeySequence(Qt::CTRL | Qt::Key_R));
    AddCommand(play, D::kRecordAtCursor, tr("Record at Cursor"));
    AddCommand(play, D::kRecordStop, tr("Stop Recording"));
    AddCommand(play, D::kRecordFormat, tr("Recording &Format..."));
    AddCommand(play, D::kAudioDevices, tr("Audio &Devices..."));

    // The desktop theme's icons where it has them, else the style's own.
    struct Icon {
        int id;
        char const* theme;
        QStyle::StandardPixmap fallback;
    };
    Icon const icons[] = {{kNew, "document-new", QStyle::SP_FileIcon},
                          {kOpen, "document-open", QStyle::SP_DialogOpenButton},
                          {kSave, "document-save", QStyle::SP_DialogSaveButton},
                          {kUndo, "edit-undo", QStyle::SP_ArrowBack},
                          {kRedo, "edit-redo", QStyle::SP_ArrowForward},
                          {D::kPlay, "media-playback-start", QStyle::SP_MediaPlay},
                          {D::kStop, "media-playback-stop", QStyle::SP_MediaStop},
                          {kRecord, "media-record", QStyle::SP_DialogYesButton}};
    for (Icon const& icon : icons) {
        m_actions[icon.id]->setIcon(QIcon::fromTheme(QString::fromLatin1(icon.theme),
                                                     style()->standardIcon(icon.fallback)));
    }

    QToolBar* bar = addToolBar(tr("Main"));
    bar->setObjectName(QStringLiteral("MainToolBar"));
    for (int id : {kNew, kOpen, kSave}) {
        bar->addAction(m_actions[id]);
    }
    bar->addSeparator();
    bar->addAction(m_actions[kUndo]);
    bar->addAction(m_actions[kRedo]);
    bar->addSeparator();
    for (int id : {D::kPlay, D::kStop, static_cast<int>(kRecord)}) {
        bar->addAction(m_actions[id]);
    }
    bar->addSeparator();
    for (int id : {D::kZoomIn, D::kZoomOut, D::kZoomSelection, D::kZoomAll}) {
        bar->addAction(m_actions[id]);
    }
    m_actions[kUndo]->setToolTip(QString::fromUtf8(kSEUndoButtonTip));
    m_actions[kRedo]->setToolTip(QString::fromUtf8(kSERedoButtonTip));
}

void SEMainWindow::BuildTaskList() {
    auto* dock = new QDockWidget(tr("Tasks"), this);
    dock->setObjectName(QStringLiteral("TaskList"));
    m_tasks = new QTreeWidget(dock);
    m_tasks->setHeaderHidden(true);
    static char const* const kGroups[] = {"", "File", "Edit", "Effects", "Tools"};
    std::map<int, QTreeWidgetItem*> groups;
    for (SETaskListEntry const& entry : SETaskList()) {
        QTreeWidgetItem*& group = groups[entry.group];
        if (group == nullptr) {
            group = new QTreeWidgetItem(m_tasks, {tr(kGroups[std::clamp(entry.group, 0, 4)])});
        }
        auto* item = new QTreeWidgetItem(group, {QString::fromUtf8(entry.text)});
        item->setToolTip(0, QString::fromUtf8(entry.tip));
        item->setData(0, Qt::UserRole, entry.id);
        // Recording is the desktop's own; the core's table marks it as not built for the others.
        SECommandInfo const* info = SEFindCommand(entry.id);
        if (info != nullptr && !info->built && entry.id != SECmd::kRecord) {
            item->setDisabled(true);
        }
    }
    m_tasks->expandAll();
    connect(m_tasks, &QTreeWidget::itemActivated, this, [this](QTreeWidgetItem* item) {
        QVariant const id = item->data(0, Qt::UserRole);
        if (id.isValid()) {
            (void)RunCommand(id.toInt());
        }
    });
    dock->setWidget(m_tasks);
    addDockWidget(Qt::LeftDockWidgetArea, dock);
}

QAction* SEMainWindow::GetAction(int id) const {
    auto const it = m_actions.find(id);
    return it != m_actions.end() ? it->second : nullptr;
}

SEWaveformView* SEMainWindow::FindWaveform(SEFileGUI const* view) const {
    auto const it = m_waveforms.find(view);
    return it != m_waveforms.end() ? it->second : nullptr;
}

SEWaveformView* SEMainWindow::GetCurrentWaveform() const {
    return FindWaveform(m_core.GetCurrentView());
}

void SEMainWindow::SyncTabs() {
    SEWindowManager& windows = m_core.GetWindows();
    // Pages whose view is gone first, then one page per view in the manager's order.
    for (auto it = m_waveforms.begin(); it != m_waveforms.end();) {
        if (windows.IndexOf(it->first) >= windows.GetCount()) {
            if (it->first == m_playingView) {
                StopPlayback();
            }
            m_tabs->removeTab(m_tabs->indexOf(it->second));
            delete it->second;
            it = m_waveforms.erase(it);
        } else {
            ++it;
        }
    }
    QSignalBlocker const block(m_tabs);
    for (std::size_t i = 0; i < windows.GetCount(); ++i) {
        SEFileGUI* view = windows.At(i);
        SEWaveformView* page = FindWaveform(view);
        if (page == nullptr) {
            page = new SEWaveformView(*view);
            page->SetBusyCheck([this] { return m_busy; });
            connect(page, &SEWaveformView::selectionRequested, this,
                    [this, view](long long start, long long end, long long cursor) {
                        m_core.GetCore().ModifySelection(view, start, end, cursor);
                        UpdateStatus();
                        UpdateEnabling();
                    });
            m_waveforms[view] = page;
            m_tabs->insertTab(static_cast<int>(i), page, QString());
            UpdateTabTitle(*view);
        }
    }
    if (windows.GetCount() > 0) {
        m_tabs->setCurrentIndex(static_cast<int>(windows.GetCurrentIndex()));
    }
    UpdateStatus();
    UpdateEnabling();
}

void SEMainWindow::UpdateTabTitle(SEFileGUI& view) {
    SEWaveformView* page = FindWaveform(&view);
    if (page == nullptr || view.GetFile() == nullptr) {
        return;
    }
    QString title = QFileInfo(QString::fromUtf8(view.GetFile()->GetPath())).fileName();
    if (view.GetFile()->IsModified()) {
        title += QStringLiteral(" *");
    }
    int const index = m_tabs->indexOf(page);
    m_tabs->setTabText(index, title);
    m_tabs->setTabToolTip(index, QString::fromUtf8(view.GetFile()->GetPath()));
    if (page == GetCurrentWaveform()) {
        setWindowTitle(title + QStringLiteral(" - Tessel"));
    }
}

QString SEMainWindow::GetStatusText() const {
    return m_status->text();
}

void SEMainWindow::UpdateStatus() {
    SEFileGUI* view = m_core.GetCurrentView();
    if (view == nullptr) {
        m_status->setText(tr("No file open"));
        setWindowTitle(QStringLiteral("Tessel"));
        return;
    }
    SEFile const& file = *view->GetFile();
    int const rate = file.GetAudio().GetSampleRate();
    auto const& s = file.GetSelection();
    long long const a = std::min(s.start, s.end);
    long long const b = std::max(s.start, s.end);
    QString text = tr("Cursor %1").arg(TimeText(file.GetCursor(), rate));
    if (a != b) {
        text += tr("   Selection %1 to %2 (%3)")
                    .arg(TimeText(a, rate), TimeText(b, rate), TimeText(b - a, rate));
    }
    text += tr("   Length %1   %2 Hz, %3 ch")
                .arg(TimeText(file.GetAudio().GetLengthFrames(), rate))
                .arg(rate)
                .arg(file.GetAudio().GetChannels());
    m_status->setText(text);
    UpdateTabTitle(*view);
}

void SEMainWindow::UpdateEnabling() {
    bool const document = m_core.GetCurrentView() != nullptr;
    for (auto const& [id, action] : m_actions) {
        SECommandInfo const* info = SEFindCommand(id);
        if (info != nullptr) {
            if (id != SECmd::kUndo && id != SECmd::kRedo) {
                action->setEnabled(info->built && (document || !info->needsDocument));
            }
        } else if (id != SEDesktopCmd::kQuit && id != SEDesktopCmd::kRecordStop &&
                   id != SEDesktopCmd::kRecordFormat && id != SEDesktopCmd::kAudioDevices) {
            action->setEnabled(document);
        }
    }
    bool const recording = m_recorder != nullptr && m_recorder->IsRecording();
    m_actions[SEDesktopCmd::kRecordStop]->setEnabled(recording);
    m_actions[SECmd::kRecord]->setEnabled(!recording);
    m_actions[SEDesktopCmd::kRecordAtCursor]->setEnabled(document && !recording);
    m_actions[SEDesktopCmd::kRecordFormat]->setEnabled(!recording);
    m_actions[SEDesktopCmd::kAudioDevices]->setEnabled(!recording);
}

bool SEMainWindow::HandleWindowCommand(int id) {
    namespace D = SEDesktopCmd;
    SEWaveformView* wave = GetCurrentWaveform();
    switch (id) {
    case D::kQuit:
        close();
        return true;
    case D::kPlay:
        Play(false);
        return true;
    case D::kPlaySelection:
        Play(true);
        return true;
    case D::kStop:
        StopPlayback();
        return true;
    case D::kPlayStop:
        if (m_player != nullptr && m_player->IsPlaying()) {
            StopPlayback();
        } else {
            Play(false);
        }
        return true;
    case SECmd::kRecord:
        StartRecording(false);
        return true;
    case D::kRecordAtCursor:
        StartRecording(true);
        return true;
    case D::kRecordStop:
        StopRecording();
        return true;
    case D::kRecordFormat:
        ChooseRecordFormat();
        return true;
    case D::kAudioDevices:
        ChooseAudioDevices();
        return true;
    default:
        break;
    }
    if (id < D::kZoomIn || id > D::kVerticalZoomDefault) {
        return false;
    }
    if (wave != nullptr) {
        switch (id) {
        case D::kZoomIn:
            wave->ZoomIn();
            break;
        case D::kZoomOut:
            wave->ZoomOut();
            break;
        case D::kZoomSelection:
            wave->ZoomToSelection();
            break;
        case D::kZoomAll:
            wave->ZoomAll();
            break;
        case D::kVerticalZoomIn:
            wave->SetVerticalZoom(wave->GetVerticalZoom() * 2.0);
            break;
        case D::kVerticalZoomOut:
            wave->SetVerticalZoom(wave->GetVerticalZoom() / 2.0);
            break;
        default:
            wave->SetVerticalZoom(1.0);
            break;
        }
    }
    return true;
}

SEResult SEMainWindow::RunCommand(int id) {
    if (m_busy) {
        return SEResult::kIgnored;
    }
    if (HandleWindowCommand(id)) {
        UpdateEnabling();
        return SEResult::kDone;
    }
    if (m_recordingView != nullptr) {
        // The recording is writing into a document; edits wait until it stops.
        (void)MessageBox("Record", "Stop the recording first.", {"OK"});
        return SEResult::kIgnored;
    }
    SEResult const result = m_core.Command(id, 0);
    if (result == SEResult::kUnavailable) {
        (void)MessageBox("Tessel", "This command is not part of this version of Tessel yet.",
                         {"OK"});
    }
    SyncTabs();
    if (SEFileGUI* view = m_core.GetCurrentView(); view != nullptr &&
                                                   (id == SECmd::kSave || id == SECmd::kSaveAs) &&
                                                   result == SEResult::kDone) {
        AddRecentFile(view->GetFile()->GetPath());
    }
    return result;
}

SEResult SEMainWindow::OpenFiles(std::vector<std::string> const& paths) {
    SEResult outcome = SEResult::kDone;
    for (std::string const& path : paths) {
        SEResult const result = m_core.CmOpenFile(path.c_str());
        SyncTabs();
        if (result == SEResult::kDone) {
            AddRecentFile(m_core.GetCurrentView()->GetFile()->GetPath());
        } else if (outcome == SEResult::kDone) {
            outcome = result;
        }
    }
    return outcome;
}

std::vector<std::string> SEMainWindow::GetRecentFiles() const {
    std::vector<std::string> files;
    for (int i = 1; i <= kRecentFiles; ++i) {
        std::string const key = "RecentFile" + std::to_string(i);
        std::string path = m_settings.GetString(kGroup, key.c_str(), "");
        if (!path.empty()) {
            files.push_back(std::move(path));
        }
    }
    return files;
}

void SEMainWindow::AddRecentFile(std::string const& path) {
    std::vector<std::string> files = GetRecentFiles();
    files.erase(std::remove(files.begin(), files.end(), path), files.end());
    files.insert(files.begin(), path);
    files.resize(std::min<std::size_t>(files.size(), kRecentFiles));
    for (int i = 1; i <= kRecentFiles; ++i) {
        std::string const key = "RecentFile" + std::to_string(i);
        std::size_t const at = static_cast<std::size_t>(i - 1);
        (void)m_settings.SetString(kGroup, key.c_str(), at < files.size() ? files[at].c_str() : "");
    }
    std::string const folder = QFileInfo(QString::fromStdString(path)).absolutePath().toStdString();
    (void)m_settings.SetString(kGroup, "LastFolder", folder.c_str());
    RebuildRecentMenu();
}

void SEMainWindow::RebuildRecentMenu() {
    m_recentMenu->clear();
    for (std::string const& path : GetRecentFiles()) {
        QAction* action = m_recentMenu->addAction(QString::fromStdString(path));
        connect(action, &QAction::triggered, this, [this, path] {
            if (!m_busy) {
                (void)OpenFiles({path});
            }
        });
    }
    m_recentMenu->setEnabled(!m_recentMenu->isEmpty());
}

void SEMainWindow::RestoreSettings() {
    QByteArray const geometry = QByteArray::fromBase64(
        QByteArray::fromStdString(m_settings.GetString(kGroup, "Geometry", "")));
    if (geometry.isEmpty() || !restoreGeometry(geometry)) {
        resize(1100, 650);
    }
    (void)restoreState(QByteArray::fromBase64(
        QByteArray::fromStdString(m_settings.GetString(kGroup, "WindowState", ""))));
    RebuildRecentMenu();
}

void SEMainWindow::SaveSettings() {
    (void)m_settings.SetString(kGroup, "Geometry", saveGeometry().toBase64().toStdString().c_str());
    (void)m_settings.SetString(kGroup, "WindowState", saveState().toBase64().toStdString().c_str());
}

void SEMainWindow::changeEvent(QEvent* event) {
    QMainWindow::changeEvent(event);
    if (event->type() == QEvent::ActivationChange && isActiveWindow()) {
        // Once the activation has been handled: the check may open dialogs of its own.
        QTimer::singleShot(0, this, [this] { CheckFilesChangedOutside(); });
    }
}

void SEMainWindow::CheckFilesChangedOutside() {
    if (m_checkingFiles || m_busy || m_recordingView != nullptr) {
        return;
    }
    m_checkingFiles = true;
    SEWindowManager& windows = m_core.GetWindows();
    for (std::size_t i = 0; i < windows.GetCount(); ++i) {
        SEFileGUI* const view = windows.At(i);
        SEFile* const file = view != nullptr ? view->GetFile() : nullptr;
        if (file == nullptr || !file->TestForFileModifications(&m_settings)) {
            continue;
        }
        std::string text = LStrFormat(
            "The file \"%s\" has been changed by another program. Reload it?", file->GetPath());
        if (file->IsModified()) {
            text += " The changes made here would be replaced (Undo brings them back).";
        }
        if (MessageBox("File Changed", text.c_str(), {"Reload", "Keep"}) == 0) {
            (void)m_core.CmReloadFile(view);
            SyncTabs();
        }
    }
    m_checkingFiles = false;
    UpdateStatus();
    UpdateEnabling();
}

void SEMainWindow::closeEvent(QCloseEvent* event) {
    if (m_busy) {
        event->ignore();
        return;
    }
    StopRecording();
    StopPlayback();
    // Each document with unsaved changes asks; a Cancel keeps the window open.
    while (SEFileGUI* view = m_core.GetCurrentView()) {
        SEResult const result = m_core.CmCloseFileWindow(view);
        SyncTabs();
        if (result != SEResult::kDone) {
            event->ignore();
            return;
        }
    }
    SaveSettings();
    event->accept();
}

void SEMainWindow::dragEnterEvent(QDragEnterEvent* event) {
    if (event->mimeData()->hasUrls()) {
        event->acceptProposedAction();
    }
}

void SEMainWindow::dropEvent(QDropEvent* event) {
    std::vector<std::string> paths;
    for (QUrl const& url : event->mimeData()->urls()) {
        if (url.isLocalFile()) {
            paths.push_back(url.toLocalFile().toStdString());
        }
    }
    if (!paths.empty() && !m_busy) {
        event->acceptProposedAction();
        (void)OpenFiles(paths);
    }
}
