#pragma once
// The GetStatus answer as sent, and element port rules of GetElements.
struct app;
struct instance;
struct _xmlrpc_env;
struct _xmlrpc_mem_block;

// Sets `response` to a whole GetStatus methodResponse. Within one second and
// while nothing listed changes, every caller gets the same bytes, serialised
// once. False with a fault in `env` when memory ran out.
bool ctl_status_respond(_xmlrpc_env* env, instance* inst, _xmlrpc_mem_block** response);

// Control port of an element type when its raw lines name none (0 for the
// elements without one); -1 for a type GetElements never lists.
int ctl_element_default_port(int type);
// Whether GetElements lists `record`'s type; if so, `port` is the first non-zero
// "--port=" ("--xmlrpc-port=" for elem_flash) at the very start of a raw line,
// cut to its low 32 bits (so it may read negative), else the default.
bool ctl_element_port(const app& record, int* port);
