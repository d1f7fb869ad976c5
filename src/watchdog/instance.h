#pragma once
// The supervisor's records: one `instance` per process and one `app` per
// supervised application. All fields after start-up are guarded by instance::lock.
#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>

#include "bounded.h"
#include "host_options.h"

constexpr int APPS_MAX = 1024;
constexpr std::size_t APP_ENVS_MAX = 64;
constexpr std::size_t APP_RAWS_MAX = 128;
constexpr std::size_t INHERITED_ENVS_MAX = 64;
constexpr std::size_t STD_BUF_SIZE = 32768;   // bytes kept per captured stream
constexpr int STD_STREAMS = 3;                // stdin, stdout, stderr

constexpr int SESSIONS_KEEP_DEFAULT = 10;
constexpr int64_t SESSION_MAX_BYTES_DEFAULT = int64_t{64} << 20;

struct ctl_state;
struct instance;

// An application's life; app_life.h holds every transition between these.
enum class app_state { idle, launching, running, terminating, ended };

// One end pair of a pipe to a child; -1 marks a closed descriptor.
struct std_pipe {
    int rd = -1;
    int wr = -1;
};

// Ring of the most recent STD_BUF_SIZE bytes of one stream. Positions count
// bytes over the whole life of the application; storage is allocated on the
// first byte received.
struct std_ring {
    uint64_t head = 0;   // stream position of the oldest byte held (= bytes dropped)
    uint64_t tail = 0;   // stream position after the newest byte (= bytes received)
    std::unique_ptr<char[]> buf;

    std_ring() = default;
    std_ring(const std_ring& other) { *this = other; }
    std_ring& operator=(const std_ring& other);
    std_ring(std_ring&&) = default;
    std_ring& operator=(std_ring&&) = default;
};

struct app {
    // Configuration.
    int type = 0;
    int pid = 0;
    bounded_str config;
    bounded_str bin_path;
    bounded_list<APP_ENVS_MAX> envs;
    bounded_str alias;
    bounded_str err;
    bounded_str thumb;
    bounded_list<APP_RAWS_MAX> raws;
    bounded_str child_conf_file;
    bounded_str numa_bind;
    int f_autorun = 0;
    int f_respawn = 0;
    int t_run = 0;

    // Supervision state.
    int64_t started = 0;
    int64_t t_term = 0;
    int fast_respawn_cnt = 0;
    uint64_t amend = 0;
    pthread_barrier_t forker_barrier{};
    pthread_t forker{};
    int forker_cnt = 0;   // 0: barrier never initialised, no thread to join
    struct instance* instance = nullptr;
    app_state state = app_state::idle;
    int64_t started_ms = 0;   // monotonic time of the fork
    int64_t term_ms = 0;      // monotonic time of the last SIGINT or SIGKILL, 0: none

    // Launch and capture state.
    std_pipe std_pipes[STD_STREAMS];
    std_ring std_bufs[STD_STREAMS];
    bool std_eof[STD_STREAMS] = {};       // the child closed its end; nothing more to poll
    bounded_str session_name;
    int session_fds[STD_STREAMS] = {-1, -1, -1};   // open while the child runs
    int64_t session_bytes[STD_STREAMS] = {};       // size of the open file
    int64_t session_retry_ms = 0;                   // next open attempt after a failure
    std::deque<std::string> sessions;               // this record's session names, oldest first

    // Non-zero, fixed for the record's life, unique among live records.
    uint64_t handle = 0;
};

struct instance {
    pthread_mutex_t lock;   // recursive
    ctl_state* ctl = nullptr;
    int port = 0;
    app* last_app = nullptr;
    app* apps[APPS_MAX] = {};
    int cnt = 0;
    uint32_t amend = 0;
    pthread_t respawner_thread{};
    bool respawner_started = false;
    bounded_str instance_name;
    bounded_list<INHERITED_ENVS_MAX> inherited_envs;
    bounded_str web_auth_secret;
    bounded_str ctl_listen;   // control port address; empty: every interface
    bounded_str ctl_allow;    // networks that may connect (CIDR list); empty: all
    int cpu_affinity = 0;
    int realtime_io = 0;
    int realtime_cpu = 0;
    std::atomic<int>* p_sig_cnt = nullptr;
    int debug = 0;
    int demonize = 0;
    int nodemonize = 0;
    bounded_str conf_file;
    bounded_str log_file_name;
    int log_rotate_interval = 0;
    host_options host;
    // Disk bounds of session files: children kept per application, bytes per file.
    int sessions_keep = SESSIONS_KEEP_DEFAULT;
    int64_t session_max_bytes = SESSION_MAX_BYTES_DEFAULT;
    uint32_t amend_at_start = 0;   // the supervision thread's first noted amend
    int wake_fd = -1;   // eventfd that wakes the supervision thread; -1 before it starts
};

// 0; -EINVAL for a null holder; -ENOMEM when the record cannot be allocated.
int instance_create(instance** holder);
// 0; -EINVAL for a null holder; -ENOMEM when the holder is already empty.
int instance_destroy(instance** holder);

// A new, zero-filled record with a fresh handle (null when out of memory).
app* app_new();
// A copy of `source`'s configuration and capture rings with a fresh handle and
// every supervision field reset (the clone command's starting point).
app* app_clone(const app& source);
void app_free(app* record);

// Slot table edits; the caller holds the lock. Adders return -ENOMEM when the
// table is full (leaving cnt and amend unchanged), else 0; they raise cnt and
// amend by 1. Removing raises amend by 1 and returns the record taken out.
int instance_slot_append(instance* inst, app* record);
int instance_slot_insert(instance* inst, int idx, app* record);
app* instance_slot_remove(instance* inst, int idx);
void instance_slot_swap(instance* inst, int a, int b);

// Holds the instance lock for a scope.
class instance_lock_guard {
public:
    explicit instance_lock_guard(instance* inst) : inst_(inst) { pthread_mutex_lock(&inst_->lock); }
    ~instance_lock_guard() { pthread_mutex_unlock(&inst_->lock); }
    instance_lock_guard(const instance_lock_guard&) = delete;
    instance_lock_guard& operator=(const instance_lock_guard&) = delete;

private:
    instance* inst_;
};
