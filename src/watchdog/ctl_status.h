#pragma once
// Element port rules of GetElements, exposed for tests.
struct app;

// Control port of an element type when its raw lines name none (0 for the
// elements without one); -1 for a type GetElements never lists.
int ctl_element_default_port(int type);
// Whether GetElements lists `record`'s type; if so, `port` is the first non-zero
// "--port=" ("--xmlrpc-port=" for elem_flash) at the very start of a raw line,
// cut to its low 32 bits (so it may read negative), else the default.
bool ctl_element_port(const app& record, int* port);
