// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/gen/filestream.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <sys/stat.h>

// ---- LOutputStreamFile ----

bool LOutputStreamFile::Open(char const* path, LFileLocking locking) {
    (void)Close();
    if (!AllocateBuffer()) {
        return false;
    }
    // O_TRUNC is not used: truncating before the lock is held would destroy a file that another
    // process is still reading under its shared lock.
    if (!m_fd.Open(path, O_WRONLY | O_CREAT)) {
        return false;
    }
    if (locking == LFileLocking::kLock && !m_lock.Lock(m_fd, LFileLockMode::kExclusive)) {
        m_fd.Close();
        return false;
    }
    // Only regular files are truncated: a device such as /dev/null or /dev/full has no length
    // to cut, and refusing it would make such an output unusable.
    struct stat st {};
    if (::fstat(m_fd.Get(), &st) != 0 || (S_ISREG(st.st_mode) && !m_fd.Truncate(0))) {
        m_lock.Unlock();
        m_fd.Close();
        return false;
    }
    return Adopt(std::move(m_fd));
}

bool LOutputStreamFile::Adopt(LFileDescriptor fd) {
    if (!fd.IsOpen() || !AllocateBuffer()) {
        return false;
    }
    if (&fd != &m_fd) {
        m_fd = std::move(fd);
    }
    m_bufferStart = 0;
    m_bufferBytes = 0;
    m_ok = true;
    return true;
}

bool LOutputStreamFile::AllocateBuffer() {
    if (!m_buffer) {
        m_buffer.reset(new (std::nothrow) unsigned char[kBufferBytes]);
    }
    return m_buffer != nullptr;
}

bool LOutputStreamFile::Flush() {
    if (!IsOk()) {
        return false;
    }
    if (m_bufferBytes > 0) {
        if (!m_fd.PWriteAll(m_buffer.get(), m_bufferBytes, m_bufferStart)) {
            m_ok = false;
            return false;
        }
        m_bufferStart += m_bufferBytes;
        m_bufferBytes = 0;
    }
    return true;
}

bool LOutputStreamFile::Write(void const* data, std::uint64_t bytes) {
    if (!IsOk()) {
        return false;
    }
    if (bytes == 0) {
        return true;
    }
    if (m_bufferBytes + bytes > kBufferBytes) {
        if (!Flush()) {
            return false;
        }
        if (bytes >= kBufferBytes) {
            if (!m_fd.PWriteAll(data, bytes, m_bufferStart)) {
                m_ok = false;
                return false;
            }
            m_bufferStart += bytes;
            return true;
        }
    }
    std::memcpy(m_buffer.get() + m_bufferBytes, data, bytes);
    m_bufferBytes += bytes;
    return true;
}

bool LOutputStreamFile::Seek(std::uint64_t offset) {
    if (!Flush()) {
        return false;
    }
    m_bufferStart = offset;
    return true;
}

bool LOutputStreamFile::Sync() {
    if (!Flush()) {
        return false;
    }
    if (!m_fd.Sync()) {
        m_ok = false;
    }
    return m_ok;
}

bool LOutputStreamFile::Close() {
    if (!m_fd.IsOpen()) {
        return false;
    }
    bool ok = Flush();
    m_lock.Unlock();
    ok = m_fd.Close() && ok;
    m_ok = false;
    return ok;
}

// ---- LInputStreamFile ----

bool LInputStreamFile::Open(char const* path) {
    Close();
    if (!m_fd.Open(path, O_RDONLY)) {
        return false;
    }
    std::int64_t const size = m_fd.GetSize();
    if (!m_buffer) {
        m_buffer.reset(new (std::nothrow) unsigned char[kBufferBytes]);
    }
    if (size < 0 || !m_buffer) {
        m_fd.Close();
        return false;
    }
    m_size = static_cast<std::uint64_t>(size);
    m_offset = 0;
    m_bufferStart = 0;
    m_bufferBytes = 0;
    return true;
}

bool LInputStreamFile::Read(void* data, std::uint64_t bytes) {
    if (!m_fd.IsOpen() || bytes > m_size || m_offset > m_size - bytes) {
        return false;
    }
    auto* out = static_cast<unsigned char*>(data);
    while (bytes > 0) {
        if (m_offset >= m_bufferStart && m_offset < m_bufferStart + m_bufferBytes) {
            std::uint64_t const at = m_offset - m_bufferStart;
            std::uint64_t const n = std::min(bytes, m_bufferBytes - at);
            std::memcpy(out, m_buffer.get() + at, n);
            out += n;
            bytes -= n;
            m_offset += n;
            continue;
        }
        if (bytes >= kBufferBytes) {
            // Large reads bypass the buffer.
            std::int64_t const n = m_fd.PReadFull(out, bytes, m_offset);
            if (n != static_cast<std::int64_t>(bytes)) {
                return false;
            }
            m_offset += bytes;
            return true;
        }
        std::int64_t const n = m_fd.PReadFull(m_buffer.get(), kBufferBytes, m_offset);
        if (n <= 0) {
            m_bufferBytes = 0;
            return false; // the file shrank under us
        }
        m_bufferStart = m_offset;
        m_bufferBytes = static_cast<std::uint64_t>(n);
    }
    return true;
}

bool LInputStreamFile::Seek(std::uint64_t offset) {
    if (!m_fd.IsOpen() || offset > m_size) {
        return false;
    }
    m_offset = offset;
    return true;
}

bool LInputStreamFile::RefreshSize() {
    std::int64_t const size = m_fd.GetSize();
    if (size < 0) {
        return false;
    }
    m_size = static_cast<std::uint64_t>(size);
    m_bufferBytes = 0;
    return true;
}

void LInputStreamFile::Close() {
    m_fd.Close();
    m_size = 0;
    m_offset = 0;
    m_bufferBytes = 0;
}

bool LInputStreamFileShared::Open(char const* path) {
    if (!LInputStreamFile::Open(path)) {
        return false;
    }
    if (!m_lock.Lock(m_fd, LFileLockMode::kShared)) {
        LInputStreamFile::Close();
        return false;
    }
    // The size read before the lock may predate a writer that finished meanwhile.
    if (!RefreshSize()) {
        Close();
        return false;
    }
    return true;
}

void LInputStreamFileShared::Close() {
    m_lock.Unlock();
    LInputStreamFile::Close();
}

// ---- LReadWriteFile ----

bool LReadWriteFile::Open(char const* path, bool create) {
    (void)Close();
    if (!m_fd.Open(path, O_RDWR | (create ? O_CREAT : 0))) {
        return false;
    }
    if (!m_lock.Lock(m_fd, LFileLockMode::kExclusive)) {
        m_fd.Close();
        return false;
    }
    m_offset = 0;
    m_ok = true;
    return true;
}

bool LReadWriteFile::Read(void* data, std::uint64_t bytes) {
    if (!IsOk()) {
        return false;
    }
    std::int64_t const n = m_fd.PReadFull(data, bytes, m_offset);
    if (n != static_cast<std::int64_t>(bytes)) {
        return false;
    }
    m_offset += bytes;
    return true;
}

bool LReadWriteFile::Write(void const* data, std::uint64_t bytes) {
    if (!IsOk()) {
        return false;
    }
    if (!m_fd.PWriteAll(data, bytes, m_offset)) {
        m_ok = false;
        return false;
    }
    m_offset += bytes;
    return true;
}

bool LReadWriteFile::Seek(std::uint64_t offset) {
    if (!IsOk()) {
        return false;
    }
    m_offset = offset;
    return true;
}

std::uint64_t LReadWriteFile::GetSize() const {
    std::int64_t const size = m_fd.GetSize();
    return size > 0 ? static_cast<std::uint64_t>(size) : 0;
}

bool LReadWriteFile::Truncate(std::uint64_t bytes) {
    if (!IsOk() || !m_fd.Truncate(bytes)) {
        m_ok = false;
        return false;
    }
    return true;
}

bool LReadWriteFile::Close() {
    if (!m_fd.IsOpen()) {
        return false;
    }
    bool const ok = m_ok;
    m_lock.Unlock();
    bool const closed = m_fd.Close();
    m_ok = false;
    return ok && closed;
}
