// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Threads, mutexes, sleeps and the monotonic clock. LThread runs one function on a new thread
// and must be joined (Join) before it is destroyed; a destructor that finds a running thread
// joins it, so no thread outlives its owner. LMutex is a plain non-recursive mutex.

#include <cstdint>
#include <functional>
#include <mutex>
#include <pthread.h>

// Milliseconds of CLOCK_MONOTONIC: for deadlines and intervals, never for wall time.
[[nodiscard]] std::int64_t LGetTickMs();

// Sleeps for `ms` milliseconds; a sleep interrupted by a signal is resumed for the time left.
void LSleepMs(int ms);

class LMutex {
public:
    void Lock() { m_mutex.lock(); }
    void Unlock() { m_mutex.unlock(); }
    [[nodiscard]] bool TryLock() { return m_mutex.try_lock(); }
    std::mutex& Native() { return m_mutex; }

private:
    std::mutex m_mutex;
};

// Scoped lock over LMutex.
class LMutexLock {
public:
    explicit LMutexLock(LMutex& mutex) : m_mutex(mutex) { m_mutex.Lock(); }
    ~LMutexLock() { m_mutex.Unlock(); }
    LMutexLock(LMutexLock const&) = delete;
    LMutexLock& operator=(LMutexLock const&) = delete;

private:
    LMutex& m_mutex;
};

class LThread {
public:
    LThread() = default;
    ~LThread() { Join(); }
    LThread(LThread const&) = delete;
    LThread& operator=(LThread const&) = delete;

    // Starts `body` on a new thread; false if a thread is already running or none can be made.
    [[nodiscard]] bool Start(std::function<void()> body);
    void Join();
    [[nodiscard]] bool IsStarted() const { return m_started; }

private:
    pthread_t m_thread{};
    bool m_started = false;
};
