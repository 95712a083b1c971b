// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/unix/writebehind.h"

#include <algorithm>
#include <cstring>

LWriteBehind::LWriteBehind(std::size_t bufferBytes)
    : m_fill(std::max<std::size_t>(bufferBytes, 4096)),
      m_drain(std::max<std::size_t>(bufferBytes, 4096)) {}

LWriteBehind::~LWriteBehind() {
    (void)Finish();
}

void LWriteBehind::Start(LFileDescriptor& fd) {
    m_fd = &fd;
    m_threaded = m_thread.Start([this] { Run(); });
}

void LWriteBehind::Run() {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_changed.wait(lock, [this] { return m_pending || m_stop; });
        if (!m_pending) {
            return; // stopped with nothing left
        }
        lock.unlock();
        bool const ok = m_fd->WriteAll(m_drain.data(), m_drainBytes);
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
        m_failed = m_failed || !m_fd->WriteAll(data, bytes);
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
    std::lock_guard<std::mutex> lock(m_mutex);
    return !m_failed;
}
