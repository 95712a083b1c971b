// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// LMD5: the MD5 message digest (RFC 1321), fed in pieces of any size. Used where a file format
// stores the digest of its content (the FLAC STREAMINFO block). Not for security. One object per
// stream, used by one thread at a time.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

class LMD5 {
public:
    LMD5() { Reset(); }
    // Starts again with the standard initial state.
    void Reset();
    void Update(void const* data, std::size_t bytes);
    // The digest of everything given since the last Reset; the object must be Reset before
    // further use.
    [[nodiscard]] std::array<unsigned char, 16> Finish();
    // The digest as 32 lower-case hexadecimal digits.
    [[nodiscard]] static std::string ToHex(std::array<unsigned char, 16> const& digest);

private:
    void Transform(unsigned char const* block, std::size_t blocks);

    std::uint32_t m_state[4];
    std::uint64_t m_totalBytes = 0;
    unsigned char m_pending[64];
    std::size_t m_pendingBytes = 0;
};
