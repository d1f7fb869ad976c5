#include "system_runner.h"

#include "descriptors.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace {
std::atomic<system_runner_fn> current_runner{system_runner_default};

// Appends one line to `path`; the command is recorded, not run.
int record_command(const char* path, const char* command)
{
    FILE* file = fopen(path, "a");
    if (!file) return -errno;
    fprintf(file, "%s\n", command);
    fclose(file);
    return 0;
}
}  // namespace

int system_runner_default(const char* command)
{
    const char* fake = getenv(SYSTEM_RUNNER_FAKE_ENV);
    if (fake && *fake) return record_command(fake, command);
    fd_cloexec_sweep();   // the shell gets none of ours, open connections included
    return system(command);
}

system_runner_fn system_runner_set(system_runner_fn runner)
{
    return current_runner.exchange(runner ? runner : system_runner_default);
}

int system_run(const char* command)
{
    return current_runner.load()(command);
}
