#pragma once
// The process-control calls and clocks of supervision, behind one replaceable
// table: tests make fork fail, and drive time instead of sleeping through it.
#include <sys/types.h>
#include <sys/wait.h>

#include <cstdint>

struct os_ops {
    pid_t (*fork)();
    // A negative pid names a process group, as with ::kill.
    int (*kill)(pid_t pid, int sig);
    pid_t (*waitpid)(pid_t pid, int* status, int options);
    int (*waitid)(idtype_t idtype, id_t id, siginfo_t* info, int options);
    int (*pipe)(int fds[2]);
    // Milliseconds of a clock that never steps: timers and the respawn guard.
    int64_t (*monotonic_ms)();
    // Seconds since the epoch: only for names and texts a person reads.
    int64_t (*wall_s)();
};

// Defaults: child_registry_fork(), ::kill, ::waitpid, ::waitid, pipe2 with O_CLOEXEC,
// CLOCK_MONOTONIC and time().
extern os_ops watchdog_os;
// Puts the defaults back.
void os_ops_reset();

// Sends `sig` to the process group the child `pid` leads (every child starts
// its own session). Falls back to the pid alone when the group is gone.
int os_kill_group(pid_t pid, int sig);
