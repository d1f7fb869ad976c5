#pragma once
// The few process-control calls of supervision, behind pointers so tests can
// make them fail (a fork that fails needs neither root nor luck that way).
#include <sys/types.h>

struct os_ops {
    pid_t (*fork)();
    int (*kill)(pid_t pid, int sig);
};

// Defaults: child_registry_fork() and ::kill().
extern os_ops watchdog_os;
// Puts the defaults back.
void os_ops_reset();
