#pragma once
// Pieces of the log that tests reach directly: the pure rules of line making
// and rotation, and a switch that parks the writer thread.
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

constexpr int LOG_QUEUE_MAX = 128000;      // lines waiting for the writer
constexpr std::size_t LOG_LINE_MAX = 127989;   // characters before the newline

// Mark character for a level: ' ', '!' or '?'; unknown levels get ' '.
char log_mark(int level);
// The line prefix "<mark> [%Y-%m-%d %H:%M:%S.mmm] " for a wall-clock reading.
std::string log_line_prefix(int level, time_t sec, long usec);
// True when a rotation is due: last + interval < now.
bool log_rotation_due(int64_t last, int64_t interval, int64_t now);
// "<path>-%Y%m%d_%H%M%S" in local time, cut to 4095 characters.
std::string log_rotated_name(const std::string& path, time_t when);
// Of the names in the log's directory, the rotated logs of `base` beyond the
// newest `keep`, oldest first.
std::vector<std::string> log_rotated_beyond(const std::vector<std::string>& names, const std::string& base, int keep);

// Non-zero parks the writer before it takes the next line off the queue, so a
// test can fill the queue; log_stop releases it.
void log_test_hold_writer(int hold);
// Lines currently queued.
int log_test_queued();
