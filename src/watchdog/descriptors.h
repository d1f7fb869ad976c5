#pragma once
// Keeping the supervisor's descriptors out of the programs it starts.

// Child side, between fork and exec: closes every descriptor above standard
// error. Async-signal-safe.
void fd_close_above_stderr();

// Marks every open descriptor above standard error close-on-exec: for those a
// library opened without the flag (the control server's sockets and pipes).
// Returns how many were changed.
int fd_cloexec_sweep();
