// SPDX-License-Identifier: GPL-3.0-or-later
// The FLAC encoder's analysis and frame writer: the stereo decision, an order-8 linear predictor
// per channel from the Tukey-windowed autocorrelation, coefficient quantisation, the residual
// and its partitioned Rice coding.
#include "flaccodec.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace llib::detail {

namespace {

constexpr double kPi = 3.14159265358979323846;

inline std::uint32_t Fold(std::int32_t r) {
    return (static_cast<std::uint32_t>(r) << 1) ^ static_cast<std::uint32_t>(r >> 31);
}

// Sum and largest of the folded residual over [begin, end).
void FoldedStats(std::int32_t const* r, int begin, int end, std::uint64_t& sum,
                 std::uint32_t& largest) {
    std::uint64_t s = 0;
    std::uint32_t m = 0;
    for (int i = begin; i < end; ++i) {
        std::uint32_t const u = Fold(r[i]);
        s += u;
        m = std::max(m, u);
    }
    sum = s;
    largest = m;
}

// The exact length of the Rice codes of [begin, end) with parameter k.
std::uint64_t ExactRiceBits(std::int32_t const* r, int begin, int end, int k) {
    std::uint64_t quotients = 0;
    for (int i = begin; i < end; ++i) {
        quotients += Fold(r[i]) >> k;
    }
    return quotients + static_cast<std::uint64_t>(end - begin) * static_cast<std::uint64_t>(k + 1);
}

// Estimated length of `count` codes whose folded values sum to `sum`, with parameter k: each
// code is its quotient, the stop bit and k low bits; the quotients sum to about sum >> k.
std::uint64_t EstimatedRiceBits(std::uint64_t sum, int count, int k) {
    return (sum >> k) + static_cast<std::uint64_t>(count) * static_cast<std::uint64_t>(k + 1);
}

template <int kOrder>
void ResidualNarrow(std::int32_t const* x, int frames, std::int32_t const* coefs, int shift,
                    std::int32_t* residual) {
    std::int32_t c[kOrder];
    for (int j = 0; j < kOrder; ++j) {
        c[j] = coefs[j];
    }
    for (int i = kOrder; i < frames; ++i) {
        std::int32_t sum = 0;
        for (int j = 0; j < kOrder; ++j) {
            sum += c[j] * x[i - 1 - j];
        }
        residual[i] = x[i] - (sum >> shift);
    }
}

} // namespace

bool LFLACSideFits(std::int32_t const* interleaved, int frames, int bits) {
    std::int64_t const limit = std::int64_t{1} << bits;
    bool fits = true;
    for (int i = 0; i < frames; ++i) {
        std::int64_t const d =
            static_cast<std::int64_t>(interleaved[2 * i]) - interleaved[2 * i + 1];
        fits = fits && d <= limit && -d <= limit;
    }
    return fits;
}

bool LFLACChooseSideChannel(std::int32_t const* interleaved, int frames, int bits) {
    if (bits >= 32 || !LFLACSideFits(interleaved, frames, bits)) {
        return false; // a side channel would need 33 bits, or more than the block allows
    }
    double side = 0;
    double right = 0;
    for (int i = 0; i < frames; ++i) {
        std::int64_t const b = interleaved[2 * i + 1];
        std::int64_t const d = interleaved[2 * i] - b;
        side += static_cast<double>(d * d) / 4096.0;
        right += static_cast<double>(b * b) / 4096.0;
    }
    return side <= right;
}

LFLACChannelAssignment LFLACChooseSideAssignment(std::int32_t const* interleaved, int frames,
                                                 bool allowIndependent) {
    // Second differences stand in for what a predictor leaves: cheap, and they rank the
    // candidates as the coded sizes would.
    std::int64_t sums[4] = {0, 0, 0, 0}; // left, right, mid, side
    std::int64_t prev1[4] = {};
    std::int64_t prev2[4] = {};
    for (int i = 0; i < frames; ++i) {
        std::int64_t const l = interleaved[2 * i];
        std::int64_t const r = interleaved[2 * i + 1];
        std::int64_t const v[4] = {l, r, (l + r) >> 1, l - r};
        for (int c = 0; c < 4; ++c) {
            if (i >= 2) {
                std::int64_t const d = v[c] - 2 * prev1[c] + prev2[c];
                sums[c] += d < 0 ? -d : d;
            }
            prev2[c] = prev1[c];
            prev1[c] = v[c];
        }
    }
    // Bits per sample grow with the logarithm of the mean magnitude.
    double cost[4];
    for (int c = 0; c < 4; ++c) {
        cost[c] = std::log2(1.0 + static_cast<double>(sums[c]) / std::max(frames, 1));
    }
    struct Candidate {
        LFLACChannelAssignment assignment;
        double cost;
    };
    Candidate const candidates[4] = {
        {LFLACChannelAssignment::kLeftSide, cost[0] + cost[3]},
        {LFLACChannelAssignment::kRightSide, cost[1] + cost[3]},
        {LFLACChannelAssignment::kMidSide, cost[2] + cost[3]},
        {LFLACChannelAssignment::kIndependent, allowIndependent ? cost[0] + cost[1] : HUGE_VAL},
    };
    Candidate best = candidates[0];
    for (Candidate const& c : candidates) {
        if (c.cost < best.cost) {
            best = c;
        }
    }
    return best.assignment;
}

bool LFLACQuantizeCoefficients(double const* coefs, int order, std::int32_t* out, int& shift) {
    double largest = 0;
    for (int j = 0; j < order; ++j) {
        if (!std::isfinite(coefs[j])) {
            return false;
        }
        largest = std::max(largest, std::fabs(coefs[j]));
    }
    if (!(largest < 8192.0)) {
        return false;
    }
    shift = 13;
    while (shift > 0 && largest * std::ldexp(1.0, shift) >= 8192.0) {
        --shift;
    }
    double const scale = std::ldexp(1.0, shift);
    for (int j = 0; j < order; ++j) {
        out[j] = static_cast<std::int32_t>(std::trunc(-coefs[j] * scale));
    }
    return true;
}

void LLPC_Tukey(float* window, int frames) {
    // Half the block tapers: a quarter at each end, where the window rises and falls along a
    // raised cosine; the middle half is left whole.
    int const taper = frames / 4;
    for (int i = 0; i < frames; ++i) {
        window[i] = 1.0f;
    }
    if (taper < 1) {
        return;
    }
    for (int i = 0; i < taper; ++i) {
        auto const w = static_cast<float>(0.5 - 0.5 * std::cos(kPi * (i + 0.5) / taper));
        window[i] = w;
        window[frames - 1 - i] = w;
    }
}

void LFLACAutocorrelation(float const* data, int frames, int maxLag, double* out) {
    // Four partial sums per lag, each over every fourth product, so the additions can run side
    // by side (and in vector registers) while the result stays the same on every machine.
    for (int lag = 0; lag <= maxLag; ++lag) {
        double partial[4] = {0, 0, 0, 0};
        int i = lag;
        for (; i + 4 <= frames; i += 4) {
            for (int l = 0; l < 4; ++l) {
                partial[l] += static_cast<double>(data[i + l]) * data[i + l - lag];
            }
        }
        for (; i < frames; ++i) {
            partial[0] += static_cast<double>(data[i]) * data[i - lag];
        }
        out[lag] = (partial[0] + partial[1]) + (partial[2] + partial[3]);
    }
}

bool LFLACLevinson(double const* autoc, int order, double* coefs) {
    if (!(autoc[0] > 0.0)) {
        return false;
    }
    double error = autoc[0];
    double a[33] = {};
    for (int i = 1; i <= order; ++i) {
        double acc = autoc[i];
        for (int j = 1; j < i; ++j) {
            acc += a[j] * autoc[i - j];
        }
        double const reflection = -acc / error;
        double next[33] = {};
        for (int j = 1; j < i; ++j) {
            next[j] = a[j] + reflection * a[i - j];
        }
        next[i] = reflection;
        for (int j = 1; j <= i; ++j) {
            a[j] = next[j];
        }
        error *= 1.0 - reflection * reflection;
        if (!(error > 0.0)) {
            break; // a perfectly predictable signal: keep the filter found so far
        }
    }
    for (int j = 0; j < order; ++j) {
        coefs[j] = a[j + 1];
    }
    return true;
}

bool LFLACComputeResidual(std::int32_t const* x, int frames, std::int32_t const* coefs, int order,
                          int shift, std::int32_t* residual) {
    std::int64_t coefSum = 0;
    for (int j = 0; j < order; ++j) {
        coefSum += std::abs(static_cast<std::int64_t>(coefs[j]));
    }
    std::uint32_t largest = 0;
    for (int i = 0; i < frames; ++i) {
        largest = std::max(largest,
                           static_cast<std::uint32_t>(std::abs(static_cast<std::int64_t>(x[i]))));
    }
    // Sums that provably fit 31 bits take the 32-bit loop, which the compiler vectorises.
    if (coefSum * static_cast<std::int64_t>(largest) < (std::int64_t{1} << 31) &&
        largest < (std::uint32_t{1} << 30)) {
        if (order == 8) {
            ResidualNarrow<8>(x, frames, coefs, shift, residual);
            return true;
        }
    }
    for (int i = order; i < frames; ++i) {
        std::int64_t sum = 0;
        for (int j = 0; j < order; ++j) {
            sum += static_cast<std::int64_t>(coefs[j]) * x[i - 1 - j];
        }
        std::int64_t const r = x[i] - (sum >> shift);
        if (r > INT32_MAX || r < INT32_MIN) {
            return false;
        }
        residual[i] = static_cast<std::int32_t>(r);
    }
    return true;
}

int LFLACCalculateRiceParameter(std::uint64_t sum, std::uint32_t maxValue, int count) {
    int least = 0;
    while (least < 30 && (maxValue >> least) + static_cast<std::uint32_t>(least) > 31) {
        ++least;
    }
    int byMean = 0;
    if (count > 0 && sum > static_cast<std::uint64_t>(count)) {
        std::uint64_t const mean = sum / static_cast<std::uint64_t>(count);
        byMean = std::min(30, static_cast<int>(std::bit_width(mean)) - 1);
    }
    return std::max(least, byMean);
}

void LFLACPlanRice(std::int32_t const* residual, int frames, int predictorOrder, int maxOrder,
                   bool refine, LFLACRicePlan& plan) {
    int finest = std::min(maxOrder, 8);
    while (finest > 0 &&
           ((frames & ((1 << finest) - 1)) != 0 || (frames >> finest) <= predictorOrder)) {
        --finest;
    }
    std::uint64_t sums[256];
    std::uint32_t largest[256];
    int const per = frames >> finest;
    for (int p = 0; p < (1 << finest); ++p) {
        int const begin = p == 0 ? predictorOrder : p * per;
        FoldedStats(residual, begin, (p + 1) * per, sums[p], largest[p]);
    }
    plan.bits = UINT64_MAX;
    for (int order = finest; order >= 0; --order) {
        int const partitions = 1 << order;
        int const count = frames >> order;
        LFLACRicePlan trial;
        trial.order = order;
        trial.bits = 0;
        for (int p = 0; p < partitions && trial.bits != UINT64_MAX; ++p) {
            int const n = p == 0 ? count - predictorOrder : count;
            int const k = LFLACCalculateRiceParameter(sums[p], largest[p], n);
            trial.parameters[p] = k;
            trial.wide = trial.wide || k > 14;
            trial.bits += EstimatedRiceBits(sums[p], n, k);
            // A value whose code would pass 32 bits even at the largest parameter: the samples
            // are better stored as they are (and the frame buffer is sized for no more).
            if ((largest[p] >> k) + static_cast<std::uint32_t>(k) > 31) {
                trial.bits = UINT64_MAX;
            }
        }
        if (trial.bits == UINT64_MAX) {
            plan.bits = UINT64_MAX;
            return; // coarser orders only merge this partition into larger ones
        }
        trial.bits += static_cast<std::uint64_t>(partitions) * (trial.wide ? 5 : 4);
        if (trial.bits < plan.bits) {
            plan = trial;
        }
        // The next coarser order's partitions are pairs of these.
        for (int p = 0; p < partitions / 2; ++p) {
            sums[p] = sums[2 * p] + sums[2 * p + 1];
            largest[p] = std::max(largest[2 * p], largest[2 * p + 1]);
        }
    }
    if (!refine || plan.bits == UINT64_MAX) {
        return;
    }
    int const count = frames >> plan.order;
    plan.wide = false;
    for (int p = 0; p < (1 << plan.order); ++p) {
        int const begin = p == 0 ? predictorOrder : p * count;
        int const end = (p + 1) * count;
        int best = plan.parameters[p];
        std::uint64_t bestBits = ExactRiceBits(residual, begin, end, best);
        for (int k = best + 1; k <= std::min(best + 1, 30); ++k) {
            std::uint64_t const bits = ExactRiceBits(residual, begin, end, k);
            if (bits < bestBits) {
                best = k;
                bestBits = bits;
            }
        }
        plan.parameters[p] = best;
        plan.wide = plan.wide || best > 14;
    }
}

// ---- LFLACFrame ----

LFLACFrame::LFLACFrame(int channels, int bits, int compression)
    : m_channels(channels), m_bits(bits), m_maxPartitionOrder(std::clamp(compression, 0, 8)),
      m_refine(compression >= 6), m_stereo(compression <= 0   ? Stereo::kEnergyLeftSide
                                           : compression <= 2 ? Stereo::kEnergySides
                                                              : Stereo::kEstimateAll),
      m_tryFixed(compression >= 3), m_channel(kLFLACMaxBlockFrames + 1),
      m_shifted(kLFLACMaxBlockFrames + 1), m_residual(kLFLACMaxBlockFrames + 1),
      m_fixedResidual(kLFLACMaxBlockFrames + 1), m_windowed(kLFLACMaxBlockFrames + 1),
      m_window(kLFLACMaxBlockFrames + 1) {}

std::size_t LFLACFrame::GetBound(int channels, int frames) {
    // Per channel: the subframe header, a verbatim body of up to 33 bits per sample or a
    // predicted one whose codes are held to 32 bits each plus its warm-up, coefficients and
    // 256 partition parameters; then the frame header and CRC-16.
    std::size_t const perChannel = static_cast<std::size_t>(frames) * 33 / 8 + 2 +
                                   (kLPCOrder * 33 + 15 * kLPCOrder + 256 * 5 + 64) / 8 + 16;
    return 16 + static_cast<std::size_t>(channels) * perChannel + 2 + 8;
}

bool LFLACFrame::Analyse(std::int32_t const* x, int frames, std::int32_t* coefs, int& shift) {
    if (m_windowFrames != frames) {
        LLPC_Tukey(m_window.data(), frames);
        m_windowFrames = frames;
    }
    float const* const w = m_window.data();
    float* const y = m_windowed.data();
    for (int i = 0; i < frames; ++i) {
        y[i] = static_cast<float>(x[i]) * w[i];
    }
    double autoc[kLPCOrder + 1];
    LFLACAutocorrelation(y, frames, kLPCOrder, autoc);
    // A touch of white noise keeps the recursion well conditioned on pure tones.
    autoc[0] *= 1.0 + 1e-10;
    double lpc[kLPCOrder];
    return LFLACLevinson(autoc, kLPCOrder, lpc) &&
           LFLACQuantizeCoefficients(lpc, kLPCOrder, coefs, shift);
}

void LFLACFrame::WriteSubFrame(LFLACBitWriter& writer, std::int32_t const* x, int frames,
                               int bits) {
    std::uint32_t any = 0;
    for (int i = 0; i < frames; ++i) {
        any |= static_cast<std::uint32_t>(x[i] ^ x[0]);
    }
    if (any == 0) {
        writer.Write(0, 8); // constant
        writer.WriteSigned(x[0], bits);
        return;
    }
    // Low bits that are zero in every sample (audio padded to a greater depth) are not coded.
    std::uint32_t ored = 0;
    for (int i = 0; i < frames; ++i) {
        ored |= static_cast<std::uint32_t>(x[i]);
    }
    int const wasted = std::countr_zero(ored);
    if (wasted > 0) {
        std::int32_t* const s = m_shifted.data();
        for (int i = 0; i < frames; ++i) {
            s[i] = x[i] >> wasted;
        }
        x = s;
        bits -= wasted;
    }
    auto const writeHead = [&](int type) {
        writer.Write(static_cast<std::uint32_t>(type << 1 | (wasted > 0 ? 1 : 0)), 8);
        if (wasted > 0) {
            writer.WriteZeros(static_cast<std::uint32_t>(wasted - 1));
            writer.Write(1, 1);
        }
    };
    std::uint64_t const start = writer.GetBitPosition();
    std::uint64_t const verbatimBits =
        8 + static_cast<std::uint64_t>(wasted) +
        static_cast<std::uint64_t>(frames) * static_cast<std::uint64_t>(bits);
    auto const writeResidual = [&](std::int32_t const* residual, int order,
                                   LFLACRicePlan const& plan) {
        writer.Write(plan.wide ? 1 : 0, 2);
        writer.Write(static_cast<std::uint32_t>(plan.order), 4);
        int const per = frames >> plan.order;
        for (int p = 0; p < (1 << plan.order); ++p) {
            int const begin = p == 0 ? order : p * per;
            writer.Write(static_cast<std::uint32_t>(plan.parameters[p]), plan.wide ? 5 : 4);
            writer.WriteRice(residual + begin, (p + 1) * per - begin, plan.parameters[p]);
        }
    };
    // The order-8 predictor, and at the higher levels the best fixed predictor beside it: on
    // material with sudden loud noise the least-squares fit follows the noise and a plain
    // difference predicts the quiet rest better.
    std::int32_t coefs[kLPCOrder];
    int shift = 0;
    std::int32_t* const residual = m_residual.data();
    LFLACRicePlan lpcPlan;
    bool const haveLpc = frames > kLPCOrder * 2 && Analyse(x, frames, coefs, shift) &&
                         LFLACComputeResidual(x, frames, coefs, kLPCOrder, shift, residual);
    int precision = 0;
    std::uint64_t lpcBits = UINT64_MAX;
    if (haveLpc) {
        LFLACPlanRice(residual, frames, kLPCOrder, m_maxPartitionOrder, false, lpcPlan);
    }
    if (haveLpc && lpcPlan.bits != UINT64_MAX) {
        std::uint32_t largest = 0;
        for (int j = 0; j < kLPCOrder; ++j) {
            largest = std::max(largest, static_cast<std::uint32_t>(std::abs(coefs[j])));
        }
        precision = static_cast<int>(std::bit_width(largest)) + 1;
        lpcBits =
            static_cast<std::uint64_t>(kLPCOrder) * static_cast<std::uint64_t>(bits + precision) +
            9 + lpcPlan.bits;
    }
    int fixedOrder = -1;
    LFLACRicePlan fixedPlan;
    std::uint64_t fixedBits = UINT64_MAX;
    if (m_tryFixed && frames > 8) {
        fixedOrder = LFLACFixedResidual(x, frames, m_fixedResidual.data());
        if (fixedOrder >= 0) {
            LFLACPlanRice(m_fixedResidual.data(), frames, fixedOrder, m_maxPartitionOrder, false,
                          fixedPlan);
        }
        if (fixedOrder >= 0 && fixedPlan.bits != UINT64_MAX) {
            fixedBits = static_cast<std::uint64_t>(fixedOrder) * static_cast<std::uint64_t>(bits) +
                        fixedPlan.bits;
        }
    }
    if (lpcBits != UINT64_MAX || fixedBits != UINT64_MAX) {
        if (lpcBits <= fixedBits) {
            if (m_refine) {
                LFLACPlanRice(residual, frames, kLPCOrder, m_maxPartitionOrder, true, lpcPlan);
            }
            writeHead(32 + kLPCOrder - 1);
            for (int i = 0; i < kLPCOrder; ++i) {
                writer.WriteSigned(x[i], bits);
            }
            writer.Write(static_cast<std::uint32_t>(precision - 1), 4);
            writer.WriteSigned(shift, 5);
            for (int j = 0; j < kLPCOrder; ++j) {
                writer.WriteSigned(coefs[j], precision);
            }
            writeResidual(residual, kLPCOrder, lpcPlan);
        } else {
            if (m_refine) {
                LFLACPlanRice(m_fixedResidual.data(), frames, fixedOrder, m_maxPartitionOrder, true,
                              fixedPlan);
            }
            writeHead(8 + fixedOrder);
            for (int i = 0; i < fixedOrder; ++i) {
                writer.WriteSigned(x[i], bits);
            }
            writeResidual(m_fixedResidual.data(), fixedOrder, fixedPlan);
        }
        if (writer.GetBitPosition() - start <= verbatimBits) {
            return;
        }
        writer.Rewind(start); // noise: the samples themselves are shorter
    }
    writeHead(1);
    for (int i = 0; i < frames; ++i) {
        writer.WriteSigned(x[i], bits);
    }
}

int LFLACFixedResidual(std::int32_t const* x, int frames, std::int32_t* residual) {
    // The magnitudes of the differences of orders 0 to 4 over the same samples rank the fixed
    // predictors; the winner's residual is then computed whole.
    std::int64_t sums[5] = {0, 0, 0, 0, 0};
    for (int i = 4; i < frames; ++i) {
        std::int64_t const e0 = x[i];
        std::int64_t const e1 = e0 - x[i - 1];
        std::int64_t const e2 = e1 - (static_cast<std::int64_t>(x[i - 1]) - x[i - 2]);
        std::int64_t const e3 = e2 - (static_cast<std::int64_t>(x[i - 1]) -
                                      2 * static_cast<std::int64_t>(x[i - 2]) + x[i - 3]);
        std::int64_t const e4 =
            e3 - (static_cast<std::int64_t>(x[i - 1]) - 3 * static_cast<std::int64_t>(x[i - 2]) +
                  3 * static_cast<std::int64_t>(x[i - 3]) - x[i - 4]);
        sums[0] += e0 < 0 ? -e0 : e0;
        sums[1] += e1 < 0 ? -e1 : e1;
        sums[2] += e2 < 0 ? -e2 : e2;
        sums[3] += e3 < 0 ? -e3 : e3;
        sums[4] += e4 < 0 ? -e4 : e4;
    }
    int order = 0;
    for (int k = 1; k < 5; ++k) {
        if (sums[k] < sums[order]) {
            order = k;
        }
    }
    for (int i = order; i < frames; ++i) {
        std::int64_t e = x[i];
        switch (order) {
        case 1:
            e -= x[i - 1];
            break;
        case 2:
            e -= 2 * static_cast<std::int64_t>(x[i - 1]) - x[i - 2];
            break;
        case 3:
            e -= 3 * static_cast<std::int64_t>(x[i - 1]) - 3 * static_cast<std::int64_t>(x[i - 2]) +
                 x[i - 3];
            break;
        case 4:
            e -= 4 * static_cast<std::int64_t>(x[i - 1]) - 6 * static_cast<std::int64_t>(x[i - 2]) +
                 4 * static_cast<std::int64_t>(x[i - 3]) - x[i - 4];
            break;
        default:
            break;
        }
        if (e > INT32_MAX || e < INT32_MIN) {
            return -1;
        }
        residual[i] = static_cast<std::int32_t>(e);
    }
    return order;
}

std::size_t LFLACFrame::WriteFrame(std::int32_t const* interleaved, int frames,
                                   std::uint64_t number, LFLACMetaDataBlockStreamInfo const& info,
                                   unsigned char* out) {
    LFLACFrameHeader header;
    header.blockFrames = frames;
    header.rateHz = static_cast<int>(info.sampleRateHz);
    header.channels = m_channels;
    header.bitsPerSample = m_bits;
    header.number = number;
    header.assignment = LFLACChannelAssignment::kIndependent;
    if (m_channels == 2 && m_stereo == Stereo::kEstimateAll) {
        // The side channel must fit 32 bits; past that only independent channels remain.
        if (m_bits < 32 && LFLACSideFits(interleaved, frames, m_bits)) {
            header.assignment = LFLACChooseSideAssignment(interleaved, frames, true);
        }
    } else if (m_channels == 2 && LFLACChooseSideChannel(interleaved, frames, m_bits)) {
        header.assignment = m_stereo == Stereo::kEnergySides
                                ? LFLACChooseSideAssignment(interleaved, frames, false)
                                : LFLACChannelAssignment::kLeftSide;
    }
    int const headerBytes = LFLACWriteFrameHeader(header, info, out);
    LFLACBitWriter writer(out + headerBytes);
    std::int32_t* const x = m_channel.data();
    auto const channels = static_cast<std::size_t>(m_channels);
    for (int c = 0; c < m_channels; ++c) {
        int bits = m_bits;
        // Which of the two channels carries the side (the extra bit) depends on the assignment.
        bool const sideHere = (c == 1 && (header.assignment == LFLACChannelAssignment::kLeftSide ||
                                          header.assignment == LFLACChannelAssignment::kMidSide)) ||
                              (c == 0 && header.assignment == LFLACChannelAssignment::kRightSide);
        if (sideHere) {
            for (int i = 0; i < frames; ++i) {
                x[i] = interleaved[2 * i] - interleaved[2 * i + 1];
            }
            ++bits;
        } else if (c == 0 && header.assignment == LFLACChannelAssignment::kMidSide) {
            for (int i = 0; i < frames; ++i) {
                x[i] = (interleaved[2 * i] + interleaved[2 * i + 1]) >> 1;
            }
        } else {
            for (int i = 0; i < frames; ++i) {
                x[i] = interleaved[static_cast<std::size_t>(i) * channels +
                                   static_cast<std::size_t>(c)];
            }
        }
        WriteSubFrame(writer, x, frames, bits);
    }
    writer.AlignAndFlush();
    std::size_t const bytes = static_cast<std::size_t>(headerBytes) + writer.GetBitPosition() / 8;
    std::uint16_t const crc = LFLACCrc16(out, bytes);
    out[bytes] = static_cast<unsigned char>(crc >> 8);
    out[bytes + 1] = static_cast<unsigned char>(crc);
    return bytes + 2;
}

void LFLACBitWriter::WriteRice(std::int32_t const* values, int count, int k) {
    for (int i = 0; i < count; ++i) {
        std::uint32_t const u = Fold(values[i]);
        std::uint32_t const q = u >> k;
        if (q + 1 + static_cast<std::uint32_t>(k) <= 32) {
            // The quotient's zeros, the stop bit and the low bits in one write.
            std::uint32_t const low = k == 0 ? 0 : u & ((std::uint32_t{1} << k) - 1);
            Write((std::uint32_t{1} << k) | low, static_cast<int>(q) + 1 + k);
        } else {
            WriteZeros(q);
            Write(1, 1);
            Write(u, k);
        }
    }
}

} // namespace llib::detail
