// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Recording: the engine's end of the audio input. The input device pushes captured frames into
// an LAudioRing from its own thread; LSoundRecorder moves them into a sink when its owner pumps
// it. Pumping instead of a writer thread is deliberate: the usual sink is the document's
// cut-list sink, which links audio into the cut list and so may only be written on the thread
// that owns the document (the GUI main thread).
//
// Every method is called on the owner thread. The recorder holds a reference to the sink from
// Start until Stop, or until the sink fails. When the device offers another channel count than
// the sink's, a mono sink takes the mean of the device's channels and any other sink takes the
// device's channels in turn (sink channel k from device channel k mod n). The device must
// capture at the sink's rate: converting a pushed stream's rate would need a look-ahead the
// ring cannot promise, so another rate is a failure. Units: frames, Hz, float samples with full
// scale +-1. Failures are values: Start returns false with a sentence for the user; a sink or a
// device that fails while recording ends the recording (keeping what was captured) and leaves
// its reason in GetError.

#include "llib/snd/player.h"
#include "llib/snd/soundsink.h"

#include <memory>
#include <string>
#include <vector>

class LSoundRecorder {
public:
    explicit LSoundRecorder(LAudioInputDevice& device);
    ~LSoundRecorder(); // stops
    LSoundRecorder(LSoundRecorder const&) = delete;
    LSoundRecorder& operator=(LSoundRecorder const&) = delete;

    // Starts capturing `channels` channels at `rateHz` into `sink`, which must take that rate and
    // channel count, after stopping a recording in progress.
    [[nodiscard]] bool Start(LSoundSink const& sink, int rateHz, unsigned channels,
                             std::string& error);
    // Moves what has been captured into the sink. Call it regularly (every ~50 ms): the device
    // keeps two seconds, and what arrives beyond them is lost.
    void Pump();
    // Pumps the rest, stops the device and releases the sink; idempotent.
    void Stop();
    [[nodiscard]] bool IsRecording() const { return m_recording; }
    // Frames written into the sink since Start.
    [[nodiscard]] long long GetRecordedFrames() const { return m_recordedFrames; }
    // Frames the device captured but found no room for, because the owner pumped too late.
    [[nodiscard]] long long GetLostFrames() const;
    // Peak magnitude of a sink channel since the last call (a level meter), 0..1+; 0 for a
    // channel the sink does not have.
    [[nodiscard]] float TakePeakLevel(unsigned channel);
    // Why a recording ended on its own (empty when it did not).
    [[nodiscard]] std::string const& GetError() const { return m_error; }

private:
    void MoveBlock(long long frames);
    void StopDevice();

    LAudioInputDevice& m_device;
    LSoundSink m_sink;
    std::unique_ptr<LAudioRing> m_ring;
    std::vector<float> m_captured; // the device's layout
    std::vector<float> m_mapped;   // the sink's layout, when the two differ
    std::vector<float> m_peaks;
    unsigned m_deviceChannels = 0;
    unsigned m_channels = 0;
    long long m_recordedFrames = 0;
    bool m_recording = false;
    bool m_deviceRunning = false;
    std::string m_error;
};
