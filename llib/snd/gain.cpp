// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/gain.h"

#include <array>
#include <cmath>

namespace {

struct GainPreset {
    char const* name;
    int percent;
};

constexpr std::array kPresets = {GainPreset{"Quarter Volume", 25}, GainPreset{"Half Volume", 50},
                                 GainPreset{"Double Volume", 200},
                                 GainPreset{"Triple Volume", 300}};

} // namespace

LSRCGain::LSRCGain(LSoundSource const& input, float gain) : LSoundProcessBase(input), m_gain(gain) {
    if (gain > 1.0f) {
        // Samples may now go well past full scale; whoever limits them must know.
        SetMaxMagnitude(16.0f);
    }
}

void LSRCGain::Read(float* buffer, long long frames) {
    m_input->Read(buffer, frames);
    if (m_gain == 1.0f || frames <= 0) {
        return;
    }
    float const gain = m_gain;
    long long const count = frames * GetChannels();
    for (long long i = 0; i < count; ++i) {
        buffer[i] *= gain;
    }
}

LSoundSource LSPGain::OpenSource(LSoundSource& input) {
    return LMakeSource<LSRCGain>(input, m_gain);
}

void LSPGain::GetName(char* name) const {
    LStrCopy(name, kLMaxText, "Amplify");
}

int LSPGain::GetPercent() const {
    // In float, as the gain is held: 1.1f * 100 is 110 here, where double arithmetic would give
    // 110.0000024 and show 111.
    return static_cast<int>(std::ceil(m_gain * 100.0f));
}

void LSPGain::SetParameterByIndex(int index, void const* value) {
    if (index != 0 || value == nullptr) {
        return;
    }
    // The parameter is declared as a 32-bit int but read as its low 16 bits, which hold the
    // whole range 1 to 400; callers that pass a 16-bit value rely on this.
    std::int16_t percent = 0;
    std::memcpy(&percent, value, sizeof percent);
    m_gain = static_cast<float>(percent) / 100.0f;
}

void LSPGain::GetParameterByIndex(int index, LSoundProcessParameter* parameter) {
    if (index != 0 || parameter == nullptr) {
        return;
    }
    parameter->Init<int>(LSoundProcessParameterType::kInt, 1, 400, "Gain Percentage", "%");
    parameter->SetValue<int>(GetPercent());
}

bool LSPGain::SaveToSDF(LSoundProcessWriter& writer) const {
    return SaveBaseRecord(writer) && writer.WriteFloat(kLSPGainRecordGain, m_gain);
}

bool LSPGain::LoadFromSDF(LSoundProcessReader& reader, LSoundProcessChunks& chunks) {
    return LoadRecord(reader, chunks, [this](LSoundProcessChunks& chunk) {
        if (chunk.GetId() == kLSPGainRecordGain) {
            (void)chunk.ReadFloat(m_gain);
        } else if (chunk.GetId() == kLSPGainRecordFixedGain) {
            int fixed = 0;
            m_gain = chunk.ReadInt(fixed) ? static_cast<float>(std::ldexp(fixed, -24)) : 0.0f;
        }
    });
}

int LSPGain::GetNumPresets() {
    return static_cast<int>(kPresets.size());
}

void LSPGain::GetPresetsName(int index, char* name) {
    if (index < 0 || index >= GetNumPresets()) {
        name[0] = '\0';
        return;
    }
    LStrCopy(name, kLMaxText, kPresets[static_cast<std::size_t>(index)].name);
}

void LSPGain::SetPreset(int index) {
    if (index < 0 || index >= GetNumPresets()) {
        return;
    }
    int const percent = kPresets[static_cast<std::size_t>(index)].percent;
    SetParameterByIndex(0, &percent);
}

int LSPGain::GetIndexInPreset() {
    int const percent = GetPercent();
    for (std::size_t i = 0; i < kPresets.size(); ++i) {
        if (kPresets[i].percent == percent) {
            return static_cast<int>(i);
        }
    }
    return -1;
}
