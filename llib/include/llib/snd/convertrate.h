// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Sample-rate conversion by a polyphase windowed-sinc filter.
//
// LConvertRateBase turns a rate pair into P phases (sub-sample positions between two input
// frames) and a step S (input advance per output frame, in 1/P frames) and computes the table of
// P rows of `taps` coefficients: a sinc at cutoff fc (relative to the input's Nyquist
// frequency) under a Kaiser window. Exact mode makes S/P the exact ratio; approximate mode picks
// the best fraction with at most 255 phases. Output frame k lies at input position k * S / P.
//
// LSRCConvertRate is the transforming source over it: it reports the target rate, and its
// positions, length and Seek are in output frames. The output length is the number of output
// positions that fall before the input's end, ceil(inputEnd * P / S). Input is pulled in blocks
// into one interleaved buffer; the frames before the input's first frame read as silence. Read
// allocates nothing.
//
// The constructors' last flag (`normalize`) scales each table row to a sum of exactly 1, which
// removes the small ripple of DC gain across phases; the plain table is the default.

#include "llib/snd/soundprocess.h"

#include <cstdint>
#include <memory>
#include <new>
#include <span>
#include <vector>

inline constexpr int kLConvertRateTaps = 63;

namespace llib::detail {

// Storage aligned for whole-vector loads: every coefficient row starts on a 64-byte boundary
// (rows are multiples of 8 floats), which the kernel's row loads measurably like.
template <class T>
struct AlignedAllocator {
    using value_type = T;
    static constexpr std::align_val_t kAlignment{64};
    AlignedAllocator() = default;
    template <class U>
    explicit AlignedAllocator(AlignedAllocator<U> const&) {}
    T* allocate(std::size_t n) {
        return static_cast<T*>(::operator new(n * sizeof(T), kAlignment));
    }
    void deallocate(T* p, std::size_t) { ::operator delete(p, kAlignment); }
    template <class U>
    bool operator==(AlignedAllocator<U> const&) const {
        return true;
    }
};

} // namespace llib::detail

class LConvertRateBase {
public:
    // `outRate` 0 or less means 44100; `inRate` below 1 is taken as 44100 too.
    LConvertRateBase(int inRate, int outRate, int taps, bool approximate, bool normalize = false);

    [[nodiscard]] unsigned GetPhases() const { return m_phases; }
    [[nodiscard]] unsigned GetStep() const { return m_step; }
    [[nodiscard]] int GetTaps() const { return m_taps; }
    // Row stride in floats: taps rounded up to whole vectors, the padding zero.
    [[nodiscard]] int GetStride() const { return m_stride; }
    [[nodiscard]] double GetCutoff() const { return m_cutoff; }
    [[nodiscard]] double GetBeta() const { return m_beta; }
    [[nodiscard]] bool IsApproximate() const { return m_approximate; }
    [[nodiscard]] float const* GetRow(unsigned phase) const {
        return m_table.data() + static_cast<std::size_t>(phase) * m_stride;
    }
    [[nodiscard]] std::span<float const> GetTable() const { return m_table; }

    // The zero-order modified Bessel function by its power series through the x^12 term.
    [[nodiscard]] static double I0(double x);
    // Phases and step of a rate pair (exposed for tests).
    static void ComputeRatio(int inRate, int outRate, bool approximate, unsigned& phases,
                             unsigned& step);

private:
    unsigned m_phases = 1;
    unsigned m_step = 1;
    int m_taps;
    int m_stride;
    double m_cutoff = 0.0;
    double m_beta = 0.0;
    bool m_approximate;
    std::vector<float, llib::detail::AlignedAllocator<float>> m_table;
};

namespace llib::detail {
struct RateLayout;
} // namespace llib::detail

class LSRCConvertRate final : public LSoundProcessBase {
public:
    LSRCConvertRate(LSoundSource const& input, int rateHz, bool approximate, bool normalize);
    ~LSRCConvertRate() override;

    void Read(float* buffer, long long frames) override;
    [[nodiscard]] long long GetPositionSample() const override { return m_outPosition; }
    [[nodiscard]] long long GetEndSample() const override;
    void Seek(long long frame) override;
    long ControlMessage(int id, long* value) override;

    [[nodiscard]] LConvertRateBase const& GetFilter() const { return m_filter; }
    // The input frame that output frame `frame` lies at or after (floor of frame * S / P).
    [[nodiscard]] long long OutputToInputFrame(long long frame) const;

private:
    static constexpr long long kBlockFrames = 16384; // input frames pulled per refill, at most

    // The input frame of the first tap of output group `group`.
    [[nodiscard]] long long FirstTapOfGroup(long long group) const;
    // Positions on output frame `outFrame` with the input standing at `inputFrame`.
    void PlaceAt(long long outFrame, long long inputFrame);
    void Refill();
    // Makes `groups` groups (fewer if the buffer holds less) into `out`; returns how many.
    long long MakeGroups(float* out, long long groups);

    LConvertRateBase m_filter;
    std::unique_ptr<llib::detail::RateLayout> m_layout;
    unsigned m_inputChannels;
    int m_half;              // taps / 2: how many frames before the centre the first tap lies
    long long m_groupFrames; // output frames per group
    long long m_outPosition = 0;
    long long m_group = 0;        // absolute index of the next group to make
    long long m_skip = 0;         // frames of that group before the position (after a seek)
    std::vector<float> m_carry;   // one group made for a read that wanted part of it
    long long m_carryUsed = 0;    // frames of m_carry already delivered
    long long m_carryFrames = 0;  // frames of m_carry that are valid
    std::vector<float> m_buffer;  // interleaved input frames, with room to read past the end
    long long m_capacity;         // frames m_buffer holds
    long long m_bufferStart = 0;  // absolute input frame at index 0
    long long m_bufferFrames = 0; // valid frames
    long long m_silentBefore = 0; // absolute frames below this read as silence
};

// The effect that opens an LSRCConvertRate to `rateHz` (exact ratio, plain table).
class LSPConvertRate final : public LSoundProcess {
public:
    explicit LSPConvertRate(int rateHz, bool approximate = false)
        : m_rateHz(rateHz), m_approximate(approximate) {}
    [[nodiscard]] LSoundSource OpenSource(LSoundSource& input) override;
    [[nodiscard]] std::unique_ptr<LSoundProcess> GetNewCopy() const override {
        return std::make_unique<LSPConvertRate>(*this);
    }

private:
    int m_rateHz;
    bool m_approximate;
};
