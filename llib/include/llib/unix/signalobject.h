// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// LSignalObject: a manual-reset event that any thread may set and any thread may wait for, with
// a time-out. It is an eventfd underneath, so a waiter can watch several of them (and the stop
// request of a long operation) in one poll(2): LSignalObjectGroup does that. Set and Reset are
// safe from any thread; the object must outlive every waiter.

#include "llib/unix/fd.h"

#include <cstddef>
#include <vector>

inline constexpr unsigned kLWaitForever = 0xFFFFFFFFu;

class LSignalObject {
public:
    LSignalObject();
    LSignalObject(LSignalObject const&) = delete;
    LSignalObject& operator=(LSignalObject const&) = delete;

    // False only when the system could not make the eventfd; such an object never signals.
    [[nodiscard]] bool IsValid() const { return m_fd.IsOpen(); }
    void Set();
    void Reset();
    [[nodiscard]] bool IsSet() const;
    // True when the object is (or becomes) set within `timeoutMs` (kLWaitForever: no limit).
    [[nodiscard]] bool Wait(unsigned timeoutMs) const;
    [[nodiscard]] int GetFd() const { return m_fd.Get(); }

private:
    LFileDescriptor m_fd;
};

using LSignalObjectRef = LSignalObject const&;

class LSignalObjectGroup {
public:
    void Add(LSignalObject const& object) { m_objects.push_back(&object); }
    [[nodiscard]] std::size_t GetCount() const { return m_objects.size(); }
    // Index of a set object, or -1 on time-out. With `extraFd` >= 0 that descriptor is watched
    // too and its readiness is reported as index -2 (used for stop requests).
    [[nodiscard]] int WaitAny(unsigned timeoutMs, int extraFd = -1) const;

private:
    std::vector<LSignalObject const*> m_objects;
};

// Waits until `fd` is readable or `timeoutMs` passes; true when readable. Interrupted polls are
// resumed for the time left.
[[nodiscard]] bool LWaitReadable(int fd, unsigned timeoutMs);
