// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/sinkconvchannels.h"

#include "llib/snd/convertrate.h"

#include <algorithm>
#include <cstring>

namespace {
constexpr float g = kLChannelMinus3dB;
} // namespace

LSRCConvChannelsBase::LSRCConvChannelsBase(LSoundSource const& input, unsigned char outputChannels)
    : LSoundProcessBase(input, input->GetSampleRate(), outputChannels),
      m_inputChannels(input->GetChannels()),
      m_scratch(static_cast<std::size_t>(kChunkFrames) * input->GetChannels()) {}

void LSRCConvChannelsBase::Read(float* buffer, long long frames) {
    if (buffer == nullptr || frames <= 0) {
        return;
    }
    unsigned const outChannels = GetChannels();
    while (frames > 0) {
        long long const n = std::min(frames, kChunkFrames);
        m_input->Read(m_scratch.data(), n);
        Mix(buffer, m_scratch.data(), n);
        buffer += n * outChannels;
        frames -= n;
    }
}

void LSRCConvMonoStereo::Mix(float* out, float const* in, long long frames) const {
    for (long long i = 0; i < frames; ++i) {
        out[2 * i] = in[i];
        out[2 * i + 1] = in[i];
    }
}

void LSRCConvStereoMono::Mix(float* out, float const* in, long long frames) const {
    for (long long i = 0; i < frames; ++i) {
        out[i] = (in[2 * i] + in[2 * i + 1]) * 0.5f;
    }
}

void LSRCConvChannels51Mono::Mix(float* out, float const* in, long long frames) const {
    for (long long i = 0; i < frames; ++i) {
        float const* f = in + 6 * i;
        out[i] = ((f[0] + f[1] + f[3]) + g * (f[4] + f[5])) * 0.5f + g * f[2];
    }
}

void LSRCConvChannels71Mono::Mix(float* out, float const* in, long long frames) const {
    for (long long i = 0; i < frames; ++i) {
        float const* f = in + 8 * i;
        out[i] =
            ((f[0] + f[1] + f[3]) + 0.5f * (f[6] + f[7]) + g * (f[4] + f[5])) * 0.5f + g * f[2];
    }
}

void LSRCConvChannelsNMono::Mix(float* out, float const* in, long long frames) const {
    unsigned const n = InputChannels();
    float const scale = 1.0f / static_cast<float>(n);
    for (long long i = 0; i < frames; ++i) {
        float const* f = in + static_cast<long long>(n) * i;
        float sum = 0.0f;
        for (unsigned c = 0; c < n; ++c) {
            sum += f[c] * scale;
        }
        out[i] = sum;
    }
}

void LSRCConvChannels51Stereo::Mix(float* out, float const* in, long long frames) const {
    for (long long i = 0; i < frames; ++i) {
        float const* f = in + 6 * i;
        out[2 * i] = f[0] + g * (f[2] + f[4]) + 0.5f * f[3];
        out[2 * i + 1] = f[1] + g * (f[2] + f[5]) + 0.5f * f[3];
    }
}

void LSRCConvChannels71Stereo::Mix(float* out, float const* in, long long frames) const {
    for (long long i = 0; i < frames; ++i) {
        float const* f = in + 8 * i;
        out[2 * i] = f[0] + g * (f[2] + f[4]) + 0.5f * (f[6] + f[3]);
        out[2 * i + 1] = f[1] + g * (f[2] + f[5]) + 0.5f * (f[7] + f[3]);
    }
}

void LSRCConvChannelsQuadStereo::Mix(float* out, float const* in, long long frames) const {
    for (long long i = 0; i < frames; ++i) {
        float const* f = in + 4 * i;
        out[2 * i] = (f[0] + f[2]) * 0.5f;
        out[2 * i + 1] = (f[1] + f[3]) * 0.5f;
    }
}

void LSRCConvChannels71To51::Mix(float* out, float const* in, long long frames) const {
    for (long long i = 0; i < frames; ++i) {
        float const* f = in + 8 * i;
        float* o = out + 6 * i;
        o[0] = f[0];
        o[1] = f[1];
        o[2] = f[2];
        o[3] = f[3];
        o[4] = (f[4] + f[6]) * g;
        o[5] = (f[5] + f[7]) * g;
    }
}

void LSRCConvChannelsN::Mix(float* out, float const* in, long long frames) const {
    unsigned const n = InputChannels();
    unsigned const m = GetChannels();
    for (long long i = 0; i < frames; ++i) {
        float const* f = in + static_cast<long long>(n) * i;
        float* o = out + static_cast<long long>(m) * i;
        for (unsigned k = 0; k < m; ++k) {
            o[k] = f[k % n];
        }
    }
}

LSoundSource LSPConvChannels::OpenSource(LSoundSource& input) {
    unsigned const from = input->GetChannels();
    unsigned const to = m_channels;
    if (to == 0 || from == to) {
        return input;
    }
    if (from == 1 && to == 2) {
        return LMakeSource<LSRCConvMonoStereo>(input, m_channels);
    }
    if (to == 1) {
        switch (from) {
        case 2:
            return LMakeSource<LSRCConvStereoMono>(input, m_channels);
        case 6:
            return LMakeSource<LSRCConvChannels51Mono>(input, m_channels);
        case 8:
            return LMakeSource<LSRCConvChannels71Mono>(input, m_channels);
        default:
            return LMakeSource<LSRCConvChannelsNMono>(input, m_channels);
        }
    }
    if (to == 2) {
        switch (from) {
        case 6:
            return LMakeSource<LSRCConvChannels51Stereo>(input, m_channels);
        case 8:
            return LMakeSource<LSRCConvChannels71Stereo>(input, m_channels);
        case 4:
            return LMakeSource<LSRCConvChannelsQuadStereo>(input, m_channels);
        default:
            break;
        }
    }
    if (from == 8 && to == 6) {
        return LMakeSource<LSRCConvChannels71To51>(input, m_channels);
    }
    return LMakeSource<LSRCConvChannelsN>(input, m_channels);
}

void LSPConvertSourceRateChannels(int rateHz, unsigned char channels, LSoundSource& source) {
    if (rateHz <= 0) {
        rateHz = 44100;
    }
    if (channels != 0 && source->GetChannels() > channels) {
        source = LSPConvChannels(channels).OpenSource(source);
    }
    if (source->GetSampleRate() != rateHz) {
        source = LSPConvertRate(rateHz).OpenSource(source);
    }
    if (channels != 0 && source->GetChannels() != channels) {
        source = LSPConvChannels(channels).OpenSource(source);
    }
}
