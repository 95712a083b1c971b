// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The fuzz input as a file in memory: the readers under test open paths, so the input is written
// to a memory file (after `head`, when a target wraps it) and named by its /proc path.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

// Returns the file's descriptor, for the caller to close; `path` gets its name.
inline int LFuzzMemoryFile(std::vector<unsigned char> const& head, std::uint8_t const* data,
                           std::size_t size, char (&path)[64]) {
    int const fd = memfd_create("fuzz", MFD_CLOEXEC);
    if (fd < 0 || write(fd, head.data(), head.size()) != static_cast<ssize_t>(head.size()) ||
        write(fd, data, size) != static_cast<ssize_t>(size)) {
        std::abort();
    }
    std::snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    return fd;
}
