#pragma once
// The XML-RPC control server.
#include <cstddef>
#include <cstdint>

struct instance;
struct xmlrpc_registry;
struct _xmlrpc_env;
struct _xmlrpc_mem_block;

int ctl_init(instance* inst);
int ctl_run(instance* inst);
int ctl_terminate(instance* inst);
int ctl_destroy(instance* inst);

// Slot addressed by (idx, ptr), or -1 after logging why. Caller holds the lock.
int ctl_app_resolve(instance* inst, const char* method, int idx, const char* ptr);
// A handle as clients send it back ("%lx", with or without "0x"); 0 for text
// without hexadecimal digits, which no record has.
uint64_t ctl_handle_parse(const char* ptr);
// Registers the method table in `registry` with `inst` as server information:
// a request handed to the registry is then served as over HTTP (used by
// ctl_init, and by tests that feed requests without a socket).
void ctl_register_methods(_xmlrpc_env* env, xmlrpc_registry* registry, instance* inst);
// Answers one request body as the control port does: screened first (see
// ctl_screen.h; only the table's methods), then handed to `registry`, except
// a well-formed GetStatus, answered for `inst` from its ready bytes.
void ctl_process_call(_xmlrpc_env* env, instance* inst, xmlrpc_registry* registry, const char* xml,
                      std::size_t len, _xmlrpc_mem_block** response);
