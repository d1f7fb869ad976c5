// The supervision thread: starts what should run, escalates stale termination
// requests to SIGKILL, collects output and persists configuration changes.
#include "respawner.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <ctime>
#include <memory>

#include "conf_writer.h"
#include "instance.h"
#include "log/log.h"
#include "os_ops.h"
#include "service_notify.h"
#include "std_capture.h"

namespace {

constexpr int64_t KILL_AFTER_SECONDS = 15;
constexpr useconds_t PASS_PERIOD_US = 100000;

int sig_cnt_of(const instance* inst)
{
    return inst->p_sig_cnt ? inst->p_sig_cnt->load() : 0;
}

// A termination request that has not worked within the grace period becomes
// SIGKILL, repeated every period for as long as the child stays.
void term_escalate(app* record, int64_t now)
{
    if (record->t_term == 0 || now <= record->t_term + KILL_AFTER_SECONDS) return;
    watchdog_os.kill(record->pid, SIGKILL);
    record->t_term = now;
}

}  // namespace

// Launches `record` through a new forker thread and waits until it has forked.
// Called with the lock held; the forker relies on that until the barrier.
int watchdog_respawner_run(instance* inst, app* record)
{
    record->instance = inst;
    if (record->forker_cnt)
        pthread_join(record->forker, nullptr);   // pid is 0, so it is past the lock and returning
    else
        pthread_barrier_init(&record->forker_barrier, nullptr, 2);
    record->forker_cnt++;

    log_printf(LOG_INFO, "%s: starting forker thread", __func__);
    int rc = pthread_create(&record->forker, nullptr, watchdog_respawner_run_proc, record);
    if (rc != 0) {
        // Nobody would meet us at the barrier; retry at a later pass instead.
        log_printf(LOG_ERROR, "%s: failed to create forker thread, r=%d", __func__, rc);
        // Any earlier forker is joined by now, so start from a fresh barrier.
        pthread_barrier_destroy(&record->forker_barrier);
        record->forker_cnt = 0;
        return -rc;
    }
    log_printf(LOG_INFO, "%s: waiting for forker result", __func__);
    pthread_barrier_wait(&record->forker_barrier);
    log_printf(LOG_INFO, "%s: forker's pid=%ld", __func__, static_cast<long>(record->pid));
    record->amend++;
    return 0;
}

int watchdog_respawner_app_join(app* record)
{
    if (record->forker_cnt == 0) return 0;
    pthread_join(record->forker, nullptr);
    pthread_barrier_destroy(&record->forker_barrier);
    // Nothing left to join: a second call, or a later launch, starts afresh.
    record->forker_cnt = 0;
    return 0;
}

void* watchdog_respawner_proc(void* arg)
{
    instance* inst = static_cast<instance*>(arg);
    uint32_t amend_seen;
    {
        instance_lock_guard guard(inst);
        amend_seen = inst->amend;
    }
    // The one buffer for every collection of this thread: a pass allocates nothing.
    auto scratch = std::make_unique<char[]>(STD_BUF_SIZE);
    log_printf(LOG_INFO, "%s: entering", __func__);

    for (;;) {
        service_notify_alive();
        int running = 0;
        int sig_cnt;
        uint32_t amend_now;
        {
            instance_lock_guard guard(inst);
            // Read once per pass: a pass that launched nothing because of it may
            // then safely end, as no child can have appeared in the meantime.
            sig_cnt = sig_cnt_of(inst);
            int64_t now = time(nullptr);
            for (int i = 0; i < inst->cnt; i++) {
                app* record = inst->apps[i];
                if (record->pid) {
                    running++;
                    term_escalate(record, now);
                    watchdog_std_drain(inst, record, scratch.get(), 1);
                    watchdog_std_drain(inst, record, scratch.get(), 2);
                } else if ((record->f_respawn || record->t_run) && sig_cnt == 0) {
                    watchdog_respawner_run(inst, record);
                }
            }
            amend_now = inst->amend;
        }
        if (sig_cnt != 0 && running == 0) break;
        if (amend_now == amend_seen && !watchdog_save_pending(inst)) {
            usleep(PASS_PERIOD_US);
            continue;
        }
        instance_lock_guard guard(inst);
        watchdog_save_conf(inst);
        amend_seen = inst->amend;
    }

    {
        instance_lock_guard guard(inst);
        for (int i = 0; i < inst->cnt; i++) watchdog_respawner_app_join(inst->apps[i]);
    }
    log_printf(LOG_INFO, "%s: exiting", __func__);
    return nullptr;
}

int watchdog_respawner_start(instance* inst)
{
    log_printf(LOG_INFO, "Will care about %d apps", inst->cnt);
    inst->amend = static_cast<uint32_t>(time(nullptr));
    for (int i = 0; i < inst->cnt; i++)
        if (inst->apps[i]->f_autorun) inst->apps[i]->f_respawn = 1;
    pthread_create(&inst->respawner_thread, nullptr, watchdog_respawner_proc, inst);
    inst->respawner_started = true;
    return 0;
}

int watchdog_respawner_join(instance* inst)
{
    if (!inst->respawner_started) return 0;
    pthread_join(inst->respawner_thread, nullptr);
    inst->respawner_started = false;
    return 0;
}
