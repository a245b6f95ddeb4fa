#pragma once

// Counts this process's open descriptors, for tests that prove a call leaves
// none behind. Header-only, like BoundedWait.h, for the standalone suites.

#include <dirent.h>

#include <cstddef>

namespace aovtest {

// The open descriptors, the one reading /proc/self/fd included; -1 when
// /proc cannot be read.
inline int openDescriptors() {
    DIR* dir = ::opendir("/proc/self/fd");
    if (dir == nullptr) {
        return -1;
    }
    int n = 0;
    while (const dirent* entry = ::readdir(dir)) {
        n += entry->d_name[0] != '.' ? 1 : 0;
    }
    ::closedir(dir);
    return n;
}

}  // namespace aovtest
