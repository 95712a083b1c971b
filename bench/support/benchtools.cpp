// SPDX-License-Identifier: GPL-3.0-or-later
#include "bench/support/benchtools.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

extern char** environ;

bool LBenchRunQuiet(char const* const* argv) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid = 0;
    int const rc =
        posix_spawnp(&pid, argv[0], &actions, nullptr, const_cast<char* const*>(argv), environ);
    posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    return rc == 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) &&
           WEXITSTATUS(status) == 0;
}
