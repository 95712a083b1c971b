// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// LSoundTime: a position or duration as a signed 64-bit count of milliseconds, the unit in which
// the views, the player, the recorder and the editor speak of time. Passed by value.
//
// Text forms write "h:mm:ss" and a fraction into a caller buffer of at least
// kLSoundTimeTextChars characters; a negative time is "-" and the form of its magnitude, and
// hours never wrap. SetText is a lenient scanner that skips characters it does not know;
// IsValid is the strict check that an edit field applies before it accepts a text.

#include <compare>
#include <cstddef>
#include <cstdint>

inline constexpr std::size_t kLSoundTimeTextChars = 32;

class LSoundTime {
public:
    constexpr LSoundTime() = default;
    constexpr explicit LSoundTime(long long ms) : m_ms(ms) {}

    [[nodiscard]] constexpr long long GetMs() const { return m_ms; }
    constexpr void SetMs(long long ms) { m_ms = ms; }

    // The time of frame `frames` at `rateHz` (rounded down), and back (rounded down).
    [[nodiscard]] static LSoundTime FromFrames(long long frames, int rateHz);
    [[nodiscard]] long long ToFrames(int rateHz) const;

    // "h:mm:ss.mmm", exact.
    void _GetText(char* text) const;
    // "h:mm:ss.hh", rounded to the nearest hundredth (5 ms added first).
    void _GetText2(char* text) const;
    // "h:mm:ss.t" with 32-bit hours, rounded to the nearest tenth.
    void _GetTextHMMSSF(char* text) const;
    // "h:mm:ss.hh" with 32-bit hours, rounded to the nearest hundredth.
    void _GetTextHMMSSFF(char* text) const;
    // "h:mm:ss.mmm" with 32-bit hours, exact.
    void _GetTextHMMSSFFF(char* text) const;

    // Reads "s", "m:s", "h:m:s", "h:m:s:fff" with optional ".fraction"; the last integer field is
    // seconds. Unknown characters are skipped and "-" anywhere makes the time negative.
    void SetText(char const* text);
    // True for non-empty texts of digits, at most one ".", at most three ":" and no ":" after
    // the "." ("-" is refused). The flag is accepted for callers that pass one; it changes
    // nothing.
    [[nodiscard]] static bool IsValid(char const* text, bool flag = false);

    friend constexpr bool operator==(LSoundTime a, LSoundTime b) = default;
    friend constexpr auto operator<=>(LSoundTime a, LSoundTime b) = default;

private:
    long long m_ms = 0;
};
