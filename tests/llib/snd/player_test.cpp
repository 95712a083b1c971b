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

// How a double answers Open and Start: a format of its own (zero fields take what is asked) or
// a failure with a reason.
struct DeviceScript {
    LAudioFormat offer;
    std::string openFailure;
    std::string startFailure;
    LAudioFormat format;
    LAudioRing* ring = nullptr;

    bool Open(int rateHz, unsigned channels, LAudioFormat& actual, std::string& error) {
        if (!openFailure.empty()) {
            error = openFailure;
            return false;
        }
        format.rateHz = offer.rateHz != 0 ? offer.rateHz : rateHz;
        format.channels = offer.channels != 0 ? offer.channels : channels;
        actual = format;
        return true;
    }
    bool Start(LAudioRing& target, std::string& error) {
        if (!startFailure.empty()) {
            error = startFailure;
            return false;
        }
        EXPECT_EQ(target.GetChannels(), format.channels);
        ring = &target;
        return true;
    }
};

// An output whose clock is the test: it plays only when Advance is called.
class TestOutputDevice final : public LAudioOutputDevice {
public:
    bool Open(int rateHz, unsigned channels, LAudioFormat& actual, std::string& error) override {
        return script.Open(rateHz, channels, actual, error);
    }
    bool Start(LAudioRing& ring, std::string& error) override {
        heard.clear();
        m_played = 0;
        return script.Start(ring, error);
    }
    void Stop() override { script.ring = nullptr; }
    long long GetPlayedFrames() const override { return m_played; }

    [[nodiscard]] bool IsRunning() const { return script.ring != nullptr; }
    // Plays `frames` frames in pulls of at most `pullFrames`, waiting for the player thread to
    // queue them; returns the frames played (fewer only when it waited in vain for 10 s).
    long long Advance(long long frames, long long pullFrames = 1000) {
        std::vector<float> pulled(static_cast<std::size_t>(pullFrames) * script.format.channels);
        std::int64_t const deadline = LGetTickMs() + 10000;
        long long done = 0;
        while (done < frames && script.ring != nullptr && LGetTickMs() < deadline) {
            long long const n =
                script.ring->Read(pulled.data(), std::min(pullFrames, frames - done));
            if (n == 0) {
                LSleepMs(1);
                continue;
            }
            heard.insert(heard.end(), pulled.begin(), pulled.begin() + n * script.format.channels);
            done += n;
            m_played += n;
        }
        return done;
    }

    DeviceScript script;
    std::vector<float> heard;

private:
    long long m_played = 0;
};

class TestInputDevice final : public LAudioInputDevice {
public:
    bool Open(int rateHz, unsigned channels, LAudioFormat& actual, std::string& error) override {
        return script.Open(rateHz, channels, actual, error);
    }
    bool Start(LAudioRing& ring, std::string& error) override { return script.Start(ring, error); }
    void Stop() override { script.ring = nullptr; }

    [[nodiscard]] bool IsRunning() const { return script.ring != nullptr; }
    void Capture(std::vector<float> const& samples) {
        ASSERT_NE(script.ring, nullptr);
        (void)script.ring->Write(samples.data(),
                                 static_cast<long long>(samples.size()) / script.format.channels);
    }

    DeviceScript script;
};

std::vector<float> Stairs(long long first, long long frames, unsigned channels) {
    std::vector<float> out;
    for (long long f = first; f < first + frames; ++f) {
        for (unsigned c = 0; c < channels; ++c) {
            out.push_back(StaircaseValue(f, c));
        }
    }
    return out;
}

// A player and a recorder on test devices, as the owner thread holds them.
template <class Base = ::testing::Test>
class PlayerTest : public Base {
protected:
    TestOutputDevice m_device;
    LSoundPlayer m_player{m_device};
    std::string m_error;
};

template <class Base = ::testing::Test>
class RecorderTest : public Base {
protected:
    TestInputDevice m_device;
    LSoundRecorder m_recorder{m_device};
    std::string m_error;
};

class SoundPlayer : public PlayerTest<> {};
class SoundRecorder : public RecorderTest<> {};

struct DeliveryCase {
    int sourceRateHz;
    unsigned char sourceChannels;
    LAudioFormat device; // zero fields: the source's
    long long startFrame;
    long long pullFrames;
};

class PlayerDelivery : public PlayerTest<::testing::TestWithParam<DeliveryCase>> {};

} // namespace

// Sources longer than the ring, pulled in sizes that do not divide it, so every block boundary
// and ring wrap is crossed; the device hears exactly what the converted source reads.
TEST_P(PlayerDelivery, DeviceHearsTheSourceSampleForSample) {
    DeliveryCase const& p = GetParam();
    long long const frames = 100000;
    LSoundSource source =
        LMakeSource<LTestStaircaseSource>(p.sourceRateHz, p.sourceChannels, frames);
    source->Seek(p.startFrame);
    LSoundSource reference =
        LMakeSource<LTestStaircaseSource>(p.sourceRateHz, p.sourceChannels, frames);
    reference->Seek(p.startFrame);
    m_device.script.offer = p.device;
    LAudioFormat const actual{p.device.rateHz != 0 ? p.device.rateHz : p.sourceRateHz,
                              p.device.channels != 0 ? p.device.channels : p.sourceChannels};
    LSPConvertSourceRateChannels(actual.rateHz, static_cast<unsigned char>(actual.channels),
                                 reference);
    std::vector<float> const expected = ReadAll(reference);
    long long const expectedFrames = static_cast<long long>(expected.size()) / actual.channels;

    ASSERT_TRUE(m_player.Play(source, 0, m_error)) << m_error;
    EXPECT_TRUE(m_error.empty());
    EXPECT_EQ(m_device.Advance(expectedFrames, p.pullFrames), expectedFrames);
    EXPECT_FALSE(m_player.IsPlaying());
    ASSERT_EQ(m_device.heard.size(), expected.size());
    EXPECT_TRUE(m_device.heard == expected)
        << "the first difference is at sample "
        << std::mismatch(m_device.heard.begin(), m_device.heard.end(), expected.begin()).first -
               m_device.heard.begin();
}

INSTANTIATE_TEST_SUITE_P(SoundPlayer, PlayerDelivery,
                         ::testing::Values(DeliveryCase{44100, 2, {}, 0, 777},
                                           DeliveryCase{44100, 1, {}, 12345, 4096},
                                           DeliveryCase{22050, 1, {44100, 2}, 0, 1000},
                                           DeliveryCase{48000, 2, {44100, 1}, 3000, 513}));

struct PositionCase {
    int deviceRateHz;
    long long playedFrames;
    long long expectedPosition;
};

class PlayerPosition : public PlayerTest<::testing::TestWithParam<PositionCase>> {};

// A 48 kHz source at frame 1000 whose frame 0 is document frame 5000.
TEST_P(PlayerPosition, FollowsWhatTheDevicePlayedInDocumentFrames) {
    PositionCase const& p = GetParam();
    LSoundSource source = LMakeSource<LTestStaircaseSource>(48000, 2, 96000);
    source->Seek(1000);
    m_device.script.offer.rateHz = p.deviceRateHz;
    ASSERT_TRUE(m_player.Play(source, 5000, m_error)) << m_error;
    EXPECT_EQ(m_player.GetPlayPosition(), 6000);
    ASSERT_EQ(m_device.Advance(p.playedFrames), p.playedFrames);
    EXPECT_EQ(m_player.GetPlayPosition(), p.expectedPosition);
    m_player.Stop();
    EXPECT_EQ(m_player.GetPlayPosition(), p.expectedPosition);
}

INSTANTIATE_TEST_SUITE_P(SoundPlayer, PlayerPosition,
                         ::testing::Values(PositionCase{48000, 1, 6001},
                                           PositionCase{48000, 3000, 9000},
                                           PositionCase{96000, 3000, 7500},
                                           PositionCase{32000, 3000, 10500},
                                           PositionCase{44100, 44100, 54000}));

TEST_F(SoundPlayer, HearingTheLastFrameEndsPlaybackAndFreesTheDevice) {
    LSoundSource source = LMakeSource<LTestStaircaseSource>(44100, 2, 5000);
    ASSERT_TRUE(m_player.Play(source, 100, m_error)) << m_error;
    ASSERT_EQ(m_device.Advance(4999), 4999);
    EXPECT_TRUE(m_player.IsPlaying());
    EXPECT_EQ(m_player.GetPlayPosition(), 5099);
    ASSERT_EQ(m_device.Advance(1), 1);
    EXPECT_FALSE(m_player.IsPlaying());
    EXPECT_FALSE(m_device.IsRunning());
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
    ASSERT_EQ(m_device.Advance(1000), 1000);
    // The ring fills while the thread waits for room: Stop must wake it out of that wait.
    LSleepMs(50);
    m_player.Stop();
    EXPECT_FALSE(m_player.IsPlaying());
    EXPECT_FALSE(m_device.IsRunning());
    EXPECT_EQ(source.GetReferenceCount(), 1);
    EXPECT_EQ(m_player.GetPlayPosition(), 1000);
    m_player.Stop();
    EXPECT_EQ(m_player.GetPlayPosition(), 1000);

    // Playing again starts from wherever the source now stands.
    source->Seek(500);
    ASSERT_TRUE(m_player.Play(source, 0, m_error)) << m_error;
    ASSERT_EQ(m_device.Advance(3), 3);
    EXPECT_EQ(m_device.heard, Stairs(500, 3, 1));
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

struct FailureCase {
    char const* openFailure;
    char const* startFailure;
    char const* expectedError;
};

class PlayerFailure : public PlayerTest<::testing::TestWithParam<FailureCase>> {};

TEST_P(PlayerFailure, DeviceThatCannotStartGivesASentenceAndPlaysNothing) {
    FailureCase const& p = GetParam();
    LSoundSource source = LMakeSource<LTestStaircaseSource>(44100, 2, 44100);
    m_device.script.openFailure = p.openFailure;
    m_device.script.startFailure = p.startFailure;
    EXPECT_FALSE(m_player.Play(source, 0, m_error));
    EXPECT_EQ(m_error, p.expectedError);
    EXPECT_FALSE(m_player.IsPlaying());
    EXPECT_FALSE(m_device.IsRunning());
    EXPECT_EQ(source.GetReferenceCount(), 1);
    EXPECT_EQ(source->GetPositionSample(), 0) << "the source was read";
}

INSTANTIATE_TEST_SUITE_P(
    SoundPlayer, PlayerFailure,
    ::testing::Values(
        FailureCase{"the sound server is not running", "",
                    "No audio output device is available (the sound server is not running)."},
        FailureCase{"", "the device is busy",
                    "The audio output device could not start (the device is busy)."}));

// The device's data arrives between pumps in uneven pieces; the sink gets it all, in order,
// including what Stop pumps last.
TEST_F(SoundRecorder, SinkReceivesExactlyWhatTheDeviceCapturedAcrossPumps) {
    LSoundSink sink = LMakeSink<LTestCapturingSink>(48000, 2);
    ASSERT_TRUE(m_recorder.Start(sink, 48000, 2, m_error)) << m_error;
    EXPECT_TRUE(m_recorder.IsRecording());
    m_recorder.Pump();
    long long first = 0;
    for (long long const frames : {1LL, 1000LL, 4097LL, 3LL, 9000LL}) {
        m_device.Capture(Stairs(first, frames, 2));
        first += frames;
        if (frames != 4097) {
            m_recorder.Pump();
        }
    }
    EXPECT_EQ(m_recorder.GetRecordedFrames(), first);
    m_device.Capture(Stairs(first, 77, 2));
    m_recorder.Stop();
    EXPECT_FALSE(m_recorder.IsRecording());
    EXPECT_FALSE(m_device.IsRunning());
    EXPECT_EQ(m_recorder.GetRecordedFrames(), first + 77);
    EXPECT_EQ(m_recorder.GetLostFrames(), 0);
    EXPECT_EQ(sink.GetAs<LTestCapturingSink>()->GetSamples(), Stairs(0, first + 77, 2));
    EXPECT_EQ(sink.GetReferenceCount(), 1) << "the recorder still holds the sink";
}

TEST_F(SoundRecorder, LevelMeterGivesEachChannelsPeakSinceTheLastCall) {
    LSoundSink sink = LMakeSink<LTestCapturingSink>(44100, 2);
    ASSERT_TRUE(m_recorder.Start(sink, 44100, 2, m_error)) << m_error;
    std::vector<float> loud = MakeNoise(2, 3000, 0.5, 7);
    loud[2 * 1234 + 1] = -0.875f;
    m_device.Capture(loud);
    m_recorder.Pump();
    float left = 0.0f;
    for (std::size_t k = 0; k < loud.size(); k += 2) {
        left = std::max(left, std::abs(loud[k]));
    }
    EXPECT_EQ(m_recorder.TakePeakLevel(0), left);
    EXPECT_EQ(m_recorder.TakePeakLevel(1), 0.875f);
    EXPECT_EQ(m_recorder.TakePeakLevel(1), 0.0f) << "the peak was not reset by the last call";
    m_device.Capture({0.125f, -0.25f, 0.0625f, 0.0f});
    m_recorder.Pump();
    EXPECT_EQ(m_recorder.TakePeakLevel(0), 0.125f);
    EXPECT_EQ(m_recorder.TakePeakLevel(1), 0.25f);
    EXPECT_EQ(m_recorder.TakePeakLevel(2), 0.0f);
    m_recorder.Stop();
}

struct ChannelCase {
    unsigned deviceChannels;
    unsigned sinkChannels;
    std::vector<float> expectedFrame;
};

class RecorderChannels : public RecorderTest<::testing::TestWithParam<ChannelCase>> {};

// One captured frame of 0.5, -0.25, 0.125 (as many as the device has).
TEST_P(RecorderChannels, DeviceChannelsAreFittedToTheSink) {
    ChannelCase const& p = GetParam();
    m_device.script.offer.channels = p.deviceChannels;
    LSoundSink sink =
        LMakeSink<LTestCapturingSink>(16000, static_cast<unsigned char>(p.sinkChannels));
    ASSERT_TRUE(m_recorder.Start(sink, 16000, p.sinkChannels, m_error)) << m_error;
    std::vector<float> const frame{0.5f, -0.25f, 0.125f};
    m_device.Capture(std::vector<float>(frame.begin(), frame.begin() + p.deviceChannels));
    m_recorder.Stop();
    EXPECT_EQ(sink.GetAs<LTestCapturingSink>()->GetSamples(), p.expectedFrame);
}

INSTANTIATE_TEST_SUITE_P(SoundRecorder, RecorderChannels,
                         ::testing::Values(ChannelCase{1, 2, {0.5f, 0.5f}},
                                           ChannelCase{2, 1, {0.125f}}, ChannelCase{3, 1, {0.125f}},
                                           ChannelCase{3, 2, {0.5f, -0.25f}},
                                           ChannelCase{2, 4, {0.5f, -0.25f, 0.5f, -0.25f}}));

struct StartFailureCase {
    LAudioFormat offer;
    char const* openFailure;
    char const* startFailure;
    int sinkRateHz;
    char const* expectedError;
};

class RecorderStartFailure : public RecorderTest<::testing::TestWithParam<StartFailureCase>> {};

TEST_P(RecorderStartFailure, GivesASentenceAndHoldsNothing) {
    StartFailureCase const& p = GetParam();
    m_device.script.offer = p.offer;
    m_device.script.openFailure = p.openFailure;
    m_device.script.startFailure = p.startFailure;
    LSoundSink sink = LMakeSink<LTestCapturingSink>(p.sinkRateHz, 2);
    EXPECT_FALSE(m_recorder.Start(sink, 48000, 2, m_error));
    EXPECT_EQ(m_error, p.expectedError);
    EXPECT_FALSE(m_recorder.IsRecording());
    EXPECT_FALSE(m_device.IsRunning());
    EXPECT_EQ(sink.GetReferenceCount(), 1);
}

INSTANTIATE_TEST_SUITE_P(
    SoundRecorder, RecorderStartFailure,
    ::testing::Values(
        StartFailureCase{{},
                         "no input device was found",
                         "",
                         48000,
                         "No audio input device is available (no input device was found)."},
        StartFailureCase{{},
                         "",
                         "the device is busy",
                         48000,
                         "The audio input device could not start (the device is busy)."},
        StartFailureCase{{44100, 2},
                         "",
                         "",
                         48000,
                         "The audio input device cannot record at 48000 Hz (it offers 44100 Hz "
                         "and 2 channels)."},
        StartFailureCase{{},
                         "",
                         "",
                         44100,
                         "The recording's destination takes 44100 Hz and 2 channels, not 48000 "
                         "Hz and 2."}));

TEST_F(SoundRecorder, SinkThatFailsEndsTheRecordingWithAReason) {
    LSoundSink sink = LMakeSink<LTestCapturingSink>(48000, 1, 2);
    ASSERT_TRUE(m_recorder.Start(sink, 48000, 1, m_error)) << m_error;
    m_device.Capture(Stairs(0, 100, 1));
    m_recorder.Pump();
    EXPECT_TRUE(m_recorder.IsRecording());
    m_device.Capture(Stairs(100, 100, 1));
    m_recorder.Pump();
    EXPECT_FALSE(m_recorder.IsRecording());
    EXPECT_FALSE(m_recorder.GetError().empty());
    EXPECT_FALSE(m_device.IsRunning());
    EXPECT_EQ(m_recorder.GetRecordedFrames(), 100);
    EXPECT_EQ(sink.GetReferenceCount(), 1);
}

// An owner that stops pumping loses only what arrives once the device's store is full, and the
// recorder says how much.
TEST_F(SoundRecorder, FramesBeyondWhatTheDeviceKeepsAreCountedAsLost) {
    LSoundSink sink = LMakeSink<LTestCapturingSink>(8000, 1);
    ASSERT_TRUE(m_recorder.Start(sink, 8000, 1, m_error)) << m_error;
    m_device.Capture(Stairs(0, 100000, 1));
    m_recorder.Stop();
    long long const kept = m_recorder.GetRecordedFrames();
    EXPECT_GT(kept, 0);
    EXPECT_GT(m_recorder.GetLostFrames(), 0);
    EXPECT_EQ(kept + m_recorder.GetLostFrames(), 100000);
    EXPECT_EQ(sink.GetAs<LTestCapturingSink>()->GetSamples(), Stairs(0, kept, 1));
}
