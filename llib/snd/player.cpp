// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/player.h"

#include "llib/gen/muldiv.h"
#include "llib/snd/sinkconvchannels.h"

#include <algorithm>
#include <cstring>

namespace {

// The ring holds a second at the device's rate: enough to ride out a slow disk read of the cut
// list, and it costs nothing in latency because Stop stops the device, not the ring.
constexpr long long kRingSeconds = 1;
constexpr long long kMinRingFrames = 8192;
// Queued before the device starts, so its first pull finds sound; short, because Play runs on
// the GUI thread and must return at once.
constexpr long long kPrefillMs = 50;
constexpr long long kBlockFrames = 4096;
// The thread waits this long when the ring is full; a tenth of the smallest ring's duration at
// common rates, so the device never runs dry while it sleeps.
constexpr int kFullRingSleepMs = 10;
// A nearly full ring is not worth a read: waiting for a useful block keeps reads large.
constexpr long long kMinUsefulFrames = 1024;

} // namespace

LAudioRing::LAudioRing(long long capacityFrames, unsigned channels)
    : m_capacityFrames(std::max(capacityFrames, 1LL)), m_channels(std::max(channels, 1U)) {
    m_samples.assign(static_cast<std::size_t>(m_capacityFrames) * m_channels, 0.0f);
}

long long LAudioRing::GetWritableFrames() const {
    return m_capacityFrames -
           (m_written.load(std::memory_order_relaxed) - m_read.load(std::memory_order_acquire));
}

long long LAudioRing::GetReadableFrames() const {
    return m_written.load(std::memory_order_acquire) - m_read.load(std::memory_order_relaxed);
}

long long LAudioRing::GetFramesWritten() const {
    return m_written.load(std::memory_order_acquire);
}

long long LAudioRing::GetFramesRead() const {
    return m_read.load(std::memory_order_acquire);
}

long long LAudioRing::GetFramesRefused() const {
    return m_refused.load(std::memory_order_relaxed);
}

void LAudioRing::CopyIn(long long at, float const* buffer, long long frames) {
    long long const first = std::min(frames, m_capacityFrames - at);
    std::memcpy(m_samples.data() + at * m_channels, buffer,
                static_cast<std::size_t>(first * m_channels) * sizeof(float));
    std::memcpy(m_samples.data(), buffer + first * m_channels,
                static_cast<std::size_t>((frames - first) * m_channels) * sizeof(float));
}

void LAudioRing::CopyOut(long long at, float* buffer, long long frames) const {
    long long const first = std::min(frames, m_capacityFrames - at);
    std::memcpy(buffer, m_samples.data() + at * m_channels,
                static_cast<std::size_t>(first * m_channels) * sizeof(float));
    std::memcpy(buffer + first * m_channels, m_samples.data(),
                static_cast<std::size_t>((frames - first) * m_channels) * sizeof(float));
}

long long LAudioRing::Write(float const* buffer, long long frames) {
    if (buffer == nullptr || frames <= 0) {
        return 0;
    }
    long long const written = m_written.load(std::memory_order_relaxed);
    long long const room = m_capacityFrames - (written - m_read.load(std::memory_order_acquire));
    long long const count = std::min(frames, room);
    if (count < frames) {
        m_refused.fetch_add(frames - count, std::memory_order_relaxed);
    }
    if (count > 0) {
        CopyIn(written % m_capacityFrames, buffer, count);
        // Release: the samples must be visible before the consumer sees the new total.
        m_written.store(written + count, std::memory_order_release);
    }
    return count;
}

long long LAudioRing::Read(float* buffer, long long frames) {
    if (buffer == nullptr || frames <= 0) {
        return 0;
    }
    long long const read = m_read.load(std::memory_order_relaxed);
    long long const count = std::min(frames, m_written.load(std::memory_order_acquire) - read);
    if (count > 0) {
        CopyOut(read % m_capacityFrames, buffer, count);
        // Release: the producer may overwrite these frames only after they have been copied.
        m_read.store(read + count, std::memory_order_release);
    }
    return count;
}

LSoundPlayer::LSoundPlayer(LAudioOutputDevice& device) : m_device(device) {}

LSoundPlayer::~LSoundPlayer() {
    Stop();
}

bool LSoundPlayer::Play(LSoundSource const& source, long long documentFrame, std::string& error) {
    Stop();
    error.clear();
    m_error.clear();
    LAudioFormat actual;
    std::string reason;
    if (!m_device.Open(source->GetSampleRate(), source->GetChannels(), actual, reason)) {
        error = "No audio output device is available (" + reason + ").";
        return false;
    }
    if (actual.rateHz < 1 || actual.channels < 1 || actual.channels > 255) {
        m_device.Stop();
        error = "The audio output device offers no usable format (" +
                std::to_string(actual.rateHz) + " Hz, " + std::to_string(actual.channels) +
                " channels).";
        return false;
    }

    m_chain = source;
    LSPConvertSourceRateChannels(actual.rateHz, static_cast<unsigned char>(actual.channels),
                                 m_chain);
    m_sourceRateHz = source->GetSampleRate();
    m_deviceRateHz = actual.rateHz;
    m_documentFrame = documentFrame;
    m_chainStartFrame = m_chain->GetPositionSample();
    m_stoppedPosition = PositionAfter(0);
    m_ring = std::make_unique<LAudioRing>(std::max(kMinRingFrames, kRingSeconds * actual.rateHz),
                                          actual.channels);
    m_block.assign(static_cast<std::size_t>(kBlockFrames) * actual.channels, 0.0f);
    m_stopRequested.store(false);
    m_queuedTotal.store(-1);

    // The device starts before the source is read, so a device that fails leaves the caller's
    // source where it stood, ready to be played again.
    if (!m_device.Start(*m_ring, reason)) {
        m_device.Stop();
        m_chain.Close();
        error = "The audio output device could not start (" + reason + ").";
        return false;
    }
    // The thread has not started, so the owner may still drive the chain here.
    Prefill(kPrefillMs * actual.rateHz / 1000);
    if (!m_thread.Start([this] { Run(); })) {
        m_device.Stop();
        m_chain.Close();
        error = "Playback could not start: the system could not make a thread for it.";
        return false;
    }
    m_active = true;
    return true;
}

void LSoundPlayer::Prefill(long long frames) {
    while (frames > 0 && !IsQueueComplete()) {
        long long const queued = QueueBlock(std::min(frames, m_ring->GetWritableFrames()));
        if (queued == 0) {
            break;
        }
        frames -= queued;
    }
}

bool LSoundPlayer::IsQueueComplete() const {
    return m_queuedTotal.load(std::memory_order_relaxed) >= 0;
}

long long LSoundPlayer::QueueBlock(long long frames) {
    long long const left = m_chain->GetRemainingFrames();
    long long const count = std::min({frames, left, kBlockFrames});
    if (count > 0) {
        m_chain->Read(m_block.data(), count);
    }
    if (count == left) {
        // The source is done with: release it before the end is announced, because once the
        // owner sees the end it may use its own handle to the source again, and the counts are
        // not atomic. The total goes out before the last frames do, so a device that plays
        // them at once already finds the end known.
        m_chain.Close();
        m_queuedTotal.store(m_ring->GetFramesWritten() + count, std::memory_order_release);
    }
    return count > 0 ? m_ring->Write(m_block.data(), count) : 0;
}

void LSoundPlayer::Run() {
    while (!IsQueueComplete() && !m_stopRequested.load(std::memory_order_acquire)) {
        long long const room = m_ring->GetWritableFrames();
        if (room < std::min(m_chain->GetRemainingFrames(), kMinUsefulFrames)) {
            LSleepMs(kFullRingSleepMs);
            continue;
        }
        (void)QueueBlock(room);
    }
}

long long LSoundPlayer::PositionAfter(long long playedFrames) const {
    return m_documentFrame +
           LMulDivFloor(m_chainStartFrame + playedFrames, m_sourceRateHz, m_deviceRateHz);
}

void LSoundPlayer::RetireIfEnded() const {
    if (!m_active) {
        return;
    }
    if (std::string reason; m_device.HasFailed(reason)) {
        Halt();
        m_error = "The audio output device stopped during playback (" + reason + ").";
        return;
    }
    long long const queued = m_queuedTotal.load(std::memory_order_acquire);
    if (queued < 0 || m_device.GetPlayedFrames() < queued) {
        return;
    }
    m_stoppedPosition = PositionAfter(queued);
    m_device.Stop();
    m_thread.Join();
    m_active = false;
}

void LSoundPlayer::Stop() {
    Halt();
}

void LSoundPlayer::Halt() const {
    if (m_active) {
        m_stoppedPosition =
            PositionAfter(std::min(m_device.GetPlayedFrames(), m_ring->GetFramesRead()));
        m_device.Stop();
        m_active = false;
    }
    // The thread may be waiting for room in a ring the device no longer empties.
    m_stopRequested.store(true, std::memory_order_release);
    m_thread.Join();
    m_chain.Close();
}

bool LSoundPlayer::IsPlaying() const {
    RetireIfEnded();
    return m_active;
}

long long LSoundPlayer::GetPlayPosition() const {
    RetireIfEnded();
    if (!m_active) {
        return m_stoppedPosition;
    }
    return PositionAfter(std::min(m_device.GetPlayedFrames(), m_ring->GetFramesRead()));
}
