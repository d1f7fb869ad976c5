#include "app_state.h"

namespace {
// The supervisor's texts for a failed start.
constexpr const char* err_too_fast = "Respawn too fast";
}  // namespace

app_state derive_state(const app_facts& facts)
{
    if (facts.pid != 0) return facts.terminated > 0 ? app_state::stopping : app_state::running;
    if (facts.err == err_too_fast) return app_state::exited_too_fast;
    if (!facts.err.empty()) return app_state::start_error;
    // Respawn on and no child: the next supervision pass starts it.
    return facts.f_respawn ? app_state::starting : app_state::stopped;
}

const char* state_name(app_state state)
{
    switch (state) {
    case app_state::running: return "running";
    case app_state::stopped: return "stopped";
    case app_state::starting: return "starting";
    case app_state::stopping: return "stopping";
    case app_state::exited_too_fast: return "exited too fast";
    case app_state::start_error: return "start error";
    }
    return "unknown";
}

bool should_run(const app_facts& facts)
{
    return facts.f_respawn != 0 || !facts.err.empty();
}

bool counts_as_running(const app_facts& facts)
{
    return derive_state(facts) == app_state::running;
}
