// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/equalizer.h"

#include "llib/snd/fft.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>

namespace {

// Kaiser's window parameter: sidelobes near -80 dB with a transition of about 5 grid steps.
constexpr double kKaiserBeta = 8.0;

double BesselI0(double x) {
    double sum = 1.0;
    double term = 1.0;
    double const quarter = x * x / 4.0;
    for (int k = 1; k < 64 && term > sum * 1e-17; ++k) {
        term *= quarter / (static_cast<double>(k) * static_cast<double>(k));
        sum += term;
    }
    return sum;
}

} // namespace

void LPointList::Add(double hz, double db) {
    auto const at = std::upper_bound(m_points.begin(), m_points.end(), hz,
                                     [](double f, LEqPoint const& p) { return f < p.hz; });
    m_points.insert(at, LEqPoint{hz, db});
}

double LPointList::GetGainDb(double hz) const {
    if (m_points.empty()) {
        return 0.0;
    }
    if (hz <= m_points.front().hz) {
        return m_points.front().db;
    }
    if (hz >= m_points.back().hz) {
        return m_points.back().db;
    }
    // The first point above hz and the last one at or below it: at a jump (two points at one
    // frequency) the later point's gain holds from its frequency on.
    auto const above = std::upper_bound(m_points.begin(), m_points.end(), hz,
                                        [](double f, LEqPoint const& p) { return f < p.hz; });
    LEqPoint const& b = *above;
    LEqPoint const& a = *(above - 1);
    double const t = (hz - a.hz) / (b.hz - a.hz);
    return a.db + (b.db - a.db) * t;
}

void LPointList::MapPointListToEq(LSPEq& eq, int rateHz) const {
    int const length = LEqDesignLength(rateHz);
    std::vector<float> gains(static_cast<std::size_t>(length) / 2 + 1);
    for (std::size_t k = 0; k < gains.size(); ++k) {
        double const hz = static_cast<double>(k) * rateHz / length;
        gains[k] = static_cast<float>(std::pow(10.0, GetGainDb(hz) / 20.0));
    }
    eq.SetResponse(rateHz, std::move(gains));
}

int LEqDesignLength(int rateHz) {
    int length = 256;
    while (length < 65536 && length < rateHz / 11) {
        length *= 2;
    }
    return length;
}

std::shared_ptr<LEqKernel const> LDesignEqKernel(std::span<float const> gains) {
    auto kernel = std::make_shared<LEqKernel>();
    int const length = static_cast<int>(gains.size() - 1) * 2;
    kernel->designLength = length;
    kernel->fftSize = 4 * length;
    // The zero-phase impulse response through the grid: a real, even spectrum.
    std::vector<float> impulse(static_cast<std::size_t>(length));
    {
        LFFTReal fft(length);
        for (std::size_t k = 0; k < gains.size(); ++k) {
            fft.Spectrum()[k] = {gains[k], 0.0f};
        }
        fft.Inverse();
        float const scale = 1.0f / static_cast<float>(length);
        for (int m = 0; m < length; ++m) {
            impulse[static_cast<std::size_t>(m)] = fft.Time()[m] * scale;
        }
    }
    // Centred and windowed: length + 1 symmetric taps, delay length / 2.
    kernel->taps.resize(static_cast<std::size_t>(length) + 1);
    double const i0Beta = BesselI0(kKaiserBeta);
    int const half = length / 2;
    for (int n = 0; n <= length; ++n) {
        double const x = static_cast<double>(n - half) / half;
        double const w = BesselI0(kKaiserBeta * std::sqrt(std::max(0.0, 1.0 - x * x))) / i0Beta;
        int const m = ((n - half) % length + length) % length;
        kernel->taps[static_cast<std::size_t>(n)] =
            static_cast<float>(w * impulse[static_cast<std::size_t>(m)]);
    }
    LFFTReal fft(kernel->fftSize);
    std::fill_n(fft.Time(), kernel->fftSize, 0.0f);
    std::copy(kernel->taps.begin(), kernel->taps.end(), fft.Time());
    fft.Forward();
    float const scale = 1.0f / static_cast<float>(kernel->fftSize);
    std::size_t const bins = static_cast<std::size_t>(kernel->fftSize) / 2 + 1;
    kernel->spectrum.assign(fft.Spectrum(), fft.Spectrum() + bins);
    for (std::complex<float>& bin : kernel->spectrum) {
        bin *= scale;
    }
    return kernel;
}

LSRCEq::LSRCEq(LSoundSource const& input, std::shared_ptr<LEqKernel const> kernel)
    : LSoundProcessBase(input), m_kernel(std::move(kernel)),
      m_position(input->GetPositionSample()) {
    std::size_t const channels = GetChannels();
    std::size_t const size = static_cast<std::size_t>(m_kernel->fftSize);
    std::size_t const hop = size - static_cast<std::size_t>(m_kernel->designLength);
    m_block.resize(size * channels);
    for (std::size_t c = 0; c < channels; ++c) {
        m_channels.push_back(m_block.data() + c * size);
    }
    m_output.resize(hop * channels);
    m_scratch.resize(hop * channels);
}

LSRCEq::~LSRCEq() = default;

void LSRCEq::Seek(long long frame) {
    m_position = frame;
    m_primed = false;
    m_outputFrames = 0;
    m_outputUsed = 0;
}

void LSRCEq::ReadInput(float* const* channels, int offset, int frames, long long from) {
    // Frames before the start and after the end of the input are silence.
    unsigned const count = GetChannels();
    long long const end = m_input->GetEndSample();
    int done = 0;
    if (from < 0) {
        int const n = static_cast<int>(std::min<long long>(frames, -from));
        for (unsigned c = 0; c < count; ++c) {
            std::fill_n(channels[c] + offset, n, 0.0f);
        }
        done = n;
    }
    while (done < frames) {
        long long const at = from + done;
        int const want = std::min(frames - done, static_cast<int>(m_scratch.size() / count));
        int const available = static_cast<int>(std::clamp<long long>(end - at, 0, want));
        if (available > 0) {
            if (m_input->GetPositionSample() != at) {
                m_input->Seek(at);
            }
            m_input->Read(m_scratch.data(), available);
        }
        float const* in = m_scratch.data();
        for (unsigned c = 0; c < count; ++c) {
            float* out = channels[c] + offset + done;
            for (int f = 0; f < available; ++f) {
                out[f] = in[static_cast<std::size_t>(f) * count + c];
            }
            std::fill(out + available, out + want, 0.0f);
        }
        done += want;
    }
}

void LSRCEq::NextBlock() {
    if (!m_fft) {
        m_fft = std::make_unique<LFFTReal>(m_kernel->fftSize);
    }
    unsigned const count = GetChannels();
    int const size = m_kernel->fftSize;
    int const overlap = m_kernel->designLength;
    int const hop = size - overlap;
    float* const* const channels = m_channels.data();
    if (!m_primed) {
        // The block that yields output frame p starts half the filter's length before it.
        m_blockStart = m_position - overlap / 2;
        ReadInput(channels, 0, size, m_blockStart);
        m_primed = true;
    } else {
        m_blockStart += hop;
        for (unsigned c = 0; c < count; ++c) {
            std::memmove(channels[c], channels[c] + hop, sizeof(float) * overlap);
        }
        ReadInput(channels, overlap, hop, m_blockStart + overlap);
    }
    std::complex<float> const* const response = m_kernel->spectrum.data();
    int const bins = size / 2 + 1;
    for (unsigned c = 0; c < count; ++c) {
        std::copy_n(channels[c], size, m_fft->Time());
        m_fft->Forward();
        std::complex<float>* const spectrum = m_fft->Spectrum();
        for (int k = 0; k < bins; ++k) {
            spectrum[k] *= response[k];
        }
        m_fft->Inverse();
        // Circular convolution wraps the first `overlap` values; the rest are the output.
        std::copy_n(m_fft->Time() + overlap, hop,
                    m_output.data() + static_cast<std::size_t>(c) * hop);
    }
    m_outputFrames = hop;
    m_outputUsed = 0;
}

void LSRCEq::Read(float* buffer, long long frames) {
    if (buffer == nullptr || frames <= 0) {
        return;
    }
    unsigned const count = GetChannels();
    std::size_t const hop = m_output.size() / count;
    while (frames > 0) {
        if (m_outputUsed == m_outputFrames) {
            NextBlock();
        }
        int const n = static_cast<int>(std::min<long long>(frames, m_outputFrames - m_outputUsed));
        for (unsigned c = 0; c < count; ++c) {
            float const* in = m_output.data() + c * hop + m_outputUsed;
            for (int f = 0; f < n; ++f) {
                buffer[static_cast<std::size_t>(f) * count + c] = in[f];
            }
        }
        buffer += static_cast<std::size_t>(n) * count;
        frames -= n;
        m_outputUsed += n;
        m_position += n;
    }
}

void LSPEq::SetResponse(int rateHz, std::vector<float> gains) {
    m_rateHz = rateHz;
    m_gains = std::move(gains);
}

void LSPEq::GetName(char* name) const {
    LStrCopy(name, kLMaxText, "Equalizer");
}

LSoundSource LSPEq::OpenSource(LSoundSource& input) {
    if (m_gains.size() < 2 || m_rateHz < 1) {
        return input;
    }
    int const rateHz = input->GetSampleRate();
    if (rateHz == m_rateHz) {
        return LMakeSource<LSRCEq>(input, LDesignEqKernel(m_gains));
    }
    // Another rate: the same curve over frequency, read off the grid by interpolation.
    int const length = LEqDesignLength(rateHz);
    double const step = static_cast<double>(m_gains.size() - 1) * 2 / m_rateHz;
    std::vector<float> gains(static_cast<std::size_t>(length) / 2 + 1);
    for (std::size_t k = 0; k < gains.size(); ++k) {
        double const x = static_cast<double>(k) * rateHz / length * step;
        std::size_t const i = std::min(static_cast<std::size_t>(x), m_gains.size() - 1);
        std::size_t const j = std::min(i + 1, m_gains.size() - 1);
        double const t = std::min(1.0, x - static_cast<double>(i));
        gains[k] = static_cast<float>(m_gains[i] + (m_gains[j] - m_gains[i]) * t);
    }
    return LMakeSource<LSRCEq>(input, LDesignEqKernel(gains));
}
