// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/unix/thread.h"

#include <cerrno>
#include <ctime>
#include <memory>

std::int64_t LGetTickMs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void LSleepMs(int ms) {
    if (ms <= 0) {
        return;
    }
    timespec left{ms / 1000, static_cast<long>(ms % 1000) * 1000000L};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

namespace {

void* RunThread(void* arg) {
    std::unique_ptr<std::function<void()>> const body(static_cast<std::function<void()>*>(arg));
    (*body)();
    return nullptr;
}

} // namespace

bool LThread::Start(std::function<void()> body) {
    if (m_started) {
        return false;
    }
    // pthread_create rather than std::thread: a thread that cannot be made is a value here,
    // not an exception.
    auto start = std::make_unique<std::function<void()>>(std::move(body));
    if (pthread_create(&m_thread, nullptr, RunThread, start.get()) != 0) {
        return false;
    }
    (void)start.release();
    m_started = true;
    return true;
}

void LThread::Join() {
    if (m_started) {
        pthread_join(m_thread, nullptr);
        m_started = false;
    }
}
