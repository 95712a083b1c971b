// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Playback: the engine's end of the audio output. LSoundPlayer pulls a source on a thread of its
// own, fitted to the device's rate and channel count, into an LAudioRing; the device takes
// frames out of the ring on its own thread or callback and reports how many it has played,
// which gives the play cursor.
//
// LAudioRing is a lock-free ring of interleaved float frames with one producer thread and one
// consumer thread; its totals only grow, so each side also learns how far the other has come.
//
// LAudioDevice is the small device interface the engine owns: the Qt adapter in platform/ and
// the tests' doubles implement it. Open, Start, Stop and GetPlayedFrames are called on the owner
// thread (the GUI main thread, which toolkits need for their audio objects); only the ring is
// touched from the device's own thread.
//
// LSoundPlayer lives on the owner thread, which calls all of its methods. Play copies the source
// handle and builds the conversion chain there, before the player thread starts; from then on
// the thread alone drives the chain, so the owner must not use the source until playback has
// ended (IsPlaying false) or been stopped. The thread releases the chain as soon as it has read
// it to its end; a stopped chain is released by Stop once the thread has ended. Units: frames
// (signed 64-bit), rates in Hz, samples float with full scale +-1. Failures are values: Play
// returns false with a sentence for the user.

#include "llib/snd/soundsource.h"
#include "llib/unix/thread.h"

#include <atomic>
#include <memory>
#include <string>
#include <vector>

class LAudioRing {
public:
    // `capacityFrames` and `channels` are raised to at least 1.
    LAudioRing(long long capacityFrames, unsigned channels);
    LAudioRing(LAudioRing const&) = delete;
    LAudioRing& operator=(LAudioRing const&) = delete;

    [[nodiscard]] unsigned GetChannels() const { return m_channels; }
    [[nodiscard]] long long GetCapacityFrames() const { return m_capacityFrames; }

    // Producer side. Write stores as many of `frames` as there is room for and returns that
    // count; the frames it had no room for are counted as refused.
    [[nodiscard]] long long GetWritableFrames() const;
    long long Write(float const* buffer, long long frames);
    [[nodiscard]] long long GetFramesRefused() const;

    // Consumer side. Read moves up to `frames` frames into `buffer` and returns how many.
    [[nodiscard]] long long GetReadableFrames() const;
    long long Read(float* buffer, long long frames);

    // Totals since construction; safe from any thread.
    [[nodiscard]] long long GetFramesWritten() const;
    [[nodiscard]] long long GetFramesRead() const;

private:
    void CopyIn(long long at, float const* buffer, long long frames);
    void CopyOut(long long at, float* buffer, long long frames) const;

    std::vector<float> m_samples;
    long long m_capacityFrames;
    unsigned m_channels;
    // Each total is stored by one side only; apart so the two sides do not share a cache line.
    alignas(64) std::atomic<long long> m_written{0};
    std::atomic<long long> m_refused{0};
    alignas(64) std::atomic<long long> m_read{0};
};

struct LAudioFormat {
    int rateHz = 0;
    unsigned channels = 0;
};

// What output and input devices share. All calls come from the owner thread.
class LAudioDevice {
public:
    virtual ~LAudioDevice() = default;

    // Prepares the device for `rateHz` and `channels`; answers in `actual` the format it will
    // really use (the nearest it supports). False with a short reason (no sentence, no final
    // stop) in `error` when there is no usable device; the device is then closed.
    [[nodiscard]] virtual bool Open(int rateHz, unsigned channels, LAudioFormat& actual,
                                    std::string& error) = 0;
    // Starts moving audio between the device and `ring`, which has the actual format and stays
    // alive until Stop. False with a short reason when the device cannot start; call Stop then.
    [[nodiscard]] virtual bool Start(LAudioRing& ring, std::string& error) = 0;
    // Stops at once and closes; afterwards the device no longer touches the ring. Harmless when
    // the device is not open.
    virtual void Stop() = 0;
    // True once a started device has stopped moving audio on its own (the sound server went
    // away, the device was unplugged), with a short reason in `reason`; Stop clears it.
    [[nodiscard]] virtual bool HasFailed(std::string& reason) const {
        (void)reason;
        return false;
    }
};

// Takes frames from the ring; an empty ring plays silence that does not count as played.
class LAudioOutputDevice : public LAudioDevice {
public:
    // Frames of the ring heard since Start: never more than the device has taken from the ring.
    [[nodiscard]] virtual long long GetPlayedFrames() const = 0;
};

// Pushes captured frames into the ring; frames it has no room for are lost (and counted there).
class LAudioInputDevice : public LAudioDevice {};

class LSoundPlayer {
public:
    explicit LSoundPlayer(LAudioOutputDevice& device);
    ~LSoundPlayer(); // stops
    LSoundPlayer(LSoundPlayer const&) = delete;
    LSoundPlayer& operator=(LSoundPlayer const&) = delete;

    // Plays `source` from its present position to its end, after stopping what was playing.
    // `documentFrame` is the document frame of the source's frame 0 (not of its present
    // position), so the play cursor can be given in document frames. False with `error` set (a
    // sentence for the user) when the device cannot start; then nothing plays.
    [[nodiscard]] bool Play(LSoundSource const& source, long long documentFrame,
                            std::string& error);
    // Returns when the thread has ended and the device has stopped; idempotent.
    void Stop();
    // False once the sound has been heard to its end, or after Stop. Finding the end also ends
    // the finished thread and stops the device, so a player left alone after the end holds no
    // device.
    [[nodiscard]] bool IsPlaying() const;
    // The document frame being heard now; after the end or a Stop, where the sound stopped.
    [[nodiscard]] long long GetPlayPosition() const;
    // Why the last playback ended before its end (a sentence for the user): empty unless the
    // device failed while playing, which IsPlaying finds and ends like a Stop. Play clears it.
    [[nodiscard]] std::string const& GetError() const { return m_error; }

private:
    void Run();
    void Prefill(long long frames);
    // Reads up to `frames` (no more than the ring has room for) into the ring; at the source's
    // end, releases it and publishes the total. Returns the frames queued.
    long long QueueBlock(long long frames);
    [[nodiscard]] bool IsQueueComplete() const;
    [[nodiscard]] long long PositionAfter(long long playedFrames) const;
    // Ends a playback whose last frame has been heard, or whose device failed (owner thread).
    void RetireIfEnded() const;
    // Stop's work, which a query that finds the device failed does too (hence const).
    void Halt() const;

    LAudioOutputDevice& m_device;
    // What the thread drives; the owner touches these only before it starts and after it ends.
    mutable LSoundSource m_chain;
    std::vector<float> m_block;
    std::unique_ptr<LAudioRing> m_ring;
    mutable std::atomic<bool> m_stopRequested{false};
    // Every frame the source gave, once it has given its last; -1 before.
    std::atomic<long long> m_queuedTotal{-1};
    // Owner thread. A const query that finds the end or a failed device retires the playback,
    // hence mutable, as are the chain and the stop request above.
    mutable LThread m_thread;
    mutable bool m_active = false;
    mutable long long m_stoppedPosition = 0;
    mutable std::string m_error;
    long long m_chainStartFrame = 0; // at the device's rate
    long long m_documentFrame = 0;
    int m_sourceRateHz = 0;
    int m_deviceRateHz = 0;
};
