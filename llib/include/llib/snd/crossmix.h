// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// LSPCrossMix / LSRCCrossMix: a crossfade from another source into this one. Over the first
// `mixFrames` frames after the input's position when the source was made, the output fades the
// other source out and the input in, linearly and with gains summing to 1, so a copy that
// continues earlier audio joins it without a click. The other source is fitted to the input's
// rate and channels and read in step with the input during the mix; outside it the input passes
// unchanged. Seek inside the mix moves the other source to match.

#include "llib/snd/soundprocess.h"

#include <vector>

class LSRCCrossMix final : public LSoundProcessBase {
public:
    LSRCCrossMix(LSoundSource const& input, LSoundSource const& other, long long mixFrames);

    void Read(float* buffer, long long frames) override;
    void Seek(long long frame) override;

private:
    static constexpr long long kChunkFrames = 2048;

    LSoundSource m_other;
    long long m_mixStart; // input frame where the mix begins
    long long m_mixFrames;
    long long m_otherStart; // the other source's frame at m_mixStart
    long long m_position;   // the input frame the next Read delivers
    std::vector<float> m_scratch;
};

class LSPCrossMix final : public LSoundProcess {
public:
    LSPCrossMix(LSoundSource const& other, long long mixFrames)
        : m_other(other), m_mixFrames(mixFrames) {}
    [[nodiscard]] LSoundSource OpenSource(LSoundSource& input) override;
    [[nodiscard]] std::unique_ptr<LSoundProcess> GetNewCopy() const override {
        return std::make_unique<LSPCrossMix>(*this);
    }

private:
    LSoundSource m_other;
    long long m_mixFrames;
};
