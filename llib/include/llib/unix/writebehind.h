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
#include <cstdint>
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
    // Asks the kernel to start writing to disk after every `bytes` written (0: never), so that a
    // long file does not pile up as dirty memory for the kernel to flush all at once later. The
    // first `after` bytes are left to the kernel's own writeback. Set before Start.
    void SetWritebackInterval(std::uint64_t bytes, std::uint64_t after = 0) {
        m_writebackInterval = bytes;
        m_writebackAfter = after;
    }
    // Reserves `bytes` of disk from the descriptor's position on without changing the file's
    // size, so that the file system allocates once rather than page by page; Finish gives back
    // what was not written. Only a hint. Set before Start.
    void SetExpectedBytes(std::uint64_t bytes) { m_expected = bytes; }
    // How much a writer may leave dirty before starting writeback itself: half of what the
    // kernel lets pile up before its own background writeback begins, so that a file that fits
    // costs no writeback while the program waits on it, and a long one is paced before the
    // kernel would throttle every writer.
    [[nodiscard]] static std::uint64_t GetDirtyAllowance();
    // Appends `bytes`; false once any write has failed.
    [[nodiscard]] bool Write(void const* data, std::size_t bytes);
    // Returns once everything appended so far is in the file (for readers of the file while it
    // grows); false when any write failed.
    [[nodiscard]] bool Flush();
    // Writes everything handed over and ends the thread; false when any write failed. Later
    // calls repeat the answer.
    [[nodiscard]] bool Finish();
    // The system's error number of the first failed write, 0 if none (valid after Finish).
    [[nodiscard]] int GetSystemError() const { return m_systemError; }

private:
    void HandOver(std::unique_lock<std::mutex>& lock);
    void Run();
    // Writes one handed-over buffer (on the thread, or inline without one).
    [[nodiscard]] bool Drain(void const* data, std::size_t bytes);

    LFileDescriptor* m_fd = nullptr;
    std::vector<unsigned char> m_fill;  // being filled by the caller
    std::vector<unsigned char> m_drain; // being written by the thread
    std::size_t m_fillBytes = 0;
    std::size_t m_drainBytes = 0;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::uint64_t m_writebackInterval = 0;
    std::uint64_t m_writebackAfter = 0;
    std::uint64_t m_expected = 0;
    std::uint64_t m_written = 0;       // bytes written since Start
    std::uint64_t m_writebackFrom = 0; // where the next writeback starts, relative to Start
    std::int64_t m_origin = 0;         // the descriptor's position at Start
    int m_systemError = 0;
    bool m_pending = false; // m_drain holds bytes the thread has not written yet
    bool m_stop = false;
    bool m_failed = false;
    bool m_threaded = false;
    LThread m_thread;
};
