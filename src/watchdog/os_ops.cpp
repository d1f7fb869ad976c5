#include "os_ops.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "child_registry.h"

namespace {
int os_kill(pid_t pid, int sig) { return ::kill(pid, sig); }
pid_t os_waitpid(pid_t pid, int* status, int options) { return ::waitpid(pid, status, options); }
int os_waitid(idtype_t idtype, id_t id, siginfo_t* info, int options) { return ::waitid(idtype, id, info, options); }
int os_pipe(int fds[2]) { return ::pipe2(fds, O_CLOEXEC); }

int64_t os_monotonic_ms()
{
    struct timespec ts {};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

int64_t os_wall_s() { return static_cast<int64_t>(time(nullptr)); }

constexpr os_ops DEFAULTS = {child_registry_fork, os_kill, os_waitpid, os_waitid, os_pipe, os_monotonic_ms, os_wall_s};
}  // namespace

os_ops watchdog_os = DEFAULTS;

void os_ops_reset() { watchdog_os = DEFAULTS; }

int os_kill_group(pid_t pid, int sig)
{
    if (pid <= 0) return -1;
    if (watchdog_os.kill(-pid, sig) == 0) return 0;
    // The child may not have reached setsid yet: then it is the only member.
    return watchdog_os.kill(pid, sig);
}
