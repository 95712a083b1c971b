// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Hot loops compiled three times, for AVX-512, for AVX2 with FMA and for the x86-64 baseline; the
// loader picks the best the machine has. The baseline test build defines TESSEL_NO_CLONES so
// that the tests check the code machines without AVX2 run, not only the clone this one picks.
#if defined(__x86_64__) && !defined(TESSEL_NO_CLONES)
#define LLIB_SIMD_CLONES                                                                           \
    __attribute__((target_clones("arch=x86-64-v4", "arch=x86-64-v3", "default")))
#else
#define LLIB_SIMD_CLONES
#endif
// What a clone calls must be inlined into it, or the clone would call baseline code.
#define LLIB_SIMD_INLINE inline __attribute__((always_inline))
