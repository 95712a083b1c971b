// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The engine's audio devices over Qt Multimedia. LQtAudioOutput plays an LAudioRing through a
// QAudioSink in pull mode: the sink reads from a QIODevice of ours that takes frames out of the
// ring, converted to the sink's sample format. LQtAudioInput fills an LAudioRing from a
// QAudioSource, which writes into a QIODevice of ours that converts and pushes the frames.
//
// Formats: the rate and channel count asked for, in 32-bit float when the device takes it and
// 16-bit integers otherwise; failing both, the rate and channel count clamped to the device's
// range, then the device's preferred ones, each again float before 16-bit (or 16-bit alone, when
// made with LQtSampleFormats::kInt16Only). Open answers the format chosen. A device is chosen by
// QAudioDevice::id(); an empty id takes the default.
//
// Threads: Qt's audio objects belong to the thread with the event loop that made them, so every
// call comes from the GUI main thread, and the pulls and pushes arrive there too, from that
// thread's event loop. Each device owns its Qt objects and keeps the ring it was started with
// until Stop. Units: frames and Hz. Failures are values: a short reason (no server, no device,
// no format, what QAudio reported) for the player or recorder to put in its sentence.

#include "llib/snd/player.h"

#include <QAudioDevice>
#include <QAudioFormat>
#include <QByteArray>

#include <memory>
#include <string>
#include <vector>

class QAudioSink;
class QAudioSource;
class QIODevice;

// The sample formats a device may be given: 32-bit float where it takes it, else 16-bit; or
// 16-bit only, for a device whose float path is broken.
enum class LQtSampleFormats : unsigned char { kFloatOrInt16, kInt16Only };

// A device the system lists: its id (what the constructors take) and its name for people.
struct LQtAudioDeviceEntry {
    QByteArray id;
    std::string name;
};
[[nodiscard]] std::vector<LQtAudioDeviceEntry> LQtListAudioDevices(bool inputs);

class LQtAudioOutput final : public LAudioOutputDevice {
public:
    explicit LQtAudioOutput(QByteArray deviceId = {},
                            LQtSampleFormats formats = LQtSampleFormats::kFloatOrInt16);
    ~LQtAudioOutput() override;
    LQtAudioOutput(LQtAudioOutput const&) = delete;
    LQtAudioOutput& operator=(LQtAudioOutput const&) = delete;

    [[nodiscard]] bool Open(int rateHz, unsigned channels, LAudioFormat& actual,
                            std::string& error) override;
    [[nodiscard]] bool Start(LAudioRing& ring, std::string& error) override;
    void Stop() override;
    // Qt's count of the microseconds the sink has processed, capped by what it has pulled.
    [[nodiscard]] long long GetPlayedFrames() const override;
    [[nodiscard]] bool HasFailed(std::string& reason) const override;
    [[nodiscard]] QByteArray const& GetDeviceId() const { return m_deviceId; }

private:
    QByteArray m_deviceId;
    LQtSampleFormats m_formats;
    QAudioDevice m_device;
    QAudioFormat m_format;
    std::unique_ptr<QIODevice> m_feed;
    std::unique_ptr<QAudioSink> m_sink;
    LAudioRing* m_ring = nullptr;
    // The most reported since Start: a sink that stopped on an error counts from 0 again.
    mutable long long m_playedHigh = 0;
};

class LQtAudioInput final : public LAudioInputDevice {
public:
    explicit LQtAudioInput(QByteArray deviceId = {},
                           LQtSampleFormats formats = LQtSampleFormats::kFloatOrInt16);
    ~LQtAudioInput() override;
    LQtAudioInput(LQtAudioInput const&) = delete;
    LQtAudioInput& operator=(LQtAudioInput const&) = delete;

    [[nodiscard]] bool Open(int rateHz, unsigned channels, LAudioFormat& actual,
                            std::string& error) override;
    [[nodiscard]] bool Start(LAudioRing& ring, std::string& error) override;
    void Stop() override;
    [[nodiscard]] bool HasFailed(std::string& reason) const override;
    [[nodiscard]] QByteArray const& GetDeviceId() const { return m_deviceId; }

private:
    QByteArray m_deviceId;
    LQtSampleFormats m_formats;
    QAudioDevice m_device;
    QAudioFormat m_format;
    std::unique_ptr<QIODevice> m_feed;
    std::unique_ptr<QAudioSource> m_source;
};
