// SPDX-License-Identifier: GPL-3.0-or-later
#include "llib/gen/userdirs.h"

#include <cerrno>
#include <cstdlib>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

char const* NonEmptyEnv(char const* name) {
    char const* value = std::getenv(name);
    return value != nullptr && value[0] != '\0' ? value : nullptr;
}

std::string HomeDir() {
    if (char const* home = NonEmptyEnv("HOME")) {
        return home;
    }
    if (passwd const* pw = getpwuid(getuid()); pw != nullptr && pw->pw_dir != nullptr) {
        return pw->pw_dir;
    }
    return "/tmp";
}

std::string XdgDir(char const* override, char const* xdgVar, char const* homeRelative) {
    if (char const* dir = NonEmptyEnv(override)) {
        return dir;
    }
    // The XDG rules ignore relative paths in these variables.
    if (char const* base = NonEmptyEnv(xdgVar); base != nullptr && base[0] == '/') {
        return std::string(base) + "/tessel";
    }
    return HomeDir() + "/" + homeRelative + "/tessel";
}

} // namespace

std::string LGetUserDir(LUserDir which) {
    switch (which) {
    case LUserDir::kConfig:
        return XdgDir("TESSEL_CONFIG_DIR", "XDG_CONFIG_HOME", ".config");
    case LUserDir::kCache:
        return XdgDir("TESSEL_CACHE_DIR", "XDG_CACHE_HOME", ".cache");
    case LUserDir::kData:
        return XdgDir("TESSEL_DATA_DIR", "XDG_DATA_HOME", ".local/share");
    case LUserDir::kState:
        return XdgDir("TESSEL_STATE_DIR", "XDG_STATE_HOME", ".local/state");
    case LUserDir::kTemp:
        if (char const* tmp = NonEmptyEnv("TMPDIR")) {
            return tmp;
        }
        return "/tmp";
    }
    return "/tmp";
}

bool LMakeDirs(std::string const& path) {
    if (path.empty()) {
        return false;
    }
    std::string partial;
    partial.reserve(path.size());
    for (std::size_t i = 0; i <= path.size(); ++i) {
        if (i == path.size() || (path[i] == '/' && i > 0)) {
            partial.assign(path, 0, i);
            if (::mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST) {
                return false;
            }
        }
    }
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}
