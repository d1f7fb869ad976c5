#include "os_ops.h"

#include <signal.h>

#include "child_registry.h"

namespace {
int os_kill(pid_t pid, int sig) { return ::kill(pid, sig); }
}

os_ops watchdog_os = {child_registry_fork, os_kill};

void os_ops_reset() { watchdog_os = {child_registry_fork, os_kill}; }
