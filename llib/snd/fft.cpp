// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/fft.h"

#include <fftw3.h>

#include <mutex>

namespace {
std::mutex& PlannerMutex() {
    static std::mutex mutex;
    return mutex;
}
} // namespace

LFFTReal::LFFTReal(int size) : m_size(size) {
    std::size_t const bins = static_cast<std::size_t>(size) / 2 + 1;
    m_time = static_cast<float*>(fftwf_malloc(sizeof(float) * static_cast<std::size_t>(size)));
    m_spectrum =
        static_cast<std::complex<float>*>(fftwf_malloc(sizeof(std::complex<float>) * bins));
    auto* const spectrum = reinterpret_cast<fftwf_complex*>(m_spectrum);
    std::lock_guard const lock(PlannerMutex());
    // ESTIMATE: measuring would cost more than a whole edit's transforms and overwrite the
    // buffers while it runs.
    m_forward = fftwf_plan_dft_r2c_1d(size, m_time, spectrum, FFTW_ESTIMATE);
    m_inverse = fftwf_plan_dft_c2r_1d(size, spectrum, m_time, FFTW_ESTIMATE);
}

LFFTReal::~LFFTReal() {
    {
        std::lock_guard const lock(PlannerMutex());
        fftwf_destroy_plan(static_cast<fftwf_plan>(m_forward));
        fftwf_destroy_plan(static_cast<fftwf_plan>(m_inverse));
    }
    fftwf_free(m_time);
    fftwf_free(m_spectrum);
}

void LFFTReal::Forward() {
    fftwf_execute(static_cast<fftwf_plan>(m_forward));
}

void LFFTReal::Inverse() {
    fftwf_execute(static_cast<fftwf_plan>(m_inverse));
}
