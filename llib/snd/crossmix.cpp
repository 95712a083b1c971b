// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/crossmix.h"

#include "llib/snd/sinkconvchannels.h"

#include <algorithm>

LSRCCrossMix::LSRCCrossMix(LSoundSource const& input, LSoundSource const& other,
                           long long mixFrames)
    : LSoundProcessBase(input), m_other(other), m_mixStart(input->GetPositionSample()),
      m_mixFrames(mixFrames > 0 ? mixFrames : 0), m_position(m_mixStart),
      m_scratch(static_cast<std::size_t>(kChunkFrames) * input->GetChannels()) {
    LSPConvertSourceRateChannels(GetSampleRate(), GetChannels(), m_other);
    m_otherStart = m_other->GetPositionSample();
}

void LSRCCrossMix::Read(float* buffer, long long frames) {
    if (buffer == nullptr || frames <= 0) {
        return;
    }
    m_input->Read(buffer, frames);
    unsigned const channels = GetChannels();
    long long const mixEnd = m_mixStart + m_mixFrames;
    long long const first = std::max(m_position, m_mixStart);
    long long const last = std::min(m_position + frames, mixEnd);
    for (long long at = first; at < last;) {
        long long const n = std::min(kChunkFrames, last - at);
        m_other->Read(m_scratch.data(), n);
        float* out = buffer + (at - m_position) * channels;
        for (long long f = 0; f < n; ++f) {
            // Frame k of the mix weighs the input (k + 1) / (mix + 1): never fully silent at the
            // join and reaching the plain input right after the mix.
            float const w =
                static_cast<float>(at - m_mixStart + f + 1) / static_cast<float>(m_mixFrames + 1);
            for (unsigned c = 0; c < channels; ++c) {
                float& v = out[f * channels + c];
                v = v * w + m_scratch[f * channels + c] * (1.0f - w);
            }
        }
        at += n;
    }
    m_position += frames;
}

void LSRCCrossMix::Seek(long long frame) {
    m_input->Seek(frame);
    m_position = frame;
    if (frame >= m_mixStart && frame < m_mixStart + m_mixFrames) {
        m_other->Seek(m_otherStart + (frame - m_mixStart));
    } else if (frame < m_mixStart) {
        m_other->Seek(m_otherStart);
    }
}

LSoundSource LSPCrossMix::OpenSource(LSoundSource& input) {
    return LMakeSource<LSRCCrossMix>(input, m_other, m_mixFrames);
}
