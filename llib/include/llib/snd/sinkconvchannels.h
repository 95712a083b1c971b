// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Channel conversion: transforming sources that change a stream's channel count with fixed
// mixing rules, one per common layout pair, and the wrapper that fits any source to a consumer's
// rate and channel count.
//
// Layouts the rules assume: 5.1 is L, R, C, LFE, Ls, Rs; 7.1 is L, R, C, LFE, two rear (4, 5)
// and two side (6, 7); quadraphonic is front L, front R, rear L, rear R. g is -3 dB.
// Down-mixes deliberately do not renormalise: 5.1 and 7.1 to stereo can exceed full scale, and
// the peak limiter in front of every sink catches that. Any other pair copies channels
// cyclically (output k takes input k mod inputs).
//
// Each converter keeps its input's rate, positions and length (one output frame per input
// frame). Read reads the same number of input frames into a scratch buffer made at construction
// and mixes into the caller's buffer.

#include "llib/snd/soundprocess.h"

#include <vector>

inline constexpr float kLChannelMinus3dB = 0.70794576f;

// The common shape: read input in chunks into scratch, mix each chunk into the output.
class LSRCConvChannelsBase : public LSoundProcessBase {
public:
    LSRCConvChannelsBase(LSoundSource const& input, unsigned char outputChannels);
    void Read(float* buffer, long long frames) final;

protected:
    // Mixes `frames` input frames (input layout) into `out` (output layout).
    virtual void Mix(float* out, float const* in, long long frames) const = 0;
    [[nodiscard]] unsigned InputChannels() const { return m_inputChannels; }

private:
    static constexpr long long kChunkFrames = 2048;
    unsigned m_inputChannels;
    std::vector<float> m_scratch;
};

#define LSRC_CONV_CHANNELS(Name)                                                                   \
    class Name final : public LSRCConvChannelsBase {                                               \
    public:                                                                                        \
        Name(LSoundSource const& input, unsigned char outputChannels)                              \
            : LSRCConvChannelsBase(input, outputChannels) {}                                       \
                                                                                                   \
    protected:                                                                                     \
        void Mix(float* out, float const* in, long long frames) const override;                    \
    };

LSRC_CONV_CHANNELS(LSRCConvMonoStereo)
LSRC_CONV_CHANNELS(LSRCConvStereoMono)
LSRC_CONV_CHANNELS(LSRCConvChannels51Mono)
LSRC_CONV_CHANNELS(LSRCConvChannels71Mono)
LSRC_CONV_CHANNELS(LSRCConvChannelsNMono)
LSRC_CONV_CHANNELS(LSRCConvChannels51Stereo)
LSRC_CONV_CHANNELS(LSRCConvChannels71Stereo)
LSRC_CONV_CHANNELS(LSRCConvChannelsQuadStereo)
LSRC_CONV_CHANNELS(LSRCConvChannels71To51)
LSRC_CONV_CHANNELS(LSRCConvChannelsN)
#undef LSRC_CONV_CHANNELS

// The effect that converts to `channels`; a source that already has them is returned as is.
class LSPConvChannels final : public LSoundProcess {
public:
    explicit LSPConvChannels(unsigned char channels) : m_channels(channels) {}
    [[nodiscard]] LSoundSource OpenSource(LSoundSource& input) override;
    [[nodiscard]] std::unique_ptr<LSoundProcess> GetNewCopy() const override {
        return std::make_unique<LSPConvChannels>(*this);
    }
    [[nodiscard]] unsigned char GetChannels() const { return m_channels; }

private:
    unsigned char m_channels;
};

// Wraps `source` so it delivers `rateHz` (0 or less: 44100) and `channels` (0: unchanged),
// mixing down before resampling and up after it so the resampler handles the fewest channels.
void LSPConvertSourceRateChannels(int rateHz, unsigned char channels, LSoundSource& source);
