// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Sequential writes to a descriptor done on a thread of their own, so the caller prepares the
// next buffer while the kernel copies the last one: a file writer that converts samples and
// writes them then keeps two cores busy instead of one. Two buffers take turns; Write copies
// into the one being filled and hands it over when it is full, waiting only when the other is
// still being written. Failures are sticky and surface at the next Write or at Finish.

#include "llib/unix/fd.h"
#include "llib/unix/thread.h"

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <vector>

class LWriteBehind {
public:
    explicit LWriteBehind(std::size_t bufferBytes = std::size_t{1} << 20);
    ~LWriteBehind();
    LWriteBehind(LWriteBehind const&) = delete;
    LWriteBehind& operator=(LWriteBehind const&) = delete;

    // Writes go to `fd` from its current position on. Without a thread (none could be started)
    // they go straight to the descriptor. The descriptor must outlive Finish.
    void Start(LFileDescriptor& fd);
    // Appends `bytes`; false once any write has failed.
    [[nodiscard]] bool Write(void const* data, std::size_t bytes);
    // Writes everything handed over and ends the thread; false when any write failed. Later
    // calls repeat the answer.
    [[nodiscard]] bool Finish();

private:
    void HandOver(std::unique_lock<std::mutex>& lock);
    void Run();

    LFileDescriptor* m_fd = nullptr;
    std::vector<unsigned char> m_fill;  // being filled by the caller
    std::vector<unsigned char> m_drain; // being written by the thread
    std::size_t m_fillBytes = 0;
    std::size_t m_drainBytes = 0;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_pending = false; // m_drain holds bytes the thread has not written yet
    bool m_stop = false;
    bool m_failed = false;
    bool m_threaded = false;
    LThread m_thread;
};
