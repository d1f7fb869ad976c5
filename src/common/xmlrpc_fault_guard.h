#pragma once
// Referenced by whoever parses XML-RPC documents, so that the guard below is
// linked in from the static library too.
#ifdef __cplusplus
extern "C" {
#endif
void xmlrpc_fault_guard_install(void);
#ifdef __cplusplus
}
#endif
