#pragma once
// Detaching from the terminal for --demonize.

// Forks (the parent exits with status 0), clears the umask, starts a new
// session, moves to "/" and points the standard streams at /dev/null.
// 0 in the detached process; 1 after a failure (reported on standard error).
int daemonize();
