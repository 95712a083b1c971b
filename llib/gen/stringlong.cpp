// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/gen/stringlong.h"

#include <cstdio>
#include <cstring>

void LStrCopy(char* dest, std::size_t destChars, char const* source) {
    if (destChars == 0) {
        return;
    }
    std::size_t const n = source != nullptr ? ::strnlen(source, destChars - 1) : 0;
    if (n > 0) {
        std::memcpy(dest, source, n);
    }
    dest[n] = '\0';
}

int LStrVPrintf(char* dest, std::size_t destChars, char const* format, va_list args) {
    if (destChars == 0) {
        return 0;
    }
    int const n = std::vsnprintf(dest, destChars, format, args);
    if (n < 0) {
        dest[0] = '\0';
        return 0;
    }
    return static_cast<std::size_t>(n) < destChars ? n : static_cast<int>(destChars - 1);
}

int LStrPrintf(char* dest, std::size_t destChars, char const* format, ...) {
    va_list args;
    va_start(args, format);
    int const n = LStrVPrintf(dest, destChars, format, args);
    va_end(args);
    return n;
}

std::string LStrFormat(char const* format, ...) {
    va_list args;
    va_start(args, format);
    va_list copy;
    va_copy(copy, args);
    int const n = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    std::string out;
    if (n > 0) {
        out.resize(static_cast<std::size_t>(n));
        std::vsnprintf(out.data(), out.size() + 1, format, args);
    }
    va_end(args);
    return out;
}
