// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// LStringLongTemplate<C>: a growable, always terminated string for texts with no fixed bound
// (long chunk strings, paths built at run time). LStringLong is the char form. Fixed-size texts
// use caller buffers of kLMaxText characters and the helpers below, which always terminate and
// never write past the buffer.

#include <cstdarg>
#include <cstddef>
#include <string>

inline constexpr std::size_t kLMaxText = 260;

template <class C>
class LStringLongTemplate {
public:
    LStringLongTemplate() = default;
    explicit LStringLongTemplate(C const* text)
        : m_text(text != nullptr ? std::basic_string<C>(text) : std::basic_string<C>()) {}

    [[nodiscard]] C const* Get() const { return m_text.c_str(); }
    [[nodiscard]] std::size_t GetLength() const { return m_text.size(); }
    [[nodiscard]] bool IsEmpty() const { return m_text.empty(); }
    void Set(C const* text) { m_text = text != nullptr ? text : std::basic_string<C>(); }
    void Set(C const* text, std::size_t count) { m_text.assign(text, count); }
    void Append(C const* text) { m_text += text; }
    void Clear() { m_text.clear(); }
    std::basic_string<C> const& Std() const { return m_text; }
    std::basic_string<C>& Std() { return m_text; }

private:
    std::basic_string<C> m_text;
};

using LStringLong = LStringLongTemplate<char>;

// Copies `source` into `dest` of `destChars` characters, truncating; always terminates.
void LStrCopy(char* dest, std::size_t destChars, char const* source);
// snprintf into a caller buffer; always terminates; returns the characters written.
int LStrPrintf(char* dest, std::size_t destChars, char const* format, ...)
    __attribute__((format(printf, 3, 4)));
int LStrVPrintf(char* dest, std::size_t destChars, char const* format, va_list args);
// printf into a std::string of any length.
std::string LStrFormat(char const* format, ...) __attribute__((format(printf, 1, 2)));
