// SPDX-License-Identifier: GPL-3.0-or-later
// The desktop window driven as a user drives it: files opened, selections dragged with the
// mouse, menu commands, the generic effect dialog, the progress dialog's Cancel, and a
// screenshot whose waveform must be where the audio is.

#include "editor/secommands.h"
#include "llib/gen/settings.h"
#include "llib/snd/cache.h"
#include "llib/snd/gensource.h"
#include "llib/snd/player.h"
#include "platform/qt/effectdialog.h"
#include "platform/qt/mainwindow.h"
#include "platform/qt/progressdialog.h"
#include "platform/qt/waveformview.h"
#include "tests/support/tempdir.h"
#include "tests/support/testprocess.h"
#include "tests/support/testsources.h"

#include <QAction>
#include <QAbstractButton>
#include <QApplication>
#include <QComboBox>
#include <QDir>
#include <QDoubleSpinBox>
#include <QElapsedTimer>
#include <QImage>
#include <QMouseEvent>
#include <QPushButton>
#include <QTabWidget>
#include <QTest>
#include <QTimer>

#include <fcntl.h>
#include <sys/stat.h>

#include <cmath>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr int kRate = 44100;

// Every sample of the document's audio, interleaved.
std::vector<float> ReadAll(SEFile const& file) {
    LCutListAudio const& audio = file.GetAudio();
    std::vector<float> out(static_cast<std::size_t>(audio.GetLengthFrames()) * audio.GetChannels());
    LSoundSource source = audio.OpenSource();
    source->Read(out.data(), audio.GetLengthFrames());
    return out;
}

// Stereo: the left channel silent for the first half then a tone, the right the other way round.
std::vector<float> HalfAndHalf(long long frames) {
    std::vector<float> samples(static_cast<std::size_t>(frames) * 2);
    for (long long i = 0; i < frames; ++i) {
        float const tone = 0.8f * static_cast<float>(std::sin(2.0 * M_PI * 440.0 * i / kRate));
        bool const first = i < frames / 2;
        samples[static_cast<std::size_t>(2 * i)] = first ? 0.0f : tone;
        samples[static_cast<std::size_t>(2 * i + 1)] = first ? tone : 0.0f;
    }
    return samples;
}

void SendMouse(QWidget* widget, QEvent::Type type, int x, Qt::KeyboardModifiers modifiers = {}) {
    QPointF const at(x, widget->height() / 2.0);
    Qt::MouseButton const button = type == QEvent::MouseMove ? Qt::NoButton : Qt::LeftButton;
    QMouseEvent event(type, at, widget->mapToGlobal(at), button,
                      type == QEvent::MouseButtonRelease ? Qt::NoButton : Qt::LeftButton,
                      modifiers);
    QApplication::sendEvent(widget, &event);
}

// Runs `answer` on the next dialog a command opens, once it is open (polled, since the command
// may serve events before its dialog appears).
void AnswerNextDialog(std::function<void(QDialog*)> answer) {
    auto* poll = new QTimer;
    auto const started = std::make_shared<QElapsedTimer>();
    started->start();
    QObject::connect(poll, &QTimer::timeout, [poll, started, answer] {
        auto* dialog = qobject_cast<QDialog*>(QApplication::activeModalWidget());
        if (dialog == nullptr && started->elapsed() < 10000) {
            return;
        }
        poll->stop();
        poll->deleteLater();
        ASSERT_NE(dialog, nullptr) << "no dialog opened";
        answer(dialog);
    });
    poll->start(10);
}

class MainWindowTest : public LTempDirTest {
protected:
    void SetUp() override {
        LTempDirTest::SetUp();
        LSoundCache::SetFolder(PathOf("cache"));
        SESharedRegions().Clear();
        m_settings = std::make_unique<LSettingsStore>(PathOf("settings.ini"));
        m_window = std::make_unique<SEMainWindow>(m_settings.get());
        m_window->resize(1000, 600);
        m_window->show();
        // A real X server on a loaded machine can take longer than the default five seconds.
        ASSERT_TRUE(QTest::qWaitForWindowExposed(m_window.get(), 30000));
    }
    void TearDown() override {
        // Nothing may ask about unsaved changes while the window goes.
        while (SEFileGUI* view = m_window->GetCore().GetCurrentView()) {
            view->GetFile()->SetModified(false);
            ASSERT_EQ(m_window->GetCore().CmCloseFileWindow(view), SEResult::kDone);
        }
        m_window.reset();
        m_settings.reset();
        SESharedRegions().Clear();
        LTempDirTest::TearDown();
    }

    std::string WriteWav(char const* name, std::vector<float> const& samples) {
        std::string const path = PathOf(name);
        LSoundSource source = LMakeSource<LTestBufferSource>(kRate, 2, samples);
        LTestProcess process;
        EXPECT_EQ(ProcessGenSaveSource(process, source, path.c_str(), kRate, 2, nullptr, nullptr),
                  LProcessResult::kCompleted);
        return path;
    }

    void Open(std::string const& path) {
        ASSERT_EQ(m_window->OpenFiles({path}), SEResult::kDone);
        QApplication::processEvents();
    }

    SEFile& Current() { return *m_window->GetCore().GetCurrentView()->GetFile(); }
    SEWaveformView& Wave() { return *m_window->GetCurrentWaveform(); }
    QString UndoText() { return m_window->GetAction(SECmd::kUndo)->text(); }

    std::unique_ptr<LSettingsStore> m_settings;
    std::unique_ptr<SEMainWindow> m_window;
};

TEST_F(MainWindowTest, DraggedSelectionCutPasteUndoAndRedoChangeTheAudioAndTheUndoLabel) {
    long long const frames = 2 * kRate;
    Open(WriteWav("song.wav", HalfAndHalf(frames)));
    std::vector<float> const original = ReadAll(Current());
    EXPECT_EQ(m_window->GetTabs()->count(), 1);
    EXPECT_EQ(m_window->GetTabs()->tabText(0), QStringLiteral("song.wav"));
    EXPECT_EQ(Current().GetAudio().GetLengthFrames(), frames);
    EXPECT_FALSE(m_window->GetAction(SECmd::kUndo)->isEnabled());

    // A click places the cursor and selects nothing.
    SEWaveformView& wave = Wave();
    SendMouse(&wave, QEvent::MouseButtonPress, 50);
    SendMouse(&wave, QEvent::MouseButtonRelease, 50);
    EXPECT_EQ(Current().GetCursor(), wave.FrameAt(50));
    EXPECT_EQ(Current().GetSelection().start, Current().GetSelection().end);

    // A drag from x 100 to x 300 selects exactly the frames under those columns.
    long long const a = wave.FrameAt(100);
    long long const b = wave.FrameAt(300);
    SendMouse(&wave, QEvent::MouseButtonPress, 100);
    SendMouse(&wave, QEvent::MouseMove, 200);
    SendMouse(&wave, QEvent::MouseMove, 300);
    SendMouse(&wave, QEvent::MouseButtonRelease, 300);
    ASSERT_GT(b, a);
    EXPECT_EQ(Current().GetSelection().start, a);
    EXPECT_EQ(Current().GetSelection().end, b);
    EXPECT_TRUE(m_window->GetStatusText().contains(QStringLiteral("Selection")));

    // Shift-click extends the selection from the end that stays.
    long long const c = wave.FrameAt(400);
    SendMouse(&wave, QEvent::MouseButtonPress, 400, Qt::ShiftModifier);
    SendMouse(&wave, QEvent::MouseButtonRelease, 400, Qt::ShiftModifier);
    EXPECT_EQ(Current().GetSelection().start, a);
    EXPECT_EQ(Current().GetSelection().end, c);

    m_window->GetAction(SECmd::kCut)->trigger();
    EXPECT_EQ(Current().GetAudio().GetLengthFrames(), frames - (c - a));
    EXPECT_EQ(UndoText(), QStringLiteral("Undo Cut"));
    EXPECT_TRUE(m_window->GetTabs()->tabText(0).endsWith(QStringLiteral("*")));

    // The cursor stays where the cut was; the clipboard goes back in there.
    ASSERT_EQ(Current().GetCursor(), a);
    m_window->GetAction(SECmd::kPaste)->trigger();
    EXPECT_EQ(ReadAll(Current()), original);
    EXPECT_EQ(UndoText(), QStringLiteral("Undo Paste"));

    m_window->GetAction(SECmd::kUndo)->trigger();
    EXPECT_EQ(Current().GetAudio().GetLengthFrames(), frames - (c - a));
    EXPECT_EQ(m_window->GetAction(SECmd::kRedo)->text(), QStringLiteral("Redo Paste"));
    m_window->GetAction(SECmd::kUndo)->trigger();
    EXPECT_EQ(ReadAll(Current()), original);
    m_window->GetAction(SECmd::kRedo)->trigger();
    m_window->GetAction(SECmd::kRedo)->trigger();
    EXPECT_EQ(ReadAll(Current()), original);
    EXPECT_EQ(UndoText(), QStringLiteral("Undo Paste"));
}

TEST_F(MainWindowTest, AmplifyThroughTheGenericEffectDialog) {
    Open(WriteWav("tone.wav", HalfAndHalf(kRate)));
    std::vector<float> const original = ReadAll(Current());
    bool answered = false;
    AnswerNextDialog([&answered](QDialog* modal) {
        auto* dialog = qobject_cast<SEEffectDialog*>(modal);
        ASSERT_NE(dialog, nullptr);
        ASSERT_NE(dialog->GetValueBox(0), nullptr);
        dialog->GetValueBox(0)->setValue(50.0);
        answered = true;
        dialog->accept();
    });
    m_window->GetAction(SECmd::kAmplify)->trigger();
    ASSERT_TRUE(answered);
    std::vector<float> const now = ReadAll(Current());
    ASSERT_EQ(now.size(), original.size());
    for (std::size_t i = 0; i < now.size(); i += 97) {
        ASSERT_NEAR(now[i], original[i] * 0.5f, 1e-6f) << "sample " << i;
    }
    EXPECT_EQ(UndoText(), QStringLiteral("Undo Amplify"));

    // Cancel leaves everything as it was.
    AnswerNextDialog([](QDialog* modal) { modal->reject(); });
    m_window->GetAction(SECmd::kAmplify)->trigger();
    EXPECT_EQ(ReadAll(Current()), now);
    EXPECT_EQ(UndoText(), QStringLiteral("Undo Amplify"));
}

TEST_F(MainWindowTest, CancellingALongEffectKeepsTheDocumentAndTheWindowServesEvents) {
    // Half an hour of audio made by pasting, so that the effect runs long enough for its
    // progress dialog to show.
    Open(WriteWav("long.wav", HalfAndHalf(30LL * kRate)));
    SEFileGUI* view = m_window->GetCore().GetCurrentView();
    ASSERT_EQ(m_window->RunCommand(SECmd::kSelectAll), SEResult::kDone);
    ASSERT_EQ(m_window->RunCommand(SECmd::kCopy), SEResult::kDone);
    for (int i = 0; i < 63; ++i) {
        long long const end = Current().GetAudio().GetLengthFrames();
        m_window->GetCore().GetCore().ModifySelection(view, end, end, end);
        ASSERT_EQ(m_window->RunCommand(SECmd::kPaste), SEResult::kDone);
    }
    ASSERT_EQ(m_window->RunCommand(SECmd::kSelectNone), SEResult::kDone);
    std::vector<float> const before = ReadAll(Current());
    QString const undoBefore = UndoText();

    // A timer stands for everything else the window must keep doing while the work runs; once
    // the dialog is up, its Cancel button is pressed.
    int ticks = 0;
    bool cancelled = false;
    QTimer watcher;
    QObject::connect(&watcher, &QTimer::timeout, [&] {
        ++ticks;
        LProgressDialog* running = LProgressDialog::GetRunning();
        if (running != nullptr && running->isVisible() && !cancelled) {
            cancelled = true;
            QTest::mouseClick(running->GetCancelButton(), Qt::LeftButton);
        }
    });
    watcher.start(10);
    m_window->GetAction(SECmd::kDCOffset)->trigger();
    watcher.stop();

    ASSERT_TRUE(cancelled) << "the progress dialog never showed";
    EXPECT_GE(ticks, LProgressDialog::kShowAfterMs / 10 / 2) << "the window stopped serving events";
    EXPECT_EQ(ReadAll(Current()), before);
    EXPECT_EQ(UndoText(), undoBefore);
}

TEST_F(MainWindowTest, ScreenshotShowsTheWaveformWhereTheAudioIs) {
    Open(WriteWav("halves.wav", HalfAndHalf(4 * kRate)));
    SEWaveformView& wave = Wave();
    m_window->GetCore().GetCore().ModifySelection(m_window->GetCore().GetCurrentView(), kRate,
                                                  2 * kRate, kRate);
    QApplication::processEvents();

    char const* folder = std::getenv("TESSEL_SCREENSHOT_DIR");
    QString const dir =
        folder != nullptr ? QString::fromUtf8(folder) : QString::fromStdString(Dir());
    ASSERT_TRUE(QDir().mkpath(dir));
    QImage const shot = m_window->grab().toImage();
    EXPECT_TRUE(
        shot.save(dir + QStringLiteral("/main-window-%1.png").arg(QApplication::platformName())));

    // In each lane, columns where the channel is silent show no wave beyond the centre line and
    // columns where it plays show a wave reaching most of the lane's height.
    QImage const view = wave.grab().toImage();
    double const ratio = view.devicePixelRatio();
    auto waveHeight = [&](int channel, double frame) {
        QRect const lane = wave.LaneRect(channel);
        int const x = static_cast<int>((wave.XOf(frame) + 0.5) * ratio);
        QColor const background = view.pixelColor(x, static_cast<int>((lane.top() + 3) * ratio));
        int height = 0;
        for (int y = static_cast<int>((lane.top() + 2) * ratio);
             y < static_cast<int>((lane.bottom() - 2) * ratio); ++y) {
            height += view.pixelColor(x, y) != background ? 1 : 0;
        }
        return height / ratio;
    };
    for (double frame : {0.5 * kRate, 1.5 * kRate}) {
        EXPECT_LE(waveHeight(0, frame), 3.0) << "left is silent at " << frame;
        EXPECT_GE(waveHeight(1, frame), 0.6 * wave.LaneRect(1).height()) << "right plays";
    }
    for (double frame : {2.5 * kRate, 3.5 * kRate}) {
        EXPECT_GE(waveHeight(0, frame), 0.6 * wave.LaneRect(0).height()) << "left plays";
        EXPECT_LE(waveHeight(1, frame), 3.0) << "right is silent at " << frame;
    }
    // The selection is drawn in its own colour.
    QRect const lane = wave.LaneRect(0);
    int const y = static_cast<int>((lane.top() + 3) * ratio);
    EXPECT_NE(view.pixelColor(static_cast<int>(wave.XOf(1.5 * kRate) * ratio), y),
              view.pixelColor(static_cast<int>(wave.XOf(3.0 * kRate) * ratio), y));
}

TEST_F(MainWindowTest, RecentFilesAndGeometryAreRemembered) {
    std::string const path = WriteWav("first.wav", HalfAndHalf(1000));
    Open(path);
    EXPECT_EQ(m_window->GetRecentFiles(), std::vector<std::string>{path});
    m_window->resize(900, 500);
    Current().SetModified(false);
    ASSERT_TRUE(m_window->close());
    EXPECT_FALSE(m_settings->GetString("Desktop", "Geometry", "").empty());
    SEMainWindow again(m_settings.get());
    EXPECT_EQ(again.GetRecentFiles(), std::vector<std::string>{path});
    EXPECT_EQ(again.size(), QSize(900, 500));
}

// Every menu command, on a document with a selection, with every dialog it opens cancelled:
// the window must come through all of them (ASan watches for what a handler gets wrong).
// A document whose file another program rewrote: "Keep" leaves the document, and after a
// further rewrite "Reload" brings the new audio in as an undoable change.
TEST_F(MainWindowTest, AFileChangedOutsideIsOfferedForReloading) {
    std::string const path = WriteWav("outside.wav", HalfAndHalf(kRate));
    timespec const loaded[2] = {{1700000000, 0}, {1700000000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), loaded, 0), 0);
    Open(path);
    auto rewrite = [&](long long frames, long long seconds) {
        (void)WriteWav("outside.wav", HalfAndHalf(frames));
        timespec const times[2] = {{seconds, 0}, {seconds, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    };
    auto answer = [](char const* button) {
        AnswerNextDialog([button](QDialog* dialog) {
            EXPECT_EQ(dialog->windowTitle(), "File Changed");
            for (QAbstractButton* b : dialog->findChildren<QAbstractButton*>()) {
                if (b->text() == button) {
                    b->click();
                    return;
                }
            }
            ADD_FAILURE() << "no " << button << " button";
            dialog->reject();
        });
    };

    rewrite(kRate / 2, 1700000100);
    answer("Keep");
    m_window->CheckFilesChangedOutside();
    EXPECT_EQ(Current().GetAudio().GetLengthFrames(), kRate);

    rewrite(kRate / 4, 1700000200);
    answer("Reload");
    m_window->CheckFilesChangedOutside();
    EXPECT_EQ(Current().GetAudio().GetLengthFrames(), kRate / 4);
    EXPECT_EQ(UndoText(), QStringLiteral("Undo Reload"));
}

// The devices: the system's default until one is chosen, a listed device once chosen, and the
// default again when the chosen one is no longer listed (unplugged).
TEST_F(MainWindowTest, AudioDevicesAreChosenAndFallBackToTheDefault) {
    EXPECT_TRUE(m_window->GetAudioDeviceId(false).isEmpty());
    QByteArray picked;
    AnswerNextDialog([&picked](QDialog* dialog) {
        QList<QComboBox*> const boxes = dialog->findChildren<QComboBox*>();
        ASSERT_EQ(boxes.size(), 2);
        for (QComboBox* box : boxes) {
            EXPECT_EQ(box->itemText(0), "System default");
        }
        // The last playback device the system lists, or the default when it lists none.
        boxes[0]->setCurrentIndex(boxes[0]->count() - 1);
        picked = boxes[0]->currentData().toByteArray();
        dialog->accept();
    });
    EXPECT_EQ(m_window->RunCommand(SEDesktopCmd::kAudioDevices), SEResult::kDone);
    EXPECT_EQ(m_window->GetAudioDeviceId(false), picked);
    EXPECT_EQ(m_settings->GetString("Audio", "OutputDevice", "?"), picked.toStdString());
    EXPECT_TRUE(m_window->GetAudioDeviceId(true).isEmpty());

    ASSERT_TRUE(m_settings->SetString("Audio", "OutputDevice", "tessel-unplugged-device"));
    EXPECT_TRUE(m_window->GetAudioDeviceId(false).isEmpty());
}

// The recording format of new files: 44.1 kHz stereo at first, then what the dialog was given,
// remembered in the settings; a store edited by hand to something the dialog does not offer
// falls back to the default.
TEST_F(MainWindowTest, RecordingFormatIsChosenAndRemembered) {
    LAudioFormat format = m_window->GetRecordFormat();
    EXPECT_EQ(format.rateHz, 44100);
    EXPECT_EQ(format.channels, 2u);
    AnswerNextDialog([](QDialog* dialog) {
        QList<QComboBox*> const boxes = dialog->findChildren<QComboBox*>();
        ASSERT_EQ(boxes.size(), 2);
        boxes[0]->setCurrentIndex(boxes[0]->findData(48000));
        boxes[1]->setCurrentIndex(boxes[1]->findData(1));
        dialog->accept();
    });
    EXPECT_EQ(m_window->RunCommand(SEDesktopCmd::kRecordFormat), SEResult::kDone);
    format = m_window->GetRecordFormat();
    EXPECT_EQ(format.rateHz, 48000);
    EXPECT_EQ(format.channels, 1u);
    EXPECT_EQ(m_settings->GetInt("Record", "SampleRate", 0), 48000);

    ASSERT_TRUE(m_settings->SetInt("Record", "SampleRate", 12345));
    ASSERT_TRUE(m_settings->SetInt("Record", "Channels", 7));
    format = m_window->GetRecordFormat();
    EXPECT_EQ(format.rateHz, 44100);
    EXPECT_EQ(format.channels, 2u);
}

TEST_F(MainWindowTest, EveryMenuCommandRunsWithItsDialogsCancelled) {
    Open(WriteWav("any.wav", HalfAndHalf(kRate)));
    SEFileGUI* view = m_window->GetCore().GetCurrentView();
    QTimer canceller;
    int cancelled = 0;
    QObject::connect(&canceller, &QTimer::timeout, [&cancelled] {
        if (auto* dialog = qobject_cast<QDialog*>(QApplication::activeModalWidget())) {
            ++cancelled;
            dialog->reject();
        }
    });
    canceller.start(5);
    for (QAction* action : m_window->findChildren<QAction*>()) {
        if (action == m_window->GetAction(SEDesktopCmd::kQuit) || !action->isEnabled()) {
            continue;
        }
        m_window->GetCore().GetCore().ModifySelection(m_window->GetCore().GetCurrentView(),
                                                      kRate / 4, kRate / 2, kRate / 4);
        action->trigger();
        (void)m_window->RunCommand(SEDesktopCmd::kStop);
        (void)m_window->RunCommand(SEDesktopCmd::kRecordStop);
        ASSERT_NE(m_window->GetCore().GetCurrentView(), nullptr) << action->text().toStdString();
    }
    canceller.stop();
    EXPECT_GT(cancelled, 5);
    EXPECT_EQ(m_window->GetCore().GetWindows().IndexOf(view), 0u) << "the first document stays";
    EXPECT_EQ(m_window->GetTabs()->count(),
              static_cast<int>(m_window->GetCore().GetWindows().GetCount()));
}

} // namespace
