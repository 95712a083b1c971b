// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// a * b / c without overflow, for mapping frame positions between rates and units (a frame
// index times a phase count easily exceeds 64 bits). Divisors must be positive.

__extension__ typedef __int128 LInt128;

[[nodiscard]] constexpr long long LMulDivFloor(long long a, long long b, long long c) {
    LInt128 const n = static_cast<LInt128>(a) * b;
    LInt128 q = n / c;
    if (n % c != 0 && n < 0) {
        --q;
    }
    return static_cast<long long>(q);
}

[[nodiscard]] constexpr long long LMulDivCeil(long long a, long long b, long long c) {
    LInt128 const n = static_cast<LInt128>(a) * b;
    LInt128 q = n / c;
    if (n % c != 0 && n > 0) {
        ++q;
    }
    return static_cast<long long>(q);
}
