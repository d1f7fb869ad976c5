#pragma once
#include <cstdint>

struct instance;
struct app;

// Moves everything the child's pipe `fd_no` (1 or 2) holds now into the session
// file and the ring. `scratch` is STD_BUF_SIZE bytes. Caller holds the lock.
int watchdog_std_drain(instance* inst, app* record, char* scratch, int fd_no);
