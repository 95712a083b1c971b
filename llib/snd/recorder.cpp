// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/recorder.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace {

// Two seconds at the device's rate: forty missed pumps before anything is lost, so a GUI
// thread busy with a redraw or a dialog does not cost audio.
constexpr long long kRingSeconds = 2;
constexpr long long kMinRingFrames = 16384;
constexpr long long kBlockFrames = 4096;

} // namespace

LSoundRecorder::LSoundRecorder(LAudioInputDevice& device) : m_device(device) {}

LSoundRecorder::~LSoundRecorder() {
    Stop();
}

bool LSoundRecorder::Start(LSoundSink const& sink, int rateHz, unsigned channels,
                           std::string& error) {
    Stop();
    error.clear();
    m_error.clear();
    if (rateHz < 1 || channels < 1 || channels > 255) {
        error = "Recording needs a positive rate and 1 to 255 channels (asked for " +
                std::to_string(rateHz) + " Hz and " + std::to_string(channels) + " channels).";
        return false;
    }
    if (sink->GetSampleRate() != rateHz || sink->GetChannels() != channels) {
        error = "The recording's destination takes " + std::to_string(sink->GetSampleRate()) +
                " Hz and " + std::to_string(sink->GetChannels()) + " channels, not " +
                std::to_string(rateHz) + " Hz and " + std::to_string(channels) + ".";
        return false;
    }
    if (sink->IsFailed()) {
        error = "The recording's destination cannot be written.";
        return false;
    }
    LAudioFormat actual;
    std::string reason;
    if (!m_device.Open(rateHz, channels, actual, reason)) {
        error = "No audio input device is available (" + reason + ").";
        return false;
    }
    if (actual.rateHz != rateHz || actual.channels < 1 || actual.channels > 255) {
        m_device.Stop();
        error = "The audio input device cannot record at " + std::to_string(rateHz) +
                " Hz (it offers " + std::to_string(actual.rateHz) + " Hz and " +
                std::to_string(actual.channels) + " channels).";
        return false;
    }

    m_deviceChannels = actual.channels;
    m_channels = channels;
    m_ring = std::make_unique<LAudioRing>(std::max(kMinRingFrames, kRingSeconds * rateHz),
                                          m_deviceChannels);
    m_captured.assign(static_cast<std::size_t>(kBlockFrames) * m_deviceChannels, 0.0f);
    m_mapped.assign(
        m_deviceChannels == m_channels ? 0 : static_cast<std::size_t>(kBlockFrames) * m_channels,
        0.0f);
    m_peaks.assign(m_channels, 0.0f);
    m_recordedFrames = 0;
    if (!m_device.Start(*m_ring, reason)) {
        m_device.Stop();
        m_ring.reset();
        error = "The audio input device could not start (" + reason + ").";
        return false;
    }
    m_sink = sink;
    m_deviceRunning = true;
    m_recording = true;
    return true;
}

void LSoundRecorder::MoveBlock(long long frames) {
    float const* out = m_captured.data();
    if (m_deviceChannels != m_channels) {
        unsigned const from = m_deviceChannels;
        for (long long f = 0; f < frames; ++f) {
            float const* in = m_captured.data() + f * from;
            float* mapped = m_mapped.data() + f * m_channels;
            if (m_channels == 1) {
                float sum = 0.0f;
                for (unsigned c = 0; c < from; ++c) {
                    sum += in[c];
                }
                mapped[0] = sum / static_cast<float>(from);
            } else {
                for (unsigned c = 0; c < m_channels; ++c) {
                    mapped[c] = in[c % from];
                }
            }
        }
        out = m_mapped.data();
    }
    for (long long f = 0; f < frames; ++f) {
        for (unsigned c = 0; c < m_channels; ++c) {
            m_peaks[c] = std::max(m_peaks[c], std::fabs(out[f * m_channels + c]));
        }
    }
    m_sink->Write(out, frames);
    if (m_sink->IsFailed()) {
        m_error = "The recording stopped because its audio could not be written (the disk may "
                  "be full).";
        return;
    }
    m_recordedFrames += frames;
}

void LSoundRecorder::Pump() {
    if (!m_recording) {
        return;
    }
    // A device that failed captures nothing more: what it did capture is still moved.
    std::string reason;
    bool const deviceFailed = m_deviceRunning && m_device.HasFailed(reason);
    if (deviceFailed) {
        StopDevice();
    }
    long long frames = 0;
    while ((frames = m_ring->Read(m_captured.data(), kBlockFrames)) > 0) {
        MoveBlock(frames);
        if (!m_error.empty()) {
            StopDevice();
            m_sink.Close();
            m_recording = false;
            return;
        }
    }
    if (deviceFailed) {
        m_error = "The audio input device stopped during recording (" + reason + ").";
        m_sink.Close();
        m_recording = false;
    }
}

void LSoundRecorder::StopDevice() {
    if (m_deviceRunning) {
        m_device.Stop();
        m_deviceRunning = false;
    }
}

void LSoundRecorder::Stop() {
    // The device stops first, so the last pump takes everything it captured.
    StopDevice();
    Pump();
    m_sink.Close();
    m_recording = false;
}

long long LSoundRecorder::GetLostFrames() const {
    return m_ring ? m_ring->GetFramesRefused() : 0;
}

float LSoundRecorder::TakePeakLevel(unsigned channel) {
    if (channel >= m_peaks.size()) {
        return 0.0f;
    }
    return std::exchange(m_peaks[channel], 0.0f);
}
