#pragma once
// Reply helpers shared by the control methods.
#include <cerrno>

#include <xmlrpc-c/base.h>

// "ret" codes of the control replies; clients depend on these values.
constexpr int CTL_RET_OK = 0;
constexpr int CTL_RET_AUTH_REFUSED = 0;
constexpr int CTL_RET_AUTH_ACCEPTED = 1;
constexpr int CTL_RET_UNKNOWN = -ENOENT;   // unknown type name or command
constexpr int CTL_RET_FULL = -ENOMEM;      // the slot table is full
constexpr int CTL_RET_NO_APP = -ERANGE;    // the request addresses no application

// {"ret": ret}: the whole reply of a refusal. Null with a fault set in `env`
// when the value cannot be built.
xmlrpc_value* ctl_reply_ret(xmlrpc_env* env, int ret);

// Logs "<method>: xmlrpc_decompose_value(<what>) failed" at LOG_ERROR and
// returns null: the decoder's fault stays in the caller's environment, so the
// client receives it unchanged. `what` is e.g. "'secret', 'session'".
xmlrpc_value* ctl_decode_failed(const char* method, const char* what);
