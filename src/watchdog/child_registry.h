#pragma once
// Children whose exit status belongs to a forker thread. The process-wide
// SIGCHLD reaper must leave those alone, or the forker's waitpid would fail
// and fast exits and start errors would go unnoticed.
#include <sys/types.h>

// Forks with the registry held, so the child is registered before anyone can
// reap it. Returns fork()'s result; in the child, returns 0 as fork() does.
pid_t child_registry_fork();
// Forgets a pid after its forker has collected it.
void child_registry_release(pid_t pid);
bool child_registry_owns(pid_t pid);
// Collects exited children that no forker waits for; never blocks.
void child_registry_reap_unowned();
