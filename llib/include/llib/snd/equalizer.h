// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The linear-phase equaliser: a gain curve over frequency (LPointList) is sampled onto a grid of
// frequencies at one sample rate (LSPEq), turned into a symmetric FIR filter by frequency
// sampling under a Kaiser window, and applied by FFT convolution (LSRCEq). The filter's delay is
// taken out, so the output is aligned frame for frame with the input, and because the design is
// linear in the curve, two equalisers whose gains add up to one give back the input when their
// outputs are added: that is what lets an effect be applied to a band of frequencies alone.
//
// The grid spacing, and with it the steepest possible slope, is about 11 Hz at every rate: a
// curve that changes faster (a 1 Hz step) is met with a transition about 50 Hz wide. Outside
// transitions the response follows the curve to within about 0.01 dB; stop bands reach about
// -80 dB.

#include "llib/snd/soundprocess.h"

#include <complex>
#include <memory>
#include <span>
#include <vector>

class LFFTReal;
class LSPEq;

struct LEqPoint {
    double hz = 0.0;
    double db = 0.0;
};

// A gain curve: points kept in ascending frequency; between two points the gain in dB moves in
// a straight line over linear frequency, and beyond the first and last point it stays at theirs.
// Points at one frequency are kept in the order added, so a curve can jump.
class LPointList {
public:
    void Add(double hz, double db);
    [[nodiscard]] std::span<LEqPoint const> GetPoints() const { return m_points; }
    // The curve's gain at `hz`; 0 dB for an empty curve.
    [[nodiscard]] double GetGainDb(double hz) const;
    // Samples the curve onto `eq`'s grid for `rateHz`.
    void MapPointListToEq(LSPEq& eq, int rateHz) const;

private:
    std::vector<LEqPoint> m_points;
};

// The grid size for a rate: the number of FIR taps less one, a power of two near rate / 11.
[[nodiscard]] int LEqDesignLength(int rateHz);

// A designed filter: its taps (design length + 1, symmetric) and their spectrum at the
// convolution size, scaled so that the inverse transform needs no further scaling.
struct LEqKernel {
    int designLength = 0; // L: taps - 1, also the overlap between convolution blocks
    int fftSize = 0;      // N: 4 L
    std::vector<float> taps;
    std::vector<std::complex<float>> spectrum;
};

// Designs the filter whose amplitude response passes through `gains` (L / 2 + 1 linear factors
// at k * rate / L, k = 0 ... L / 2, with L a power of two).
[[nodiscard]] std::shared_ptr<LEqKernel const> LDesignEqKernel(std::span<float const> gains);

class LSRCEq final : public LSoundProcessBase {
public:
    LSRCEq(LSoundSource const& input, std::shared_ptr<LEqKernel const> kernel);
    ~LSRCEq() override;

    void Read(float* buffer, long long frames) override;
    void Seek(long long frame) override;
    [[nodiscard]] long long GetPositionSample() const override { return m_position; }

private:
    void NextBlock();
    void ReadInput(float* const* channels, int offset, int frames, long long from);

    std::shared_ptr<LEqKernel const> m_kernel;
    std::unique_ptr<LFFTReal> m_fft;
    std::vector<float> m_block;     // per channel: fftSize input frames, the oldest first
    std::vector<float*> m_channels; // each channel's part of m_block
    std::vector<float> m_output;    // per channel: the hop frames the last block gave
    std::vector<float> m_scratch;   // interleaved input
    long long m_position;           // the output frame the next Read delivers
    long long m_blockStart = 0;     // the input frame at the block's start
    int m_outputFrames = 0;
    int m_outputUsed = 0;
    bool m_primed = false;
};

// The equaliser as an effect: the curve sampled at one rate. Applied to a source of another
// rate, the grid is stretched onto that rate's grid by linear interpolation.
class LSPEq final : public LSoundProcess {
public:
    // `gains`: LEqDesignLength(rateHz) / 2 + 1 linear factors.
    void SetResponse(int rateHz, std::vector<float> gains);
    [[nodiscard]] int GetRateHz() const { return m_rateHz; }
    [[nodiscard]] std::span<float const> GetResponse() const { return m_gains; }

    // No curve yet: the input itself.
    [[nodiscard]] LSoundSource OpenSource(LSoundSource& input) override;
    void GetName(char* name) const override;
    [[nodiscard]] std::unique_ptr<LSoundProcess> GetNewCopy() const override {
        return std::make_unique<LSPEq>(*this);
    }

private:
    int m_rateHz = 0;
    std::vector<float> m_gains;
};
