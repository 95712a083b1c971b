// SPDX-License-Identifier: GPL-3.0-or-later
#include "bench/support/benchsources.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <system_error>

std::vector<float> MakeBenchNoise(long long count, float amplitude, std::uint32_t seed) {
    std::vector<float> samples(static_cast<std::size_t>(count > 0 ? count : 0));
    // xorshift32: the same table on every machine, and no <random> distribution whose output
    // differs between standard libraries.
    std::uint32_t state = seed != 0 ? seed : 1;
    for (float& s : samples) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        float const unit = static_cast<float>(state >> 8) * (1.0f / 8388608.0f); // [0, 2)
        s = (unit - 1.0f) * amplitude;
    }
    return samples;
}

LBenchNoiseSource::LBenchNoiseSource(int rateHz, unsigned char channels, long long frames,
                                     float amplitude, long long tableFrames, std::uint32_t seed)
    : LSoundSourceBase(rateHz, channels), m_tableFrames(std::max<long long>(1, tableFrames)),
      m_end(frames) {
    m_table = MakeBenchNoise(m_tableFrames * GetChannels(), amplitude, seed);
}

void LBenchNoiseSource::Read(float* buffer, long long frames) {
    if (buffer == nullptr || frames <= 0) {
        return;
    }
    long long const channels = GetChannels();
    // Past the end a source reads silence.
    long long const audible = std::clamp<long long>(m_end - m_position, 0, frames);
    std::memset(buffer + audible * channels, 0,
                static_cast<std::size_t>((frames - audible) * channels) * sizeof(float));
    long long const silentFrames = frames - audible;
    frames = audible;
    while (frames > 0) {
        long long const at = ((m_position % m_tableFrames) + m_tableFrames) % m_tableFrames;
        long long const n = std::min(frames, m_tableFrames - at);
        std::memcpy(buffer, m_table.data() + at * channels,
                    static_cast<std::size_t>(n * channels) * sizeof(float));
        buffer += n * channels;
        frames -= n;
        m_position += n;
    }
    m_position += silentFrames;
}

std::map<std::string, std::uintmax_t> BenchFileSizes(std::string const& folder) {
    std::map<std::string, std::uintmax_t> sizes;
    std::error_code error;
    for (auto const& entry : std::filesystem::directory_iterator(folder, error)) {
        std::error_code sizeError;
        std::uintmax_t const bytes = entry.file_size(sizeError);
        sizes[entry.path().filename().string()] = sizeError ? 0 : bytes;
    }
    return sizes;
}
