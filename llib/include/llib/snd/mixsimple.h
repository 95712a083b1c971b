// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// LSPMixSimple / LSRCMixSimple: two sources added sample by sample. The other source is fitted to
// the input's rate and channels; the mix lasts as long as the longer of the two, the shorter
// one counting as silence after its end. Both are read from their positions when the mix was
// made, in step.

#include "llib/snd/soundprocess.h"

#include <vector>

class LSRCMixSimple final : public LSoundProcessBase {
public:
    LSRCMixSimple(LSoundSource const& input, LSoundSource const& other);

    void Read(float* buffer, long long frames) override;
    void Seek(long long frame) override;
    [[nodiscard]] long long GetPositionSample() const override { return m_position; }
    [[nodiscard]] long long GetEndSample() const override;

private:
    static constexpr long long kChunkFrames = 8192;

    // Reads `frames` of `source` (whose end is `end`) into the scratch buffer, silence past it.
    void ReadPart(LSoundSource& source, long long position, long long end, long long frames);

    LSoundSource m_other;
    long long m_inputStart;
    long long m_otherStart;
    long long m_position;
    std::vector<float> m_scratch;
};

class LSPMixSimple final : public LSoundProcess {
public:
    explicit LSPMixSimple(LSoundSource const& other) : m_other(other) {}
    [[nodiscard]] LSoundSource OpenSource(LSoundSource& input) override;
    [[nodiscard]] std::unique_ptr<LSoundProcess> GetNewCopy() const override {
        return std::make_unique<LSPMixSimple>(*this);
    }

private:
    LSoundSource m_other;
};
