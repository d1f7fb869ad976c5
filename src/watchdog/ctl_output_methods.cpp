#include "ctl_methods.h"

CTL_METHOD(GetStdXXXBuf)
{
    (void)params;
    (void)server_info;
    (void)call_info;
    return ctl_method_missing(env, "GetStdXXXBuf");
}

CTL_METHOD(GetAuth)
{
    (void)params;
    (void)server_info;
    (void)call_info;
    return ctl_method_missing(env, "GetAuth");
}

