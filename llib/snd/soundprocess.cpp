// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/soundprocess.h"

LSoundProcessBase::LSoundProcessBase(LSoundSource const& input)
    : LSoundProcessBase(input, input->GetSampleRate(), input->GetChannels()) {}

LSoundProcessBase::LSoundProcessBase(LSoundSource const& input, int sampleRateHz,
                                     unsigned char channels)
    : LSoundSourceBase(sampleRateHz, channels), m_input(input) {
    SetMaxMagnitude(input->GetMaxMagnitude());
    if (!input->IsOk()) {
        SetError(LSoundSourceErrorCode::kInputError);
    }
}

void LSoundProcessBase::Seek(long long frame) { m_input->Seek(frame); }

long long LSoundProcessBase::GetPositionSample() const { return m_input->GetPositionSample(); }

long long LSoundProcessBase::GetEndSample() const { return m_input->GetEndSample(); }

long LSoundProcessBase::ControlMessage(int id, long* value) {
    return m_input->ControlMessage(id, value);
}

long long LSoundProcessBase::AdjustRelativeOffset(long long offset, long long reference) {
    return m_input->AdjustRelativeOffset(offset, reference);
}

bool LSoundProcessBase::IsStreaming() const { return m_input->IsStreaming(); }

void LSoundProcessBase::WaitForStreamingData(int ms) { m_input->WaitForStreamingData(ms); }

void LSoundProcess::GetName(char* name) const { LStrCopy(name, kLMaxText, "Unnamed Effect"); }
