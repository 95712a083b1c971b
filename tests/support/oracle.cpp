// SPDX-License-Identifier: GPL-3.0-or-later
#include "tests/support/oracle.h"

#include "tests/support/tempdir.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

std::string FindTool(char const* name) {
    char const* path = std::getenv("PATH");
    std::string dirs = path != nullptr ? path : "/usr/bin:/bin";
    std::size_t start = 0;
    while (start <= dirs.size()) {
        std::size_t end = dirs.find(':', start);
        if (end == std::string::npos) {
            end = dirs.size();
        }
        std::string const candidate = dirs.substr(start, end - start) + "/" + name;
        if (::access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
        start = end + 1;
    }
    return {};
}

int RunTool(std::vector<std::string> const& argv, std::string* output) {
    if (argv.empty()) {
        return -1;
    }
    std::vector<char*> args;
    for (std::string const& a : argv) {
        args.push_back(const_cast<char*>(a.c_str()));
    }
    args.push_back(nullptr);
    int pipeFds[2] = {-1, -1};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (output != nullptr) {
        if (::pipe2(pipeFds, O_CLOEXEC) != 0) {
            posix_spawn_file_actions_destroy(&actions);
            return -1;
        }
        posix_spawn_file_actions_adddup2(&actions, pipeFds[1], 1);
        posix_spawn_file_actions_adddup2(&actions, pipeFds[1], 2);
    }
    pid_t pid = 0;
    int const rc = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (output != nullptr) {
        ::close(pipeFds[1]);
    }
    if (rc != 0) {
        if (output != nullptr) {
            ::close(pipeFds[0]);
        }
        return -1;
    }
    if (output != nullptr) {
        char buffer[4096];
        ssize_t n = 0;
        while ((n = ::read(pipeFds[0], buffer, sizeof buffer)) > 0) {
            output->append(buffer, static_cast<std::size_t>(n));
        }
        ::close(pipeFds[0]);
    }
    int status = 0;
    if (::waitpid(pid, &status, 0) < 0) {
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

SampleDifference CompareSamples(float const* a, float const* b, std::size_t n) {
    SampleDifference d;
    for (std::size_t i = 0; i < n; ++i) {
        double const e = static_cast<double>(a[i]) - b[i];
        d.rms += e * e;
        d.max = std::max(d.max, std::fabs(e));
    }
    d.rms = n > 0 ? std::sqrt(d.rms / static_cast<double>(n)) : 0.0;
    return d;
}

std::vector<float> DecodeWithMpg123(std::string const& path, std::string const& rawPath) {
    std::string output;
    int const status = RunTool({"mpg123", "-q", "-e", "f32", "-O", rawPath, path}, &output);
    EXPECT_EQ(status, 0) << output;
    if (status != 0) {
        return {};
    }
    std::string const bytes = ReadFileBytes(rawPath);
    std::vector<float> samples(bytes.size() / sizeof(float));
    std::memcpy(samples.data(), bytes.data(), samples.size() * sizeof(float));
    return samples;
}
