#include "ctl_reply.h"

#include "log/log.h"

xmlrpc_value* ctl_reply_ret(xmlrpc_env* env, int ret)
{
    return xmlrpc_build_value(env, "{s:i}", "ret", ret);
}

xmlrpc_value* ctl_decode_failed(const char* method, const char* what)
{
    log_printf(LOG_ERROR, "%s: xmlrpc_decompose_value(%s) failed", method, what);
    return nullptr;
}
