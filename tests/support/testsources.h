// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Sources for tests. The staircase source makes every sample name its frame and channel, so a
// test can tell exactly which input frame landed where after any splice, seek or conversion.

#include "llib/snd/soundsource.h"

#include <cstdint>
#include <vector>

// The staircase value of (frame, channel): exact in float for frames below 2^20.
[[nodiscard]] inline float StaircaseValue(long long frame, unsigned channel) {
    return static_cast<float>(frame) + static_cast<float>(channel) * 0.125f;
}

class LTestStaircaseSource final : public LSoundSourceBase {
public:
    LTestStaircaseSource(int rateHz, unsigned char channels, long long frames);

    void Read(float* buffer, long long frames) override;
    [[nodiscard]] long long GetPositionSample() const override { return m_position; }
    [[nodiscard]] long long GetEndSample() const override { return m_end; }
    void Seek(long long frame) override { m_position = frame; }
    [[nodiscard]] bool IsStreaming() const override { return m_streaming; }

    // A growing source: its end moves by `frames` each time `everyReads` Reads have happened
    // (0 = never), up to `growths` times.
    void GrowAfterReads(int everyReads, long long frames, int growths);
    void SetStreaming(bool streaming) { m_streaming = streaming; }
    void SetTestError(LSoundSourceErrorCode code) { SetError(code); }

    // The size of every Read call, in order.
    [[nodiscard]] std::vector<long long> const& GetReads() const { return m_reads; }
    [[nodiscard]] long long GetFramesRead() const;

private:
    long long m_position = 0;
    long long m_end;
    bool m_streaming = false;
    int m_growEvery = 0;
    long long m_growFrames = 0;
    int m_growthsLeft = 0;
    std::vector<long long> m_reads;
};

// Interleaved samples played back as a source (seekable; silence past the end).
class LTestBufferSource final : public LSoundSourceBase {
public:
    LTestBufferSource(int rateHz, unsigned char channels, std::vector<float> samples);

    void Read(float* buffer, long long frames) override;
    [[nodiscard]] long long GetPositionSample() const override { return m_position; }
    [[nodiscard]] long long GetEndSample() const override { return m_frames; }
    void Seek(long long frame) override { m_position = frame; }

private:
    std::vector<float> m_samples;
    long long m_frames;
    long long m_position = 0;
};

// A sine of `hz` at `amplitude` on every channel (channel c shifted by c * 90 degrees).
[[nodiscard]] std::vector<float> MakeSine(int rateHz, unsigned channels, double hz,
                                          double amplitude, long long frames);
// Reproducible white noise in [-amplitude, amplitude].
[[nodiscard]] std::vector<float> MakeNoise(unsigned channels, long long frames, double amplitude,
                                           std::uint32_t seed);
[[nodiscard]] LSoundSource MakeBufferSource(int rateHz, unsigned char channels,
                                            std::vector<float> samples);

// Reads `source` to its end (or `frames` when given) in reads of `chunkFrames`.
[[nodiscard]] std::vector<float> ReadAll(LSoundSource& source, long long chunkFrames = 4096,
                                         long long frames = -1);
