// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// LFileLock: a scoped advisory lock (flock(2)) on an open descriptor. Small files are read under
// a shared lock and rewritten under an exclusive one; a lock is waited for at most
// kLFileLockWaitMs so that a stuck peer process never hangs the editor. The lock belongs to the
// open file description and is released by Unlock, by the destructor, or when the descriptor
// closes. Used from any thread; one object per holder.

#include "llib/unix/fd.h"

inline constexpr int kLFileLockWaitMs = 3000;

enum class LFileLockMode : unsigned char { kShared = 0, kExclusive = 1 };

class LFileLock {
public:
    LFileLock() = default;
    ~LFileLock() { Unlock(); }
    LFileLock(LFileLock const&) = delete;
    LFileLock& operator=(LFileLock const&) = delete;

    // Polls for the lock until it is granted or `waitMs` has passed; false on time-out or error.
    [[nodiscard]] bool Lock(LFileDescriptor const& fd, LFileLockMode mode,
                            int waitMs = kLFileLockWaitMs);
    void Unlock();
    [[nodiscard]] bool IsLocked() const { return m_fd >= 0; }

private:
    int m_fd = -1;
};
