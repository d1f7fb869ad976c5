#include "run_phase.h"

#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <string>

#include "app_life.h"
#include "child_registry.h"
#include "ctl.h"
#include "instance.h"
#include "log/log.h"
#include "respawner.h"
#include "service_notify.h"

std::atomic<int> sig_cnt{0};

namespace {

// In the order their dispositions are installed.
constexpr int HANDLED_SIGNALS[] = {SIGINT, SIGTERM, SIGPIPE, SIGCHLD, SIGHUP, SIGALRM};
constexpr const char* INHERITED_ENV_NAMES[] = {"VANTREL_ELEMENTS_DEVICE", "CUDA_MPS_LOG_DIRECTORY",
                                               "CUDA_VISIBLE_DEVICES"};
// How often a pending terminate is repeated until the server has stopped.
constexpr long TERMINATE_RETRY_NS = 100L * 1000 * 1000;

struct signal_thread_state {
    // Orders ctl_terminate against the start and end of serving, so the
    // server is never told to stop before it exists or after it is gone.
    pthread_mutex_t guard = PTHREAD_MUTEX_INITIALIZER;
    bool ctl_ready = false;
    bool serving_done = false;
    bool terminate_wanted = false;

    instance* inst = nullptr;   // set before the thread starts, cleared after it ends
    pthread_t thread{};
    std::atomic<bool> running{false};
    std::atomic<bool> stop{false};
    std::atomic<pid_t> owner_pid{0};   // read in signal context
};

signal_thread_state g_sig;
thread_local bool t_on_signal_thread = false;

sigset_t handled_set()
{
    sigset_t set;
    sigemptyset(&set);
    for (int sig : HANDLED_SIGNALS) sigaddset(&set, sig);
    return set;
}

std::atomic<int>& counter_of(instance* inst) { return inst && inst->p_sig_cnt ? *inst->p_sig_cnt : sig_cnt; }

// Signal context: async-signal-safe calls only.
void forward_from_signal_context(int sig, bool terminating)
{
    pid_t owner = g_sig.owner_pid.load();
    if (owner != 0 && getpid() != owner) {
        // A freshly forked child before exec: behave as the program it becomes.
        if (terminating) {
            struct sigaction dfl {};
            dfl.sa_handler = SIG_DFL;
            sigemptyset(&dfl.sa_mask);
            sigaction(sig, &dfl, nullptr);
            raise(sig);
        }
        return;
    }
    if (g_sig.running.load()) pthread_kill(g_sig.thread, sig);
}

void install_dispositions()
{
    for (int sig : HANDLED_SIGNALS) {
        struct sigaction action {};
        action.sa_handler = (sig == SIGCHLD || sig == SIGPIPE) ? sigchld_reaper : sighandler;
        sigemptyset(&action.sa_mask);
        action.sa_flags = SA_RESTART;
        sigaction(sig, &action, nullptr);
    }
}

void terminate_server_locked(instance* inst)
{
    if (g_sig.ctl_ready && !g_sig.serving_done) ctl_terminate(inst);
}

void request_terminate(instance* inst)
{
    pthread_mutex_lock(&g_sig.guard);
    g_sig.terminate_wanted = true;
    terminate_server_locked(inst);
    pthread_mutex_unlock(&g_sig.guard);
}

bool terminate_retry_pending()
{
    pthread_mutex_lock(&g_sig.guard);
    bool pending = g_sig.terminate_wanted && !g_sig.serving_done;
    pthread_mutex_unlock(&g_sig.guard);
    return pending;
}

void* signal_thread_proc(void*)
{
    t_on_signal_thread = true;
    const sigset_t set = handled_set();
    while (!g_sig.stop.load()) {
        siginfo_t info;
        int sig;
        if (terminate_retry_pending()) {
            // A terminate sent while the server was only starting may be
            // missed; repeat it until serving has ended.
            struct timespec wait {0, TERMINATE_RETRY_NS};
            sig = sigtimedwait(&set, &info, &wait);
            if (sig < 0 && errno == EAGAIN) {
                pthread_mutex_lock(&g_sig.guard);
                terminate_server_locked(g_sig.inst);
                pthread_mutex_unlock(&g_sig.guard);
                continue;
            }
        } else {
            sig = sigwaitinfo(&set, &info);
        }
        if (sig < 0 || g_sig.stop.load()) continue;
        if (sig == SIGCHLD || sig == SIGPIPE)
            sigchld_reaper(sig);
        else
            sighandler(sig);
    }
    return nullptr;
}

void start_signal_thread(instance* inst)
{
    g_sig.inst = inst;
    g_sig.owner_pid.store(getpid());
    g_sig.stop.store(false);
    pthread_mutex_lock(&g_sig.guard);
    g_sig.ctl_ready = g_sig.serving_done = g_sig.terminate_wanted = false;
    pthread_mutex_unlock(&g_sig.guard);
    if (pthread_create(&g_sig.thread, nullptr, signal_thread_proc, nullptr) == 0) g_sig.running.store(true);
    else log_printf(LOG_ERROR, "%s: failed to start the signal thread", "main");
}

// After this no signal reaches the instance: pending ones stay blocked.
void stop_signal_thread()
{
    if (!g_sig.running.load()) return;
    g_sig.stop.store(true);
    pthread_kill(g_sig.thread, SIGCHLD);
    pthread_join(g_sig.thread, nullptr);
    g_sig.running.store(false);
    g_sig.inst = nullptr;
}

void set_serving_state(bool ready, bool done)
{
    pthread_mutex_lock(&g_sig.guard);
    g_sig.ctl_ready = ready;
    g_sig.serving_done = done;
    pthread_mutex_unlock(&g_sig.guard);
}

void serve(instance* inst)
{
    watchdog_respawner_start(inst);
    set_serving_state(true, false);
    service_notify_ready();
    // A signal taken before the server was ready could not stop it.
    if (counter_of(inst).load() == 0) ctl_run(inst);
    set_serving_state(true, true);
    service_notify_stopping();
    if (counter_of(inst).load() == 0) {
        // The children must still be stopped, or the join below never returns.
        log_printf(LOG_ERROR, "%s: control server ended without a termination signal", "main");
        if (g_sig.running.load()) pthread_kill(g_sig.thread, SIGTERM);
    }
    watchdog_respawner_join(inst);
}

}  // namespace

void run_phase_block_signals()
{
    sigset_t set = handled_set();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

int run_phase_inherit_envs(instance* inst)
{
    int stored = 0;
    for (const char* name : INHERITED_ENV_NAMES) {
        const char* value = getenv(name);
        if (!value) continue;
        if (!inst->inherited_envs.append(std::string(name) + "=" + value)) break;
        log_printf(LOG_INFO, "%s: %s", "main", inst->inherited_envs[inst->inherited_envs.size() - 1].c_str());
        stored++;
    }
    return stored;
}

int run_phase_take_termination(instance* inst, int sig)
{
    log_printf(LOG_ERROR, "%s: [%d] catched %d", "sighandler", static_cast<int>(getpid()), sig);
    if (!inst) return 0;
    instance_lock_guard hold(inst);
    int count = ++counter_of(inst);
    for (int i = 0; i < inst->cnt; i++) {
        app* record = inst->apps[i];
        if (!record || record->pid == 0 || record->t_term != 0) continue;
        log_printf(LOG_ERROR, "%s: killing child pid=%d", "sighandler", record->pid);
        app_life_request_stop(*record);
    }
    // Shutdown is for the supervision thread to see now, not at its next timeout.
    watchdog_respawner_wake(inst);
    return count;
}

void sighandler(int sig)
{
    if (!t_on_signal_thread) {
        forward_from_signal_context(sig, true);
        return;
    }
    instance* inst = g_sig.inst;
    if (run_phase_take_termination(inst, sig) == 1) request_terminate(inst);
}

void sigchld_reaper(int sig)
{
    if (!t_on_signal_thread) {
        forward_from_signal_context(sig, false);
        return;
    }
    int saved = errno;
    child_registry_reap_unowned();
    errno = saved;
}

int run_phase(instance* inst)
{
    // Descendants that leave their application's group are reaped by us, not
    // by init, and show up in our SIGCHLD reaping.
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    install_dispositions();
    start_signal_thread(inst);
    run_phase_inherit_envs(inst);
    if (ctl_init(inst) == 0)
        serve(inst);
    else
        log_printf(LOG_ERROR, "Failed to init control interfaca");
    ctl_destroy(inst);
    stop_signal_thread();
    return 0;
}
