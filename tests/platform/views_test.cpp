// SPDX-License-Identifier: GPL-3.0-or-later
// The waveform view's zoom and scrolling, and the generic effect dialog's link between its
// controls, the effect's presets and the effect itself.

#include "editor/sefilegui.h"
#include "llib/snd/cache.h"
#include "llib/snd/gain.h"
#include "platform/qt/effectdialog.h"
#include "platform/qt/waveformview.h"
#include "tests/support/tempdir.h"

#include <QComboBox>
#include <QDoubleSpinBox>

#include <memory>

namespace {

class WaveformViewTest : public LTempDirTest {
protected:
    void SetUp() override {
        LTempDirTest::SetUp();
        LSoundCache::SetFolder(PathOf("cache"));
        // Silence is enough: zoom and scrolling depend on the length alone.
        LCutListAudio audio;
        audio.SetSampleRate(44100);
        audio.SetChannels(2);
        audio.EfInsertSilence(0, kFrames);
        m_view = std::make_unique<SEFileGUI>(std::make_shared<SEFile>("x.wav", audio));
        m_wave = std::make_unique<SEWaveformView>(*m_view);
        m_wave->resize(1000, 300);
    }

    static constexpr long long kFrames = 10LL * 44100 * 60;
    std::unique_ptr<SEFileGUI> m_view;
    std::unique_ptr<SEWaveformView> m_wave;
};

TEST_F(WaveformViewTest, ZoomsKeepTheirAnchorAndStayInsideTheDocument) {
    SEWaveformView& wave = *m_wave;
    wave.ZoomAll();
    EXPECT_EQ(wave.FrameAt(0), 0);
    EXPECT_EQ(wave.FrameAt(wave.GetLanesWidth()), kFrames);

    // Zooming in keeps the cursor's column under the cursor.
    m_view->GetFile()->SetCursor(kFrames / 4);
    int const x = wave.XOf(static_cast<double>(kFrames / 4));
    wave.ZoomIn();
    EXPECT_NEAR(wave.GetFramesPerPixel(), kFrames / 1000.0 / 2.0, 1e-6);
    EXPECT_NEAR(wave.XOf(static_cast<double>(kFrames / 4)), x, 1);

    // The selection fills the view.
    m_view->GetFile()->SetSelection({kFrames / 2, kFrames / 2 + 44100, 0, 0, false});
    wave.ZoomToSelection();
    EXPECT_EQ(wave.FrameAt(0), kFrames / 2);
    EXPECT_NEAR(static_cast<double>(wave.FrameAt(wave.GetLanesWidth())), kFrames / 2 + 44100, 1);

    // Zooming out past the whole file, in past a sixteenth of a frame, or scrolling past either
    // end stops at the limit.
    for (int i = 0; i < 40; ++i) {
        wave.ZoomOut();
    }
    EXPECT_NEAR(wave.GetFramesPerPixel(), kFrames / 1000.0, 1e-6);
    for (int i = 0; i < 40; ++i) {
        wave.ZoomIn();
    }
    EXPECT_DOUBLE_EQ(wave.GetFramesPerPixel(), SEWaveformView::kMinFramesPerPixel);
    wave.ScrollTo(-1e12);
    EXPECT_EQ(wave.GetFirstFrame(), 0.0);
    wave.ScrollTo(1e18);
    EXPECT_EQ(wave.FrameAt(wave.GetLanesWidth()), kFrames);

    // A view left zoomed to all follows the document's length.
    wave.ZoomAll();
    m_view->GetFile()->GetAudio().EfDelete(0, kFrames / 2);
    wave.DocumentChanged();
    EXPECT_EQ(wave.FrameAt(wave.GetLanesWidth()), kFrames / 2);
}

TEST(EffectDialog, ControlsPresetsAndCancelStayInStepWithTheEffect) {
    LSPGain gain;
    int played = 0;
    SEEffectDialog dialog(nullptr, "Amplify", gain, [&played](LSoundProcess&) { ++played; });
    QDoubleSpinBox* box = dialog.GetValueBox(0);
    QComboBox* presets = dialog.GetPresetBox();
    ASSERT_NE(box, nullptr);
    ASSERT_NE(presets, nullptr);
    EXPECT_EQ(presets->count(), gain.GetNumPresets() + 1);

    // A preset sets the value; a value that matches a preset shows it; others show "(custom)".
    presets->setCurrentIndex(presets->findText("Half Volume"));
    EXPECT_EQ(box->value(), 50.0);
    EXPECT_EQ(gain.GetGain(), 0.5f);
    box->setValue(300.0);
    EXPECT_EQ(presets->currentText(), QStringLiteral("Triple Volume"));
    box->setValue(123.0);
    EXPECT_EQ(presets->currentIndex(), 0);
    EXPECT_FLOAT_EQ(gain.GetGain(), 1.23f);

    // Cancel puts back what the dialog opened with.
    dialog.reject();
    EXPECT_EQ(gain.GetGain(), 1.0f);
    EXPECT_EQ(played, 0);
}

} // namespace
