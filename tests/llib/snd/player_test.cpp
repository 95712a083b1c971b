// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/player.h"

#include "llib/snd/recorder.h"
#include "llib/snd/sinkconvchannels.h"
#include "tests/support/testsinks.h"
#include "tests/support/testsources.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

// A device double that answers Open with a format of its own (zero fields take what is asked)
// or a failure, and Start with success or a failure; it stays open until Stop.
template <class Device>
class ScriptedDevice : public Device {
public:
    bool Open(int rateHz, unsigned channels, LAudioFormat& actual, std::string& error) override {
        format = {offer.rateHz != 0 ? offer.rateHz : rateHz,
                  offer.channels != 0 ? offer.channels : channels};
        actual = format;
        error = openFailure;
        m_open = openFailure.empty();
        return m_open;
    }
    bool Start(LAudioRing& target, std::string& error) override {
        EXPECT_EQ(target.GetChannels(), format.channels);
        error = startFailure;
        ring = startFailure.empty() ? &target : nullptr;
        return ring != nullptr;
    }
    void Stop() override {
        ring = nullptr;
        m_open = false;
    }
    bool HasFailed(std::string& reason) const override {
        reason = runFailure;
        return ring != nullptr && !runFailure.empty();
    }
    // Open and not yet stopped: a failed Start must still be followed by Stop.
    [[nodiscard]] bool IsOpen() const { return m_open; }

    LAudioFormat offer;
    std::string openFailure;
    std::string startFailure;
    std::string runFailure; // once set, the started device has stopped on its own
    LAudioFormat format;
    LAudioRing* ring = nullptr;

private:
    bool m_open = false;
};

// An output whose clock is the test: it plays only when Advance is called.
class TestOutputDevice final : public ScriptedDevice<LAudioOutputDevice> {
public:
    bool Start(LAudioRing& target, std::string& error) override {
        heard.clear();
        m_played = 0;
        return ScriptedDevice::Start(target, error);
    }
    long long GetPlayedFrames() const override { return m_played; }

    // Plays `frames` frames in pulls of at most `pullFrames`, waiting for the player thread to
    // queue them; returns the frames played (fewer only when it waited in vain for 10 s).
    long long Advance(long long frames, long long pullFrames = 1000) {
        std::vector<float> pulled(static_cast<std::size_t>(pullFrames) * format.channels);
        std::int64_t const deadline = LGetTickMs() + 10000;
        long long done = 0;
        while (done < frames && ring != nullptr && LGetTickMs() < deadline) {
            long long const n = ring->Read(pulled.data(), std::min(pullFrames, frames - done));
            if (n == 0) {
                LSleepMs(1);
                continue;
            }
            heard.insert(heard.end(), pulled.begin(), pulled.begin() + n * format.channels);
            done += n;
            m_played += n;
        }
        return done;
    }

    std::vector<float> heard;

private:
    long long m_played = 0;
};

class TestInputDevice final : public ScriptedDevice<LAudioInputDevice> {
public:
    void Capture(std::vector<float> const& samples) {
        ASSERT_NE(ring, nullptr);
        (void)ring->Write(samples.data(), static_cast<long long>(samples.size()) / format.channels);
    }
};

std::vector<float> Stairs(long long first, long long frames, unsigned char channels) {
    LSoundSource source = LMakeSource<LTestStaircaseSource>(8000, channels, first + frames);
    source->Seek(first);
    return ReadAll(source);
}

// A player and a recorder on test devices, as the owner thread holds them.
class SoundDeviceTest : public ::testing::Test {
protected:
    TestOutputDevice m_output;
    LSoundPlayer m_player{m_output};
    TestInputDevice m_input;
    LSoundRecorder m_recorder{m_input};
    std::string m_error;
};

using SoundPlayer = SoundDeviceTest;
using SoundRecorder = SoundDeviceTest;

// Sources longer than the ring, pulled in sizes that do not divide it, so every block boundary
// and ring wrap is crossed; the device hears exactly what the converted source reads.
TEST_F(SoundPlayer, DeviceHearsTheSourceSampleForSample) {
    struct Case {
        int sourceRateHz;
        unsigned char sourceChannels;
        int deviceRateHz;
        unsigned deviceChannels;
        long long startFrame;
        long long pullFrames;
    };
    for (Case const& c : {Case{44100, 2, 44100, 2, 0, 777}, Case{44100, 1, 44100, 1, 12345, 4096},
                          Case{22050, 1, 44100, 2, 0, 1000}, Case{48000, 2, 44100, 1, 3000, 513}}) {
        SCOPED_TRACE(c.pullFrames);
        LSoundSource source =
            LMakeSource<LTestStaircaseSource>(c.sourceRateHz, c.sourceChannels, 100000);
        source->Seek(c.startFrame);
        LSoundSource reference =
            LMakeSource<LTestStaircaseSource>(c.sourceRateHz, c.sourceChannels, 100000);
        reference->Seek(c.startFrame);
        m_output.offer = {c.deviceRateHz, c.deviceChannels};
        LSPConvertSourceRateChannels(c.deviceRateHz, static_cast<unsigned char>(c.deviceChannels),
                                     reference);
        std::vector<float> const expected = ReadAll(reference);
        long long const expectedFrames = static_cast<long long>(expected.size()) / c.deviceChannels;

        ASSERT_TRUE(m_player.Play(source, 0, m_error)) << m_error;
        EXPECT_EQ(m_output.Advance(expectedFrames, c.pullFrames), expectedFrames);
        ASSERT_EQ(m_output.heard.size(), expected.size());
        EXPECT_TRUE(m_output.heard == expected)
            << "the first difference is at sample "
            << std::mismatch(m_output.heard.begin(), m_output.heard.end(), expected.begin()).first -
                   m_output.heard.begin();
    }
}

// A 48 kHz source at frame 1000 whose frame 0 is document frame 5000.
TEST_F(SoundPlayer, PositionFollowsWhatTheDevicePlayedInDocumentFrames) {
    struct Case {
        int deviceRateHz;
        long long playedFrames;
        long long expectedPosition;
    };
    for (Case const& c : {Case{48000, 1, 6001}, Case{48000, 3000, 9000}, Case{96000, 3000, 7500},
                          Case{32000, 3000, 10500}, Case{44100, 44100, 54000}}) {
        SCOPED_TRACE(c.deviceRateHz);
        LSoundSource source = LMakeSource<LTestStaircaseSource>(48000, 2, 96000);
        source->Seek(1000);
        m_output.offer.rateHz = c.deviceRateHz;
        ASSERT_TRUE(m_player.Play(source, 5000, m_error)) << m_error;
        EXPECT_EQ(m_player.GetPlayPosition(), 6000);
        ASSERT_EQ(m_output.Advance(c.playedFrames), c.playedFrames);
        EXPECT_EQ(m_player.GetPlayPosition(), c.expectedPosition);
        m_player.Stop();
        EXPECT_EQ(m_player.GetPlayPosition(), c.expectedPosition);
    }
}

TEST_F(SoundPlayer, HearingTheLastFrameEndsPlaybackAndFreesTheDevice) {
    LSoundSource source = LMakeSource<LTestStaircaseSource>(44100, 2, 5000);
    ASSERT_TRUE(m_player.Play(source, 100, m_error)) << m_error;
    ASSERT_EQ(m_output.Advance(4999), 4999);
    EXPECT_TRUE(m_player.IsPlaying());
    EXPECT_EQ(m_player.GetPlayPosition(), 5099);
    ASSERT_EQ(m_output.Advance(1), 1);
    EXPECT_FALSE(m_player.IsPlaying());
    EXPECT_FALSE(m_output.IsOpen());
    EXPECT_EQ(m_player.GetPlayPosition(), 5100);
    EXPECT_EQ(source.GetReferenceCount(), 1) << "the player still holds the source";

    // A source already at its end has nothing to play.
    source->Seek(5000);
    ASSERT_TRUE(m_player.Play(source, 0, m_error)) << m_error;
    EXPECT_FALSE(m_player.IsPlaying());
    EXPECT_EQ(m_player.GetPlayPosition(), 5000);
}

TEST_F(SoundPlayer, StopMidwayReleasesTheSourceAndKeepsThePosition) {
    LSoundSource source = LMakeSource<LTestStaircaseSource>(44100, 1, 441000);
    ASSERT_TRUE(m_player.Play(source, 0, m_error)) << m_error;
    ASSERT_EQ(m_output.Advance(1000), 1000);
    // The ring fills while the thread waits for room: Stop must wake it out of that wait.
    LSleepMs(50);
    m_player.Stop();
    EXPECT_FALSE(m_player.IsPlaying());
    EXPECT_FALSE(m_output.IsOpen());
    EXPECT_EQ(source.GetReferenceCount(), 1);
    EXPECT_EQ(m_player.GetPlayPosition(), 1000);
    m_player.Stop();
    EXPECT_EQ(m_player.GetPlayPosition(), 1000);

    // Playing again starts from wherever the source now stands.
    source->Seek(500);
    ASSERT_TRUE(m_player.Play(source, 0, m_error)) << m_error;
    ASSERT_EQ(m_output.Advance(3), 3);
    EXPECT_EQ(m_output.heard, Stairs(500, 3, 1));
    EXPECT_EQ(m_player.GetPlayPosition(), 503);
    {
        // A player destroyed while playing stops like Stop.
        TestOutputDevice other;
        LSoundPlayer second(other);
        LSoundSource another = LMakeSource<LTestStaircaseSource>(44100, 1, 441000);
        ASSERT_TRUE(second.Play(another, 0, m_error)) << m_error;
    }
    m_player.Stop();
    EXPECT_EQ(source.GetReferenceCount(), 1);
}

// A sound server that goes away mid-playback: the playback ends where it was heard, with a
// sentence, the source released and the device closed; the next Play starts clean.
TEST_F(SoundPlayer, DeviceFailingWhilePlayingEndsThePlaybackWithASentence) {
    LSoundSource source = LMakeSource<LTestStaircaseSource>(44100, 1, 441000);
    ASSERT_TRUE(m_player.Play(source, 200, m_error)) << m_error;
    ASSERT_EQ(m_output.Advance(1000), 1000);
    LSleepMs(50); // the thread fills the ring and waits for room that will not come
    m_output.runFailure = "the sound server went away";
    EXPECT_FALSE(m_player.IsPlaying());
    EXPECT_EQ(m_player.GetError(),
              "The audio output device stopped during playback (the sound server went away).");
    EXPECT_EQ(m_player.GetPlayPosition(), 1200);
    EXPECT_FALSE(m_output.IsOpen());
    EXPECT_EQ(source.GetReferenceCount(), 1);

    m_output.runFailure.clear();
    ASSERT_TRUE(m_player.Play(source, 0, m_error)) << m_error;
    EXPECT_TRUE(m_player.GetError().empty());
    EXPECT_TRUE(m_player.IsPlaying());
}

TEST_F(SoundPlayer, DeviceThatCannotStartGivesASentenceAndPlaysNothing) {
    struct Case {
        unsigned offeredChannels;
        char const* openFailure;
        char const* startFailure;
        char const* expectedError;
    };
    for (Case const& c :
         {Case{0, "the sound server is not running", "",
               "No audio output device is available (the sound server is not running)."},
          Case{0, "", "the device is busy",
               "The audio output device could not start (the device is busy)."},
          Case{256, "", "",
               "The audio output device offers no usable format (44100 Hz, 256 channels)."}}) {
        SCOPED_TRACE(c.expectedError);
        LSoundSource source = LMakeSource<LTestStaircaseSource>(44100, 2, 44100);
        m_output.offer.channels = c.offeredChannels;
        m_output.openFailure = c.openFailure;
        m_output.startFailure = c.startFailure;
        EXPECT_FALSE(m_player.Play(source, 0, m_error));
        EXPECT_EQ(m_error, c.expectedError);
        EXPECT_FALSE(m_player.IsPlaying());
        EXPECT_FALSE(m_output.IsOpen());
        EXPECT_EQ(source.GetReferenceCount(), 1);
        EXPECT_EQ(source->GetPositionSample(), 0) << "the source was read";
    }
}

// The device's data arrives between pumps in uneven pieces; the sink gets it all, in order,
// including what Stop pumps last.
TEST_F(SoundRecorder, SinkReceivesExactlyWhatTheDeviceCapturedAcrossPumps) {
    LSoundSink sink = LMakeSink<LTestCapturingSink>(48000, 2);
    ASSERT_TRUE(m_recorder.Start(sink, 48000, 2, m_error)) << m_error;
    m_recorder.Pump();
    long long first = 0;
    for (long long const frames : {1LL, 1000LL, 4097LL, 3LL, 9000LL}) {
        m_input.Capture(Stairs(first, frames, 2));
        first += frames;
        if (frames != 4097) {
            m_recorder.Pump();
        }
    }
    EXPECT_EQ(m_recorder.GetRecordedFrames(), first);
    m_input.Capture(Stairs(first, 77, 2));
    m_recorder.Stop();
    EXPECT_FALSE(m_recorder.IsRecording());
    EXPECT_FALSE(m_input.IsOpen());
    EXPECT_EQ(m_recorder.GetRecordedFrames(), first + 77);
    EXPECT_EQ(m_recorder.GetLostFrames(), 0);
    EXPECT_EQ(sink.GetAs<LTestCapturingSink>()->GetSamples(), Stairs(0, first + 77, 2));
    EXPECT_EQ(sink.GetReferenceCount(), 1) << "the recorder still holds the sink";
}

TEST_F(SoundRecorder, LevelMeterGivesEachChannelsPeakSinceTheLastCall) {
    LSoundSink sink = LMakeSink<LTestCapturingSink>(44100, 2);
    ASSERT_TRUE(m_recorder.Start(sink, 44100, 2, m_error)) << m_error;
    m_input.Capture({0.5f, -0.25f, -0.75f, 0.125f, 0.25f, -0.875f});
    m_recorder.Pump();
    EXPECT_EQ(m_recorder.TakePeakLevel(0), 0.75f);
    EXPECT_EQ(m_recorder.TakePeakLevel(1), 0.875f);
    EXPECT_EQ(m_recorder.TakePeakLevel(1), 0.0f) << "the peak was not reset by the last call";
    m_input.Capture({0.125f, -0.25f, 0.0625f, 0.0f});
    m_recorder.Pump();
    EXPECT_EQ(m_recorder.TakePeakLevel(0), 0.125f);
    EXPECT_EQ(m_recorder.TakePeakLevel(1), 0.25f);
    EXPECT_EQ(m_recorder.TakePeakLevel(2), 0.0f);
}

// One captured frame of 0.5, -0.25, 0.125 (as many as the device has).
TEST_F(SoundRecorder, DeviceChannelsAreFittedToTheSink) {
    struct Case {
        unsigned deviceChannels;
        unsigned char sinkChannels;
        std::vector<float> expectedFrame;
    };
    for (Case const& c : {Case{1, 2, {0.5f, 0.5f}}, Case{2, 1, {0.125f}}, Case{3, 1, {0.125f}},
                          Case{3, 2, {0.5f, -0.25f}}, Case{2, 4, {0.5f, -0.25f, 0.5f, -0.25f}}}) {
        SCOPED_TRACE(c.deviceChannels * 10 + c.sinkChannels);
        m_input.offer.channels = c.deviceChannels;
        LSoundSink sink = LMakeSink<LTestCapturingSink>(16000, c.sinkChannels);
        ASSERT_TRUE(m_recorder.Start(sink, 16000, c.sinkChannels, m_error)) << m_error;
        std::vector<float> const frame{0.5f, -0.25f, 0.125f};
        m_input.Capture(std::vector<float>(frame.begin(), frame.begin() + c.deviceChannels));
        m_recorder.Stop();
        EXPECT_EQ(sink.GetAs<LTestCapturingSink>()->GetSamples(), c.expectedFrame);
    }
}

TEST_F(SoundRecorder, StartFailureGivesASentenceAndHoldsNothing) {
    struct Case {
        int offeredRateHz;
        char const* openFailure;
        char const* startFailure;
        int sinkRateHz;
        int rateHz;
        char const* expectedError;
    };
    for (Case const& c :
         {Case{0, "no input device was found", "", 48000, 48000,
               "No audio input device is available (no input device was found)."},
          Case{0, "", "the device is busy", 48000, 48000,
               "The audio input device could not start (the device is busy)."},
          Case{44100, "", "", 48000, 48000,
               "The audio input device cannot record at 48000 Hz (it offers 44100 Hz and 2 "
               "channels)."},
          Case{0, "", "", 44100, 48000,
               "The recording's destination takes 44100 Hz and 2 channels, not 48000 Hz and 2."},
          Case{0, "", "", 48000, 0,
               "Recording needs a positive rate and 1 to 255 channels (asked for 0 Hz and 2 "
               "channels)."}}) {
        SCOPED_TRACE(c.expectedError);
        m_input.offer.rateHz = c.offeredRateHz;
        m_input.openFailure = c.openFailure;
        m_input.startFailure = c.startFailure;
        LSoundSink sink = LMakeSink<LTestCapturingSink>(c.sinkRateHz, 2);
        EXPECT_FALSE(m_recorder.Start(sink, c.rateHz, 2, m_error));
        EXPECT_EQ(m_error, c.expectedError);
        EXPECT_FALSE(m_recorder.IsRecording());
        EXPECT_FALSE(m_input.IsOpen());
        EXPECT_EQ(sink.GetReferenceCount(), 1);
    }
}

TEST_F(SoundRecorder, SinkThatFailsEndsTheRecordingWithAReason) {
    LSoundSink sink = LMakeSink<LTestCapturingSink>(48000, 1, 2);
    ASSERT_TRUE(m_recorder.Start(sink, 48000, 1, m_error)) << m_error;
    m_input.Capture(Stairs(0, 100, 1));
    m_recorder.Pump();
    EXPECT_TRUE(m_recorder.IsRecording());
    m_input.Capture(Stairs(100, 100, 1));
    m_recorder.Pump();
    EXPECT_FALSE(m_recorder.IsRecording());
    EXPECT_FALSE(m_recorder.GetError().empty());
    EXPECT_FALSE(m_input.IsOpen());
    EXPECT_EQ(m_recorder.GetRecordedFrames(), 100);
    EXPECT_EQ(sink.GetReferenceCount(), 1);
}

// An input that fails mid-recording: what it captured before is still written, then the
// recording ends with a sentence and lets the sink and the device go.
TEST_F(SoundRecorder, DeviceFailingWhileRecordingKeepsWhatItCaptured) {
    LSoundSink sink = LMakeSink<LTestCapturingSink>(8000, 1);
    ASSERT_TRUE(m_recorder.Start(sink, 8000, 1, m_error)) << m_error;
    m_input.Capture(Stairs(0, 300, 1));
    m_recorder.Pump();
    m_input.Capture(Stairs(300, 200, 1));
    m_input.runFailure = "the device was unplugged";
    m_recorder.Pump();
    EXPECT_FALSE(m_recorder.IsRecording());
    EXPECT_EQ(m_recorder.GetError(),
              "The audio input device stopped during recording (the device was unplugged).");
    EXPECT_EQ(m_recorder.GetRecordedFrames(), 500);
    EXPECT_EQ(sink.GetAs<LTestCapturingSink>()->GetSamples(), Stairs(0, 500, 1));
    EXPECT_FALSE(m_input.IsOpen());
    EXPECT_EQ(sink.GetReferenceCount(), 1);
}

// An owner that stops pumping loses only what arrives once the device's store is full, and the
// recorder says how much.
TEST_F(SoundRecorder, FramesBeyondWhatTheDeviceKeepsAreCountedAsLost) {
    LSoundSink sink = LMakeSink<LTestCapturingSink>(8000, 1);
    ASSERT_TRUE(m_recorder.Start(sink, 8000, 1, m_error)) << m_error;
    m_input.Capture(Stairs(0, 100000, 1));
    m_recorder.Stop();
    long long const kept = m_recorder.GetRecordedFrames();
    EXPECT_GT(kept, 0);
    EXPECT_GT(m_recorder.GetLostFrames(), 0);
    EXPECT_EQ(kept + m_recorder.GetLostFrames(), 100000);
    EXPECT_EQ(sink.GetAs<LTestCapturingSink>()->GetSamples(), Stairs(0, kept, 1));
}

} // namespace
