#pragma once
/*
 * Call frame of the suite client library: set-up, the no-parameter call, the
 * two list walkers and the NUL-terminated string list helpers.
 *
 * Result convention of every call function: the server's integer "result"
 * (negative values are the server's negated errno, passed through), or
 * VANTREL_EFAULT (-14) when the transport call failed or the answer did not
 * have the expected shape. List functions return the number of entries.
 * Diagnostics are single lines on standard error; nothing is printed on
 * success.
 *
 * Usable from C and C++.
 */
#include <stdint.h>

#include <xmlrpc-c/base.h>

#include "vantrel_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Capacity of the text fields of every record, terminating NUL included. */
#define VANTREL_STR_SIZE 4096

#define VANTREL_ENOENT (-2)
#define VANTREL_ENOMEM (-12)
#define VANTREL_EFAULT (-14)
#define VANTREL_EINVAL (-22)

/*
 * Item callback of parse_custom_list: called with the call's fault
 * environment, one list element (borrowed: do not release it), the caller's
 * context, the index at which to store the element (the number of elements
 * handled successfully so far) and the size of the list. The return value is
 * ignored; failure is reported by setting a fault in env.
 */
typedef int (*vantrel_item_cb)(xmlrpc_env* env, xmlrpc_value* item, void* ctx, int index,
                               int count);

/*
 * Sets up the process-wide XML-RPC client used by every call, then sets the
 * numeric locale to "C" (also when set-up fails). Call once before any other
 * function. Returns 0, or -14 when the client cannot be set up.
 */
VANTREL_API int vantrel_init(const char* app_name, const char* app_version);

/* Shuts the process-wide client down. Returns 0. */
VANTREL_API int vantrel_cleanup(void);

/*
 * Calls `method` on the server at `url` without parameters. Returns the
 * answer's "result", or -14.
 */
VANTREL_API int vantrel_method_no_arg(const char* url, const char* method);

/*
 * Walks an array of the answer and hands each element to `cb`.
 * `caller` names the reporting function in messages. When `key` is given the
 * array is the answer's member of that name, otherwise `answer` itself is
 * the array. The answer stays the caller's (it is not released here).
 * A failing element (unreadable, or the callback set a fault) is reported,
 * the fault is cleared and the walk goes on with the next element.
 * Returns the number of elements handled successfully, or -14 when env
 * already holds a fault on entry, or the array or its size cannot be taken.
 */
VANTREL_API int vantrel_parse_custom_list(const char* caller, xmlrpc_env* env,
                                          xmlrpc_value* answer, const char* key,
                                          vantrel_item_cb cb, void* ctx);
/* The same under its first name. */
VANTREL_API int parse_custom_list(const char* caller, xmlrpc_env* env, xmlrpc_value* answer,
                                  const char* key, vantrel_item_cb cb, void* ctx);

/*
 * Decodes an answer {result, list} where list is an array of one-string
 * arrays into a new NUL-terminated string list stored in *out.
 * Ownership: the function takes over `answer` and releases it, except when
 * env already holds a fault on entry (then the answer stays the caller's).
 * *out is set to null first; once the list has been allocated it is stored in
 * *out and belongs to the caller, who frees it with vantrel_str_list_free
 * whatever the result. Failing elements are reported, their fault cleared,
 * and the walk goes on.
 * Returns the number of strings stored, the server's negative result (list
 * left null), -14 on a malformed answer, or -12 when memory runs out.
 */
VANTREL_API int vantrel_parse_simple_list_response(const char* caller, xmlrpc_env* env,
                                                   xmlrpc_value* answer, char*** out);
/* The same under its first name. */
VANTREL_API int parse_simple_list_response(const char* caller, xmlrpc_env* env,
                                           xmlrpc_value* answer, char*** out);

/* A new NUL-terminated string list holding only the terminator, or null. */
VANTREL_API char** vantrel_str_list_new(void);

/* Number of entries before the terminator; 0 for a null list. */
VANTREL_API int vantrel_str_list_count(char* const* list);

/*
 * Appends `item` (a heap string, taken over on success) to the list at
 * *list, starting a list when *list is null. The array may move; the new one
 * is stored back in *list. Returns the new number of entries, or -12 (the
 * item then stays the caller's and the list is unchanged).
 */
VANTREL_API int vantrel_str_list_append(char*** list, char* item);

/* Frees every string and the array, and sets *list to null. Null is fine. */
VANTREL_API void vantrel_str_list_free(char*** list);

#ifdef __cplusplus
}
#endif
