// SPDX-License-Identifier: GPL-3.0-or-later
#include "tests/support/testsources.h"

#include <algorithm>
#include <cmath>
#include <random>

LTestStaircaseSource::LTestStaircaseSource(int rateHz, unsigned char channels, long long frames)
    : LSoundSourceBase(rateHz, channels), m_end(frames) {}

void LTestStaircaseSource::Read(float* buffer, long long frames) {
    if (buffer == nullptr || frames <= 0) {
        return;
    }
    m_reads.push_back(frames);
    unsigned const channels = GetChannels();
    for (long long f = 0; f < frames; ++f) {
        long long const frame = m_position + f;
        for (unsigned c = 0; c < channels; ++c) {
            buffer[f * channels + c] =
                frame >= 0 && frame < m_end ? StaircaseValue(frame, c) : 0.0f;
        }
    }
    m_position += frames;
    if (m_growEvery > 0 && m_growthsLeft > 0 &&
        static_cast<int>(m_reads.size()) % m_growEvery == 0) {
        m_end += m_growFrames;
        --m_growthsLeft;
    }
}

void LTestStaircaseSource::GrowAfterReads(int everyReads, long long frames, int growths) {
    m_growEvery = everyReads;
    m_growFrames = frames;
    m_growthsLeft = growths;
}

long long LTestStaircaseSource::GetFramesRead() const {
    long long total = 0;
    for (long long n : m_reads) {
        total += n;
    }
    return total;
}

LTestBufferSource::LTestBufferSource(int rateHz, unsigned char channels, std::vector<float> samples)
    : LSoundSourceBase(rateHz, channels), m_samples(std::move(samples)),
      m_frames(static_cast<long long>(m_samples.size()) / (channels == 0 ? 1 : channels)) {}

void LTestBufferSource::Read(float* buffer, long long frames) {
    if (buffer == nullptr || frames <= 0) {
        return;
    }
    unsigned const channels = GetChannels();
    for (long long f = 0; f < frames; ++f) {
        long long const frame = m_position + f;
        for (unsigned c = 0; c < channels; ++c) {
            buffer[f * channels + c] =
                frame >= 0 && frame < m_frames
                    ? m_samples[static_cast<std::size_t>(frame * channels + c)]
                    : 0.0f;
        }
    }
    m_position += frames;
}

std::vector<float> MakeSine(int rateHz, unsigned channels, double hz, double amplitude,
                            long long frames) {
    std::vector<float> out(static_cast<std::size_t>(frames) * channels);
    double const pi = 3.14159265358979323846;
    for (long long f = 0; f < frames; ++f) {
        for (unsigned c = 0; c < channels; ++c) {
            double const phase = 2.0 * pi * hz * static_cast<double>(f) / rateHz + c * pi / 2.0;
            out[static_cast<std::size_t>(f * channels + c)] =
                static_cast<float>(amplitude * std::sin(phase));
        }
    }
    return out;
}

std::vector<float> MakeNoise(unsigned channels, long long frames, double amplitude,
                             std::uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> dist(-amplitude, amplitude);
    std::vector<float> out(static_cast<std::size_t>(frames) * channels);
    for (float& v : out) {
        v = static_cast<float>(dist(rng));
    }
    return out;
}

LSoundSource MakeBufferSource(int rateHz, unsigned char channels, std::vector<float> samples) {
    return LMakeSource<LTestBufferSource>(rateHz, channels, std::move(samples));
}

std::vector<float> ReadAll(LSoundSource& source, long long chunkFrames, long long frames) {
    long long total = frames >= 0 ? frames : source->GetRemainingFrames();
    unsigned const channels = source->GetChannels();
    std::vector<float> out(static_cast<std::size_t>(total) * channels);
    long long done = 0;
    while (done < total) {
        long long const n = std::min(chunkFrames, total - done);
        source->Read(out.data() + done * channels, n);
        done += n;
    }
    return out;
}
