// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Sources for benchmarks: cheap enough that a timed chain measures the code under test, not the
// source. The noise source plays a pre-generated table in a loop with one or two memcpy per Read.

#include "llib/snd/soundsource.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

class LBenchNoiseSource final : public LSoundSourceBase {
public:
    // `frames` long, white noise in [-amplitude, amplitude] from a table of `tableFrames` frames.
    LBenchNoiseSource(int rateHz, unsigned char channels, long long frames, float amplitude,
                      long long tableFrames = 65536, std::uint32_t seed = 1);

    void Read(float* buffer, long long frames) override;
    [[nodiscard]] long long GetPositionSample() const override { return m_position; }
    [[nodiscard]] long long GetEndSample() const override { return m_end; }
    void Seek(long long frame) override { m_position = frame; }

private:
    std::vector<float> m_table;
    long long m_tableFrames;
    long long m_end;
    long long m_position = 0;
};

// Reproducible white noise in [-amplitude, amplitude], `count` samples.
[[nodiscard]] std::vector<float> MakeBenchNoise(long long count, float amplitude,
                                                std::uint32_t seed);

// The sizes of the files in `folder`, by name: a benchmark that must not write compares two.
[[nodiscard]] std::map<std::string, std::uintmax_t> BenchFileSizes(std::string const& folder);
