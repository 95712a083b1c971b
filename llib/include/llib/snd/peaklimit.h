// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// LSPPeakLimit / LSRCPeakLimit: the look-ahead peak limiter in front of every sink the
// source-to-sink copy writes, so nothing written exceeds the threshold (16-bit full scale by
// default) however loud a mix or an effect made the audio.
//
// The input is taken in blocks of kLookAheadFrames. Each block's peak gives the gain it needs
// (threshold / peak when above the threshold). The gain applied across a block ramps linearly
// between its ends, and each end is at most the gain of both blocks it touches, so every sample
// of a block is scaled by no more than its own block needs: the block after the one being output
// is read ahead to know where the ramp must end. Recovery toward unity is limited to a full
// swing in 100 ms. A final clamp catches float rounding; NaN comes out as silence.
//
// The input is read kInputFrames at a time into one staging buffer that the blocks are views of,
// so that a source serving large reads straight from its file is asked for large reads.
//
// ControlMessage 4 answers the look-ahead length in frames; 7 answers 1 when the level was
// reduced since the last ask (and clears that). The limiter never reads past its input's end
// to fill its look-ahead, so a growing (recording) source is not read ahead of its data.

#include "llib/snd/soundprocess.h"

#include <vector>

inline constexpr float kLPeakLimit16Bit = 0.999969482421875f; // 32767 / 32768

class LSRCPeakLimit final : public LSoundProcessBase {
public:
    static constexpr long long kLookAheadFrames = 512;
    static constexpr long long kInputFrames = 8192;

    LSRCPeakLimit(LSoundSource const& input, float threshold);

    void Read(float* buffer, long long frames) override;
    [[nodiscard]] long long GetPositionSample() const override;
    void Seek(long long frame) override;
    long ControlMessage(int id, long* value) override;

private:
    struct Block {
        long long first = 0; // where its frames start in m_stage
        long long frames = 0;
        float gain = 1.0f; // what this block needs
    };

    // Makes `block` the next `frames` staged frames, reading input when too few are staged; a
    // look-ahead block keeps the current block's frames staged.
    void LoadBlock(Block& block, long long frames, bool ahead);
    void StartNextBlock(long long wanted);
    [[nodiscard]] long long InputFramesLeft() const;
    // Frames still to come: staged but not in a block, and not yet read from the input.
    [[nodiscard]] long long FramesLeft() const;

    float m_threshold;
    float m_releasePerFrame;     // the most the gain may rise per frame
    std::vector<float> m_stage;  // input frames, the blocks among them
    long long m_stageFrames = 0; // frames held in m_stage
    long long m_blocksEnd = 0;   // where the frames not yet in a block start in m_stage
    Block m_current;
    Block m_ahead;
    long long m_used = 0; // frames of m_current already delivered
    float m_gainStart = 1.0f;
    float m_gainEnd = 1.0f;
    bool m_reduced = false;
};

class LSPPeakLimit final : public LSoundProcess {
public:
    explicit LSPPeakLimit(float threshold = kLPeakLimit16Bit) : m_threshold(threshold) {}
    [[nodiscard]] LSoundSource OpenSource(LSoundSource& input) override;
    [[nodiscard]] std::unique_ptr<LSoundProcess> GetNewCopy() const override {
        return std::make_unique<LSPPeakLimit>(*this);
    }
    [[nodiscard]] float GetThreshold() const { return m_threshold; }

private:
    float m_threshold;
};
