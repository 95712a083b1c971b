// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// LFileDescriptor: the single owner of a POSIX descriptor. Every descriptor the engine opens
// goes through it, so every one is close-on-exec (a decoder program we spawn never inherits a
// cache file or a lock) and is closed exactly once. Not copyable; moving transfers ownership.
// Failures are values: each call returns false or -1 and leaves errno for the caller's message.

#include <cstdint>
#include <sys/types.h>

class LFileDescriptor {
public:
    LFileDescriptor() = default;
    explicit LFileDescriptor(int fd) : m_fd(fd) {}
    ~LFileDescriptor() { Close(); }
    LFileDescriptor(LFileDescriptor const&) = delete;
    LFileDescriptor& operator=(LFileDescriptor const&) = delete;
    LFileDescriptor(LFileDescriptor&& other) noexcept : m_fd(other.Release()) {}
    LFileDescriptor& operator=(LFileDescriptor&& other) noexcept;

    // open(2) with O_CLOEXEC added; false when the call fails (errno is kept).
    [[nodiscard]] bool Open(char const* path, int flags, mode_t mode = 0644);

    [[nodiscard]] bool IsOpen() const { return m_fd >= 0; }
    [[nodiscard]] int Get() const { return m_fd; }
    int Release();
    void Reset(int fd = -1);
    // Closes now; false when close(2) reported an error (a late write failure on some filesystems).
    bool Close();

    // Loops over short transfers and EINTR: true only when every byte moved.
    [[nodiscard]] bool WriteAll(void const* data, std::uint64_t bytes);
    // Reads until `bytes` are in or the end is reached; returns the count read, or -1 on error.
    [[nodiscard]] std::int64_t ReadFull(void* data, std::uint64_t bytes);
    [[nodiscard]] bool PWriteAll(void const* data, std::uint64_t bytes, std::uint64_t offset);
    [[nodiscard]] std::int64_t PReadFull(void* data, std::uint64_t bytes, std::uint64_t offset);
    [[nodiscard]] bool SeekTo(std::uint64_t offset);
    // Size in bytes from fstat, or -1.
    [[nodiscard]] std::int64_t GetSize() const;
    [[nodiscard]] bool Truncate(std::uint64_t bytes);
    [[nodiscard]] bool Sync();

private:
    int m_fd = -1;
};

// Makes a pipe whose both ends are close-on-exec; false on failure.
[[nodiscard]] bool LMakePipe(LFileDescriptor& readEnd, LFileDescriptor& writeEnd);
