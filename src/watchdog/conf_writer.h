#pragma once
struct instance;

// Rewrites conf_file from the instance (old file kept as a timestamped backup).
// The caller holds the instance lock. 0, or -errno when it cannot be created.
int watchdog_save_conf(instance* inst);
