#pragma once
// What an application is doing, told from the fields of its status entry.
#include <cstdint>
#include <string>

enum class app_state { running, stopped, starting, stopping, exited_too_fast, start_error };

// The status fields the state depends on.
struct app_facts {
    int32_t pid = 0;
    int64_t terminated = 0; // seconds since a stop was requested, 0 when none
    int32_t f_respawn = 0;
    std::string err;        // the supervisor's last start error
};

app_state derive_state(const app_facts& facts);
const char* state_name(app_state state);

// An application should run when it is kept running (respawn) or when its
// last start failed; status reports failure unless each of them runs.
bool should_run(const app_facts& facts);
bool counts_as_running(const app_facts& facts);
