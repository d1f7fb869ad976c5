#pragma once
// The supervisor's run phase: signal handling, the variables handed down to
// every child, and the control server and supervision from start to shutdown.
#include <atomic>

struct instance;

// Termination signals received; non-zero means shutdown has begun.
extern std::atomic<int> sig_cnt;

// Blocks the handled signals in the calling thread. main calls it before any
// thread exists, so every thread inherits the mask and the signals are only
// ever taken by the signal thread, in plain thread context.
void run_phase_block_signals();

// Installs the dispositions, starts the signal thread, takes over the
// inherited variables, runs the control server and supervision until
// shutdown and tears the server down. The signal thread is gone on return,
// so the instance may be destroyed then. Returns 0.
int run_phase(instance* inst);

// Stores NAME=value of each inherited variable that is set and logs it.
// Returns the number stored.
int run_phase_inherit_envs(instance* inst);

// The termination work of a signal: logs it, counts it and sends SIGINT to
// every running child not yet asked to stop. Returns the new count.
int run_phase_take_termination(instance* inst, int sig);

// The dispositions of the signal table. On the signal thread they do the
// work; anywhere else (signal context) they only pass the signal on.
void sighandler(int sig);
void sigchld_reaper(int sig);
