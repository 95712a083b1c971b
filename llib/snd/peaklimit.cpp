// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/peaklimit.h"

#include "simdclones.h"

#include <algorithm>
#include <cstring>

namespace {

// Clamped to +-threshold, NaN to 0.
LLIB_SIMD_INLINE float Limit(float v, float threshold) {
    v = v < -threshold ? -threshold : v;
    v = v > threshold ? threshold : v;
    return v == v ? v : 0.0f;
}

// Frames scaled by a gain that rises or falls by `slope` a frame from `g0 + slope * first`. The
// frame number is an int so the loop vectorises; it converts to the same float as a long long.
template <int kChannels>
LLIB_SIMD_INLINE void RampFrames(float* out, float const* in, int frames, float g0, float slope,
                                 int first, float threshold) {
    for (int f = 0; f < frames; ++f) {
        float const gain = g0 + slope * static_cast<float>(first + f);
        for (int c = 0; c < kChannels; ++c) {
            out[f * kChannels + c] = Limit(in[f * kChannels + c] * gain, threshold);
        }
    }
}

// Copies `frames` frames scaling frame i by a gain ramping from `g0` to `g1` (reached at the
// last frame), clamped to +-threshold, NaN to 0. Unity gain skips the multiply.
LLIB_SIMD_CLONES void ApplyRamp(float* out, float const* in, long long frames, unsigned channels,
                                float g0, float g1, long long rampFrames, long long rampOffset,
                                float threshold) {
    long long const n = frames * channels;
    if (g0 == 1.0f && g1 == 1.0f) {
        for (long long i = 0; i < n; ++i) {
            out[i] = Limit(in[i], threshold);
        }
        return;
    }
    float const slope = (g1 - g0) / static_cast<float>(rampFrames);
    // Below 2^24 every frame number is exact as a float, whichever integer it comes from.
    if (rampOffset + frames < (1 << 24) && (channels == 1 || channels == 2)) {
        auto const first = static_cast<int>(rampOffset + 1);
        if (channels == 1) {
            RampFrames<1>(out, in, static_cast<int>(frames), g0, slope, first, threshold);
        } else {
            RampFrames<2>(out, in, static_cast<int>(frames), g0, slope, first, threshold);
        }
        return;
    }
    for (long long f = 0; f < frames; ++f) {
        float const gain = g0 + slope * static_cast<float>(rampOffset + f + 1);
        for (unsigned c = 0; c < channels; ++c) {
            out[f * channels + c] = Limit(in[f * channels + c] * gain, threshold);
        }
    }
}

} // namespace

LSRCPeakLimit::LSRCPeakLimit(LSoundSource const& input, float threshold)
    : LSoundProcessBase(input), m_threshold(threshold > 0.0f ? threshold : kLPeakLimit16Bit) {
    m_releasePerFrame = 10.0f / static_cast<float>(GetSampleRate()); // full recovery in 100 ms
    // A full input read on top of the two blocks that may still be staged.
    long long const frames = kInputFrames + 2 * kLookAheadFrames;
    m_stage.assign(static_cast<std::size_t>(frames) * GetChannels(), 0.0f);
    SetMaxMagnitude(std::min(GetMaxMagnitude(), m_threshold));
}

long long LSRCPeakLimit::InputFramesLeft() const {
    return m_input->GetEndSample() - m_input->GetPositionSample();
}

long long LSRCPeakLimit::FramesLeft() const {
    return (m_stageFrames - m_blocksEnd) + InputFramesLeft();
}

void LSRCPeakLimit::LoadBlock(Block& block, long long frames, bool ahead) {
    frames = std::max(frames, 0LL);
    long long const channels = std::max(1, static_cast<int>(GetChannels()));
    if (m_stageFrames - m_blocksEnd < frames) {
        // Move what is still needed to the front, then read a whole input block behind it (or
        // just what this block lacks when reading past the input's end).
        long long const keep = ahead ? m_current.first : m_blocksEnd;
        if (keep > 0) {
            std::copy(m_stage.begin() + keep * channels, m_stage.begin() + m_stageFrames * channels,
                      m_stage.begin());
        }
        m_stageFrames -= keep;
        m_blocksEnd -= keep;
        m_current.first -= ahead ? keep : 0;
        long long const room = static_cast<long long>(m_stage.size()) / channels - m_stageFrames;
        long long const lacking = frames - (m_stageFrames - m_blocksEnd);
        long long const n = std::max(std::min({kInputFrames, room, InputFramesLeft()}), lacking);
        m_input->Read(m_stage.data() + m_stageFrames * channels, n);
        m_stageFrames += n;
    }
    block.first = m_blocksEnd;
    block.frames = frames;
    block.gain = 1.0f;
    m_blocksEnd += frames;
    if (frames > 0) {
        float const peak =
            GetBufferPeak(m_stage.data() + block.first * channels, frames * channels);
        if (peak > m_threshold) {
            block.gain = m_threshold / peak;
        }
    }
}

void LSRCPeakLimit::StartNextBlock(long long wanted) {
    if (m_ahead.frames > 0) {
        m_current = m_ahead;
        m_ahead.frames = 0;
    } else {
        // Nothing was read ahead (start, after a seek, or at the input's end): take what the
        // input still has, or what the caller wants when it reads past the end.
        long long const left = FramesLeft();
        LoadBlock(m_current, std::min(kLookAheadFrames, left > 0 ? left : wanted), false);
    }
    m_used = 0;
    LoadBlock(m_ahead, std::min(kLookAheadFrames, FramesLeft()), true);

    // Both ends of the ramp stay at or below this block's own need, so no sample of it is
    // scaled by more than it can take.
    float const start = std::min(m_gainEnd, m_current.gain);
    float end = std::min(m_current.gain, start + m_releasePerFrame * m_current.frames);
    if (m_ahead.frames > 0) {
        end = std::min(end, m_ahead.gain);
    }
    m_gainStart = start;
    m_gainEnd = end;
    if (start < 1.0f || end < 1.0f) {
        m_reduced = true;
    }
}

void LSRCPeakLimit::Read(float* buffer, long long frames) {
    if (buffer == nullptr || frames <= 0) {
        return;
    }
    unsigned const channels = GetChannels();
    while (frames > 0) {
        if (m_used >= m_current.frames) {
            StartNextBlock(frames);
        }
        long long const n = std::min(frames, m_current.frames - m_used);
        ApplyRamp(buffer, m_stage.data() + (m_current.first + m_used) * channels, n, channels,
                  m_gainStart, m_gainEnd, m_current.frames, m_used, m_threshold);
        m_used += n;
        buffer += n * channels;
        frames -= n;
    }
}

long long LSRCPeakLimit::GetPositionSample() const {
    long long const held = m_stageFrames - (m_current.first + m_used);
    return m_input->GetPositionSample() - held;
}

void LSRCPeakLimit::Seek(long long frame) {
    m_input->Seek(frame);
    m_stageFrames = 0;
    m_blocksEnd = 0;
    m_current = Block{};
    m_ahead = Block{};
    m_used = 0;
    m_gainEnd = 1.0f;
}

long LSRCPeakLimit::ControlMessage(int id, long* value) {
    if (id == 4) {
        if (value != nullptr) {
            *value = static_cast<long>(kLookAheadFrames);
        }
        return 1;
    }
    if (id == 7) {
        if (value != nullptr) {
            *value = m_reduced ? 1 : 0;
        }
        m_reduced = false;
        return 1;
    }
    return m_input->ControlMessage(id, value);
}

LSoundSource LSPPeakLimit::OpenSource(LSoundSource& input) {
    return LMakeSource<LSRCPeakLimit>(input, m_threshold);
}
