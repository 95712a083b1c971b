// SPDX-License-Identifier: GPL-3.0-or-later
// The editor driven as the desktop drives it: commands through MainDialog, answers from the
// headless front end, audio checked sample by sample.
#include "editor/main.h"
#include "editor/seeffectdialog.h"
#include "editor/seheadless.h"

#include "llib/gen/settings.h"
#include "llib/snd/cache.h"
#include "llib/snd/gain.h"
#include "llib/snd/gensource.h"
#include "llib/snd/soundprocessmulti.h"
#include "tests/support/testprocess.h"
#include "tests/support/testsources.h"
#include "tests/support/tempdir.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

// Exact in float and far below full scale, so no limiter touches it: every frame tells where it
// came from.
float RampValue(long long frame, unsigned channel) {
    return static_cast<float>(frame + 1) / 1048576.0f + static_cast<float>(channel) * 0.25f;
}

std::vector<float> Ramp(long long frames, unsigned channels) {
    std::vector<float> samples;
    for (long long f = 0; f < frames; ++f) {
        for (unsigned c = 0; c < channels; ++c) {
            samples.push_back(RampValue(f, c));
        }
    }
    return samples;
}

LCutListAudio MakeAudio(std::vector<float> samples, int rate, unsigned char channels) {
    LSoundSource source = LMakeSource<LTestBufferSource>(rate, channels, std::move(samples));
    LTestProcess process;
    LCutListAudio audio;
    EXPECT_EQ(SERenderToCutList(process, source, "test", audio), LProcessResult::kCompleted);
    return audio;
}

std::vector<float> Samples(LCutListAudio const& audio) {
    std::vector<float> samples(static_cast<std::size_t>(audio.GetLengthFrames()) *
                               audio.GetChannels());
    LSoundSource source = audio.OpenSource();
    source->Read(samples.data(), audio.GetLengthFrames());
    return samples;
}

std::size_t CountFiles(std::string const& folder) {
    std::size_t count = 0;
    if (DIR* dir = ::opendir(folder.c_str())) {
        while (dirent const* entry = ::readdir(dir)) {
            count += entry->d_name[0] != '.' ? 1 : 0;
        }
        ::closedir(dir);
    }
    return count;
}

class EditorTest : public LTempDirTest {
protected:
    void SetUp() override {
        LTempDirTest::SetUp();
        LSoundCache::SetFolder(PathOf("cache"));
        SESharedRegions().Clear();
        m_settings = std::make_unique<LSettingsStore>(PathOf("settings.ini"));
        m_dialog = std::make_unique<MainDialog>(m_ui, m_settings.get());
    }
    void TearDown() override {
        m_dialog.reset();
        SESharedRegions().Clear();
        LTempDirTest::TearDown();
    }

    // A document of `frames` ramp frames, made current; clean as if just opened.
    SEFile& AddRamp(long long frames, unsigned char channels = 2, int rate = 44100,
                    char const* name = "ramp.wav") {
        return AddSamples(Ramp(frames, channels), channels, rate, name);
    }
    SEFile& AddSamples(std::vector<float> samples, unsigned char channels, int rate,
                       char const* name) {
        auto file = std::make_shared<SEFile>(PathOf(name).c_str(),
                                             MakeAudio(std::move(samples), rate, channels));
        file->SetModified(false);
        file->SetFileClean();
        return *m_dialog->GetWindows().Add(std::move(file)).GetFile();
    }

    SEResult Run(int id, std::map<std::string, std::string> values = {}) {
        m_ui.SetValues(std::move(values));
        return m_dialog->Command(id);
    }
    SEResult Select(char const* start, char const* end) {
        return Run(SECmd::kSelect, {{"start", start}, {"end", end}});
    }
    SEResult Cursor(char const* position) { return Run(SECmd::kCursor, {{"position", position}}); }
    SEFile& Current() { return *m_dialog->GetCurrentView()->GetFile(); }

    // Frames [start, end) of a ramp as the model sees them.
    static std::vector<float> Span(std::vector<float> const& all, long long start, long long end,
                                   unsigned channels) {
        return {all.begin() + start * channels, all.begin() + end * channels};
    }

    SEHeadlessUI m_ui;
    std::unique_ptr<LSettingsStore> m_settings;
    std::unique_ptr<MainDialog> m_dialog;
};

TEST_F(EditorTest, CutAndPasteRearrangeSegmentsAndMoveBookmarks) {
    SEFile& file = AddRamp(1000);
    std::vector<float> const original = Samples(file.GetAudio());
    file.AddBookmark("late", 400);
    file.AddBookmark("early", 50);
    std::size_t const cacheFiles = CountFiles(PathOf("cache"));

    ASSERT_EQ(Select("100smp", "300smp"), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kCut), SEResult::kDone);
    EXPECT_EQ(file.GetAudio().GetLengthFrames(), 800);
    EXPECT_EQ(file.GetSelection().start, 100);
    EXPECT_EQ(file.GetSelection().end, 100);
    EXPECT_EQ(m_dialog->GetUndoItemText(), "Undo Cut");
    EXPECT_EQ(m_ui.GetUndoText(), "Undo Cut");

    ASSERT_EQ(Cursor("500smp"), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kPaste), SEResult::kDone);
    std::vector<float> expected = Span(original, 0, 100, 2);
    for (auto const& [a, b] : {std::pair{300, 700}, std::pair{100, 300}, std::pair{700, 1000}}) {
        std::vector<float> const part = Span(original, a, b, 2);
        expected.insert(expected.end(), part.begin(), part.end());
    }
    EXPECT_EQ(Samples(file.GetAudio()), expected);
    EXPECT_EQ(file.GetCursor(), 700);
    // Rearranging copies no sample: the cache holds no new file.
    EXPECT_EQ(CountFiles(PathOf("cache")), cacheFiles);

    // "late" (400) went to 200 with the cut and stays there, before the paste point; "early"
    // never moves.
    LSEBookmark const* b = file.GetBookmarks().GetHead();
    EXPECT_STREQ(b->name, "late");
    EXPECT_EQ(b->position, 200);
    EXPECT_EQ(b->GetNext()->position, 50);

    EXPECT_EQ(Run(SECmd::kUndo), SEResult::kDone);
    EXPECT_EQ(file.GetAudio().GetLengthFrames(), 800);
    EXPECT_EQ(m_dialog->GetRedoItemText(), "Redo Paste");
    EXPECT_EQ(Run(SECmd::kUndo), SEResult::kDone);
    EXPECT_EQ(Samples(file.GetAudio()), original);
    EXPECT_EQ(file.GetBookmarks().GetHead()->position, 400);
    EXPECT_FALSE(file.IsModified());
    EXPECT_EQ(m_ui.GetEvents().back(), kSEEventDocumentClean);
    EXPECT_EQ(Run(SECmd::kRedo), SEResult::kDone);
    EXPECT_EQ(Run(SECmd::kRedo), SEResult::kDone);
    EXPECT_EQ(Samples(file.GetAudio()), expected);
    EXPECT_EQ(Run(SECmd::kRedo), SEResult::kIgnored);
}

TEST_F(EditorTest, PasteOverReplacesTheSelectionAndConvertsAForeignClip) {
    SEFile& target = AddRamp(1000, 1, 44100, "target.wav");
    std::vector<float> const original = Samples(target.GetAudio());
    AddRamp(400, 1, 44100, "same.wav");
    ASSERT_EQ(Select("0smp", "100smp"), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kCopy), SEResult::kDone);
    AddRamp(22050, 2, 22050, "foreign.wav");
    ASSERT_EQ(Run(SECmd::kSelectAll), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kCopy), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kWindow, {{"index", "1"}}), SEResult::kDone);
    ASSERT_EQ(&Current(), &target);

    // One second at 22050 Hz stereo becomes one second at 44100 Hz mono.
    ASSERT_EQ(Select("200smp", "300smp"), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kPaste), SEResult::kDone);
    EXPECT_EQ(target.GetAudio().GetLengthFrames(), 900 + 44100);
    EXPECT_EQ(target.GetAudio().GetChannels(), 1);
    std::vector<float> const after = Samples(target.GetAudio());
    EXPECT_EQ(Span(after, 0, 200, 1), Span(original, 0, 200, 1));
    EXPECT_EQ(Span(after, 200 + 44100, 900 + 44100, 1), Span(original, 300, 1000, 1));

    // A clip of the document's own format goes in as it stands: its segments, no new audio.
    ASSERT_EQ(Run(SECmd::kUndo), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kWindow, {{"index", "2"}}), SEResult::kDone);
    ASSERT_EQ(Select("0smp", "10smp"), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kCopy), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kWindow, {{"index", "1"}}), SEResult::kDone);
    std::size_t const cacheFiles = CountFiles(PathOf("cache"));
    ASSERT_EQ(Select("200smp", "300smp"), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kPaste), SEResult::kDone);
    EXPECT_EQ(target.GetAudio().GetLengthFrames(), 910);
    EXPECT_EQ(Span(Samples(target.GetAudio()), 200, 210, 1), Span(original, 0, 10, 1));
    EXPECT_LE(CountFiles(PathOf("cache")), cacheFiles);
}

TEST_F(EditorTest, AFailedOrStoppedEditLeavesTheDocumentAndItsUndoItem) {
    SEFile& file = AddRamp(200000, 2);
    ASSERT_EQ(Select("0smp", "10smp"), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kDelete), SEResult::kDone);
    file.SetFileClean();
    std::vector<float> const before = Samples(file.GetAudio());
    int const undoCurrent = file.GetUndoCurrent();

    // Stopped part-way: reversing 200,000 frames takes many blocks.
    ASSERT_EQ(Select("0smp", "199990smp"), SEResult::kDone);
    m_ui.StopAfterProgressReports(3);
    EXPECT_EQ(Run(SECmd::kReverse), SEResult::kCancelled);
    m_ui.StopAfterProgressReports(-1);
    EXPECT_EQ(Samples(file.GetAudio()), before);
    EXPECT_EQ(m_dialog->GetUndoItemText(), "Undo Delete");
    EXPECT_FALSE(m_dialog->IsRedoItemEnabled());
    EXPECT_EQ(file.GetUndoCurrent(), undoCurrent);
    EXPECT_FALSE(file.IsModified());
    EXPECT_EQ(m_ui.GetEvents().back(), kSEEventDocumentClean);

    // Stopped inside a frequency-band edit, whose work is three renders.
    SESelectionState band = file.GetSelection();
    band.secondaryInForce = true;
    band.secondaryLow = 100;
    band.secondaryHigh = 2000;
    file.SetSelection(band);
    for (int reports : {0, 2, 5}) {
        m_ui.StopAfterProgressReports(reports);
        EXPECT_EQ(Run(SECmd::kDelete), SEResult::kCancelled) << reports;
        EXPECT_EQ(Samples(file.GetAudio()), before);
        EXPECT_EQ(m_dialog->GetUndoItemText(), "Undo Delete");
    }
    m_ui.StopAfterProgressReports(-1);

    // An inverted band fails before anything is done (the driver's own check).
    band.secondaryLow = 3000;
    file.SetSelection(band);
    LTestProcess process;
    SEEfDelete effect(m_dialog->GetCurrentView()->GetFilePtr(), SESelectionOf(file));
    EXPECT_EQ(effect.ProcessAndInsertCutList(process), LProcessResult::kFailed);
    SEEfDelete inverted(m_dialog->GetCurrentView()->GetFilePtr(), SESelection{50, 40, 0, 0, false});
    EXPECT_EQ(inverted.ProcessAndInsertCutList(process), LProcessResult::kFailed);
    EXPECT_EQ(Samples(file.GetAudio()), before);
}

TEST_F(EditorTest, ReverseSilenceAndDrawnSamplesRenderTheSelectionOnly) {
    SEFile& file = AddRamp(20000, 2);
    std::vector<float> const original = Samples(file.GetAudio());
    ASSERT_EQ(Select("1000smp", "19000smp"), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kReverse), SEResult::kDone);
    std::vector<float> const reversed = Samples(file.GetAudio());
    for (long long f : {0LL, 999LL, 1000LL, 9999LL, 18999LL, 19000LL, 19999LL}) {
        long long const from = f >= 1000 && f < 19000 ? 1000 + 18999 - f : f;
        EXPECT_EQ(reversed[f * 2], original[from * 2]) << f;
        EXPECT_EQ(reversed[f * 2 + 1], original[from * 2 + 1]) << f;
    }
    EXPECT_EQ(file.GetSelection().start, 1000);
    EXPECT_EQ(file.GetSelection().end, 19000);
    EXPECT_EQ(m_dialog->GetUndoItemText(), "Undo Reverse");

    ASSERT_EQ(Select("10smp", "20smp"), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kSilence), SEResult::kDone);
    std::vector<float> const silenced = Samples(file.GetAudio());
    EXPECT_EQ(silenced[9 * 2], reversed[9 * 2]);
    EXPECT_EQ(silenced[10 * 2 + 1], 0.0f);
    EXPECT_EQ(silenced[19 * 2], 0.0f);
    EXPECT_EQ(silenced[20 * 2], reversed[20 * 2]);
    EXPECT_EQ(m_dialog->GetUndoItemText(), "Undo Edit Silence");

    ASSERT_EQ(Run(SECmd::kEditSamples, {{"points", "5smp:0.5,7smp:-0.25"}}), SEResult::kDone);
    std::vector<float> const drawn = Samples(file.GetAudio());
    EXPECT_EQ(drawn[5 * 2], 0.5f);
    EXPECT_EQ(drawn[5 * 2 + 1], 0.5f);
    EXPECT_EQ(drawn[6 * 2], silenced[6 * 2]);
    EXPECT_EQ(drawn[7 * 2 + 1], -0.25f);
    EXPECT_EQ(file.GetAudio().GetLengthFrames(), 20000);
    EXPECT_EQ(m_dialog->GetUndoItemText(), "Undo Edit Samples");
    EXPECT_EQ(Run(SECmd::kEditSamples, {{"points", "20000smp:0.5"}}), SEResult::kFailed);
    EXPECT_EQ(Run(SECmd::kEditSamples, {{"points", "5smp"}}), SEResult::kFailed);
    EXPECT_EQ(Samples(file.GetAudio()), drawn);
}

// A transforming-source effect whose source replaces the part with known samples of another
// length: the driver must render it at the part's format and put it in the range's place.
class SEEfTestReplace final : public SEEfSoundSourceProcess {
public:
    using SEEfSoundSourceProcess::OpenSource;
    using SEEfSoundSourceProcess::SEEfSoundSourceProcess;
    [[nodiscard]] char const* GetEffectName() const override { return "Replace"; }
    [[nodiscard]] LSoundSource OpenSource(LSoundSource& input) override {
        return LMakeSource<LTestBufferSource>(input->GetSampleRate(), input->GetChannels(),
                                              Ramp(30000, input->GetChannels()));
    }
};

TEST_F(EditorTest, SourceEffectsRenderTheirOutputInPlaceOfTheRange) {
    SEFile& file = AddRamp(1000, 2);
    std::vector<float> const original = Samples(file.GetAudio());
    std::shared_ptr<SEFile> const document = m_dialog->GetCurrentView()->GetFilePtr();

    LTestProcess stopped(0);
    SEEfTestReplace early(document, SESelection{100, 200, 0, 0, false});
    EXPECT_EQ(early.ProcessAndInsertCutList(stopped), LProcessResult::kStopped);
    EXPECT_EQ(Samples(file.GetAudio()), original);

    LTestProcess process;
    SEEfTestReplace effect(document, SESelection{100, 200, 0, 0, false});
    ASSERT_EQ(effect.ProcessAndInsertCutList(process), LProcessResult::kCompleted);
    std::vector<float> expected = Span(original, 0, 100, 2);
    std::vector<float> const made = Ramp(30000, 2);
    expected.insert(expected.end(), made.begin(), made.end());
    std::vector<float> const tail = Span(original, 200, 1000, 2);
    expected.insert(expected.end(), tail.begin(), tail.end());
    EXPECT_EQ(Samples(file.GetAudio()), expected);
    EXPECT_EQ(process.statuses.front(), (std::pair<int, std::string>{0, "Replace"}));
}

TEST_F(EditorTest, AmplifyChangesSegmentGainsWithoutRendering) {
    SEFile& file = AddRamp(2000, 2);
    std::vector<float> const original = Samples(file.GetAudio());
    std::size_t const cacheFiles = CountFiles(PathOf("cache"));
    ASSERT_EQ(Select("500smp", "1500smp"), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kAmplify, {{"gain-percentage", "50"}}), SEResult::kDone);
    EXPECT_EQ(m_ui.GetUndoText(), "Undo Amplify");
    std::vector<float> after = Samples(file.GetAudio());
    for (long long f : {0LL, 499LL, 500LL, 1499LL, 1500LL}) {
        float const factor = f >= 500 && f < 1500 ? 0.5f : 1.0f;
        EXPECT_EQ(after[f * 2 + 1], original[f * 2 + 1] * factor) << f;
    }
    EXPECT_EQ(CountFiles(PathOf("cache")), cacheFiles);
    EXPECT_EQ(file.GetSelection().start, 500);
    EXPECT_EQ(file.GetSelection().end, 1500);

    // Values beyond the parameter's range are clamped (400 %); a preset by name; bad values and
    // unknown presets are refused with nothing changed.
    ASSERT_EQ(Run(SECmd::kAmplify, {{"gain-percentage", "1000"}}), SEResult::kDone);
    EXPECT_EQ(Samples(file.GetAudio())[600 * 2], original[600 * 2] * 0.5f * 4.0f);
    ASSERT_EQ(Run(SECmd::kSelectNone), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kAmplify, {{"preset", "Half Volume"}}), SEResult::kDone);
    after = Samples(file.GetAudio());
    EXPECT_EQ(after[10 * 2], original[10 * 2] * 0.5f);
    EXPECT_EQ(Run(SECmd::kAmplify, {{"gain-percentage", "loud"}}), SEResult::kFailed);
    EXPECT_EQ(m_dialog->GetLastError(), "\"loud\" is not a number for \"Gain Percentage\".");
    EXPECT_EQ(Run(SECmd::kAmplify, {{"preset", "Eleven"}}), SEResult::kFailed);
    EXPECT_EQ(Samples(file.GetAudio()), after);
    EXPECT_EQ(m_ui.GetUndoText(), "Undo Amplify");
    EXPECT_EQ(SEParameterKey("Depth (Semitone)"), "depth-semitone");
    // The last gain chosen is remembered for the next dialog and for batch jobs.
    EXPECT_EQ(m_settings->GetInt("StoredValues", "AmplifyGain", 0), 50);
}

TEST_F(EditorTest, NormalizeBringsThePeakToTheTargetThroughSegmentGains) {
    SEFile& file = AddRamp(4000, 2);
    std::vector<float> const original = Samples(file.GetAudio());
    std::size_t const cacheFiles = CountFiles(PathOf("cache"));
    ASSERT_EQ(Select("1000smp", "2000smp"), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kNormalize, {{"peak-db", "-6"}}), SEResult::kDone);
    EXPECT_EQ(m_ui.GetUndoText(), "Undo Normalize");
    std::vector<float> const after = Samples(file.GetAudio());
    // The loudest value of the range is the right channel's last frame.
    float const peak = original[1999 * 2 + 1];
    float const target = static_cast<float>(std::pow(10.0, -6.0 / 20.0));
    EXPECT_NEAR(after[1999 * 2 + 1], target, 1e-6);
    EXPECT_NEAR(after[1000 * 2], original[1000 * 2] * target / peak, 1e-6);
    EXPECT_EQ(after[999 * 2 + 1], original[999 * 2 + 1]);
    EXPECT_EQ(after[2000 * 2 + 1], original[2000 * 2 + 1]);
    EXPECT_EQ(CountFiles(PathOf("cache")), cacheFiles);
    EXPECT_NEAR(m_settings->GetDouble("Settings", "NormalizeTargetPeak", 0.0), target, 1e-6);

    // Out of range or not a number: refused, nothing changed. A silent range stays silent.
    EXPECT_EQ(Run(SECmd::kNormalize, {{"peak-db", "3"}}), SEResult::kFailed);
    EXPECT_EQ(Run(SECmd::kNormalize, {{"peak-db", "loud"}}), SEResult::kFailed);
    EXPECT_EQ(Samples(file.GetAudio()), after);
    ASSERT_EQ(Run(SECmd::kSilence), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kNormalize, {{"peak-db", "0"}}), SEResult::kDone);
    std::vector<float> const silent = Samples(file.GetAudio());
    EXPECT_TRUE(std::all_of(silent.begin() + 2000, silent.begin() + 4000,
                            [](float v) { return v == 0.0f; }));

    // Stopped while it looks for the peak: the document and the Undo item as they were.
    ASSERT_EQ(Run(SECmd::kSelectAll), SEResult::kDone);
    m_ui.StopAfterProgressReports(0);
    EXPECT_EQ(Run(SECmd::kNormalize, {{"peak-db", "0"}}), SEResult::kCancelled);
    m_ui.StopAfterProgressReports(-1);
    EXPECT_EQ(Samples(file.GetAudio()), silent);
    EXPECT_EQ(m_ui.GetUndoText(), "Undo Normalize");
}

TEST_F(EditorTest, DCOffsetCorrectionCentresEachChannel) {
    long long const frames = 3000;
    std::vector<float> samples = MakeSine(44100, 2, 441.0, 0.5, frames);
    for (long long f = 0; f < frames; ++f) {
        samples[static_cast<std::size_t>(f) * 2] += 0.125f;
        samples[static_cast<std::size_t>(f) * 2 + 1] -= 0.25f;
    }
    SEFile& file = AddSamples(samples, 2, 44100, "offset.wav");
    ASSERT_EQ(Run(SECmd::kDCOffset), SEResult::kDone);
    EXPECT_EQ(m_ui.GetUndoText(), "Undo DC Offset Correction");
    std::vector<float> const after = Samples(file.GetAudio());
    ASSERT_EQ(after.size(), samples.size());
    std::vector<double> means(2, 0.0);
    for (std::size_t i = 0; i < after.size(); ++i) {
        means[i % 2] += after[i] / static_cast<double>(frames);
    }
    // 3000 frames hold 30 whole periods of the sine, so the offsets are the whole mean.
    EXPECT_NEAR(means[0], 0.0, 1e-6);
    EXPECT_NEAR(means[1], 0.0, 1e-6);
    EXPECT_NEAR(after[100 * 2], samples[100 * 2] - 0.125f, 1e-6);
    EXPECT_NEAR(after[100 * 2 + 1], samples[100 * 2 + 1] + 0.25f, 1e-6);
}

TEST_F(EditorTest, EnvelopesFollowTheirPointsFromTheSelectionsStart) {
    SEFile& file = AddRamp(1000, 1);
    std::vector<float> const original = Samples(file.GetAudio());
    ASSERT_EQ(Select("200smp", "600smp"), SEResult::kDone);
    // Percent: from silence at the selection's start up to full level 100 frames later.
    ASSERT_EQ(Run(SECmd::kEnvelope, {{"points", "0smp:0,100smp:100"}}), SEResult::kDone);
    EXPECT_EQ(m_ui.GetUndoText(), "Undo Envelope");
    std::vector<float> const after = Samples(file.GetAudio());
    for (long long q : {0LL, 1LL, 50LL, 99LL}) {
        std::size_t const f = static_cast<std::size_t>(200 + q);
        EXPECT_NEAR(after[f], original[f] * static_cast<float>(q) / 100.0f, 1e-7) << q;
    }
    EXPECT_EQ(after[300], original[300]);
    EXPECT_EQ(after[199], original[199]);

    // Decibels, with a curve: -6.0206 dB is half the level.
    ASSERT_EQ(Run(SECmd::kUndo), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kEnvelopeDb,
                  {{"points", "0smp:-6.0206,400smp:-6.0206"}, {"shape", "sinusoidal"}}),
              SEResult::kDone);
    std::vector<float> const halved = Samples(file.GetAudio());
    EXPECT_NEAR(halved[400], original[400] * 0.5f, 1e-6);
    EXPECT_EQ(Run(SECmd::kEnvelope, {{"points", "0smp:2000"}}), SEResult::kFailed);
    EXPECT_EQ(Run(SECmd::kEnvelope, {{"points", "soon:50"}}), SEResult::kFailed);
    EXPECT_EQ(Run(SECmd::kEnvelope, {{"points", "0smp:50"}, {"shape", "wobbly"}}),
              SEResult::kFailed);
    EXPECT_EQ(Samples(file.GetAudio()), halved);
}

TEST_F(EditorTest, PanMovesStereoBetweenTheChannelsAndRefusesMono) {
    SEFile& file = AddRamp(500, 2);
    std::vector<float> const original = Samples(file.GetAudio());
    ASSERT_EQ(Run(SECmd::kPan, {{"pan", "-100"}}), SEResult::kDone);
    EXPECT_EQ(m_ui.GetUndoText(), "Undo Stereo Pan");
    std::vector<float> after = Samples(file.GetAudio());
    for (std::size_t f : {0u, 250u, 499u}) {
        EXPECT_EQ(after[f * 2], original[f * 2]) << f;
        EXPECT_NEAR(after[f * 2 + 1], 0.0f, 1e-7) << f;
    }
    // Centre is constant power; beyond full right is full right.
    ASSERT_EQ(Run(SECmd::kUndo), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kPan, {{"pan", "0"}}), SEResult::kDone);
    after = Samples(file.GetAudio());
    EXPECT_NEAR(after[100 * 2], original[100 * 2] * 0.70710678f, 1e-6);
    EXPECT_NEAR(after[100 * 2 + 1], original[100 * 2 + 1] * 0.70710678f, 1e-6);
    ASSERT_EQ(Run(SECmd::kUndo), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kPan, {{"pan", "500"}}), SEResult::kDone);
    after = Samples(file.GetAudio());
    EXPECT_NEAR(after[100 * 2], 0.0f, 1e-7);
    // A pan line from left to right over the first 100 frames.
    ASSERT_EQ(Run(SECmd::kUndo), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kPan, {{"points", "0smp:-100,100smp:100"}}), SEResult::kDone);
    after = Samples(file.GetAudio());
    EXPECT_NEAR(after[50 * 2], original[50 * 2] * 0.70710678f, 1e-6);

    AddRamp(100, 1, 44100, "mono.wav");
    EXPECT_EQ(Run(SECmd::kPan, {{"pan", "0"}}), SEResult::kFailed);
    EXPECT_NE(m_dialog->GetLastError().find("not stereo"), std::string::npos);
}

TEST_F(EditorTest, ChannelCountChangesForTheWholeDocumentAndUndo) {
    SEFile& file = AddRamp(300, 2);
    std::vector<float> const original = Samples(file.GetAudio());
    ASSERT_EQ(Select("10smp", "20smp"), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kJoinChannels), SEResult::kDone);
    EXPECT_EQ(m_ui.GetUndoText(), "Undo Join Channels");
    ASSERT_EQ(file.GetAudio().GetChannels(), 1u);
    std::vector<float> const mono = Samples(file.GetAudio());
    ASSERT_EQ(mono.size(), 300u);
    EXPECT_NEAR(mono[7], (original[14] + original[15]) * 0.5f, 1e-7);
    EXPECT_EQ(Run(SECmd::kJoinChannels), SEResult::kIgnored);

    ASSERT_EQ(Run(SECmd::kToStereo), SEResult::kDone);
    EXPECT_EQ(m_ui.GetUndoText(), "Undo Convert to Stereo");
    ASSERT_EQ(file.GetAudio().GetChannels(), 2u);
    std::vector<float> const stereo = Samples(file.GetAudio());
    EXPECT_EQ(stereo[2 * 7], mono[7]);
    EXPECT_EQ(stereo[2 * 7 + 1], mono[7]);
    ASSERT_EQ(Run(SECmd::kUndo), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kUndo), SEResult::kDone);
    EXPECT_EQ(file.GetAudio().GetChannels(), 2u);
    EXPECT_EQ(Samples(file.GetAudio()), original);
}

TEST_F(EditorTest, EffectChainsApplyAndPreviewTheSameEffects) {
    SEFile& file = AddRamp(2000, 2);
    std::vector<float> const original = Samples(file.GetAudio());
    LSoundProcessMulti chain;
    auto half = std::make_unique<LSPGain>();
    int const percent = 50;
    half->SetParameterByIndex(0, &percent);
    chain.Add(std::move(half));
    chain.Add(std::make_unique<LSPUnknown>(20));
    std::string error;
    ASSERT_TRUE(LSaveEffectChainFile(PathOf("half.chain").c_str(), chain, error)) << error;

    ASSERT_EQ(Select("100smp", "1100smp"), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kEffectChainPreview, {{"path", PathOf("half.chain")}}), SEResult::kDone);
    LSoundSource preview = m_ui.GetLastPreview();
    ASSERT_TRUE(preview.Get() != nullptr);
    std::vector<float> const heard = ReadAll(preview, 333);
    EXPECT_FALSE(m_ui.IsUndoEnabled()); // a preview changes nothing
    ASSERT_EQ(Run(SECmd::kEffectChain, {{"path", PathOf("half.chain")}}), SEResult::kDone);
    EXPECT_EQ(m_ui.GetUndoText(), "Undo Apply Effect Chain");
    // The effect the chain lacks is named and left out; the rest is applied.
    EXPECT_NE(m_ui.GetMessages().back().text.find("1 of the chain's 2 effects"), std::string::npos);
    std::vector<float> const after = Samples(file.GetAudio());
    EXPECT_EQ(after[50 * 2], original[50 * 2]);
    EXPECT_EQ(after[600 * 2 + 1], original[600 * 2 + 1] * 0.5f);
    // What the preview played is what was applied.
    ASSERT_EQ(heard.size(), 2000u);
    EXPECT_TRUE(std::equal(heard.begin(), heard.end(), after.begin() + 200));

    EXPECT_EQ(Run(SECmd::kEffectChain, {{"path", PathOf("missing.chain")}}), SEResult::kFailed);
    EXPECT_EQ(Samples(file.GetAudio()), after);
}

TEST_F(EditorTest, FadesShapeTheSelectionAndLeaveTheRestAlone) {
    SEFile& file = AddRamp(3000, 2);
    std::vector<float> const original = Samples(file.GetAudio());
    ASSERT_EQ(Select("1000smp", "2000smp"), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kFadeIn), SEResult::kDone);
    EXPECT_EQ(m_ui.GetUndoText(), "Undo Fade In");
    std::vector<float> const faded = Samples(file.GetAudio());
    ASSERT_EQ(faded.size(), original.size());
    for (long long f = 0; f < 3000; ++f) {
        double const g = f < 1000 || f >= 2000 ? 1.0 : static_cast<double>(f - 1000) / 1000.0;
        for (int c = 0; c < 2; ++c) {
            ASSERT_NEAR(faded[f * 2 + c], original[f * 2 + c] * g, 1e-6) << f;
        }
    }
    EXPECT_EQ(faded[1000 * 2], 0.0f);
    EXPECT_EQ(faded[2000 * 2], original[2000 * 2]);

    ASSERT_EQ(Run(SECmd::kUndo), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kFadeOut, {{"shape", "exponential"}}), SEResult::kDone);
    std::vector<float> const out = Samples(file.GetAudio());
    // A falling exponential segment starts at exactly the full level.
    EXPECT_EQ(out[1000 * 2 + 1], original[1000 * 2 + 1]);
    EXPECT_NEAR(out[1999 * 2 + 1], original[1999 * 2 + 1] * std::exp(-4.0 + 0.004), 1e-6);
    EXPECT_EQ(out[999 * 2], original[999 * 2]);
    EXPECT_EQ(Run(SECmd::kFadeOut, {{"shape", "steep"}}), SEResult::kFailed);
    EXPECT_EQ(m_ui.GetUndoText(), "Undo Fade Out");
}

// Frame f of a sum of sines of `hz` (amplitude 0.25 each) on both channels.
std::vector<float> Tones(std::initializer_list<double> hz, long long frames, int rate) {
    std::vector<float> samples(static_cast<std::size_t>(frames) * 2, 0.0f);
    for (double f0 : hz) {
        std::vector<float> const tone = MakeSine(rate, 2, f0, 0.25, frames);
        for (std::size_t i = 0; i < samples.size(); ++i) {
            samples[i] += tone[i];
        }
    }
    return samples;
}

// The level in dB, relative to 0.25, of the `hz` component of the left channel over [from, to).
double ToneDb(std::vector<float> const& samples, double hz, int rate, long long from,
              long long to) {
    double s = 0.0;
    double c = 0.0;
    for (long long f = from; f < to; ++f) {
        double const phase = 2.0 * M_PI * hz * static_cast<double>(f) / rate;
        s += samples[static_cast<std::size_t>(f) * 2] * std::sin(phase);
        c += samples[static_cast<std::size_t>(f) * 2] * std::cos(phase);
    }
    return 20.0 * std::log10(2.0 * std::hypot(s, c) / static_cast<double>(to - from) / 0.25);
}

TEST_F(EditorTest, BandSelectionsChangeOnlyTheirFrequencies) {
    int const rate = 44100;
    long long const frames = 2 * rate;
    SEFile& file = AddSamples(Tones({500.0, 4000.0}, frames, rate), 2, rate, "tones.wav");
    std::vector<float> const before = Samples(file.GetAudio());
    file.AddBookmark("mark", frames - 100);
    ASSERT_EQ(
        Run(SECmd::kSelect, {{"start", "0.5"}, {"end", "1.5"}, {"low", "2000"}, {"high", "6000"}}),
        SEResult::kDone);
    EXPECT_TRUE(file.GetSelection().secondaryInForce);

    // Amplify the band by half: the 4 kHz tone drops 6 dB, the 500 Hz tone stays.
    ASSERT_EQ(Run(SECmd::kAmplify, {{"gain-percentage", "50"}}), SEResult::kDone);
    std::vector<float> const amplified = Samples(file.GetAudio());
    ASSERT_EQ(amplified.size(), before.size());
    long long const from = rate / 2 + 4000;
    long long const to = 3 * rate / 2 - 4000;
    EXPECT_NEAR(ToneDb(amplified, 4000.0, rate, from, to), -6.02, 0.1);
    EXPECT_NEAR(ToneDb(amplified, 500.0, rate, from, to), 0.0, 0.1);
    // Outside the range not a sample moved.
    EXPECT_TRUE(std::equal(before.begin(), before.begin() + rate, amplified.begin()));
    EXPECT_TRUE(std::equal(before.begin() + 3 * rate, before.end(), amplified.begin() + 3 * rate));
    EXPECT_EQ(m_dialog->GetUndoItemText(), "Undo Amplify");

    // Delete the band: the length, the bookmark and the 500 Hz tone stay, the 4 kHz tone goes.
    ASSERT_EQ(Run(SECmd::kUndo), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kDelete), SEResult::kDone);
    std::vector<float> const deleted = Samples(file.GetAudio());
    ASSERT_EQ(deleted.size(), before.size());
    EXPECT_LT(ToneDb(deleted, 4000.0, rate, from, to), -50.0);
    EXPECT_NEAR(ToneDb(deleted, 500.0, rate, from, to), 0.0, 0.1);
    EXPECT_EQ(file.GetBookmarks().GetHead()->position, frames - 100);

    // A selection without frequencies is the whole spectrum again.
    ASSERT_EQ(Run(SECmd::kSelect, {{"start", "0.5"}, {"end", "1.5"}, {"low", ""}, {"high", ""}}),
              SEResult::kDone);
    EXPECT_FALSE(file.GetSelection().secondaryInForce);
    EXPECT_EQ(Run(SECmd::kSelect, {{"start", "0"}, {"end", "1"}, {"low", "300"}, {"high", ""}}),
              SEResult::kFailed);
    EXPECT_EQ(Run(SECmd::kSelect, {{"start", "0"}, {"end", "1"}, {"low", "300"}, {"high", "200"}}),
              SEResult::kFailed);
}

TEST_F(EditorTest, TrimsKeepTheSelectedPart) {
    SEFile& file = AddRamp(1000, 1);
    std::vector<float> const original = Samples(file.GetAudio());
    file.AddBookmark("b", 600);
    ASSERT_EQ(Select("200smp", "700smp"), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kTrimStart), SEResult::kDone);
    EXPECT_EQ(file.GetSelection().start, 0);
    EXPECT_EQ(file.GetSelection().end, 500);
    EXPECT_EQ(file.GetBookmarks().GetHead()->position, 400);
    ASSERT_EQ(Run(SECmd::kTrimEnd), SEResult::kDone);
    EXPECT_EQ(Samples(file.GetAudio()), Span(original, 200, 700, 1));
    EXPECT_EQ(m_dialog->GetUndoItemText(), "Undo Trim End");
    // Nothing left to trim on either side: ignored, no undo entry.
    EXPECT_EQ(Run(SECmd::kTrimEnd), SEResult::kIgnored);
    ASSERT_EQ(Run(SECmd::kSelectNone), SEResult::kDone);
    EXPECT_EQ(Run(SECmd::kTrimStart), SEResult::kIgnored);
    EXPECT_EQ(m_dialog->GetUndoItemText(), "Undo Trim End");
}

TEST_F(EditorTest, BadSelectionsAndEmptyClipboardAreRefusedWithTheDocumentUnchanged) {
    SEFile& file = AddRamp(44100, 1);
    ASSERT_EQ(Select("0:00.250", "0:00.500"), SEResult::kDone);
    EXPECT_EQ(file.GetSelection().start, 11025);
    EXPECT_EQ(file.GetSelection().end, 22050);

    EXPECT_EQ(Select("0:00.600", "0:00.100"), SEResult::kFailed);
    EXPECT_NE(m_dialog->GetLastError().find("before its start"), std::string::npos);
    EXPECT_EQ(Select("-1", "2"), SEResult::kFailed);
    EXPECT_EQ(Select("abc", "2"), SEResult::kFailed);
    EXPECT_EQ(Cursor("-5smp"), SEResult::kFailed);
    EXPECT_EQ(file.GetSelection().start, 11025);
    EXPECT_EQ(file.GetSelection().end, 22050);

    // Past the end means "to the end".
    ASSERT_EQ(Select("0:00.500", "1:00"), SEResult::kDone);
    EXPECT_EQ(file.GetSelection().end, 44100);
    ASSERT_EQ(Cursor("99"), SEResult::kDone);
    EXPECT_EQ(file.GetCursor(), 44100);

    EXPECT_EQ(Run(SECmd::kPaste), SEResult::kFailed);
    EXPECT_EQ(m_ui.GetMessages().back().text,
              "The clipboard is empty: copy or cut some audio first.");
    EXPECT_EQ(Run(SECmd::kPasteAsNew), SEResult::kFailed);
    EXPECT_EQ(m_dialog->GetWindows().GetCount(), 1u);
    EXPECT_FALSE(file.CanUndo());
    EXPECT_EQ(Run(SECmd::kUndo), SEResult::kIgnored);
    EXPECT_EQ(Run(SECmd::kRedo), SEResult::kIgnored);
    EXPECT_EQ(Run(SECmd::kCopy), SEResult::kFailed); // nothing selected at the cursor
    EXPECT_EQ(file.GetAudio().GetLengthFrames(), 44100);
    EXPECT_FALSE(file.IsModified());
}

TEST_F(EditorTest, APasteThatWouldOverflowTheDocumentLosesNothing) {
    AddRamp(1000, 1, 44100, "clip.wav");
    ASSERT_EQ(Run(SECmd::kSelectAll), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kCopy), SEResult::kDone);
    SEFile& big = AddRamp(100, 1, 44100, "big.wav");
    big.GetAudio().EfInsertSilence(100, kLCutListMaxFrames - 600);
    std::size_t const segments = big.GetAudio().GetSegmentCount();
    ASSERT_EQ(Select("0smp", "50smp"), SEResult::kDone);
    EXPECT_EQ(Run(SECmd::kPaste), SEResult::kFailed);
    EXPECT_EQ(m_dialog->GetLastError(),
              "The result would be longer than the longest file Tessel can edit.");
    EXPECT_EQ(big.GetAudio().GetLengthFrames(), kLCutListMaxFrames - 500);
    EXPECT_EQ(big.GetAudio().GetSegmentCount(), segments);
    EXPECT_FALSE(big.CanUndo());
}

TEST_F(EditorTest, DispatchNeedsADocumentAndKnowsWhatIsNotBuilt) {
    EXPECT_EQ(Run(SECmd::kUndo), SEResult::kIgnored);
    EXPECT_EQ(Run(SECmd::kCut), SEResult::kIgnored);
    EXPECT_EQ(Run(SECmd::kSelectAll), SEResult::kIgnored);
    EXPECT_FALSE(m_ui.IsUndoEnabled());
    EXPECT_FALSE(m_ui.IsRedoEnabled());
    EXPECT_EQ(m_ui.GetUndoText(), "Undo ");
    EXPECT_TRUE(m_ui.GetMessages().empty());
    EXPECT_EQ(Run(123456), SEResult::kUnknown);

    SEFile& file = AddRamp(1000, 1);
    // The edit menu's Cut arrives as a four-character code, not as a number of the 2000s.
    EXPECT_EQ(SECmd::kCut, 1668641824);
    ASSERT_EQ(Select("0smp", "100smp"), SEResult::kDone);
    ASSERT_EQ(Run(0x63757420), SEResult::kDone);
    EXPECT_EQ(file.GetAudio().GetLengthFrames(), 900);
    EXPECT_TRUE(m_ui.IsUndoEnabled());
    EXPECT_EQ(m_ui.GetUndoText(), "Undo Cut");

    EXPECT_EQ(Run(4004), SEResult::kUnavailable);
    EXPECT_EQ(m_ui.GetMessages().back().text,
              "\"Echo\" is not available in this version of Tessel.");
    EXPECT_EQ(m_dialog->GetUndoItemText(), "Undo Cut");

    // Every command of the table is either handled or reported, never silently taken.
    for (SECommandInfo const& c : SECommandTable()) {
        if (c.id == SECmd::kClose || c.id == SECmd::kOpen || c.id == SECmd::kSave ||
            c.id == SECmd::kSaveAs || c.id == SECmd::kSaveAll || c.id == SECmd::kSaveChanges) {
            continue; // these ask for files; covered where that is the point
        }
        m_ui.SetValues({});
        SEResult const result = m_dialog->Command(c.id);
        EXPECT_NE(result, SEResult::kUnknown) << c.name;
        EXPECT_EQ(result == SEResult::kUnavailable, !c.built) << c.name;
    }
}

TEST_F(EditorTest, SeveralDocumentsClosingAndNewOnes) {
    SEFile& first = AddRamp(100, 1, 44100, "one.wav");
    AddRamp(200, 1, 44100, "two.wav");
    EXPECT_EQ(Current().GetAudio().GetLengthFrames(), 200);
    EXPECT_EQ(Run(SECmd::kWindow, {{"index", "3"}}), SEResult::kFailed);
    ASSERT_EQ(Run(SECmd::kWindow, {{"index", "1"}}), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kSelectAll), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kDelete), SEResult::kDone);
    EXPECT_EQ(first.GetAudio().GetLengthFrames(), 0);
    EXPECT_EQ(m_dialog->GetWindows().At(1)->GetFile()->GetAudio().GetLengthFrames(), 200);

    // Closing a modified document asks; Cancel keeps it, "Don't Save" closes it.
    m_ui.QueueAnswer("Cancel");
    EXPECT_EQ(Run(SECmd::kClose), SEResult::kCancelled);
    EXPECT_EQ(m_dialog->GetWindows().GetCount(), 2u);
    EXPECT_EQ(m_ui.GetMessages().back().text,
              "Save the changes to \"" + PathOf("one.wav") + "\" before closing?");
    m_ui.QueueAnswer("Don't Save");
    EXPECT_EQ(Run(SECmd::kClose), SEResult::kDone);
    ASSERT_EQ(m_dialog->GetWindows().GetCount(), 1u);
    EXPECT_EQ(Current().GetAudio().GetLengthFrames(), 200);
    // An unmodified document closes without a question.
    std::size_t const shown = m_ui.GetMessages().size();
    EXPECT_EQ(Run(SECmd::kClose), SEResult::kDone);
    EXPECT_EQ(m_ui.GetMessages().size(), shown);
    EXPECT_EQ(m_dialog->GetCurrentView(), nullptr);

    ASSERT_TRUE(m_settings->SetString("Settings", "FileNameFormat", "Take %autonumber%"));
    ASSERT_EQ(Run(SECmd::kNew), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kNew), SEResult::kDone);
    EXPECT_STREQ(Current().GetPath(), "Take 2");
    EXPECT_TRUE(Current().IsModified());
    EXPECT_EQ(m_settings->GetInt("Settings", "iAutoNumber", 0), 3);

    AddRamp(300, 2, 48000, "three.wav");
    ASSERT_EQ(Select("0smp", "300smp"), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kCopy), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kPasteAsNew), SEResult::kDone);
    EXPECT_STREQ(Current().GetPath(), "Take 3");
    EXPECT_EQ(Current().GetAudio().GetSampleRate(), 48000);
    EXPECT_EQ(Current().GetAudio().GetLengthFrames(), 300);
    // Pasting into an empty new document takes the clip's format instead of converting it.
    ASSERT_EQ(Run(SECmd::kWindow, {{"index", "2"}}), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kPaste), SEResult::kDone);
    EXPECT_EQ(Current().GetAudio().GetChannels(), 2);
    EXPECT_EQ(Current().GetAudio().GetLengthFrames(), 300);
}

TEST_F(EditorTest, AfterAnEditTheLowSpaceWarningAndAutomaticPlayback) {
    SEFile& file = AddRamp(100, 1);
    ASSERT_EQ(Select("0smp", "10smp"), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kDelete), SEResult::kDone);
    EXPECT_EQ(m_ui.GetPlaybackStarts(), 0);
    EXPECT_TRUE(m_ui.GetMessages().empty());

    ASSERT_TRUE(m_settings->SetString("Settings", "AutoPlaybackAfterEffects", "1"));
    ASSERT_EQ(Select("0smp", "10smp"), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kDelete), SEResult::kDone);
    EXPECT_EQ(m_ui.GetPlaybackStarts(), 1);
    ASSERT_TRUE(m_settings->SetString("Settings", "AutoPlaybackAfterEffects", "0"));

    // Silence costs no disk, so a document far larger than any disk is cheap to make.
    file.GetAudio().EfInsertSilence(0, 1LL << 45);
    ASSERT_EQ(Select("0smp", "10smp"), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kDelete), SEResult::kDone);
    ASSERT_EQ(m_ui.GetMessages().size(), 1u);
    EXPECT_EQ(m_ui.GetMessages()[0].title, "Low Disk Space");
    EXPECT_EQ(m_ui.GetMessages()[0].text,
              "The last action you performed to the file \"" + PathOf("ramp.wav") +
                  "\" might not be saved because you have very low free disk space. Please try "
                  "saving the file to a different location or making more space by removing "
                  "unwanted files then try again.");
    // A warning only: the edit stays.
    EXPECT_EQ(file.GetAudio().GetLengthFrames(), (1LL << 45) + 80 - 10);
    EXPECT_EQ(m_ui.GetPlaybackStarts(), 1);
}

TEST_F(EditorTest, BookmarkAndRegionChangesAreUndoable) {
    SEFile& file = AddRamp(1000, 1);
    ASSERT_EQ(Cursor("100smp"), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kBookmark), SEResult::kDone);
    EXPECT_STREQ(file.GetBookmarks().GetHead()->name, "Bookmark 1");
    ASSERT_EQ(Run(SECmd::kRenameBookmark, {{"name", "Bookmark 1"}, {"to", "Chorus"}}),
              SEResult::kDone);
    EXPECT_EQ(m_ui.GetUndoText(), "Undo Rename Bookmark");
    EXPECT_STREQ(file.GetBookmarks().GetHead()->name, "Chorus");
    EXPECT_EQ(Run(SECmd::kDeleteBookmark, {{"name", "Verse"}}), SEResult::kFailed);
    EXPECT_EQ(m_ui.GetUndoText(), "Undo Rename Bookmark");
    ASSERT_EQ(Run(SECmd::kDeleteBookmark, {{"name", "Chorus"}}), SEResult::kDone);
    EXPECT_EQ(m_ui.GetUndoText(), "Undo Delete Bookmark");
    EXPECT_EQ(file.GetBookmarks().GetCount(), 0u);
    ASSERT_EQ(Run(SECmd::kUndo), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kUndo), SEResult::kDone);
    EXPECT_STREQ(file.GetBookmarks().GetHead()->name, "Bookmark 1");

    ASSERT_EQ(Select("200smp", "300smp"), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kSetRegion, {{"name", "intro"}}), SEResult::kDone);
    EXPECT_EQ(m_ui.GetUndoText(), "Undo Add a region");
    ASSERT_EQ(
        Run(SECmd::kModifyRegion, {{"name", "intro"}, {"start", "250smp"}, {"end", "400smp"}}),
        SEResult::kDone);
    EXPECT_EQ(m_ui.GetUndoText(), "Undo Modify Region");
    EXPECT_EQ(SESharedRegions().GetHead()->start, 250);
    ASSERT_EQ(Run(SECmd::kUndo), SEResult::kDone);
    EXPECT_EQ(SESharedRegions().GetHead()->start, 200);
    EXPECT_EQ(SESharedRegions().GetHead()->end, 300);
    ASSERT_EQ(Run(SECmd::kUndo), SEResult::kDone);
    EXPECT_EQ(SESharedRegions().GetCount(), 0u);
}

TEST_F(EditorTest, SavingReplacesTheFileOnlyWhenCompleteAndMakesTheDocumentClean) {
    std::string const path = PathOf("song.wav");
    {
        LSoundSource tone = LMakeSource<LTestBufferSource>(44100, 2, Ramp(400000, 2));
        LTestProcess process;
        ASSERT_EQ(ProcessGenSaveSource(process, tone, path.c_str(), 44100, 2, nullptr, nullptr),
                  LProcessResult::kCompleted);
    }
    std::string const before = ReadFileBytes(path);
    ASSERT_EQ(Run(SECmd::kOpen, {{"path", path}}), SEResult::kDone);
    SEFile& file = Current();
    EXPECT_FALSE(file.IsModified());
    ASSERT_EQ(Select("0smp", "1000smp"), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kDelete), SEResult::kDone);
    std::vector<std::string> const names = ListNames();

    // Stopped part-way: the old file is untouched and nothing is left beside it.
    m_ui.StopAfterProgressReports(2);
    EXPECT_EQ(Run(SECmd::kSave), SEResult::kCancelled);
    m_ui.StopAfterProgressReports(-1);
    EXPECT_EQ(ReadFileBytes(path), before);
    EXPECT_EQ(ListNames(), names);
    EXPECT_TRUE(file.IsModified());

    m_ui.ClearEvents();
    ASSERT_EQ(Run(SECmd::kSave), SEResult::kDone);
    EXPECT_FALSE(file.IsModified());
    EXPECT_EQ(m_ui.GetEvents(), std::vector<int>{kSEEventDocumentClean});
    LCutListAudio saved;
    LTestProcess process;
    ASSERT_EQ(ProcessGenOpenCutList(process, path.c_str(), saved), LProcessResult::kCompleted);
    EXPECT_EQ(saved.GetLengthFrames(), 399000);

    // Save, change, undo: clean again; redo: modified; revert: back to the saved state.
    ASSERT_EQ(Select("0smp", "10smp"), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kDelete), SEResult::kDone);
    EXPECT_TRUE(file.IsModified());
    ASSERT_EQ(Run(SECmd::kUndo), SEResult::kDone);
    EXPECT_FALSE(file.IsModified());
    EXPECT_EQ(m_ui.GetEvents().back(), kSEEventDocumentClean);
    ASSERT_EQ(Run(SECmd::kRedo), SEResult::kDone);
    EXPECT_TRUE(file.IsModified());
    EXPECT_EQ(m_ui.GetEvents().back(), kSEEventDocumentModified);
    ASSERT_EQ(Select("0smp", "10smp"), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kDelete), SEResult::kDone);
    ASSERT_EQ(Run(SECmd::kRevert), SEResult::kDone);
    EXPECT_FALSE(file.IsModified());
    EXPECT_EQ(file.GetAudio().GetLengthFrames(), 399000);

    // Save as: the document takes the new name; a failed save leaves everything as it was.
    ASSERT_EQ(Run(SECmd::kSaveAs, {{"path", PathOf("copy.wav")}}), SEResult::kDone);
    EXPECT_EQ(std::string(file.GetPath()), PathOf("copy.wav"));
    EXPECT_EQ(Run(SECmd::kSaveAs, {{"path", PathOf("missing/x.wav")}}), SEResult::kFailed);
    EXPECT_EQ(std::string(file.GetPath()), PathOf("copy.wav"));
    EXPECT_EQ(Run(SECmd::kSaveAs), SEResult::kCancelled); // no file chosen
    EXPECT_EQ(Run(SECmd::kOpen, {{"path", PathOf("nothing.wav")}}), SEResult::kFailed);
    EXPECT_EQ(m_ui.GetMessages().back().title, "Open");
}

// A file another program rewrote: the test sees it once, reloading takes its new audio as one
// undoable "Reload", and the document is clean and the file's stamps current afterwards.
TEST_F(EditorTest, AFileChangedOutsideIsReloadedAsOneUndoableChange) {
    std::string const path = PathOf("shared.wav");
    auto write = [&path](long long frames, long long mtimeSeconds) {
        LSoundSource ramp = LMakeSource<LTestBufferSource>(44100, 2, Ramp(frames, 2));
        LTestProcess process;
        ASSERT_EQ(ProcessGenSaveSource(process, ramp, path.c_str(), 44100, 2, nullptr, nullptr),
                  LProcessResult::kCompleted);
        // Stamps are whole seconds: the rewrite must not fall in the same second as the load.
        timespec const times[2] = {{mtimeSeconds, 0}, {mtimeSeconds, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    };
    write(1000, 1700000000);
    ASSERT_EQ(Run(SECmd::kOpen, {{"path", path}}), SEResult::kDone);
    SEFile& file = Current();
    ASSERT_EQ(Cursor("900smp"), SEResult::kDone);
    EXPECT_FALSE(file.TestForFileModifications(m_settings.get()));

    write(500, 1700000100);
    EXPECT_TRUE(file.TestForFileModifications(m_settings.get()));
    ASSERT_EQ(m_dialog->CmReloadFile(m_dialog->GetCurrentView()), SEResult::kDone);
    EXPECT_EQ(file.GetAudio().GetLengthFrames(), 500);
    EXPECT_EQ(file.GetCursor(), 500) << "the cursor stays inside the new audio";
    EXPECT_FALSE(file.IsModified());
    EXPECT_FALSE(file.TestForFileModifications(m_settings.get()));
    EXPECT_EQ(m_dialog->GetWindows().GetCount(), 1u);

    ASSERT_EQ(Run(SECmd::kUndo), SEResult::kDone);
    EXPECT_EQ(file.GetAudio().GetLengthFrames(), 1000);
    EXPECT_TRUE(file.IsModified()) << "the old audio no longer matches the file";
    ASSERT_EQ(Run(SECmd::kRedo), SEResult::kDone);
    EXPECT_EQ(file.GetAudio().GetLengthFrames(), 500);
    EXPECT_FALSE(file.IsModified());

    ASSERT_EQ(unlink(path.c_str()), 0);
    EXPECT_EQ(m_dialog->CmReloadFile(m_dialog->GetCurrentView()), SEResult::kFailed);
    EXPECT_EQ(file.GetAudio().GetLengthFrames(), 500) << "a failed reload changes nothing";
}

// A model of the audio with a plain undo and redo stack; the editor must agree with it after
// every step. The ring keeps about 29 states, so the editor may refuse an undo once the model
// holds that many; the model then forgets its older states too.
TEST_F(EditorTest, RandomEditsUndosAndRedosAgreeWithAModel) {
    constexpr unsigned kChannels = 2;
    SEFile& file = AddRamp(3000, kChannels);
    struct State {
        std::vector<float> samples;
        int id;
    };
    State current{Samples(file.GetAudio()), 0};
    int savedId = 0;
    int nextId = 1;
    std::vector<State> undo;
    std::vector<State> redo;
    std::vector<float> clipboard;
    bool hasClipboard = false;
    std::mt19937 random(20261122);
    auto const frames = [&] { return static_cast<long long>(current.samples.size() / kChannels); };
    auto const pick = [&](long long n) {
        return std::uniform_int_distribution<long long>(0, n)(random);
    };
    auto const change = [&](std::vector<float> samples) {
        undo.push_back(current);
        redo.clear();
        current = State{std::move(samples), nextId++};
    };
    for (int step = 0; step < 600; ++step) {
        long long a = pick(frames());
        long long b = pick(frames());
        if (a > b) {
            std::swap(a, b);
        }
        SCOPED_TRACE("step " + std::to_string(step));
        std::vector<float> const& s = current.samples;
        auto const at = [&](long long f) { return s.begin() + f * kChannels; };
        switch (std::uniform_int_distribution<int>(0, 9)(random)) {
        case 0:   // cut
        case 1:   // delete
        case 2: { // copy
            int const kind = static_cast<int>(step % 3);
            ASSERT_EQ(
                Select((std::to_string(a) + "smp").c_str(), (std::to_string(b) + "smp").c_str()),
                SEResult::kDone);
            int const id = kind == 0 ? SECmd::kCut : kind == 1 ? SECmd::kDelete : SECmd::kCopy;
            SEResult const result = Run(id);
            if (a == b) {
                EXPECT_NE(result, SEResult::kDone);
                break;
            }
            ASSERT_EQ(result, SEResult::kDone);
            if (id != SECmd::kDelete) {
                clipboard.assign(at(a), at(b));
                hasClipboard = true;
            }
            if (id != SECmd::kCopy) {
                std::vector<float> next(s.begin(), at(a));
                next.insert(next.end(), at(b), s.end());
                change(std::move(next));
            }
            break;
        }
        case 3: { // paste over a selection or at the cursor
            if (pick(1) == 0) {
                b = a;
            }
            ASSERT_EQ(
                Select((std::to_string(a) + "smp").c_str(), (std::to_string(b) + "smp").c_str()),
                SEResult::kDone);
            if (a == b) {
                ASSERT_EQ(Cursor((std::to_string(a) + "smp").c_str()), SEResult::kDone);
            }
            SEResult const result = Run(SECmd::kPaste);
            if (!hasClipboard) {
                EXPECT_EQ(result, SEResult::kFailed);
                break;
            }
            ASSERT_EQ(result, SEResult::kDone);
            std::vector<float> next(s.begin(), at(a));
            next.insert(next.end(), clipboard.begin(), clipboard.end());
            next.insert(next.end(), at(b), s.end());
            change(std::move(next));
            break;
        }
        case 4: { // silence or reverse
            ASSERT_EQ(
                Select((std::to_string(a) + "smp").c_str(), (std::to_string(b) + "smp").c_str()),
                SEResult::kDone);
            bool const reverse = pick(1) == 0;
            SEResult const result = Run(reverse ? SECmd::kReverse : SECmd::kSilence);
            if (a == b && !reverse) {
                EXPECT_EQ(result, SEResult::kIgnored);
                break;
            }
            ASSERT_EQ(result, SEResult::kDone);
            std::vector<float> next = s;
            long long const from = a == b ? 0 : a;
            long long const to = a == b ? frames() : b;
            for (long long f = from; f < to; ++f) {
                for (unsigned c = 0; c < kChannels; ++c) {
                    next[f * kChannels + c] =
                        reverse ? s[(from + to - 1 - f) * kChannels + c] : 0.0f;
                }
            }
            if (from < to || reverse) {
                change(std::move(next));
            }
            break;
        }
        case 5:
        case 6: { // undo
            SEResult const result = Run(SECmd::kUndo);
            if (result == SEResult::kDone) {
                ASSERT_FALSE(undo.empty());
                redo.push_back(current);
                current = undo.back();
                undo.pop_back();
            } else {
                ASSERT_TRUE(undo.empty() || undo.size() >= 27) << undo.size();
                undo.clear();
            }
            break;
        }
        case 7:
        case 8: { // redo
            SEResult const result = Run(SECmd::kRedo);
            ASSERT_EQ(result == SEResult::kDone, !redo.empty());
            if (result == SEResult::kDone) {
                undo.push_back(current);
                current = redo.back();
                redo.pop_back();
            }
            break;
        }
        case 9: { // save
            ASSERT_EQ(Run(SECmd::kSave), SEResult::kDone);
            savedId = current.id;
            break;
        }
        }
        ASSERT_EQ(Samples(file.GetAudio()), current.samples);
        ASSERT_EQ(file.IsModified(), current.id != savedId);
    }
}

} // namespace
