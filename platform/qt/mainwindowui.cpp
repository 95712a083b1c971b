// SPDX-License-Identifier: GPL-3.0-or-later
// The main window's side of the editor core's questions (messages, progress, file choosers,
// dialogs, redraws) and its player and recorder.
#include "platform/qt/mainwindow.h"

#include "llib/gen/settings.h"
#include "llib/snd/player.h"
#include "llib/snd/recorder.h"
#include "platform/qt/effectdialog.h"
#include "platform/qt/progressdialog.h"
#include "platform/qt/qtaudiodevice.h"
#include "platform/qt/waveformview.h"

#include <QAbstractButton>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QFormLayout>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <QTimer>

#include <algorithm>

namespace {

constexpr char const kGroup[] = "Desktop";
constexpr char const kOpenFilter[] =
    "Audio files (*.wav *.mp3 *.flac *.ogg *.opus *.aif *.aiff *.au *.m4a);;All files (*)";
// The formats a document can be saved in; the name typed decides, the filter only helps.
constexpr char const kSaveFilter[] = "WAV files (*.wav);;FLAC files (*.flac);;All files (*)";
constexpr int kRecordRateHz = 44100;
constexpr unsigned kRecordChannels = 2;
// The rates offered for recording: the telephone, speech, broadcast, CD and studio rates.
constexpr int kRecordRates[] = {8000,  11025, 16000, 22050,  32000, 44100,
                                48000, 88200, 96000, 176400, 192000};

// Puts OK and Cancel under a form and runs its dialog; true when the user chose OK.
bool ExecWithOkCancel(QDialog& dialog, QFormLayout& form) {
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, &dialog);
    QObject::connect(buttons, &QDialogButtonBox::accepted, &dialog, &QDialog::accept);
    QObject::connect(buttons, &QDialogButtonBox::rejected, &dialog, &QDialog::reject);
    form.addRow(buttons);
    return dialog.exec() == QDialog::Accepted;
}

} // namespace

int SEMainWindow::MessageBox(char const* title, char const* text,
                             std::vector<std::string> const& buttons) {
    QMessageBox box(this);
    box.setWindowTitle(QString::fromUtf8(title));
    box.setText(QString::fromUtf8(text));
    std::vector<QPushButton*> made;
    for (std::size_t i = 0; i < buttons.size(); ++i) {
        // The last button is the cautious one; Escape chooses it.
        QMessageBox::ButtonRole const role =
            i + 1 == buttons.size() ? QMessageBox::RejectRole : QMessageBox::AcceptRole;
        made.push_back(box.addButton(QString::fromStdString(buttons[i]), role));
    }
    if (!made.empty()) {
        box.setDefaultButton(made.front());
        box.setEscapeButton(made.back());
    }
    box.exec();
    auto const it = std::find(made.begin(), made.end(), box.clickedButton());
    return it != made.end() ? static_cast<int>(it - made.begin())
                            : static_cast<int>(buttons.size()) - 1;
}

LProcessResult SEMainWindow::RunProcess(char const* title, SEProcessFunction const& work) {
    LProgressDialog dialog(this, QString::fromUtf8(title));
    bool const outer = m_busy;
    m_busy = true;
    LProcessResult const result = dialog.Run(work);
    m_busy = outer;
    return result;
}

bool SEMainWindow::ChooseFilesToOpen(std::vector<std::string>& paths) {
    QString const folder = QString::fromStdString(m_settings.GetString(kGroup, "LastFolder", ""));
    QStringList const chosen =
        QFileDialog::getOpenFileNames(this, tr("Open"), folder, QString::fromLatin1(kOpenFilter));
    for (QString const& path : chosen) {
        paths.push_back(path.toStdString());
    }
    return !paths.empty();
}

bool SEMainWindow::ChooseFileToSave(char const* suggestedPath, std::string& path) {
    QString suggested = QString::fromUtf8(suggestedPath != nullptr ? suggestedPath : "");
    if (QFileInfo(suggested).isRelative()) {
        QString const folder =
            QString::fromStdString(m_settings.GetString(kGroup, "LastFolder", ""));
        suggested = QDir(folder).filePath(suggested);
    }
    QString const chosen = QFileDialog::getSaveFileName(this, tr("Save As"), suggested,
                                                        QString::fromLatin1(kSaveFilter));
    if (chosen.isEmpty()) {
        return false;
    }
    path = chosen.toStdString();
    return true;
}

bool SEMainWindow::AskValues(char const* title, SECommandFields& fields) {
    SEValuesDialog dialog(this, QString::fromUtf8(title), fields);
    if (dialog.exec() != QDialog::Accepted) {
        return false;
    }
    dialog.TakeValues(fields);
    return true;
}

SEResult SEMainWindow::EditEffect(char const* title, LSoundProcess& effect,
                                  SEEffectPreview const& preview, std::string& error) {
    (void)error; // every value the dialog can hold is valid
    SEEffectDialog dialog(this, QString::fromUtf8(title), effect, preview);
    SEResult const result =
        dialog.exec() == QDialog::Accepted ? SEResult::kDone : SEResult::kCancelled;
    StopPlayback(); // a preview ends with its dialog
    return result;
}

void SEMainWindow::DocumentEvent(SEFileGUI& view, int event) {
    (void)event;
    UpdateTabTitle(view);
}

void SEMainWindow::Redraw(SEFileGUI& view) {
    if (FindWaveform(&view) == nullptr) {
        SyncTabs();
    }
    if (SEWaveformView* page = FindWaveform(&view)) {
        page->DocumentChanged();
    }
    UpdateStatus();
}

void SEMainWindow::UpdateUndoItems(char const* undoLabel, bool undoEnabled, char const* redoLabel,
                                   bool redoEnabled) {
    QAction* undo = GetAction(SECmd::kUndo);
    QAction* redo = GetAction(SECmd::kRedo);
    if (undo == nullptr || redo == nullptr) {
        return; // the menus are not built yet
    }
    undo->setText(QString::fromUtf8(undoLabel));
    undo->setEnabled(undoEnabled);
    redo->setText(QString::fromUtf8(redoLabel));
    redo->setEnabled(redoEnabled);
}

// ---- playback ----

bool SEMainWindow::EnsureOutput() {
    // Called with nothing playing, so a player on another device can simply be replaced.
    QByteArray const id = GetAudioDeviceId(false);
    if (m_player == nullptr || m_output->GetDeviceId() != id) {
        m_player.reset();
        m_output = std::make_unique<LQtAudioOutput>(id);
        m_player = std::make_unique<LSoundPlayer>(*m_output);
    }
    return true;
}

QByteArray SEMainWindow::GetAudioDeviceId(bool input) const {
    std::string const id =
        m_settings.GetString("Audio", input ? "InputDevice" : "OutputDevice", "");
    if (id.empty()) {
        return {};
    }
    // A device unplugged since it was chosen: the default rather than a failure every time.
    for (LQtAudioDeviceEntry const& entry : LQtListAudioDevices(input)) {
        if (entry.id.toStdString() == id) {
            return entry.id;
        }
    }
    return {};
}

void SEMainWindow::ChooseAudioDevices() {
    QDialog dialog(this);
    dialog.setWindowTitle(tr("Audio Devices"));
    auto* form = new QFormLayout(&dialog);
    QComboBox* boxes[2] = {};
    for (bool const input : {false, true}) {
        auto* box = new QComboBox(&dialog);
        box->addItem(tr("System default"), QByteArray());
        for (LQtAudioDeviceEntry const& entry : LQtListAudioDevices(input)) {
            box->addItem(QString::fromStdString(entry.name), entry.id);
        }
        box->setCurrentIndex(std::max(0, box->findData(GetAudioDeviceId(input))));
        form->addRow(input ? tr("Recording:") : tr("Playback:"), box);
        boxes[input ? 1 : 0] = box;
    }
    if (!ExecWithOkCancel(dialog, *form)) {
        return;
    }
    StopPlayback();
    std::string const output = boxes[0]->currentData().toByteArray().toStdString();
    std::string const input = boxes[1]->currentData().toByteArray().toStdString();
    if (!m_settings.SetString("Audio", "OutputDevice", output.c_str()) ||
        !m_settings.SetString("Audio", "InputDevice", input.c_str())) {
        (void)MessageBox("Audio Devices", "The choice of devices could not be stored.", {"OK"});
    }
}

void SEMainWindow::StartPlayback(SEFileGUI& view) {
    (void)m_core.GetWindows().SetCurrent(m_core.GetWindows().IndexOf(&view));
    Play(false);
}

void SEMainWindow::PlaySource(SEFileGUI& view, LSoundSource const& source) {
    StopPlayback();
    EnsureOutput();
    std::string error;
    auto const& s = view.GetFile()->GetSelection();
    long long const start = s.start != s.end ? std::min(s.start, s.end) : 0;
    if (!m_player->Play(source, start, error)) {
        (void)MessageBox("Play", error.c_str(), {"OK"});
        return;
    }
    m_playingView = &view;
    m_playTimer->start();
}

void SEMainWindow::Play(bool selectionOnly) {
    SEFileGUI* view = m_core.GetCurrentView();
    if (view == nullptr) {
        return;
    }
    StopPlayback();
    EnsureOutput();
    SEFile const& file = *view->GetFile();
    LCutListAudio const& audio = file.GetAudio();
    auto const& s = file.GetSelection();
    long long start = file.GetCursor();
    long long end = audio.GetLengthFrames();
    if (s.start != s.end && (selectionOnly || start == std::min(s.start, s.end))) {
        start = std::min(s.start, s.end);
        end = std::max(s.start, s.end);
    }
    if (start >= audio.GetLengthFrames()) {
        start = 0;
    }
    LCutListAudio part;
    audio.EfCopy(start, end, part);
    std::string error;
    if (!m_player->Play(part.OpenSource(), start, error)) {
        (void)MessageBox("Play", error.c_str(), {"OK"});
        return;
    }
    m_playingView = view;
    m_playTimer->start();
}

void SEMainWindow::StopPlayback() {
    if (m_player != nullptr) {
        m_player->Stop();
    }
    m_playTimer->stop();
    if (SEWaveformView* page = FindWaveform(m_playingView)) {
        page->SetPlayPosition(-1);
    }
    m_playingView = nullptr;
}

void SEMainWindow::PollPlayer() {
    if (m_player == nullptr || !m_player->IsPlaying()) {
        StopPlayback();
        if (m_player != nullptr && !m_player->GetError().empty()) {
            (void)MessageBox("Play", m_player->GetError().c_str(), {"OK"});
        }
        return;
    }
    if (SEWaveformView* page = FindWaveform(m_playingView)) {
        page->SetPlayPosition(m_player->GetPlayPosition());
    }
}

// ---- recording ----

void SEMainWindow::StartRecording(bool atCursor) {
    if (m_recorder != nullptr && m_recorder->IsRecording()) {
        return;
    }
    StopPlayback();
    SEFileGUI* view = nullptr;
    if (atCursor) {
        view = m_core.GetCurrentView();
        if (view == nullptr || !m_core.GetCore().StartModifyFile(view, "Record")) {
            return;
        }
    } else {
        if (m_core.CmNew() != SEResult::kDone) {
            return;
        }
        SyncTabs();
        view = m_core.GetCurrentView();
    }
    if (QByteArray const id = GetAudioDeviceId(true);
        m_input == nullptr || m_input->GetDeviceId() != id) {
        m_recorder.reset();
        m_input = std::make_unique<LQtAudioInput>(id);
        m_recorder = std::make_unique<LSoundRecorder>(*m_input);
    }
    // Into a document with audio, its own format; into a new one, the user's choice.
    LCutListAudio& audio = view->GetFile()->GetAudio();
    LAudioFormat const chosen = GetRecordFormat();
    int const rate = audio.GetSampleRate() > 0 ? audio.GetSampleRate() : chosen.rateHz;
    unsigned const channels = audio.GetChannels() > 0 ? audio.GetChannels() : chosen.channels;
    long long const at = atCursor ? view->GetFile()->GetCursor() : -1;
    std::string error;
    if (!m_recorder->Start(
            audio.OpenSink(rate, static_cast<unsigned char>(channels), "Recording", at), rate,
            channels, error)) {
        if (atCursor) {
            m_core.GetCore().RollBackModifyFile(view);
        } else {
            (void)m_core.CmCloseFileWindow(view);
            SyncTabs();
        }
        (void)MessageBox("Record", error.c_str(), {"OK"});
        return;
    }
    m_recordingView = view;
    m_recordingIsModification = atCursor;
    m_meter->show();
    m_recordTimer->start();
    UpdateEnabling();
}

LAudioFormat SEMainWindow::GetRecordFormat() const {
    // A hand-edited store may hold anything: only the values the dialog offers are taken.
    int const rate = m_settings.GetInt("Record", "SampleRate", kRecordRateHz);
    int const channels = m_settings.GetInt("Record", "Channels", kRecordChannels);
    LAudioFormat format{kRecordRateHz, kRecordChannels};
    if (std::find(std::begin(kRecordRates), std::end(kRecordRates), rate) !=
        std::end(kRecordRates)) {
        format.rateHz = rate;
    }
    if (channels == 1 || channels == 2) {
        format.channels = static_cast<unsigned>(channels);
    }
    return format;
}

void SEMainWindow::ChooseRecordFormat() {
    LAudioFormat const current = GetRecordFormat();
    QDialog dialog(this);
    dialog.setWindowTitle(tr("Recording Format"));
    auto* rates = new QComboBox(&dialog);
    for (int rate : kRecordRates) {
        rates->addItem(tr("%1 Hz").arg(rate), rate);
    }
    rates->setCurrentIndex(rates->findData(current.rateHz));
    auto* channels = new QComboBox(&dialog);
    channels->addItem(tr("Mono"), 1);
    channels->addItem(tr("Stereo"), 2);
    channels->setCurrentIndex(channels->findData(static_cast<int>(current.channels)));
    auto* form = new QFormLayout(&dialog);
    form->addRow(tr("Sample rate:"), rates);
    form->addRow(tr("Channels:"), channels);
    if (!ExecWithOkCancel(dialog, *form)) {
        return;
    }
    if (!m_settings.SetInt("Record", "SampleRate", rates->currentData().toInt()) ||
        !m_settings.SetInt("Record", "Channels", channels->currentData().toInt())) {
        (void)MessageBox("Recording Format", "The recording format could not be stored.", {"OK"});
    }
}

void SEMainWindow::PollRecorder() {
    if (m_recorder == nullptr || m_recordingView == nullptr) {
        return;
    }
    m_recorder->Pump();
    if (!m_recorder->IsRecording()) {
        // It ended on its own: what was captured is kept, as when the user stops.
        std::string const why = m_recorder->GetError();
        StopRecording();
        if (!why.empty()) {
            (void)MessageBox("Record", why.c_str(), {"OK"});
        }
        return;
    }
    float level = 0.0f;
    for (unsigned ch = 0; ch < kRecordChannels; ++ch) {
        level = std::max(level, m_recorder->TakePeakLevel(ch));
    }
    m_meter->setValue(static_cast<int>(std::min(level, 1.0f) * 1000.0f));
    if (SEWaveformView* page = FindWaveform(m_recordingView)) {
        page->DocumentChanged();
    }
    UpdateStatus();
}

void SEMainWindow::StopRecording() {
    if (m_recorder == nullptr || m_recordingView == nullptr) {
        return;
    }
    m_recorder->Stop();
    m_recordTimer->stop();
    m_meter->hide();
    SEFileGUI* view = m_recordingView;
    m_recordingView = nullptr;
    if (m_recordingIsModification) {
        if (!m_core.GetCore().EndModifyFile(view)) {
            m_core.GetCore().RollBackModifyFile(view);
        }
    }
    m_core.UpdateUndoMenuItem();
    Redraw(*view);
    UpdateEnabling();
}
