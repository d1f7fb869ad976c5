#pragma once
// Shared pieces of the client library's implementation. Not installed: the
// public interface is vantrel.h. Family functions are (request + call) and a
// decoder; the helpers here keep the call side to a few lines.
#include <cstdarg>
#include <cstddef>
#include <climits>
#include <cstdlib>
#include <cstring>

#include <xmlrpc-c/base.h>

#include "vantrel_call.h"
#include "xmlrpc_raii.h"

namespace vantrel {

// strerror of a negated errno; safe for any value a server may send.
inline const char* errno_text(int result)
{
    // -INT_MIN does not exist; any unknown code reads "Unknown error".
    return strerror(result == INT_MIN ? INT_MAX : -result);
}

// Source path printed in the "[%s:%d]" diagnostics.
inline constexpr const char* source_path = "src/client/vantrel";

// Bounded copy and append into a fixed field of `size` bytes; always
// terminated, null source treated as empty. (The supervisor owns the
// unqualified names, hence the namespace.)
void str_copy(char* dst, const char* src, std::size_t size);
void str_cat(char* dst, const char* src, std::size_t size);

// The fault text of an environment, never null.
const char* fault_text(const xmlrpc_env* env);

// Null text parameters marked as optional travel as empty strings.
inline const char* or_empty(const char* text) { return text ? text : ""; }

// Builds the request from `format` and its arguments and calls `method` on
// `url` with the process-wide client. On failure writes the call-failed line
// under the name `fn`, leaves the fault in env and returns null; otherwise
// returns the answer, owned by the caller.
xmlrpc_value* call_va(xmlrpc_env* env, const char* fn, const char* url, const char* method,
                      const char* format, va_list args);
// The same without the call-failed line, for functions that report in their
// own words.
xmlrpc_value* call_unreported(xmlrpc_env* env, const char* url, const char* method,
                              const char* format, ...);
xmlrpc_value* call(xmlrpc_env* env, const char* fn, const char* url, const char* method,
                   const char* format, ...);

// Standard decoding of the answer's "result" member: returns it, or writes the
// decompose line under `fn` and `method` and returns -14.
int decode_result(xmlrpc_env* env, const char* fn, const char* method, xmlrpc_value* answer);

// The standard call of a function that returns only the server's result.
int std_call(const char* fn, const char* url, const char* method, const char* format, ...);

// The standard call with a decoder for the answer: `decode(env, answer)`
// returns the function's result. The answer and the environment are released
// here on every path.
template <typename Decode>
int call_with(const char* fn, const char* url, const char* method, Decode&& decode,
              const char* format, ...)
{
    xmlrpc_env_guard env;
    va_list args;
    va_start(args, format);
    xmlrpc_value_ref answer(call_va(env.get(), fn, url, method, format, args));
    va_end(args);
    if (!answer) return VANTREL_EFAULT;
    return decode(env.get(), answer.get());
}

// Releases an environment's fault so that it can be used again.
void clear_fault(xmlrpc_env* env);

// Request parts shared by the template functions. A negative count means the
// array ends with a null pointer; null entries are skipped. Both return a new
// value, or null with the fault in env.
xmlrpc_value* build_string_array(xmlrpc_env* env, int count, const char* const* items);
xmlrpc_value* build_variables(xmlrpc_env* env, int count, const char* const* names,
                              const char* const* values);

}  // namespace vantrel
