// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/unix/fd.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

LFileDescriptor& LFileDescriptor::operator=(LFileDescriptor&& other) noexcept {
    if (this != &other) {
        Reset(other.Release());
    }
    return *this;
}

bool LFileDescriptor::Open(char const* path, int flags, mode_t mode) {
    Close();
    do {
        m_fd = ::open(path, flags | O_CLOEXEC, mode);
    } while (m_fd < 0 && errno == EINTR);
    return m_fd >= 0;
}

int LFileDescriptor::Release() {
    int const fd = m_fd;
    m_fd = -1;
    return fd;
}

void LFileDescriptor::Reset(int fd) {
    Close();
    m_fd = fd;
}

bool LFileDescriptor::Close() {
    if (m_fd < 0) {
        return true;
    }
    // close(2) must not be retried on EINTR on Linux: the descriptor is already gone.
    int const rc = ::close(m_fd);
    m_fd = -1;
    return rc == 0 || errno == EINTR;
}

bool LFileDescriptor::WriteAll(void const* data, std::uint64_t bytes) {
    auto const* p = static_cast<unsigned char const*>(data);
    while (bytes > 0) {
        ssize_t const n = ::write(m_fd, p, bytes);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        if (n == 0) {
            errno = EIO;
            return false;
        }
        p += n;
        bytes -= static_cast<std::uint64_t>(n);
    }
    return true;
}

std::int64_t LFileDescriptor::ReadFull(void* data, std::uint64_t bytes) {
    auto* p = static_cast<unsigned char*>(data);
    std::uint64_t done = 0;
    while (done < bytes) {
        ssize_t const n = ::read(m_fd, p + done, bytes - done);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return -1;
        }
        if (n == 0) {
            break;
        }
        done += static_cast<std::uint64_t>(n);
    }
    return static_cast<std::int64_t>(done);
}

bool LFileDescriptor::PWriteAll(void const* data, std::uint64_t bytes, std::uint64_t offset) {
    auto const* p = static_cast<unsigned char const*>(data);
    while (bytes > 0) {
        ssize_t const n = ::pwrite(m_fd, p, bytes, static_cast<off_t>(offset));
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        if (n == 0) {
            errno = EIO;
            return false;
        }
        p += n;
        bytes -= static_cast<std::uint64_t>(n);
        offset += static_cast<std::uint64_t>(n);
    }
    return true;
}

std::int64_t LFileDescriptor::PReadFull(void* data, std::uint64_t bytes, std::uint64_t offset) {
    auto* p = static_cast<unsigned char*>(data);
    std::uint64_t done = 0;
    while (done < bytes) {
        ssize_t const n = ::pread(m_fd, p + done, bytes - done, static_cast<off_t>(offset + done));
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return -1;
        }
        if (n == 0) {
            break;
        }
        done += static_cast<std::uint64_t>(n);
    }
    return static_cast<std::int64_t>(done);
}

bool LFileDescriptor::SeekTo(std::uint64_t offset) {
    return ::lseek(m_fd, static_cast<off_t>(offset), SEEK_SET) == static_cast<off_t>(offset);
}

std::int64_t LFileDescriptor::GetSize() const {
    struct stat st {};
    if (::fstat(m_fd, &st) != 0) {
        return -1;
    }
    return st.st_size;
}

bool LFileDescriptor::Truncate(std::uint64_t bytes) {
    int rc = 0;
    do {
        rc = ::ftruncate(m_fd, static_cast<off_t>(bytes));
    } while (rc != 0 && errno == EINTR);
    return rc == 0;
}

bool LFileDescriptor::Sync() {
    return ::fsync(m_fd) == 0;
}

bool LMakePipe(LFileDescriptor& readEnd, LFileDescriptor& writeEnd) {
    int fds[2] = {-1, -1};
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        return false;
    }
    readEnd.Reset(fds[0]);
    writeEnd.Reset(fds[1]);
    return true;
}
