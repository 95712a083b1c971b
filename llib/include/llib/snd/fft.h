// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// LFFTReal: a real-input FFT of one fixed, even size over buffers it owns, with FFTW doing the
// work. Planning is serialised (FFTW's planner is not thread-safe); executing is not, so each
// thread keeps its own object. The inverse is unnormalised: Forward then Inverse scales by the
// size.

#include <complex>

class LFFTReal {
public:
    explicit LFFTReal(int size);
    ~LFFTReal();
    LFFTReal(LFFTReal const&) = delete;
    LFFTReal& operator=(LFFTReal const&) = delete;

    [[nodiscard]] int GetSize() const { return m_size; }
    // The time-domain buffer: GetSize() values.
    [[nodiscard]] float* Time() { return m_time; }
    // The spectrum: GetSize() / 2 + 1 bins, DC first.
    [[nodiscard]] std::complex<float>* Spectrum() { return m_spectrum; }

    // Time() to Spectrum().
    void Forward();
    // Spectrum() to Time(); the spectrum is overwritten.
    void Inverse();

private:
    int m_size;
    float* m_time;
    std::complex<float>* m_spectrum;
    void* m_forward;
    void* m_inverse;
};
