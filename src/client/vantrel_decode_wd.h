#pragma once
// Decoders of the supervisor client: a clean fault environment and the
// supervisor's answer (borrowed) in, the caller's records out, the public
// function's result back. A malformed answer gives -14 with one diagnostic
// line and leaves no heap block behind in the records.
#include <xmlrpc-c/base.h>

#include "vantrel_watchdog.h"

// The "ret" member of a reply under the reporting function's name `fn`.
int vantrel_watchdog_ret_decode(xmlrpc_env* env, const char* fn, xmlrpc_value* answer);

int vantrel_watchdog_status_decode(xmlrpc_env* env, xmlrpc_value* answer,
                                   vantrel_wd_listing* status);
int vantrel_watchdog_elements_decode(xmlrpc_env* env, xmlrpc_value* answer,
                                     vantrel_wd_listing* elements);
int vantrel_watchdog_apps_decode(xmlrpc_env* env, xmlrpc_value* answer, char*** names);
int vantrel_watchdog_item_decode(xmlrpc_env* env, xmlrpc_value* answer, vantrel_wd_item* item);
int vantrel_watchdog_std_buf_decode(xmlrpc_env* env, xmlrpc_value* answer,
                                    vantrel_wd_output* output);
int vantrel_watchdog_auth_decode(xmlrpc_env* env, xmlrpc_value* answer, char* session_out);
