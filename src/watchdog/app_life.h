#pragma once
// The life of one application, idle -> launching -> running -> terminating ->
// ended -> idle, as small transitions. Only these write t_run, t_term and the
// run state, and only these signal a child. Callers hold the instance lock.
#include <sys/types.h>

#include <cstdint>

#include "instance.h"

constexpr int64_t KILL_AFTER_MS = 15000;   // SIGINT ignored this long becomes SIGKILL
constexpr int FAST_EXIT_SECONDS = 4;       // an end this soon after the start counts as fast
constexpr int FAST_EXITS_MAX = 5;          // one more fast end in a row stops respawning

enum class stop_result { not_running, already_terminating, signalled };

// Whether the supervision thread should launch it now.
bool app_life_wants_start(const app& record, int sig_cnt);
// A one-shot start request; false (nothing changed) when a child runs.
bool app_life_request_start(instance* inst, app& record);
void app_life_set_respawn(instance* inst, app& record, int value);
// SIGINT to the child's whole process group, once.
stop_result app_life_request_stop(app& record);
// SIGKILL to the group once the request is older than KILL_AFTER_MS, repeated
// every KILL_AFTER_MS. True when sent.
bool app_life_escalate(app& record, int64_t now_ms);
// Monotonic time at which escalate acts, -1 when nothing is pending.
int64_t app_life_kill_due_ms(const app& record);

// The forker takes over: the start request is spent, the last error and
// session forgotten.
void app_life_launching(app& record);
void app_life_forked(app& record, pid_t pid);
void app_life_fork_failed(app& record);
// Forker side, without the lock: waits for the child's end, then kills what is
// left of its process group while the child is still unreaped (so its pid, the
// group's id, cannot have been reused), then reaps it. waitpid's result.
pid_t app_life_wait_end(pid_t pid, int* status);
// The child has ended (status from waitpid, or not known): the end is
// classified (fast exit, start error).
void app_life_exited(app& record, bool status_known, int status);
// After the final collection: back to idle.
void app_life_cleared(app& record);

// The fast-exit guard and the start-error check; `now_ms` and the record's
// started_ms are monotonic, compared by whole seconds.
void app_life_classify_end(app& record, int64_t now_ms, int status);
