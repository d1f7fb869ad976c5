#include "child_registry.h"

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

namespace {
pthread_mutex_t registry_lock = PTHREAD_MUTEX_INITIALIZER;
std::vector<pid_t> owned_pids;
constexpr int REAP_ROUNDS_MAX = 1024;

bool owned_locked(pid_t pid)
{
    return std::find(owned_pids.begin(), owned_pids.end(), pid) != owned_pids.end();
}
}

pid_t child_registry_fork()
{
    pthread_mutex_lock(&registry_lock);
    // Reserve first: the child must not allocate, and the parent must not fail after fork.
    owned_pids.reserve(owned_pids.size() + 1);
    pid_t pid = fork();
    if (pid == 0) return 0;   // the child only execs; it never touches the registry again
    if (pid > 0) owned_pids.push_back(pid);
    pthread_mutex_unlock(&registry_lock);
    return pid;
}

void child_registry_release(pid_t pid)
{
    pthread_mutex_lock(&registry_lock);
    // Only the oldest registration goes: once a forker has collected its child,
    // the pid may already belong to a newer child whose forker still waits.
    auto it = std::find(owned_pids.begin(), owned_pids.end(), pid);
    if (it != owned_pids.end()) owned_pids.erase(it);
    pthread_mutex_unlock(&registry_lock);
}

bool child_registry_owns(pid_t pid)
{
    pthread_mutex_lock(&registry_lock);
    bool owned = owned_locked(pid);
    pthread_mutex_unlock(&registry_lock);
    return owned;
}

void child_registry_reap_unowned()
{
    pthread_mutex_lock(&registry_lock);
    for (int round = 0; round < REAP_ROUNDS_MAX; round++) {
        siginfo_t info{};
        // Peek without collecting, so a forker's child stays for its forker.
        if (waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid == 0) break;
        if (owned_locked(info.si_pid)) break;
        waitpid(info.si_pid, nullptr, WNOHANG);
    }
    pthread_mutex_unlock(&registry_lock);
}
