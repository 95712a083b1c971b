// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Memory streams with the same shape as the file streams, so the structured data writer and
// reader work on memory unchanged (tests, fuzzing, files built before they are written).
// LOutputStreamByteArray grows as it is written and may be seeked back within what it holds;
// LInputStreamBuffer reads a caller's buffer, which must outlive it.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

class LOutputStreamByteArray {
public:
    [[nodiscard]] bool Write(void const* data, std::uint64_t bytes) {
        if (bytes == 0) {
            return true;
        }
        std::uint64_t const end = m_offset + bytes;
        if (end > m_bytes.size()) {
            m_bytes.resize(end);
        }
        std::memcpy(m_bytes.data() + m_offset, data, bytes);
        m_offset = end;
        return true;
    }
    // Only offsets within what was written are reachable; the writer never needs more.
    [[nodiscard]] bool Seek(std::uint64_t offset) {
        if (offset > m_bytes.size()) {
            return false;
        }
        m_offset = offset;
        return true;
    }
    [[nodiscard]] std::uint64_t GetOffset() const { return m_offset; }
    [[nodiscard]] std::uint64_t GetSize() const { return m_bytes.size(); }
    [[nodiscard]] unsigned char const* GetData() const { return m_bytes.data(); }
    [[nodiscard]] std::vector<unsigned char> const& GetBytes() const { return m_bytes; }
    void Clear() {
        m_bytes.clear();
        m_offset = 0;
    }

private:
    std::vector<unsigned char> m_bytes;
    std::uint64_t m_offset = 0;
};

class LInputStreamBuffer {
public:
    LInputStreamBuffer() = default;
    LInputStreamBuffer(void const* data, std::uint64_t bytes)
        : m_data(static_cast<unsigned char const*>(data)), m_size(bytes) {}

    // Exact reads: false, with nothing consumed, when fewer than `bytes` remain.
    [[nodiscard]] bool Read(void* data, std::uint64_t bytes) {
        if (bytes > m_size - m_offset) {
            return false;
        }
        if (bytes > 0) {
            std::memcpy(data, m_data + m_offset, bytes);
        }
        m_offset += bytes;
        return true;
    }
    [[nodiscard]] bool Seek(std::uint64_t offset) {
        if (offset > m_size) {
            return false;
        }
        m_offset = offset;
        return true;
    }
    [[nodiscard]] std::uint64_t GetOffset() const { return m_offset; }
    [[nodiscard]] std::uint64_t GetSize() const { return m_size; }

private:
    unsigned char const* m_data = nullptr;
    std::uint64_t m_size = 0;
    std::uint64_t m_offset = 0;
};
