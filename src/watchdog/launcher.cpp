// One launch of an application: the forker thread prepares everything, forks,
// waits for its child and cleans up after it.
#include "launcher.h"

#include <fcntl.h>
#include <numa.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>

#include "app_life.h"
#include "app_types.h"
#include "child_conf.h"
#include "child_registry.h"
#include "descriptors.h"
#include "instance.h"
#include "log/log.h"
#include "os_ops.h"
#include "respawner.h"
#include "std_capture.h"

namespace {

// Every line of a launch carries the forker's name, helpers included.
constexpr const char* PROC = "watchdog_respawner_run_proc";
// Our read ends ask for this much room, so a burst rarely makes the child wait
// for the supervision thread; refused sizes are fine.
constexpr int STD_PIPE_SIZE = 1 << 20;

const char* type_name(int type)
{
    return type >= 0 && type < APP_TYPES_CNT ? app_types[type].name : "?";
}

struct numa_mask_deleter {
    void operator()(bitmask* mask) const { numa_bitmask_free(mask); }
};
using numa_mask_ptr = std::unique_ptr<bitmask, numa_mask_deleter>;

// Parsed in the parent so the child does not have to allocate for it. Pieces are
// decimal node numbers; an empty or non-numeric piece means node 0.
numa_mask_ptr numa_mask_prepare(const std::string& nodes_text)
{
    if (nodes_text.empty()) return nullptr;
    int nodes = numa_num_possible_nodes();
    numa_mask_ptr mask(numa_bitmask_alloc(static_cast<unsigned>(std::max(nodes, 1))));
    if (!mask) return nullptr;
    std::string copy = nodes_text;
    std::size_t start = 0;
    for (;;) {
        std::size_t comma = copy.find(',', start);
        std::string piece = copy.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        long node = strtol(piece.c_str(), nullptr, 10);
        if (node >= 0 && node < nodes) numa_bitmask_setbit(mask.get(), static_cast<unsigned>(node));
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    return mask;
}

void fd_close(int& fd)
{
    if (fd >= 0) close(fd);
    fd = -1;
}

void pipes_create(std_pipe pipes[STD_STREAMS], int debug)
{
    for (int i = 0; i < STD_STREAMS; i++) {
        int fds[2];
        if (watchdog_os.pipe(fds) == 0) {   // close-on-exec: no other child inherits them
            pipes[i].rd = fds[0];
            pipes[i].wr = fds[1];
        } else {
            pipes[i].rd = pipes[i].wr = -1;
        }
    }
    // Our ends never block the supervision thread; the child's ends stay blocking.
    fcntl(pipes[0].wr, F_SETFL, O_NONBLOCK);
    fcntl(pipes[1].rd, F_SETFL, O_NONBLOCK);
    fcntl(pipes[2].rd, F_SETFL, O_NONBLOCK);
    fcntl(pipes[1].rd, F_SETPIPE_SZ, STD_PIPE_SIZE);
    fcntl(pipes[2].rd, F_SETPIPE_SZ, debug ? static_cast<int>(STD_PIPE_DEBUG_SIZE) : STD_PIPE_SIZE);
}

// Child side: async-signal-safe calls only (numa_bind is the exception the
// binding needs). The run phase blocks the termination signals in every thread,
// and the parent's handlers must never run here, hence the reset.
void child_redirect(int unused_end, int used_end, int target)
{
    if (unused_end >= 0 && unused_end != target) close(unused_end);
    if (used_end >= 0 && used_end != target) {
        dup2(used_end, target);   // the copy does not inherit close-on-exec
        close(used_end);
    } else if (used_end == target) {
        fcntl(target, F_SETFD, 0);
    }
}

[[noreturn]] void child_exec(const char* path, const char* const argv[], const char* const envp[],
                             const std_pipe pipes[STD_STREAMS], bitmask* numa_mask, mode_t child_umask)
{
    if (numa_mask) numa_bind(numa_mask);

    struct sigaction action {};
    sigemptyset(&action.sa_mask);
    action.sa_handler = SIG_DFL;
    for (int sig = 1; sig < NSIG; sig++) sigaction(sig, &action, nullptr);
    action.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &action, nullptr);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);

    umask(child_umask);
    setsid();
    if (chdir("/") != 0) {
        // Not fatal: the application runs in the inherited directory.
    }
    child_redirect(pipes[0].wr, pipes[0].rd, 0);
    child_redirect(pipes[1].rd, pipes[1].wr, 1);
    child_redirect(pipes[2].rd, pipes[2].wr, 2);
    fd_close_above_stderr();

    execve(path, const_cast<char* const*>(argv), const_cast<char* const*>(envp));
    _exit(EXIT_EXEC_FAILED);
}

// Types with nothing to execute end here instead of failing in the child.
void launch_refuse(app* record)
{
    log_printf(LOG_ERROR, "%s: nothing to execute for type={%s}, not started, f_respawn=0", PROC,
               type_name(record->type));
    record->f_respawn = 0;
    str_copy(record->err, "Start error");
}

// After the child's end, with the lock held: last output, then back to idle.
void launch_cleanup(instance* inst, app* record)
{
    auto scratch = std::make_unique<char[]>(STD_BUF_SIZE);
    watchdog_std_drain(inst, record, scratch.get(), 1);
    watchdog_std_drain(inst, record, scratch.get(), 2);
    watchdog_std_close(record);
    app_life_cleared(*record);
    fd_close(record->std_pipes[0].wr);
    fd_close(record->std_pipes[1].rd);
    fd_close(record->std_pipes[2].rd);
    child_conf_remove(*record);
    watchdog_respawner_wake(inst);
}

// The option file could not be written: a half-configured child is worse than
// none, so nothing starts and the next pass tries again, as after a failed fork.
void launch_refuse_conf(app* record)
{
    log_printf(LOG_ERROR, "%s: option file not written for type={%s}, not started", PROC, type_name(record->type));
    str_copy(record->err, "Option file error");
}

}  // namespace

bool launch_runnable(const app& record)
{
    // Only a row without any executable name has nothing to try. An empty name
    // ("none", a script without its program) makes the path a directory, whose
    // execution fails in the child and is reported as a start error like any
    // wrong path.
    if (record.type < APP_TYPE_NONE || record.type >= APP_TYPES_CNT) return false;
    return app_types[record.type].exe != nullptr;
}

void launch_exec_path(const app& record, char* path, std::size_t size)
{
    if (size == 0) return;
    path[0] = '\0';
    if (!record.bin_path.empty()) {
        str_copy(path, record.bin_path.c_str(), size);
    } else {
        ssize_t len = readlink("/proc/self/exe", path, size - 1);
        path[len > 0 ? len : 0] = '\0';
        if (char* slash = strrchr(path, '/')) *slash = '\0';
    }
    if (record.type == APP_TYPE_SCRIPT) return;
    const char* exe = record.type > APP_TYPE_NONE && record.type < APP_TYPES_CNT ? app_types[record.type].exe : nullptr;
    str_cat(path, "/", size);
    str_cat(path, exe ? exe : "", size);
}

int launch_build_argv(app& record, const char* path, const char* argv[LAUNCH_VEC_SLOTS])
{
    std::fill(argv, argv + LAUNCH_VEC_SLOTS, nullptr);
    int n = 0;
    argv[n++] = record.alias.empty() ? path : record.alias.c_str();
    if (record.type == APP_TYPE_SCRIPT) {
        for (const bounded_str& raw : record.raws) {
            if (raw.c_str()[0] == '#') continue;
            if (n > SCRIPT_ARGS_MAX) break;
            argv[n++] = raw.c_str();
        }
        return n;
    }
    argv[n++] = "--nodemonize";
    if (!record.config.empty()) argv[n++] = record.config.c_str();
    if (!record.raws.empty()) {
        if (child_conf_create(record) != 0) return -1;
        argv[n++] = record.child_conf_file.c_str();
    }
    return n;
}

int launch_build_envp(const app& record, const instance& inst, const char* envp[LAUNCH_VEC_SLOTS])
{
    std::fill(envp, envp + LAUNCH_VEC_SLOTS, nullptr);
    constexpr int usable = LAUNCH_VEC_SLOTS - 1;
    int inherited = std::min(static_cast<int>(inst.inherited_envs.size()), usable);
    int app_room = usable - inherited;
    int n = 0;
    for (const bounded_str& env : record.envs) {
        if (env.c_str()[0] == '#') continue;
        if (n < app_room)
            envp[n++] = env.c_str();
        else
            log_printf(LOG_ERROR, "%s: environment full, dropped env [%s]", PROC, env.c_str());
    }
    int i = 0;
    for (const bounded_str& env : inst.inherited_envs) {
        if (i++ < inherited)
            envp[n++] = env.c_str();
        else
            log_printf(LOG_ERROR, "%s: environment full, dropped env [%s]", PROC, env.c_str());
    }
    return n;
}

void* watchdog_respawner_run_proc(void* arg)
{
    app* record = static_cast<app*>(arg);
    instance* inst = record->instance;

    // Until the barrier the supervision thread holds the lock on our behalf.
    app_life_launching(*record);
    log_printf(LOG_INFO, "%s: starting: type={%s}, sys_id={%lx}", PROC, type_name(record->type),
               static_cast<unsigned long>(record->handle));
    if (!launch_runnable(*record)) {
        launch_refuse(record);
        app_life_fork_failed(*record);
        pthread_barrier_wait(&record->forker_barrier);
        return nullptr;
    }

    auto path = std::make_unique<char[]>(TEXT_FIELD_SIZE);
    launch_exec_path(*record, path.get(), TEXT_FIELD_SIZE);
    log_printf(LOG_INFO, "%s: executable=[%s]", PROC, path.get());
    log_printf(LOG_INFO, "%s: config=[%s]", PROC, record->config.c_str());

    const char* argv[LAUNCH_VEC_SLOTS];
    const char* envp[LAUNCH_VEC_SLOTS];
    int argc = launch_build_argv(*record, path.get(), argv);
    if (argc < 0) {
        launch_refuse_conf(record);
        app_life_fork_failed(*record);
        pthread_barrier_wait(&record->forker_barrier);
        return nullptr;
    }
    int envc = launch_build_envp(*record, *inst, envp);
    for (int i = 0; i < argc; i++) log_printf(LOG_INFO, "%s: argv[%d]=[%s]", PROC, i, argv[i]);
    for (int i = 0; i < envc; i++) log_printf(LOG_INFO, "%s: envp[%d]=[%s]", PROC, i, envp[i]);

    std_pipe* pipes = record->std_pipes;
    pipes_create(pipes, inst->debug);
    numa_mask_ptr numa_mask = numa_mask_prepare(record->numa_bind.str());

    pid_t pid = watchdog_os.fork();
    if (pid == 0) child_exec(path.get(), argv, envp, pipes, numa_mask.get(), static_cast<mode_t>(inst->host.child_umask));
    if (pid < 0) {
        log_printf(LOG_ERROR, "%s: fork failed, errno=[%d]", PROC, errno);
        for (int i = 0; i < STD_STREAMS; i++) {
            fd_close(pipes[i].rd);
            fd_close(pipes[i].wr);
        }
        child_conf_remove(*record);
        path.reset();
        app_life_fork_failed(*record);
        pthread_barrier_wait(&record->forker_barrier);
        return nullptr;
    }

    log_printf(LOG_INFO, "%s: fork done, pid=[%d]", PROC, static_cast<int>(pid));
    app_life_forked(*record, pid);
    path.reset();
    numa_mask.reset();
    fd_close(pipes[0].rd);
    fd_close(pipes[1].wr);
    fd_close(pipes[2].wr);
    pthread_barrier_wait(&record->forker_barrier);

    // From here on the record is shared again: touch it only under the lock.
    log_printf(LOG_INFO, "%s: waitpid(%ld)", PROC, static_cast<long>(pid));
    int status = 0;
    pid_t result = app_life_wait_end(pid, &status);
    int wait_errno = errno;
    log_printf(LOG_ERROR, "%s: waitpid(%ld)=%d", PROC, static_cast<long>(pid), static_cast<int>(result));
    child_registry_release(pid);

    instance_lock_guard guard(inst);
    if (result < 0) {
        log_printf(LOG_ERROR, "%s: waitpid failed with %d (%s)", PROC, wait_errno, strerror(wait_errno));
    } else {
        log_printf(LOG_INFO, "%s: pid=%ld, type={%s}, sys_id={%lx}", PROC, static_cast<long>(pid),
                   type_name(record->type), static_cast<unsigned long>(record->handle));
        log_printf(LOG_INFO, "%s: pid=%ld, WIFEXITED=[%d], WEXITSTATUS=[%d], WIFSIGNALED=[%d], WIFSTOPPED=[%d]",
                   PROC, static_cast<long>(pid), WIFEXITED(status) ? 1 : 0, WEXITSTATUS(status),
                   WIFSIGNALED(status) ? 1 : 0, WIFSTOPPED(status) ? 1 : 0);
    }
    app_life_exited(*record, result >= 0, status);
    launch_cleanup(inst, record);
    return nullptr;
}
