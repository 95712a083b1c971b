// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/unix/signalobject.h"

#include "llib/unix/thread.h"

#include <cerrno>
#include <cstdint>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {

// Polls `fds` until one is ready or the time-out passes, resuming after signals with the time
// left. Returns poll's count (0 on time-out, -1 on error).
int PollFor(pollfd* fds, nfds_t count, unsigned timeoutMs) {
    std::int64_t const start = LGetTickMs();
    for (;;) {
        int wait = -1;
        if (timeoutMs != kLWaitForever) {
            std::int64_t const left = static_cast<std::int64_t>(timeoutMs) - (LGetTickMs() - start);
            wait = left > 0 ? static_cast<int>(left) : 0;
        }
        int const rc = ::poll(fds, count, wait);
        if (rc >= 0 || errno != EINTR) {
            return rc;
        }
    }
}

} // namespace

LSignalObject::LSignalObject() : m_fd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void LSignalObject::Set() {
    std::uint64_t const one = 1;
    // A full counter (never reached here) or a bad descriptor leaves the state as it is.
    (void)!::write(m_fd.Get(), &one, sizeof one);
}

void LSignalObject::Reset() {
    std::uint64_t value = 0;
    (void)!::read(m_fd.Get(), &value, sizeof value);
}

bool LSignalObject::IsSet() const {
    return Wait(0);
}

bool LSignalObject::Wait(unsigned timeoutMs) const {
    return LWaitReadable(m_fd.Get(), timeoutMs);
}

int LSignalObjectGroup::WaitAny(unsigned timeoutMs, int extraFd) const {
    std::vector<pollfd> fds;
    fds.reserve(m_objects.size() + 1);
    for (LSignalObject const* object : m_objects) {
        fds.push_back(pollfd{object->GetFd(), POLLIN, 0});
    }
    if (extraFd >= 0) {
        fds.push_back(pollfd{extraFd, POLLIN, 0});
    }
    if (PollFor(fds.data(), fds.size(), timeoutMs) <= 0) {
        return -1;
    }
    for (std::size_t i = 0; i < m_objects.size(); ++i) {
        if ((fds[i].revents & POLLIN) != 0) {
            return static_cast<int>(i);
        }
    }
    return extraFd >= 0 ? -2 : -1;
}

bool LWaitReadable(int fd, unsigned timeoutMs) {
    if (fd < 0) {
        return false;
    }
    pollfd p{fd, POLLIN, 0};
    // A hung-up or failed descriptor counts: a read would not block (it returns the end or the
    // error), and a waiter that ignored it would time out or spin on a pipe whose writer died.
    return PollFor(&p, 1, timeoutMs) > 0 && (p.revents & (POLLIN | POLLHUP | POLLERR)) != 0;
}
