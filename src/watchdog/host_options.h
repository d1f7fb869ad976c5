#pragma once
// Instance options that bound what the supervisor leaves on the host. Unlike
// the port or the log settings, a later option file's pass does not reset
// them; the writer writes them back when they differ from their defaults.
#include <cstdint>
#include <cstdio>
#include <getopt.h>

struct instance;

constexpr int CONF_BACKUPS_DEFAULT = 20;
constexpr int LOG_KEEP_DEFAULT = 30;
constexpr int CHILD_UMASK_DEFAULT = 0;

struct host_options {
    int conf_backups = CONF_BACKUPS_DEFAULT;   // newest option-file backups kept
    int log_keep = LOG_KEEP_DEFAULT;           // newest rotated logs kept
    int child_umask = CHILD_UMASK_DEFAULT;     // file-mode creation mask of the children

    // Write-back retry state, kept by the supervision thread.
    int save_failures = 0;       // failed saves in the current streak
    int64_t save_retry_at = 0;   // wall-clock second of the next retry
};

// The options' rows for getopt_long (without the terminating row), and their count.
extern const struct option host_long_opts[];
extern const int host_long_opts_cnt;

// Applies one of these options (its getopt value) to the instance; false when
// `val` is not one of them.
bool host_option_apply(instance* inst, int val, const char* value);

// Writes the options that differ from their defaults, one line each.
void host_options_write(FILE* f, const instance* inst);
