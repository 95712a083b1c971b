// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// LSizedArray<T>: an owning array that knows its element count. Allocation is a value: Allocate
// returns false instead of throwing when memory runs out, so a reader that was handed a large
// (already bounds-checked) length reports a failed read rather than aborting the process.

#include <cstddef>
#include <memory>
#include <new>

template <class T>
class LSizedArray {
public:
    LSizedArray() = default;
    LSizedArray(LSizedArray const&) = delete;
    LSizedArray& operator=(LSizedArray const&) = delete;
    LSizedArray(LSizedArray&& other) noexcept
        : m_data(std::move(other.m_data)), m_count(other.m_count) {
        other.m_count = 0;
    }
    LSizedArray& operator=(LSizedArray&& other) noexcept {
        m_data = std::move(other.m_data);
        m_count = other.m_count;
        other.m_count = 0;
        return *this;
    }

    // Replaces the contents with `count` value-initialised elements; a count of 0 empties the
    // array and succeeds. On failure the array is left empty.
    [[nodiscard]] bool Allocate(std::size_t count) {
        m_data.reset();
        m_count = 0;
        if (count == 0) {
            return true;
        }
        m_data.reset(new (std::nothrow) T[count]());
        if (!m_data) {
            return false;
        }
        m_count = count;
        return true;
    }

    void Clear() {
        m_data.reset();
        m_count = 0;
    }

    [[nodiscard]] T* GetData() { return m_data.get(); }
    [[nodiscard]] T const* GetData() const { return m_data.get(); }
    [[nodiscard]] std::size_t GetCount() const { return m_count; }
    [[nodiscard]] bool IsEmpty() const { return m_count == 0; }
    T& operator[](std::size_t i) { return m_data[i]; }
    T const& operator[](std::size_t i) const { return m_data[i]; }
    T* begin() { return m_data.get(); }
    T* end() { return m_data.get() + m_count; }
    T const* begin() const { return m_data.get(); }
    T const* end() const { return m_data.get() + m_count; }

private:
    std::unique_ptr<T[]> m_data;
    std::size_t m_count = 0;
};
