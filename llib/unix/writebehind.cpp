// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/unix/writebehind.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

LWriteBehind::LWriteBehind(std::size_t bufferBytes)
    : m_fill(std::max<std::size_t>(bufferBytes, 4096)),
      m_drain(std::max<std::size_t>(bufferBytes, 4096)) {}

LWriteBehind::~LWriteBehind() {
    (void)Finish();
}

void LWriteBehind::Start(LFileDescriptor& fd) {
    m_fd = &fd;
    off_t const origin = lseek(fd.Get(), 0, SEEK_CUR);
    m_origin = origin < 0 ? 0 : static_cast<std::int64_t>(origin);
    m_writebackFrom = std::max(m_writebackFrom, m_writebackAfter);
    if (m_expected > 0) {
        // Only a hint: without it the file system allocates as the pages come.
        (void)fallocate(fd.Get(), FALLOC_FL_KEEP_SIZE, static_cast<off_t>(m_origin),
                        static_cast<off_t>(m_expected));
    }
    m_threaded = m_thread.Start([this] { Run(); });
}

bool LWriteBehind::Drain(void const* data, std::size_t bytes) {
    if (!m_fd->WriteAll(data, bytes)) {
        m_systemError = m_systemError != 0 ? m_systemError : (errno != 0 ? errno : EIO);
        return false;
    }
    m_written += bytes;
    if (m_writebackInterval > 0 && m_written > m_writebackFrom &&
        m_written - m_writebackFrom >= m_writebackInterval) {
        // Only a hint: a failure here leaves the kernel's own writeback to do the work.
        (void)sync_file_range(m_fd->Get(), m_origin + static_cast<off_t>(m_writebackFrom),
                              static_cast<off_t>(m_written - m_writebackFrom),
                              SYNC_FILE_RANGE_WRITE);
        m_writebackFrom = m_written;
    }
    return true;
}

void LWriteBehind::Run() {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_changed.wait(lock, [this] { return m_pending || m_stop; });
        if (!m_pending) {
            return; // stopped with nothing left
        }
        lock.unlock();
        bool const ok = Drain(m_drain.data(), m_drainBytes);
        lock.lock();
        m_failed = m_failed || !ok;
        m_pending = false;
        m_changed.notify_all();
    }
}

void LWriteBehind::HandOver(std::unique_lock<std::mutex>& lock) {
    m_changed.wait(lock, [this] { return !m_pending; });
    std::swap(m_fill, m_drain);
    m_drainBytes = m_fillBytes;
    m_fillBytes = 0;
    m_pending = true;
    m_changed.notify_all();
}

bool LWriteBehind::Write(void const* data, std::size_t bytes) {
    if (m_fd == nullptr) {
        return false;
    }
    if (!m_threaded) {
        m_failed = m_failed || !Drain(data, bytes);
        return !m_failed;
    }
    auto const* p = static_cast<unsigned char const*>(data);
    while (bytes > 0) {
        std::size_t const n = std::min(bytes, m_fill.size() - m_fillBytes);
        std::memcpy(m_fill.data() + m_fillBytes, p, n);
        m_fillBytes += n;
        p += n;
        bytes -= n;
        if (m_fillBytes == m_fill.size()) {
            std::unique_lock<std::mutex> lock(m_mutex);
            HandOver(lock);
        }
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    return !m_failed;
}

bool LWriteBehind::Flush() {
    if (!m_threaded) {
        return m_fd != nullptr && !m_failed;
    }
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_fillBytes > 0) {
        HandOver(lock);
    }
    m_changed.wait(lock, [this] { return !m_pending; });
    return !m_failed;
}

bool LWriteBehind::Finish() {
    if (m_threaded) {
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            if (m_fillBytes > 0) {
                HandOver(lock);
            }
            m_stop = true;
            m_changed.notify_all();
        }
        m_thread.Join();
        m_threaded = false;
    }
    if (m_expected > 0 && m_fd != nullptr) {
        // Blocks reserved past the end (a source shorter than announced) go back to the disk.
        struct stat st {};
        if (fstat(m_fd->Get(), &st) == 0) {
            (void)ftruncate(m_fd->Get(), st.st_size);
        }
        m_expected = 0;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    return !m_failed;
}

std::uint64_t LWriteBehind::GetDirtyAllowance() {
    static std::uint64_t const allowance = [] {
        constexpr std::uint64_t kFallback = std::uint64_t{64} << 20;
        auto readNumber = [](char const* path, char const* key) -> std::uint64_t {
            std::FILE* f = std::fopen(path, "r");
            if (f == nullptr) {
                return 0;
            }
            char line[256];
            unsigned long long value = 0;
            std::size_t const keyLength = std::strlen(key);
            while (std::fgets(line, sizeof line, f) != nullptr) {
                if (std::strncmp(line, key, keyLength) == 0 &&
                    std::sscanf(line + keyLength, "%llu", &value) == 1) {
                    break;
                }
            }
            std::fclose(f);
            return value;
        };
        // The kernel's background threshold is either a byte count or a share of the memory
        // that can hold file pages, of which the available memory is a fair estimate.
        std::uint64_t threshold = readNumber("/proc/sys/vm/dirty_background_bytes", "");
        if (threshold == 0) {
            std::uint64_t const ratio = readNumber("/proc/sys/vm/dirty_background_ratio", "");
            std::uint64_t const availableKiB = readNumber("/proc/meminfo", "MemAvailable:");
            threshold = availableKiB * 1024 / 100 * ratio;
        }
        return threshold > 0 ? threshold / 2 : kFallback;
    }();
    return allowance;
}
