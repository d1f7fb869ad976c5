#include "app_life.h"

#include <signal.h>
#include <sys/wait.h>

#include <cerrno>

#include "launcher.h"
#include "log/log.h"
#include "os_ops.h"
#include "respawner.h"

namespace {
constexpr const char* PROC = "watchdog_respawner_run_proc";
constexpr int WAIT_EINTR_RETRIES = 1000;
}

bool app_life_wants_start(const app& record, int sig_cnt)
{
    return record.state == app_state::idle && record.pid == 0 && (record.f_respawn || record.t_run) &&
           sig_cnt == 0;
}

bool app_life_request_start(instance* inst, app& record)
{
    if (record.pid) return false;
    record.t_run = 1;
    watchdog_respawner_wake(inst);
    return true;
}

void app_life_set_respawn(instance* inst, app& record, int value)
{
    record.f_respawn = value;
    if (value) watchdog_respawner_wake(inst);
}

stop_result app_life_request_stop(app& record)
{
    if (!record.pid) return stop_result::not_running;
    if (record.t_term) return stop_result::already_terminating;
    record.t_term = watchdog_os.wall_s();
    record.term_ms = watchdog_os.monotonic_ms();
    record.state = app_state::terminating;
    os_kill_group(record.pid, SIGINT);
    return stop_result::signalled;
}

int64_t app_life_kill_due_ms(const app& record)
{
    if (!record.pid || !record.t_term) return -1;
    return record.term_ms + KILL_AFTER_MS + 1;
}

bool app_life_escalate(app& record, int64_t now_ms)
{
    int64_t due = app_life_kill_due_ms(record);
    if (due < 0 || now_ms < due) return false;
    os_kill_group(record.pid, SIGKILL);
    record.t_term = watchdog_os.wall_s();
    record.term_ms = now_ms;
    return true;
}

void app_life_launching(app& record)
{
    record.state = app_state::launching;
    record.session_name.clear();
    record.t_run = 0;
    record.err.clear();
}

void app_life_forked(app& record, pid_t pid)
{
    record.pid = pid;
    record.started = watchdog_os.wall_s();
    record.started_ms = watchdog_os.monotonic_ms();
    for (bool& eof : record.std_eof) eof = false;
    record.state = app_state::running;
}

void app_life_fork_failed(app& record) { record.state = app_state::idle; }

pid_t app_life_wait_end(pid_t pid, int* status)
{
    for (int attempt = 0; attempt < WAIT_EINTR_RETRIES; attempt++) {
        siginfo_t info{};
        if (watchdog_os.waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) == 0) break;
        if (errno != EINTR) break;
    }
    // Descendants in the child's group must not outlive it, SIGINT or not.
    watchdog_os.kill(-pid, SIGKILL);
    pid_t result = -1;
    for (int attempt = 0; attempt < WAIT_EINTR_RETRIES; attempt++) {
        result = watchdog_os.waitpid(pid, status, 0);
        if (result >= 0 || errno != EINTR) break;
    }
    return result;
}

void app_life_exited(app& record, bool status_known, int status)
{
    record.state = app_state::ended;
    if (status_known) app_life_classify_end(record, watchdog_os.monotonic_ms(), status);
}

void app_life_cleared(app& record)
{
    record.pid = 0;
    record.started = 0;
    record.started_ms = 0;
    record.t_term = 0;
    record.term_ms = 0;
    record.state = app_state::idle;
    record.amend++;
}

void app_life_classify_end(app& record, int64_t now_ms, int status)
{
    if (now_ms / 1000 <= record.started_ms / 1000 + FAST_EXIT_SECONDS) {
        // Not reset at the message: every further fast end repeats it at once.
        if (++record.fast_respawn_cnt > FAST_EXITS_MAX) {
            log_printf(LOG_ERROR, "%s: respawn too fast", PROC);
            record.f_respawn = 0;
            str_copy(record.err, "Respawn too fast");
        }
    } else {
        record.fast_respawn_cnt = 0;
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == EXIT_EXEC_FAILED) {
        log_printf(LOG_ERROR, "%s: executable startup failed, check paths", PROC);
        record.f_respawn = 0;
        str_copy(record.err, "Start error");
    }
}
