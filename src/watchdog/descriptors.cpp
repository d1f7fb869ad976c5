#include "descriptors.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace {
// The fallback when the kernel lacks close_range: a bounded sweep.
constexpr int FD_SWEEP_MAX = 65536;
}

void fd_close_above_stderr()
{
    if (close_range(STDERR_FILENO + 1, ~0U, 0) == 0) return;
    long limit = sysconf(_SC_OPEN_MAX);
    if (limit < 0 || limit > FD_SWEEP_MAX) limit = FD_SWEEP_MAX;
    for (int fd = STDERR_FILENO + 1; fd < limit; fd++) close(fd);
}

int fd_cloexec_sweep()
{
    DIR* dir = opendir("/proc/self/fd");
    if (!dir) return -errno;
    int own = dirfd(dir);
    int changed = 0;
    while (dirent* entry = readdir(dir)) {
        char* end = nullptr;
        long fd = strtol(entry->d_name, &end, 10);
        if (end == entry->d_name || *end != '\0' || fd <= STDERR_FILENO || fd == own) continue;
        int flags = fcntl(static_cast<int>(fd), F_GETFD);
        if (flags < 0 || (flags & FD_CLOEXEC)) continue;
        if (fcntl(static_cast<int>(fd), F_SETFD, flags | FD_CLOEXEC) == 0) changed++;
    }
    closedir(dir);
    return changed;
}
