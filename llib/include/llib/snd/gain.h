// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Amplify: LSPGain holds a gain factor (1.0 leaves the audio as it is) and LSRCGain multiplies
// every sample by it. The one parameter is the gain in percent, 1 to 400, shown rounded up; it
// is read back from the caller's value as a 16-bit integer, which covers the whole range. The
// record stores the gain as a float under 0x2001; records of older versions that hold a 8.24
// fixed-point gain under 0x2000 at the top level still load.

#include "llib/snd/soundprocess.h"

#include <memory>

inline constexpr int kLSPGainType = 1;
inline constexpr std::uint16_t kLSPGainRecordGain = 0x2001;
inline constexpr std::uint16_t kLSPGainRecordFixedGain = 0x2000;

class LSRCGain final : public LSoundProcessBase {
public:
    LSRCGain(LSoundSource const& input, float gain);
    void Read(float* buffer, long long frames) override;

private:
    float m_gain;
};

class LSPGain final : public LSoundProcess {
public:
    explicit LSPGain(float gain = 1.0f) : m_gain(gain) {}

    [[nodiscard]] float GetGain() const { return m_gain; }
    void SetGain(float gain) { m_gain = gain; }

    [[nodiscard]] LSoundSource OpenSource(LSoundSource& input) override;
    void GetName(char* name) const override;
    [[nodiscard]] int GetSoundProcessType() const override { return kLSPGainType; }
    // The copy starts with the bypass flag cleared.
    [[nodiscard]] std::unique_ptr<LSoundProcess> GetNewCopy() const override {
        return std::make_unique<LSPGain>(m_gain);
    }

    [[nodiscard]] int GetNumParameters() override { return 1; }
    void SetParameterByIndex(int index, void const* value) override;
    void GetParameterByIndex(int index, LSoundProcessParameter* parameter) override;

    using LSoundProcess::LoadFromSDF;
    bool SaveToSDF(LSoundProcessWriter& writer) const override;
    bool LoadFromSDF(LSoundProcessReader& reader, LSoundProcessChunks& chunks) override;

    [[nodiscard]] int GetNumPresets() override;
    void GetPresetsName(int index, char* name) override;
    void SetPreset(int index) override;
    [[nodiscard]] int GetIndexInPreset() override;

private:
    // The gain as the parameter shows it: percent, rounded up.
    [[nodiscard]] int GetPercent() const;

    float m_gain;
};
