// SPDX-License-Identifier: GPL-3.0-or-later
#include "tests/support/lockpeer.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

LockPeer::LockPeer(std::string const& path) {
    int toChild[2];
    int toParent[2];
    if (::pipe2(toChild, O_CLOEXEC) != 0 || ::pipe2(toParent, O_CLOEXEC) != 0) {
        return;
    }
    m_pid = ::fork();
    if (m_pid == 0) {
        ::close(toChild[1]);
        ::close(toParent[0]);
        Serve(path, toChild[0], toParent[1]);
    }
    ::close(toChild[0]);
    ::close(toParent[1]);
    m_command = toChild[1];
    m_reply = toParent[0];
}

LockPeer::~LockPeer() {
    ::close(m_command); // end of commands: the peer exits
    ::close(m_reply);
    if (m_pid > 0) {
        int status = 0;
        ::waitpid(m_pid, &status, 0);
    }
}

bool LockPeer::Ask(char command) {
    char reply = 0;
    return ::write(m_command, &command, 1) == 1 && ::read(m_reply, &reply, 1) == 1 && reply == '1';
}

void LockPeer::Serve(std::string const& path, int commands, int replies) {
    // A forked child shares the parent's open file descriptions, and with them the parent's
    // locks: keep only the command pipes so that closing a descriptor in the parent really is
    // the last close.
    ::dup2(commands, 0);
    ::dup2(replies, 1);
    ::close_range(3, ~0u, 0);
    commands = 0;
    replies = 1;
    int const fd = ::open(path.c_str(), O_RDWR);
    char command = 0;
    while (::read(commands, &command, 1) == 1) {
        int const op = command == 'X'   ? LOCK_EX | LOCK_NB
                       : command == 'S' ? LOCK_SH | LOCK_NB
                                        : LOCK_UN;
        char const reply = fd >= 0 && ::flock(fd, op) == 0 ? '1' : '0';
        if (::write(replies, &reply, 1) != 1) {
            break;
        }
    }
    ::_exit(0);
}
