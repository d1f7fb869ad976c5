#pragma once
struct instance;

// Rewrites conf_file from the instance: written aside, made durable and then
// put in place, with the old file kept as a timestamped backup (at most
// host.conf_backups of them). The caller holds the instance lock.
// 0, or -errno; a failure is retried by the supervision thread.
int watchdog_save_conf(instance* inst);

// True when the last save failed and its retry is due.
bool watchdog_save_pending(const instance* inst);

// Removes the temporary file an interrupted save left beside conf_file.
// 1 when one was removed, 0 when there was none, -errno.
int watchdog_conf_remove_stale(const instance* inst);
