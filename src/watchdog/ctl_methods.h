#pragma once
// Handlers of the control methods (xmlrpc-c's method3 form). `server_info` is
// the instance. Each returns a new reply value, or null after setting a fault.
#include <xmlrpc-c/base.h>

#define CTL_METHOD(name) \
    xmlrpc_value* ctl_method_##name(xmlrpc_env* env, xmlrpc_value* params, void* server_info, void* call_info)

CTL_METHOD(GetStatus);
CTL_METHOD(GetElements);
CTL_METHOD(SetField);
CTL_METHOD(GetItem);
CTL_METHOD(SetItem);
CTL_METHOD(GetApps);
CTL_METHOD(GetStdXXXBuf);
CTL_METHOD(GetAuth);

// Fault for a handler that is not built yet.
xmlrpc_value* ctl_method_missing(xmlrpc_env* env, const char* method);
