#pragma once
// Element port rules of GetElements, exposed for tests.
struct app;

// Control port of an element type when its raw lines name none (0 for the
// elements without one); -1 for a type GetElements never lists.
int ctl_element_default_port(int type);
// The port GetElements reports for `record`: the first non-zero "--port="
// ("--xmlrpc-port=" for elem_flash) at the very start of a raw line, else the
// default; -1 when the type is not listed at all.
int ctl_element_port(const app& record);
