// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/mixsimple.h"

#include "llib/snd/sinkconvchannels.h"

#include <algorithm>

LSRCMixSimple::LSRCMixSimple(LSoundSource const& input, LSoundSource const& other)
    : LSoundProcessBase(input), m_other(other), m_inputStart(input->GetPositionSample()),
      m_position(m_inputStart),
      m_scratch(static_cast<std::size_t>(kChunkFrames) * input->GetChannels()) {
    LSPConvertSourceRateChannels(GetSampleRate(), GetChannels(), m_other);
    m_otherStart = m_other->GetPositionSample();
}

long long LSRCMixSimple::GetEndSample() const {
    long long const otherEnd = m_inputStart + (m_other->GetEndSample() - m_otherStart);
    return std::max(m_input->GetEndSample(), otherEnd);
}

void LSRCMixSimple::ReadPart(LSoundSource& source, long long position, long long end,
                             long long frames) {
    unsigned const channels = GetChannels();
    long long const available = std::clamp(end - position, 0LL, frames);
    if (available > 0) {
        source->Read(m_scratch.data(), available);
    }
    std::fill(m_scratch.begin() + available * channels, m_scratch.begin() + frames * channels,
              0.0f);
}

void LSRCMixSimple::Read(float* buffer, long long frames) {
    if (buffer == nullptr || frames <= 0) {
        return;
    }
    unsigned const channels = GetChannels();
    long long const inputEnd = m_input->GetEndSample();
    long long const otherEnd = m_other->GetEndSample();
    while (frames > 0) {
        long long const n = std::min(frames, kChunkFrames);
        std::size_t const values = static_cast<std::size_t>(n) * channels;
        ReadPart(m_input, m_position, inputEnd, n);
        std::copy_n(m_scratch.data(), values, buffer);
        ReadPart(m_other, m_otherStart + (m_position - m_inputStart), otherEnd, n);
        float const* in = m_scratch.data();
        for (std::size_t i = 0; i < values; ++i) {
            buffer[i] += in[i];
        }
        buffer += values;
        frames -= n;
        m_position += n;
    }
}

void LSRCMixSimple::Seek(long long frame) {
    m_position = frame;
    m_input->Seek(std::min(frame, m_input->GetEndSample()));
    m_other->Seek(std::min(m_otherStart + (frame - m_inputStart), m_other->GetEndSample()));
}

LSoundSource LSPMixSimple::OpenSource(LSoundSource& input) {
    return LMakeSource<LSRCMixSimple>(input, m_other);
}
