#include "ctl_methods.h"

CTL_METHOD(SetField)
{
    (void)params;
    (void)server_info;
    (void)call_info;
    return ctl_method_missing(env, "SetField");
}

