// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Another process with its own open file description of a file, taking and dropping flock(2)
// locks on command. flock locks of one process never conflict with themselves through a shared
// description, so only a second process shows whether a lock is really held or released.

#include <string>
#include <sys/types.h>

class LockPeer {
public:
    explicit LockPeer(std::string const& path);
    ~LockPeer();
    LockPeer(LockPeer const&) = delete;
    LockPeer& operator=(LockPeer const&) = delete;

    // 'X' / 'S': try an exclusive / shared lock without waiting; 'U': unlock. True on success.
    bool Ask(char command);

private:
    [[noreturn]] static void Serve(std::string const& path, int commands, int replies);

    pid_t m_pid = -1;
    int m_command = -1;
    int m_reply = -1;
};
