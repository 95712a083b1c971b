// SPDX-License-Identifier: GPL-3.0-or-later
// Smoke tests of the Qt audio devices against a real sound server: a private PulseAudio daemon
// with a null sink, and a remap of its monitor ("tessel_mic") to record from, since Qt does not
// list monitors as inputs. Deadlines are generous: the first audio may take up to 2 s.

#include "platform/qt/qtaudiodevice.h"

#include "llib/snd/recorder.h"
#include "tests/support/oracle.h"
#include "tests/support/testsinks.h"
#include "tests/support/testsources.h"

#include <QTest>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <string>

namespace {

constexpr int kRateHz = 48000;

std::string MakeTempDir(char const* prefix) {
    std::string pattern =
        (std::filesystem::temp_directory_path() / (std::string(prefix) + "-XXXXXX")).string();
    return ::mkdtemp(pattern.data()) != nullptr ? pattern : std::string();
}

// Runs Qt's event loop (the devices pull and push from it) until `done` or `ms` have passed.
bool WaitFor(std::function<bool()> const& done, int ms) {
    std::int64_t const deadline = LGetTickMs() + ms;
    while (!done()) {
        if (LGetTickMs() >= deadline) {
            return false;
        }
        QTest::qWait(10);
    }
    return true;
}

// Runs the test matching `filter` in a fresh process (this binary) with `mark` naming a new
// folder for it, and expects it to pass; false in that child, which then runs the test itself.
// Qt Multimedia keeps the sound server it met first in a process, so a test that needs a server
// of its own (or none) runs apart.
bool RanInAFreshProcess(char const* mark, char const* filter) {
    if (std::getenv(mark) != nullptr) {
        return false;
    }
    std::string const folder = MakeTempDir("tessel-child");
    EXPECT_FALSE(folder.empty());
    ::setenv(mark, folder.c_str(), 1);
    std::string output;
    int const status =
        RunTool({"/proc/self/exe", std::string("--gtest_filter=") + filter}, &output);
    ::unsetenv(mark);
    std::error_code ec;
    std::filesystem::remove_all(folder, ec);
    EXPECT_EQ(status, 0) << output;
    EXPECT_NE(output.find("[  PASSED  ] 1 test"), std::string::npos) << output;
    return true;
}

LSoundSource MakeTone(double seconds) {
    return MakeBufferSource(
        kRateHz, 2, MakeSine(kRateHz, 2, 440.0, 0.5, static_cast<long long>(seconds * kRateHz)));
}

} // namespace

// One daemon for the whole suite: Qt Multimedia binds to the server it finds at its first use in
// the process and keeps it, so a daemon restarted per test (in a new folder) would be out of its
// reach from the second test on.
class AudioDevice : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        if (FindTool("pulseaudio").empty() || FindTool("pactl").empty()) {
            return;
        }
        s_runtimeDir = MakeTempDir("tessel-pulse");
        if (s_runtimeDir.empty()) {
            s_problem = "no temporary folder could be made";
            return;
        }
        char const* previous = std::getenv("XDG_RUNTIME_DIR");
        s_previousRuntimeDir = previous != nullptr ? previous : "";
        ::setenv("XDG_RUNTIME_DIR", s_runtimeDir.c_str(), 1);
        ::unsetenv("PULSE_SERVER");
        if (RunTool({"pulseaudio", "-D", "-n", "--exit-idle-time=-1", "--system=false",
                     "--load=module-native-protocol-unix",
                     "--load=module-null-sink sink_name=tessel_null rate=48000"}) != 0) {
            s_problem = "the pulseaudio daemon did not start";
            return;
        }
        std::string output;
        if (RunTool({"pactl", "load-module", "module-remap-source", "master=tessel_null.monitor",
                     "source_name=tessel_mic"},
                    &output) != 0) {
            s_problem = "pactl could not make the tessel_mic source: " + output;
        }
    }

    static void TearDownTestSuite() {
        if (s_runtimeDir.empty()) {
            return;
        }
        (void)RunTool({"pulseaudio", "--kill"});
        // The daemon tidies its folder as it exits; removing the folder before then leaves it
        // half made again.
        (void)WaitFor([] { return RunTool({"pulseaudio", "--check"}) != 0; }, 3000);
        std::error_code ec;
        std::filesystem::remove_all(s_runtimeDir, ec);
        s_runtimeDir.clear();
        if (s_previousRuntimeDir.empty()) {
            ::unsetenv("XDG_RUNTIME_DIR");
        } else {
            ::setenv("XDG_RUNTIME_DIR", s_previousRuntimeDir.c_str(), 1);
        }
    }

    void SetUp() override {
        TESSEL_REQUIRE_TOOL("pulseaudio");
        TESSEL_REQUIRE_TOOL("pactl");
        ASSERT_TRUE(s_problem.empty()) << s_problem;
    }

    LQtAudioOutput m_output;
    LSoundPlayer m_player{m_output};
    std::string m_error;

    static inline std::string s_runtimeDir;
    static inline std::string s_previousRuntimeDir;
    static inline std::string s_problem;
};

TEST_F(AudioDevice, PlayerAdvancesInRealTimeAndStopsWhereAsked) {
    LSoundSource source = MakeTone(20.0);
    std::int64_t const asked = LGetTickMs();
    ASSERT_TRUE(m_player.Play(source, 1000, m_error)) << m_error;
    EXPECT_LT(LGetTickMs() - asked, 500) << "starting playback kept the GUI thread waiting";
    // Qt 6.4 plays a first burst, then may stall for up to 2 s before it settles to real time.
    ASSERT_TRUE(WaitFor([&] { return m_player.GetPlayPosition() > 1000 + kRateHz / 4; }, 4000))
        << "no more than " << m_player.GetPlayPosition() - 1000 << " frames were played in 4 s";

    long long const before = m_player.GetPlayPosition();
    std::int64_t const start = LGetTickMs();
    QTest::qWait(2000);
    long long const after = m_player.GetPlayPosition();
    double const seconds = static_cast<double>(LGetTickMs() - start) / 1000.0;
    double const played = static_cast<double>(after - before) / kRateHz;
    EXPECT_GT(played, 0.5 * seconds);
    EXPECT_LT(played, 1.5 * seconds);
    EXPECT_TRUE(m_player.IsPlaying());

    m_player.Stop();
    long long const stopped = m_player.GetPlayPosition();
    EXPECT_FALSE(m_player.IsPlaying());
    EXPECT_GE(stopped, after);
    EXPECT_LT(stopped, after + kRateHz);
    QTest::qWait(300);
    EXPECT_EQ(m_player.GetPlayPosition(), stopped);
    EXPECT_EQ(source.GetReferenceCount(), 1);
}

TEST_F(AudioDevice, ShortSoundEndsOnItsOwnAtItsLastFrame) {
    LSoundSource source = MakeTone(0.25);
    ASSERT_TRUE(m_player.Play(source, 0, m_error)) << m_error;
    EXPECT_TRUE(WaitFor([&] { return !m_player.IsPlaying(); }, 6000))
        << "still playing at " << m_player.GetPlayPosition();
    EXPECT_EQ(m_player.GetPlayPosition(), kRateHz / 4);
    EXPECT_EQ(source.GetReferenceCount(), 1);
}

// What the player sends to the null sink comes back through its monitor, so the recording
// carries the tone, in real time and at its level (0.5): a conversion with the wrong scale or
// byte order would not. Both ways of moving samples: float, and the 16-bit fallback.
TEST_F(AudioDevice, RecordingTheMonitorWhilePlayingHearsThePlayback) {
    for (LQtSampleFormats const formats :
         {LQtSampleFormats::kFloatOrInt16, LQtSampleFormats::kInt16Only}) {
        SCOPED_TRACE(formats == LQtSampleFormats::kInt16Only ? "16-bit" : "float");
        LQtAudioOutput output({}, formats);
        LSoundPlayer player(output);
        LSoundSource source = MakeTone(20.0);
        ASSERT_TRUE(player.Play(source, 0, m_error)) << m_error;

        std::vector<LQtAudioDeviceEntry> const inputs = LQtListAudioDevices(true);
        EXPECT_TRUE(std::any_of(inputs.begin(), inputs.end(), [](LQtAudioDeviceEntry const& e) {
            return e.id == "tessel_mic";
        })) << "the remapped monitor is not listed as an input";
        LQtAudioInput input("tessel_mic", formats);
        LSoundRecorder recorder(input);
        LSoundSink sink = LMakeSink<LTestCapturingSink>(kRateHz, 2);
        ASSERT_TRUE(recorder.Start(sink, kRateHz, 2, m_error)) << m_error;
        float peak = 0.0f;
        auto pump = [&] {
            recorder.Pump();
            peak = std::max({peak, recorder.TakePeakLevel(0), recorder.TakePeakLevel(1)});
            return recorder.GetRecordedFrames() > 0;
        };
        ASSERT_TRUE(WaitFor(pump, 4000)) << "nothing was recorded within 4 s";

        long long const before = recorder.GetRecordedFrames();
        std::int64_t const start = LGetTickMs();
        (void)WaitFor(
            [&] {
                (void)pump();
                return LGetTickMs() - start >= 2000;
            },
            3000);
        double const seconds = static_cast<double>(LGetTickMs() - start) / 1000.0;
        double const recorded =
            static_cast<double>(recorder.GetRecordedFrames() - before) / kRateHz;
        EXPECT_GT(recorded, 0.5 * seconds);
        EXPECT_LT(recorded, 1.5 * seconds + 0.5);
        EXPECT_GT(peak, 0.45f) << "the recording is too quiet";
        EXPECT_LT(peak, 0.55f) << "the recording is too loud";
        EXPECT_EQ(recorder.GetLostFrames(), 0);

        recorder.Stop();
        player.Stop();
        EXPECT_FALSE(recorder.IsRecording());
        EXPECT_EQ(sink.GetReferenceCount(), 1);
    }
}

// With no server, starting fails at once with a reason and nothing else is harmed. It runs in a
// fresh process: Qt Multimedia keeps the server it met first, so in a process where a server
// test ran, "no server" could not be arranged. The child is this binary running only this test.
TEST(AudioDeviceNoServer, PlayAndRecordFailWithAReason) {
    char const* const kChildMark = "TESSEL_AUDIO_NO_SERVER_CHILD";
    if (RanInAFreshProcess(kChildMark, "AudioDeviceNoServer.*")) {
        return;
    }

    // Before anything of Qt Multimedia runs in this process.
    ::setenv("XDG_RUNTIME_DIR", std::getenv(kChildMark), 1);
    ::setenv("PULSE_SERVER", "unix:/nonexistent/tessel/pulse/native", 1);
    LQtAudioOutput output;
    LSoundPlayer player(output);
    LSoundSource source = MakeTone(1.0);
    std::string error;
    std::int64_t const asked = LGetTickMs();
    EXPECT_FALSE(player.Play(source, 0, error));
    EXPECT_LT(LGetTickMs() - asked, 5000);
    EXPECT_TRUE(error.starts_with("No audio output device is available (") ||
                error.starts_with("The audio output device could not start ("))
        << error;
    std::cout << "Play: " << error << "\n";
    EXPECT_FALSE(player.IsPlaying());
    EXPECT_EQ(source.GetReferenceCount(), 1);

    LQtAudioInput input("tessel_mic");
    LSoundRecorder recorder(input);
    LSoundSink sink = LMakeSink<LTestCapturingSink>(kRateHz, 2);
    EXPECT_FALSE(recorder.Start(sink, kRateHz, 2, error));
    EXPECT_FALSE(error.empty());
    std::cout << "Record: " << error << "\n";
    EXPECT_EQ(sink.GetReferenceCount(), 1);
    QTest::qWait(100);
}

// A sound server that goes away mid-playback and mid-recording: both end on their own with a
// sentence, the play position stays where the sound was heard, and the recording keeps what it
// captured. In a fresh process with a daemon of its own, which it kills.
TEST(AudioDeviceServerGone, PlaybackAndRecordingEndWithAReason) {
    char const* const kChildMark = "TESSEL_AUDIO_SERVER_GONE_CHILD";
    TESSEL_REQUIRE_TOOL("pulseaudio");
    if (RanInAFreshProcess(kChildMark, "AudioDeviceServerGone.*")) {
        return;
    }

    ::setenv("XDG_RUNTIME_DIR", std::getenv(kChildMark), 1);
    ::unsetenv("PULSE_SERVER");
    ASSERT_EQ(RunTool({"pulseaudio", "-D", "-n", "--exit-idle-time=-1", "--system=false",
                       "--load=module-native-protocol-unix",
                       "--load=module-null-sink sink_name=tessel_null rate=48000",
                       "--load=module-remap-source master=tessel_null.monitor "
                       "source_name=tessel_mic"}),
              0);
    LQtAudioOutput output;
    LSoundPlayer player(output);
    LQtAudioInput input("tessel_mic");
    LSoundRecorder recorder(input);
    LSoundSink sink = LMakeSink<LTestCapturingSink>(kRateHz, 2);
    LSoundSource source = MakeTone(20.0);
    std::string error;
    ASSERT_TRUE(player.Play(source, 0, error)) << error;
    ASSERT_TRUE(recorder.Start(sink, kRateHz, 2, error)) << error;
    ASSERT_TRUE(WaitFor(
        [&] {
            recorder.Pump();
            return player.GetPlayPosition() > kRateHz / 4 && recorder.GetRecordedFrames() > 0;
        },
        4000));

    (void)RunTool({"pulseaudio", "--kill"});
    EXPECT_TRUE(WaitFor(
        [&] {
            recorder.Pump();
            return !player.IsPlaying() && !recorder.IsRecording();
        },
        5000));
    EXPECT_TRUE(player.GetError().starts_with("The audio output device stopped during playback ("))
        << player.GetError();
    EXPECT_GT(player.GetPlayPosition(), kRateHz / 4);
    EXPECT_EQ(source.GetReferenceCount(), 1);
    EXPECT_TRUE(
        recorder.GetError().starts_with("The audio input device stopped during recording ("))
        << recorder.GetError();
    EXPECT_GT(sink->GetFramesWritten(), 0);
    EXPECT_EQ(sink.GetReferenceCount(), 1);
}
