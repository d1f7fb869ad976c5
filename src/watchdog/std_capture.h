#pragma once
#include <cstddef>
#include <cstdint>

struct instance;
struct app;
struct std_ring;

// Capacity asked for a child's standard error pipe when debugging.
constexpr std::size_t STD_PIPE_DEBUG_SIZE = 33554432;

// Moves what the child's pipe `fd_no` (1 or 2) holds now into the session file
// and the ring, reading `scratch_size` bytes at a time and at most about
// `budget` bytes in all (so one chatty child cannot hold the lock for long).
// Returns the bytes moved; marks the stream ended when the child closed it.
// Opens the session file on first use and keeps it open. Caller holds the lock.
std::size_t watchdog_std_collect(instance* inst, app* record, char* scratch, std::size_t scratch_size, int fd_no,
                                 std::size_t budget);
// watchdog_std_collect with a scratch of STD_BUF_SIZE bytes and no budget
// beyond the largest pipe. Returns 0.
int watchdog_std_drain(instance* inst, app* record, char* scratch, int fd_no);
// Re-creates session files that were removed or moved away from outside.
void watchdog_std_check_sessions(instance* inst, app* record);
// Closes the session files after the child's final collection.
void watchdog_std_close(app* record);
// The directory the session files live in: log_file_name + ".sessions".
void watchdog_std_session_dir(const instance* inst, char* out, std::size_t size);

// Appends a chunk to the ring, dropping the oldest bytes that no longer fit.
// Storage is allocated on the first byte.
void std_ring_append(std_ring& ring, const char* data, std::size_t n);
// Appends `total` bytes of which only the newest `n` are at `data`: the others
// count as written and dropped. Used when a chunk never passed through memory.
void std_ring_append_tail(std_ring& ring, std::size_t total, const char* data, std::size_t n);
