// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/convertrate.h"

#include "ratekernel.h"

#include "llib/gen/muldiv.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numeric>

namespace {

// An exact ratio between two awkward rates can need tens of thousands of phases; past this many
// table floats (64 MB) the best ratio with at most 255 phases is used instead.
constexpr std::size_t kMaxTableFloats = std::size_t{16} << 20;

int RoundUpToLanes(int taps) {
    return (taps + 7) / 8 * 8;
}

} // namespace

double LConvertRateBase::I0(double x) {
    double const h = x / 2.0;
    double const h2 = h * h;
    double const h4 = h2 * h2;
    double const h6 = h4 * h2;
    double const h8 = h4 * h4;
    double const h10 = h8 * h2;
    double const h12 = h6 * h6;
    return 1.0 + h2 + h4 / 4.0 + h6 / 36.0 + h8 / 576.0 + h10 / 14400.0 + h12 / 518400.0;
}

void LConvertRateBase::ComputeRatio(int inRate, int outRate, bool approximate, unsigned& phases,
                                    unsigned& step) {
    if (inRate < 1) {
        inRate = 44100;
    }
    if (outRate <= 0) {
        outRate = 44100;
    }
    if (!approximate) {
        int const rem = inRate % outRate;
        if (rem == 0) {
            phases = 1;
            step = static_cast<unsigned>(inRate / outRate);
        } else {
            // The smallest k >= 2 with k * rem a multiple of outRate.
            phases = static_cast<unsigned>(outRate / std::gcd(rem, outRate));
            step = static_cast<unsigned>(static_cast<long long>(phases) * inRate / outRate);
        }
    } else {
        double const r = static_cast<double>(inRate) / outRate;
        double best = r;
        unsigned bestN = 1;
        bool found = false;
        for (unsigned n = 1; n < 256; ++n) {
            auto const m = static_cast<std::uint16_t>(static_cast<long long>(r * n + 0.5));
            double const err = std::fabs(r - static_cast<double>(m) / n);
            if (err < best) {
                best = err;
                bestN = n;
            }
            if (err < 1e-5) {
                bestN = n;
                found = true;
                break;
            }
        }
        (void)found;
        phases = bestN;
        step = static_cast<unsigned>(static_cast<long long>(r * bestN + 0.5));
    }
    if (step < 1) {
        step = 1;
    }
    if (phases < 1) {
        phases = 1;
    }
}

LConvertRateBase::LConvertRateBase(int inRate, int outRate, int taps, bool approximate,
                                   bool normalize)
    : m_taps(taps < 1 ? 1 : taps), m_stride(RoundUpToLanes(taps < 1 ? 1 : taps)),
      m_approximate(approximate) {
    if (inRate < 1) {
        inRate = 44100;
    }
    if (outRate <= 0) {
        outRate = 44100;
    }
    ComputeRatio(inRate, outRate, m_approximate, m_phases, m_step);
    if (!m_approximate && static_cast<std::size_t>(m_phases) * m_stride > kMaxTableFloats) {
        m_approximate = true;
        ComputeRatio(inRate, outRate, true, m_phases, m_step);
    }

    bool const upsampling = outRate > inRate;
    // The cutoff sits a little below the lower Nyquist frequency so the 63-tap filter's
    // transition band stays clear of aliasing when down-sampling. A very steep reduction would
    // push it to zero or below; keep a sliver of pass band there instead of an inverted filter.
    m_cutoff = upsampling ? 0.975 : static_cast<double>(outRate) / inRate - 0.046875;
    if (m_cutoff <= 0.0) {
        m_cutoff = 0.5 * outRate / inRate;
    }
    m_beta = upsampling ? 5.6 : 4.538;

    double const fc = m_cutoff;
    double const g = fc / I0(m_beta);
    int const h = m_taps / 2;
    double const d2max = static_cast<double>(h + 1) * (h + 1);
    double const pi = 3.14159265358979323846;
    m_table.assign(static_cast<std::size_t>(m_phases) * m_stride, 0.0f);
    for (unsigned p = 0; p < m_phases; ++p) {
        float* row = m_table.data() + static_cast<std::size_t>(p) * m_stride;
        double sum = 0.0;
        for (int t = 0; t < m_taps; ++t) {
            double const d = static_cast<double>(t - h) - static_cast<double>(p) / m_phases;
            double c = fc;
            if (d != 0.0) {
                double const x = pi * fc * d;
                c = g * std::sin(x) / x * I0(m_beta * std::sqrt(1.0 - d * d / d2max));
            }
            row[t] = static_cast<float>(c);
            sum += c;
        }
        if (normalize && sum != 0.0) {
            for (int t = 0; t < m_taps; ++t) {
                row[t] = static_cast<float>(row[t] / sum);
            }
        }
    }
}

// ---- LSRCConvertRate ----

LSRCConvertRate::LSRCConvertRate(LSoundSource const& input, int rateHz, bool approximate,
                                 bool normalize)
    : LSoundProcessBase(input, rateHz <= 0 ? 44100 : rateHz, input->GetChannels()),
      m_filter(input->GetSampleRate(), rateHz <= 0 ? 44100 : rateHz, kLConvertRateTaps, approximate,
               normalize),
      m_inputChannels(input->GetChannels()), m_half(kLConvertRateTaps / 2),
      m_planeCapacity(kBlockFrames + m_filter.GetStride()) {
    m_planes.assign(static_cast<std::size_t>(m_planeCapacity) * m_inputChannels, 0.0f);
    m_interleaved.assign(static_cast<std::size_t>(kPieceFrames) * m_inputChannels, 0.0f);
    m_planePointers.resize(m_inputChannels);
    for (unsigned c = 0; c < m_inputChannels; ++c) {
        m_planePointers[c] = m_planes.data() + static_cast<std::size_t>(c) * m_planeCapacity;
    }
    // Start at the first output position at or after the input's current frame, without
    // seeking the input (it may not support it): earlier frames read as silence.
    long long const inputFrame = m_input->GetPositionSample();
    long long const outFrame = LMulDivCeil(inputFrame, m_filter.GetPhases(), m_filter.GetStep());
    PlaceAt(outFrame, inputFrame);
}

long long LSRCConvertRate::OutputToInputFrame(long long frame) const {
    return LMulDivFloor(frame, m_filter.GetStep(), m_filter.GetPhases());
}

long long LSRCConvertRate::FirstTapOf(long long outFrame) const {
    return OutputToInputFrame(outFrame) - m_half;
}

void LSRCConvertRate::PlaceAt(long long outFrame, long long inputFrame) {
    LInt128 const position = static_cast<LInt128>(outFrame) * m_filter.GetStep();
    long long const centre = LMulDivFloor(outFrame, m_filter.GetStep(), m_filter.GetPhases());
    m_outPosition = outFrame;
    m_phase = static_cast<unsigned>(position - static_cast<LInt128>(centre) * m_filter.GetPhases());
    m_firstTap = centre - m_half;
    // The planes begin where the input stands or at the first tap, whichever is earlier; the
    // frames before the input's position are silence.
    m_planeStart = std::min(m_firstTap, inputFrame);
    m_planeFrames = 0;
    m_silentBefore = inputFrame;
}

long long LSRCConvertRate::GetEndSample() const {
    long long const inputEnd = m_input->GetEndSample();
    if (inputEnd <= 0) {
        return 0;
    }
    return LMulDivCeil(inputEnd, m_filter.GetPhases(), m_filter.GetStep());
}

void LSRCConvertRate::Seek(long long frame) {
    if (frame < 0) {
        frame = 0;
    }
    long long const inputFrame = std::max<long long>(0, FirstTapOf(frame));
    m_input->Seek(inputFrame);
    PlaceAt(frame, inputFrame);
}

long LSRCConvertRate::ControlMessage(int id, long* value) {
    // No message is answered by the converter itself: its positions are already in output
    // frames, and what it does not know belongs to the sources beneath it.
    return m_input->ControlMessage(id, value);
}

void LSRCConvertRate::Refill() {
    // Drop frames no later output needs, keeping the next output's taps.
    long long const keepFrom = std::clamp<long long>(m_firstTap - m_planeStart, 0, m_planeFrames);
    if (keepFrom > 0) {
        long long const kept = m_planeFrames - keepFrom;
        for (unsigned c = 0; c < m_inputChannels; ++c) {
            float* plane = m_planes.data() + static_cast<std::size_t>(c) * m_planeCapacity;
            std::memmove(plane, plane + keepFrom, static_cast<std::size_t>(kept) * sizeof(float));
        }
        m_planeStart += keepFrom;
        m_planeFrames = kept;
    }
    long long const space = m_planeCapacity - m_planeFrames;
    long long const next = m_planeStart + m_planeFrames; // absolute frame to append
    if (next < m_silentBefore) {
        long long const n = std::min(space, m_silentBefore - next);
        for (unsigned c = 0; c < m_inputChannels; ++c) {
            float* plane = m_planes.data() + static_cast<std::size_t>(c) * m_planeCapacity;
            std::fill_n(plane + m_planeFrames, n, 0.0f);
        }
        m_planeFrames += n;
        return;
    }
    // Read in pieces small enough that each is split into the planes while it is still in the
    // nearest cache.
    long long left = std::min(space, kBlockFrames);
    while (left > 0) {
        long long const n = std::min(left, kPieceFrames);
        m_input->Read(m_interleaved.data(), n);
        llib::detail::RateKernelSplit(m_interleaved.data(), n, m_inputChannels,
                                      m_planes.data() + m_planeFrames, m_planeCapacity);
        m_planeFrames += n;
        left -= n;
    }
}

void LSRCConvertRate::Read(float* buffer, long long frames) {
    if (buffer == nullptr || frames <= 0) {
        return;
    }
    int const stride = m_filter.GetStride();
    std::span<float const> const table(m_filter.GetTable());
    std::span<float const* const> const planes(m_planePointers);
    // The kernel is fastest on whole blocks of 2 * P outputs (each coefficient row serves an
    // output and its twin P outputs later, S input frames on). So the planes are refilled as soon
    // as the next such block no longer fits, rather than when the last window runs out.
    long long const twinOutputs = 2LL * m_filter.GetPhases();
    long long const twinInputs = 2LL * m_filter.GetStep();
    while (frames > 0) {
        long long const rel = m_firstTap - m_planeStart;
        if (rel + stride > m_planeFrames) {
            Refill();
            continue;
        }
        long long ask = frames;
        if (frames >= twinOutputs) {
            long long const blocks = (m_planeFrames - stride - rel) / twinInputs;
            if (blocks >= 1) {
                ask = std::min(frames, blocks * twinOutputs);
            } else if (rel > 0) {
                Refill();
                continue;
            }
        }
        llib::detail::RateKernelState state{rel, m_phase};
        long long const made = llib::detail::RateKernelRun(
            table, stride, m_filter.GetPhases(), m_filter.GetStep(), planes, m_planeFrames, state,
            std::span<float>(buffer, static_cast<std::size_t>(ask) * m_inputChannels));
        m_firstTap = m_planeStart + state.firstTap;
        m_phase = state.phase;
        m_outPosition += made;
        buffer += made * m_inputChannels;
        frames -= made;
    }
}

LSoundSource LSPConvertRate::OpenSource(LSoundSource& input) {
    return LMakeSource<LSRCConvertRate>(input, m_rateHz, m_approximate, false);
}
