#pragma once
// Runs the machine-level shell commands (reboot, power off). Tests replace the
// runner before anything can reach it, so no test ever touches the machine.

// Runs `command` and waits for it; the result is system()'s.
using system_runner_fn = int (*)(const char* command);

// Environment variable naming a file: when set, the default runner appends each
// command line to that file instead of running it (a guard for test runs of the
// whole binary).
constexpr const char* SYSTEM_RUNNER_FAKE_ENV = "VANTREL_WATCHDOG_FAKE_SYSTEM";

// Installs `runner` (null restores the default) and returns the previous one.
system_runner_fn system_runner_set(system_runner_fn runner);
// Runs `command` through the installed runner.
int system_run(const char* command);
// The default runner: system(), or the append to the file named by
// SYSTEM_RUNNER_FAKE_ENV when that is set and not empty.
int system_runner_default(const char* command);
