// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/snd/soundtime.h"

#include "llib/gen/muldiv.h"

#include <cstdio>

namespace {

enum class Fraction : unsigned char { kTenths, kHundredths, kMillis };

// Writes the form of |ms| with `addMs` of rounding, `wideHours` choosing the 64-bit hour field.
void Format(char* text, long long ms, long long addMs, Fraction fraction, bool wideHours) {
    // The magnitude is taken in unsigned arithmetic so the most negative value has one too.
    bool const negative = ms < 0;
    unsigned long long magnitude =
        negative ? 0ULL - static_cast<unsigned long long>(ms) : static_cast<unsigned long long>(ms);
    magnitude += static_cast<unsigned long long>(addMs);
    unsigned long long const hours = magnitude / 3600000ULL;
    int const minutes = static_cast<int>((magnitude / 60000ULL) % 60ULL);
    int const seconds = static_cast<int>((magnitude / 1000ULL) % 60ULL);
    int const millis = static_cast<int>(magnitude % 1000ULL);
    char const* sign = negative ? "-" : "";
    int part = millis;
    char const* partFormat = "%.3d";
    if (fraction == Fraction::kTenths) {
        part = millis / 100;
        partFormat = "%.1d";
    } else if (fraction == Fraction::kHundredths) {
        part = millis / 10;
        partFormat = "%.2d";
    }
    char fractionText[8];
    std::snprintf(fractionText, sizeof fractionText, partFormat, part);
    if (wideHours) {
        std::snprintf(text, kLSoundTimeTextChars, "%s%lld:%.2d:%.2d.%s", sign,
                      static_cast<long long>(hours), minutes, seconds, fractionText);
    } else {
        std::snprintf(text, kLSoundTimeTextChars, "%s%d:%.2d:%.2d.%s", sign,
                      static_cast<int>(hours), minutes, seconds, fractionText);
    }
}

} // namespace

LSoundTime LSoundTime::FromFrames(long long frames, int rateHz) {
    if (rateHz <= 0) {
        return LSoundTime(0);
    }
    return LSoundTime(LMulDivFloor(frames, 1000, rateHz));
}

long long LSoundTime::ToFrames(int rateHz) const {
    if (rateHz <= 0) {
        return 0;
    }
    return LMulDivFloor(m_ms, rateHz, 1000);
}

void LSoundTime::_GetText(char* text) const {
    Format(text, m_ms, 0, Fraction::kMillis, true);
}

void LSoundTime::_GetText2(char* text) const {
    Format(text, m_ms, 5, Fraction::kHundredths, true);
}

void LSoundTime::_GetTextHMMSSF(char* text) const {
    Format(text, m_ms, 50, Fraction::kTenths, false);
}

void LSoundTime::_GetTextHMMSSFF(char* text) const {
    Format(text, m_ms, 5, Fraction::kHundredths, false);
}

void LSoundTime::_GetTextHMMSSFFF(char* text) const {
    Format(text, m_ms, 0, Fraction::kMillis, false);
}

void LSoundTime::SetText(char const* text) {
    // Unsigned arithmetic: an absurdly long run of digits wraps instead of overflowing.
    unsigned long long total = 0;
    unsigned long long base = 0;  // the total before the current field began
    unsigned long long field = 0; // the current integer field, in ms
    unsigned long long weight = 1000;
    int colons = 0;
    bool negative = false;
    for (char const* p = text; p != nullptr && *p != '\0'; ++p) {
        char const c = *p;
        if (c >= '0' && c <= '9') {
            auto const d = static_cast<unsigned long long>(c - '0');
            if (weight == 1000) {
                field = field * 10 + d * 1000;
                total = base + field;
            } else {
                total += d * weight;
                weight /= 10;
            }
        } else if (c == '.') {
            if (weight >= 1000) {
                weight = 100;
            }
        } else if (c == ':') {
            ++colons;
            if (colons <= 2) {
                total *= 60;
                base = total;
                field = 0;
            } else {
                // A third colon starts the millisecond field of "h:m:s:fff".
                weight = 100;
                field = 0;
            }
        } else if (c == '-') {
            negative = true;
        }
    }
    m_ms = static_cast<long long>(negative ? 0ULL - total : total);
}

bool LSoundTime::IsValid(char const* text, bool flag) {
    (void)flag;
    if (text == nullptr || text[0] == '\0') {
        return false;
    }
    int dots = 0;
    int colons = 0;
    for (char const* p = text; *p != '\0'; ++p) {
        char const c = *p;
        if (c >= '0' && c <= '9') {
            continue;
        }
        if (c == '.') {
            if (++dots > 1) {
                return false;
            }
        } else if (c == ':') {
            if (dots > 0 || ++colons > 3) {
                return false;
            }
        } else {
            return false;
        }
    }
    return true;
}
