#pragma once
// The supervision thread and the per-launch forker threads.
struct instance;
struct app;

int watchdog_respawner_start(instance* inst);
int watchdog_respawner_join(instance* inst);
// For an app whose pid is 0: joins its last forker thread, if any.
int watchdog_respawner_app_join(app* record);
// One launch from the supervision thread (lock held): 0 once the forker has
// forked or given up, -errno when no forker thread could be started.
int watchdog_respawner_run(instance* inst, app* record);
// Wakes the supervision thread at once (a start request, a child's end,
// shutdown). Safe before the thread runs and after it ended.
void watchdog_respawner_wake(const instance* inst);

void* watchdog_respawner_proc(void* inst);       // supervision thread body
void* watchdog_respawner_run_proc(void* record); // forker thread body
