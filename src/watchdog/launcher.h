#pragma once
// Building one launch of an application: executable path, argument and
// environment vectors and the per-child option file. Everything the child
// needs is prepared here, before the fork, so the child only execs.
#include <cstddef>
#include <cstdint>


struct instance;
struct app;

constexpr int LAUNCH_VEC_SLOTS = 64;      // argv and envp, terminating null included
constexpr int SCRIPT_ARGS_MAX = LAUNCH_VEC_SLOTS - 2;
constexpr int EXIT_EXEC_FAILED = 128;     // the child's status when execve fails

// Whether the type names an executable at all ("gpi" does not); the others are
// launched, and a path that cannot be executed ends as a start error.
bool launch_runnable(const app& record);

// bin_path, or the supervisor's own directory, plus "/" and the type's executable
// (a script's bin_path is the program itself). `path` holds `size` bytes.
void launch_exec_path(const app& record, char* path, std::size_t size);

// Fills argv (LAUNCH_VEC_SLOTS slots, null-terminated); writes the per-child option
// file when the type takes one. Entries point into `record` or at `path`.
// Returns the number of arguments, or -1 when the option file could not be written.
int launch_build_argv(app& record, const char* path, const char* argv[LAUNCH_VEC_SLOTS]);

// Fills envp (LAUNCH_VEC_SLOTS slots, null-terminated) from the app's envs and the
// instance's inherited_envs, leaving out "#" entries. When both do not fit, app
// entries are dropped (and logged) so the supervisor-wide ones always reach the
// child. Returns the number of entries.
int launch_build_envp(const app& record, const instance& inst, const char* envp[LAUNCH_VEC_SLOTS]);

