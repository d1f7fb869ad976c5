// The supervision thread: starts what should run, escalates stale termination
// requests to SIGKILL, collects output as soon as it arrives and persists
// configuration changes. It sleeps in epoll on every running child's pipes,
// its wake-up descriptor and the session directory's changes, never longer
// than the nearest timer or PASS_MAX_MS. Descriptors are registered once, so a
// wake-up with nothing to do costs little more than the look at each record.
#include "respawner.h"

#include <sys/epoll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <vector>

#include "app_life.h"
#include "conf_writer.h"
#include "instance.h"
#include "log/log.h"
#include "mem_policy.h"
#include "os_ops.h"
#include "service_notify.h"
#include "std_capture.h"

namespace {

constexpr int64_t PASS_MAX_MS = 100;
// Reads of this size keep the system calls per megabyte low; the ring takes
// only the newest STD_BUF_SIZE bytes of each.
constexpr std::size_t SCRATCH_SIZE = 256 * 1024;
// Bytes moved per stream before the others get their turn.
constexpr std::size_t STREAM_BUDGET = 4 * SCRATCH_SIZE;
constexpr int64_t WATCH_RETRY_MS = 1000;

struct supervisor {
    instance* inst = nullptr;
    std::unique_ptr<char[]> scratch = std::make_unique<char[]>(SCRATCH_SIZE);
    int epoll_fd = -1;
    std::vector<char> readable;   // indexed by descriptor, from the last wait
    int notify_fd = -1;           // inotify on the session directory
    int watch = -1;
    int64_t watch_retry_ms = 0;
    bool sessions_touched = false;   // something was removed or moved there
    int64_t next_check_ms = 0;       // without a watch, session files are checked this often
    uint32_t amend_seen = 0;
};

int sig_cnt_of(const instance* inst)
{
    return inst->p_sig_cnt ? inst->p_sig_cnt->load() : 0;
}

// Log rotation moves or removes session files; the next collection must make
// new ones. Watching the directory costs nothing while nobody touches it.
void watch_sessions(supervisor& sv, int64_t now)
{
    if (sv.watch >= 0 || sv.notify_fd < 0 || now < sv.watch_retry_ms) return;
    char dir[2 * TEXT_FIELD_SIZE];
    watchdog_std_session_dir(sv.inst, dir, sizeof(dir));
    sv.watch = inotify_add_watch(sv.notify_fd, dir, IN_DELETE | IN_MOVED_FROM | IN_DELETE_SELF | IN_MOVE_SELF);
    if (sv.watch < 0) sv.watch_retry_ms = now + WATCH_RETRY_MS;
}

void read_notifications(supervisor& sv)
{
    alignas(inotify_event) char buf[4096];
    for (int round = 0; round < 64; round++) {
        ssize_t n = read(sv.notify_fd, buf, sizeof(buf));
        if (n <= 0) break;
        for (ssize_t off = 0; off < n;) {
            const auto* ev = reinterpret_cast<const inotify_event*>(buf + off);
            if (ev->mask & (IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF)) sv.watch = -1;
            off += static_cast<ssize_t>(sizeof(inotify_event) + ev->len);
        }
        sv.sessions_touched = true;
    }
}

void watch_fd(const supervisor& sv, int fd)
{
    if (fd < 0 || sv.epoll_fd < 0) return;
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = fd;
    epoll_ctl(sv.epoll_fd, EPOLL_CTL_ADD, fd, &ev);
}

// An ended stream stays readable (end of file) until the launcher closes it.
void unwatch_ended(const supervisor& sv, const app* record, int fd_no)
{
    if (record->std_eof[fd_no] && sv.epoll_fd >= 0)
        epoll_ctl(sv.epoll_fd, EPOLL_CTL_DEL, record->std_pipes[fd_no].rd, nullptr);
}

bool is_readable(const supervisor& sv, int fd)
{
    return fd >= 0 && static_cast<std::size_t>(fd) < sv.readable.size() && sv.readable[fd];
}

void collect_ready(supervisor& sv, app* record)
{
    // Standard output first, as every collection does.
    for (int fd_no = 1; fd_no <= 2; fd_no++) {
        if (!is_readable(sv, record->std_pipes[fd_no].rd)) continue;
        watchdog_std_collect(sv.inst, record, sv.scratch.get(), SCRATCH_SIZE, fd_no, STREAM_BUDGET);
        unwatch_ended(sv, record, fd_no);
    }
}

void launch(supervisor& sv, app* record)
{
    watchdog_respawner_run(sv.inst, record);
    if (!record->pid) return;
    // The first collection: a silent child gets its two (empty) files now.
    for (int fd_no = 1; fd_no <= 2; fd_no++) {
        watchdog_std_collect(sv.inst, record, sv.scratch.get(), SCRATCH_SIZE, fd_no, STREAM_BUDGET);
        if (!record->std_eof[fd_no]) watch_fd(sv, record->std_pipes[fd_no].rd);
    }
}

struct round_result {
    int running = 0;
    int sig_cnt = 0;
    uint32_t amend = 0;
    int64_t timeout_ms = PASS_MAX_MS;
};

// One look at every application, under the lock.
round_result supervise_round(supervisor& sv)
{
    instance* inst = sv.inst;
    instance_lock_guard guard(inst);
    round_result out;
    // Read once per round: a round that launched nothing because of it may
    // then safely end, as no child can have appeared in the meantime.
    out.sig_cnt = sig_cnt_of(inst);
    int64_t now = watchdog_os.monotonic_ms();
    int64_t due = now + PASS_MAX_MS;
    watch_sessions(sv, now);
    bool check_sessions = sv.sessions_touched || (sv.watch < 0 && now >= sv.next_check_ms);
    if (check_sessions) sv.next_check_ms = now + PASS_MAX_MS;
    sv.sessions_touched = false;
    for (int i = 0; i < inst->cnt; i++) {
        app* record = inst->apps[i];
        if (record->pid) {
            app_life_escalate(*record, now);
            int64_t kill_due = app_life_kill_due_ms(*record);
            if (kill_due >= 0) due = std::min(due, kill_due);
            collect_ready(sv, record);
            if (check_sessions) watchdog_std_check_sessions(inst, record);
        } else if (app_life_wants_start(*record, out.sig_cnt)) {
            launch(sv, record);
        }
        if (record->pid) out.running++;
    }
    out.amend = inst->amend;
    out.timeout_ms = std::max<int64_t>(0, due - now);
    return out;
}

void wait_for_events(supervisor& sv, int64_t timeout_ms)
{
    std::fill(sv.readable.begin(), sv.readable.end(), 0);
    constexpr int EVENTS_MAX = 256;
    epoll_event events[EVENTS_MAX];
    int n = epoll_wait(sv.epoll_fd, events, EVENTS_MAX, static_cast<int>(timeout_ms));
    for (int i = 0; i < n; i++) {
        int fd = events[i].data.fd;
        if (fd == sv.inst->wake_fd) {
            uint64_t count;
            ssize_t got = read(fd, &count, sizeof(count));
            (void)got;   // the count itself means nothing
        } else if (fd == sv.notify_fd) {
            read_notifications(sv);
        } else {
            if (static_cast<std::size_t>(fd) >= sv.readable.size()) sv.readable.resize(fd + 1, 0);
            sv.readable[fd] = 1;
        }
    }
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
        // Nobody would meet us at the barrier; retry at a later round instead.
        log_printf(LOG_ERROR, "%s: failed to create forker thread, r=%d", __func__, rc);
        // Any earlier forker is joined by now, so start from a fresh barrier.
        pthread_barrier_destroy(&record->forker_barrier);
        record->forker_cnt = 0;
        return -rc;
    }
    log_printf(LOG_INFO, "%s: waiting for forker result", __func__);
    // The barrier wait under the lock is the launch handshake: the forker
    // prepares the record on our behalf and never takes the lock before it.
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

void watchdog_respawner_wake(const instance* inst)
{
    if (!inst || inst->wake_fd < 0) return;
    uint64_t one = 1;
    ssize_t written = write(inst->wake_fd, &one, sizeof(one));
    (void)written;   // a full counter wakes the thread just the same
}

void* watchdog_respawner_proc(void* arg)
{
    supervisor sv;
    sv.inst = static_cast<instance*>(arg);
    // Noted by the starter: a change made before this thread ran is still written.
    sv.amend_seen = sv.inst->amend_at_start;
    sv.notify_fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    sv.epoll_fd = epoll_create1(EPOLL_CLOEXEC);
    watch_fd(sv, sv.inst->wake_fd);
    watch_fd(sv, sv.notify_fd);
    log_printf(LOG_INFO, "%s: entering", __func__);

    for (;;) {
        service_notify_alive();
        round_result round = supervise_round(sv);
        if (round.sig_cnt != 0 && round.running == 0) break;
        if (round.amend != sv.amend_seen || watchdog_save_pending(sv.inst)) {
            // The writer reads the whole configuration, so it runs under the
            // lock; it runs only after a change, or to retry a failed save.
            instance_lock_guard guard(sv.inst);
            bool changed = sv.inst->amend != sv.amend_seen;
            watchdog_save_conf(sv.inst);
            sv.amend_seen = sv.inst->amend;
            if (changed) continue;
        }
        mem_policy_release_if_due(watchdog_os.monotonic_ms(), watchdog_os.wall_s());
        wait_for_events(sv, round.timeout_ms);
    }

    {
        // Every forker has released the lock (no child runs), so the joins
        // below cannot wait for a thread that needs it.
        instance_lock_guard guard(sv.inst);
        for (int i = 0; i < sv.inst->cnt; i++) watchdog_respawner_app_join(sv.inst->apps[i]);
    }
    if (sv.notify_fd >= 0) close(sv.notify_fd);
    if (sv.epoll_fd >= 0) close(sv.epoll_fd);
    log_printf(LOG_INFO, "%s: exiting", __func__);
    return nullptr;
}

int watchdog_respawner_start(instance* inst)
{
    // The signal thread and the control methods may already look at these.
    instance_lock_guard guard(inst);
    log_printf(LOG_INFO, "Will care about %d apps", inst->cnt);
    inst->amend = static_cast<uint32_t>(watchdog_os.wall_s());
    inst->amend_at_start = inst->amend;
    for (int i = 0; i < inst->cnt; i++)
        if (inst->apps[i]->f_autorun) inst->apps[i]->f_respawn = 1;
    if (inst->wake_fd < 0) inst->wake_fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
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
