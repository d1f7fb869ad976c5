#pragma once
// The process-wide log: callers queue formatted lines, one writer thread echoes
// them to standard error, appends them to the log file and rotates it by time.

constexpr int LOG_INFO = 0;    // mark ' '
constexpr int LOG_ERROR = 1;   // mark '!'
constexpr int LOG_TRACE = 2;   // mark '?'

int log_start(const char* path, int rotate_interval);
int log_printf(int level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
int log_set_stderr(int flag);
// How many rotated log files to keep, newest first (default 30).
void log_set_keep(int keep);
int log_stop();
