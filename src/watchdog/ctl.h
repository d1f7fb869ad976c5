#pragma once
// The XML-RPC control server.
struct instance;

int ctl_init(instance* inst);
int ctl_run(instance* inst);
int ctl_terminate(instance* inst);
int ctl_destroy(instance* inst);

// Slot addressed by (idx, ptr), or -1 after logging why. Caller holds the lock.
int ctl_app_resolve(instance* inst, const char* method, int idx, const char* ptr);
