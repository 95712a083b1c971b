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
      m_layout(std::make_unique<llib::detail::RateLayout>(
          llib::detail::MakeRateLayout(m_filter, input->GetChannels()))),
      m_inputChannels(input->GetChannels()), m_half(kLConvertRateTaps / 2),
      m_groupFrames(m_layout->frames) {
    // Room for a refill on top of what eight cycles of groups read at once, so the kernel can
    // run them together.
    m_capacity =
        kBlockFrames + m_layout->span + std::min(8 * m_layout->cycleInputs, 2 * kBlockFrames);
    m_buffer.assign(static_cast<std::size_t>(m_capacity) * m_inputChannels +
                        llib::detail::kRateReadPastEnd,
                    0.0f);
    m_carry.assign(static_cast<std::size_t>(m_groupFrames) * m_inputChannels, 0.0f);
    // Start at the first output position at or after the input's current frame, without
    // seeking the input (it may not support it): earlier frames read as silence.
    long long const inputFrame = m_input->GetPositionSample();
    long long const outFrame = LMulDivCeil(inputFrame, m_filter.GetPhases(), m_filter.GetStep());
    PlaceAt(outFrame, inputFrame);
}

LSRCConvertRate::~LSRCConvertRate() = default;

long long LSRCConvertRate::OutputToInputFrame(long long frame) const {
    return LMulDivFloor(frame, m_filter.GetStep(), m_filter.GetPhases());
}

long long LSRCConvertRate::FirstTapOfGroup(long long group) const {
    long long const cycle = m_layout->groups;
    return group / cycle * m_layout->cycleInputs +
           m_layout->offsets[static_cast<std::size_t>(group % cycle)] - m_half;
}

void LSRCConvertRate::PlaceAt(long long outFrame, long long inputFrame) {
    m_outPosition = outFrame;
    m_group = outFrame / m_groupFrames;
    m_skip = outFrame % m_groupFrames;
    m_carryUsed = 0;
    m_carryFrames = 0;
    // The buffer begins where the input stands or at the group's first tap, whichever is
    // earlier; the frames before the input's position are silence.
    m_bufferStart = std::min(FirstTapOfGroup(m_group), inputFrame);
    m_bufferFrames = 0;
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
    long long const inputFrame = std::max<long long>(0, FirstTapOfGroup(frame / m_groupFrames));
    m_input->Seek(inputFrame);
    PlaceAt(frame, inputFrame);
}

long LSRCConvertRate::ControlMessage(int id, long* value) {
    // No message is answered by the converter itself: its positions are already in output
    // frames, and what it does not know belongs to the sources beneath it.
    return m_input->ControlMessage(id, value);
}

void LSRCConvertRate::Refill() {
    // Drop frames no later group needs, keeping the next group's taps.
    long long const keepFrom =
        std::clamp<long long>(FirstTapOfGroup(m_group) - m_bufferStart, 0, m_bufferFrames);
    if (keepFrom > 0) {
        long long const kept = m_bufferFrames - keepFrom;
        std::memmove(m_buffer.data(), m_buffer.data() + keepFrom * m_inputChannels,
                     static_cast<std::size_t>(kept * m_inputChannels) * sizeof(float));
        m_bufferStart += keepFrom;
        m_bufferFrames = kept;
    }
    long long const space = m_capacity - m_bufferFrames;
    long long const next = m_bufferStart + m_bufferFrames; // absolute frame to append
    float* const end = m_buffer.data() + m_bufferFrames * m_inputChannels;
    if (next < m_silentBefore) {
        long long const n = std::min(space, m_silentBefore - next);
        std::fill_n(end, n * m_inputChannels, 0.0f);
        m_bufferFrames += n;
        return;
    }
    long long const n = std::min(space, kBlockFrames);
    m_input->Read(end, n);
    m_bufferFrames += n;
}

long long LSRCConvertRate::MakeGroups(float* out, long long groups) {
    llib::detail::RateKernelState state{m_group % m_layout->groups,
                                        FirstTapOfGroup(m_group) - m_bufferStart};
    long long const fit = llib::detail::RateGroupsThatFit(*m_layout, state, m_bufferFrames);
    // Refill as soon as the kernel could not run its widest blocks on what is left, rather than
    // when the last group runs out; a buffer already full from the next group on is used as is.
    bool const full = state.firstTap == 0 && m_bufferFrames == m_capacity;
    if (fit == 0 || (!full && fit < std::min(groups, 8 * m_layout->groups))) {
        Refill();
        state.firstTap = FirstTapOfGroup(m_group) - m_bufferStart;
    }
    long long const n =
        std::min(groups, llib::detail::RateGroupsThatFit(*m_layout, state, m_bufferFrames));
    llib::detail::RateKernelRun(*m_layout, m_buffer.data(), state, out, n);
    m_group += n;
    return n;
}

void LSRCConvertRate::Read(float* buffer, long long frames) {
    if (buffer == nullptr || frames <= 0) {
        return;
    }
    while (frames > 0) {
        if (m_carryUsed < m_carryFrames) {
            long long const n = std::min(frames, m_carryFrames - m_carryUsed);
            std::copy_n(m_carry.data() + m_carryUsed * m_inputChannels, n * m_inputChannels,
                        buffer);
            m_carryUsed += n;
            m_outPosition += n;
            buffer += n * m_inputChannels;
            frames -= n;
            continue;
        }
        // Whole groups go straight into the caller's buffer; a group the read starts or ends
        // inside is made into the carry and handed out from there.
        long long const whole = m_skip == 0 ? frames / m_groupFrames : 0;
        if (whole > 0) {
            long long const made = MakeGroups(buffer, whole);
            m_outPosition += made * m_groupFrames;
            buffer += made * m_groupFrames * m_inputChannels;
            frames -= made * m_groupFrames;
        } else if (MakeGroups(m_carry.data(), 1) == 1) {
            m_carryUsed = m_skip;
            m_carryFrames = m_groupFrames;
            m_skip = 0;
        }
    }
}

LSoundSource LSPConvertRate::OpenSource(LSoundSource& input) {
    return LMakeSource<LSRCConvertRate>(input, m_rateHz, m_approximate, false);
}
