// The installed XML-RPC library formats the fault for a malformed <i8> value
// with one argument too few, so a request or an answer holding, say,
// <i8>5x</i8> crashes the process while the message is being built. Defining
// the library's fault formatter here takes precedence over its own (the
// dynamic linker binds the library's calls to the first definition), and lets
// that one message through without formatting. Every other fault is formatted
// exactly as the library would.
#include "xmlrpc_fault_guard.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <xmlrpc-c/base.h>
#include <xmlrpc-c/util.h>

namespace {
constexpr char bad_i8_prefix[] = "<i8> XML element value";
}

extern "C" void xmlrpc_fault_guard_install(void) {}

extern "C" void xmlrpc_set_fault_formatted_v(xmlrpc_env* const envP, int const code, const char* const format,
                                             va_list args)
{
    if (strncmp(format, bad_i8_prefix, sizeof bad_i8_prefix - 1) == 0) {
        xmlrpc_env_set_fault(envP, code, "<i8> XML element value is invalid: it does not represent a 64 bit integer");
        return;
    }
    char* text = nullptr;
    va_list copy;
    va_copy(copy, args);
    if (vasprintf(&text, format, copy) < 0) text = nullptr;
    va_end(copy);
    xmlrpc_env_set_fault(envP, code, text ? text : format);
    free(text);
}
