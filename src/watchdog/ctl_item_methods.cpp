#include "ctl_methods.h"

CTL_METHOD(GetItem)
{
    (void)params;
    (void)server_info;
    (void)call_info;
    return ctl_method_missing(env, "GetItem");
}

CTL_METHOD(SetItem)
{
    (void)params;
    (void)server_info;
    (void)call_info;
    return ctl_method_missing(env, "SetItem");
}

