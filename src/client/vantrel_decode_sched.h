#pragma once
// Decoders of the scheduler client: a clean fault environment and the
// service's answer (borrowed) in, the caller's records out, the public
// function's result back.
#include <xmlrpc-c/base.h>

#include "vantrel_sched.h"

// One item struct; *out is set only for a complete record. 0 or -14/-12.
int vantrel_sched_item_decompose(xmlrpc_env* env, xmlrpc_value* item, vantrel_sched_item** out);
// One log struct; *out is set only for a complete record. 0 or -14/-12.
int vantrel_sched_log_decompose(xmlrpc_env* env, xmlrpc_value* item, vantrel_sched_log** out);

int vantrel_sched_item_get_decode(xmlrpc_env* env, xmlrpc_value* answer,
                                  vantrel_sched_item** item);
int vantrel_sched_item_list_decode(xmlrpc_env* env, xmlrpc_value* answer,
                                   vantrel_sched_item*** list);
int vantrel_sched_log_list_decode(xmlrpc_env* env, xmlrpc_value* answer,
                                  vantrel_sched_log*** list);
int vantrel_sched_get_state_decode(xmlrpc_env* env, xmlrpc_value* answer,
                                   vantrel_sched_state* state);
