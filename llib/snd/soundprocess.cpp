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

void LSoundProcessBase::Seek(long long frame) {
    m_input->Seek(frame);
}

long long LSoundProcessBase::GetPositionSample() const {
    return m_input->GetPositionSample();
}

long long LSoundProcessBase::GetEndSample() const {
    return m_input->GetEndSample();
}

long LSoundProcessBase::ControlMessage(int id, long* value) {
    return m_input->ControlMessage(id, value);
}

long long LSoundProcessBase::AdjustRelativeOffset(long long offset, long long reference) {
    return m_input->AdjustRelativeOffset(offset, reference);
}

bool LSoundProcessBase::IsStreaming() const {
    return m_input->IsStreaming();
}

void LSoundProcessBase::WaitForStreamingData(int ms) {
    m_input->WaitForStreamingData(ms);
}

void LSoundProcess::GetName(char* name) const {
    LStrCopy(name, kLMaxText, "Unnamed Effect");
}

void LSoundProcess::GetPresetsName(int index, char* name) {
    (void)index;
    name[0] = '\0';
}

bool LSoundProcess::SaveBaseRecord(LSoundProcessWriter& writer) const {
    return writer.StartContainer(kLSoundProcessBaseRecord) &&
           writer.WriteBool(kLSoundProcessBypass, m_bypass) &&
           writer.EndContainer(kLSoundProcessBaseRecord);
}

bool LSoundProcess::SaveToSDF(LSoundProcessWriter& writer) const {
    return SaveBaseRecord(writer);
}

bool LSoundProcess::LoadRecord(LSoundProcessReader& reader, LSoundProcessChunks& chunks,
                               std::function<void(LSoundProcessChunks& chunk)> const& own) {
    while (chunks.StartNextChunk()) {
        if (chunks.GetId() == kLSoundProcessBaseRecord) {
            LSoundProcessChunks base(reader, chunks);
            while (base.StartNextChunk()) {
                if (base.GetId() == kLSoundProcessBypass) {
                    (void)base.ReadBool(m_bypass);
                }
            }
        } else if (own) {
            own(chunks);
        }
    }
    return reader.IsOk();
}

bool LSoundProcess::LoadFromSDF(LSoundProcessReader& reader, LSoundProcessChunks& chunks) {
    return LoadRecord(reader, chunks, nullptr);
}

int LSoundProcessParameterSize(LSoundProcessParameterType type) {
    switch (type) {
    case LSoundProcessParameterType::kInt:
        return 4;
    case LSoundProcessParameterType::kDouble:
    case LSoundProcessParameterType::kInt64:
        return 8;
    case LSoundProcessParameterType::kInt8:
    case LSoundProcessParameterType::kBool:
        return 1;
    case LSoundProcessParameterType::kUInt16:
        return 2;
    }
    return 0;
}

void LSoundProcessParameter::Allocate(LSoundProcessParameterType type, std::size_t bytes,
                                      char const* name, char const* unit) {
    m_type = type;
    m_valueSize = static_cast<int>(bytes);
    // Each Init starts afresh: a description reused for another index must not keep the old
    // buffers' contents.
    m_minimum = std::make_unique<unsigned char[]>(bytes);
    m_maximum = std::make_unique<unsigned char[]>(bytes);
    m_value = std::make_unique<unsigned char[]>(bytes);
    LStrCopy(m_name, sizeof m_name, name != nullptr ? name : "");
    LStrCopy(m_unit, sizeof m_unit, unit != nullptr ? unit : "");
    m_initialised = true;
}
