#pragma once
#include <cstddef>
#include <cstdint>

struct instance;
struct app;
struct std_ring;

// Capacity asked for a child's standard error pipe when debugging.
constexpr std::size_t STD_PIPE_DEBUG_SIZE = 33554432;

// Moves everything the child's pipe `fd_no` (1 or 2) holds now into the session
// file and the ring. `scratch` is STD_BUF_SIZE bytes. Caller holds the lock.
int watchdog_std_drain(instance* inst, app* record, char* scratch, int fd_no);

// Appends a chunk of at most STD_BUF_SIZE bytes to the ring, dropping the oldest
// bytes that no longer fit. Storage is allocated on the first byte.
void std_ring_append(std_ring& ring, const char* data, std::size_t n);
