#include "ctl_methods.h"

CTL_METHOD(GetStatus)
{
    (void)params;
    (void)server_info;
    (void)call_info;
    return ctl_method_missing(env, "GetStatus");
}

CTL_METHOD(GetElements)
{
    (void)params;
    (void)server_info;
    (void)call_info;
    return ctl_method_missing(env, "GetElements");
}

CTL_METHOD(GetApps)
{
    (void)params;
    (void)server_info;
    (void)call_info;
    return ctl_method_missing(env, "GetApps");
}

xmlrpc_value* ctl_method_missing(xmlrpc_env* env, const char* method)
{
    xmlrpc_env_set_fault_formatted(env, XMLRPC_NO_SUCH_METHOD_ERROR, "%s is not available yet", method);
    return nullptr;
}
