// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/unix/filelock.h"

#include "llib/unix/thread.h"

#include <cerrno>
#include <sys/file.h>

bool LFileLock::Lock(LFileDescriptor const& fd, LFileLockMode mode, int waitMs) {
    Unlock();
    if (!fd.IsOpen()) {
        return false;
    }
    int const op = (mode == LFileLockMode::kExclusive ? LOCK_EX : LOCK_SH) | LOCK_NB;
    std::int64_t const deadline = LGetTickMs() + waitMs;
    // flock has no timed wait, so poll; the interval grows so a long wait costs little CPU.
    int pauseMs = 1;
    for (;;) {
        if (::flock(fd.Get(), op) == 0) {
            m_fd = fd.Get();
            return true;
        }
        if (errno != EWOULDBLOCK && errno != EINTR) {
            return false;
        }
        std::int64_t const now = LGetTickMs();
        if (now >= deadline) {
            return false;
        }
        LSleepMs(static_cast<int>(std::min<std::int64_t>(pauseMs, deadline - now)));
        pauseMs = pauseMs < 20 ? pauseMs * 2 : 20;
    }
}

void LFileLock::Unlock() {
    if (m_fd >= 0) {
        (void)::flock(m_fd, LOCK_UN);
        m_fd = -1;
    }
}
