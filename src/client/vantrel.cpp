// Call frame of the suite client library: process-wide client, the standard
// call, the list walkers and the string list helpers.
#include "vantrel.h"

#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <xmlrpc-c/client.h>
#include <xmlrpc-c/client_global.h>

#include "vantrel_internal.h"

namespace vantrel {

void str_copy(char* dst, const char* src, std::size_t size)
{
    if (!dst || size == 0) return;
    if (!src) src = "";
    std::size_t n = strnlen(src, size - 1);
    memcpy(dst, src, n);
    dst[n] = '\0';
}

void str_cat(char* dst, const char* src, std::size_t size)
{
    if (!dst || size == 0) return;
    std::size_t used = strnlen(dst, size - 1);
    str_copy(dst + used, src, size - used);
}

const char* fault_text(const xmlrpc_env* env)
{
    return env->fault_string ? env->fault_string : "";
}

void clear_fault(xmlrpc_env* env)
{
    xmlrpc_env_clean(env);
    xmlrpc_env_init(env);
}

namespace {

xmlrpc_value* call_and_report(xmlrpc_env* env, const char* fn, const char* url,
                              const char* method, const char* format, va_list args)
{
    xmlrpc_value_ref params;
    if (!url || !method) {
        // The C library would dereference them; report like any other call failure.
        xmlrpc_env_set_fault(env, XMLRPC_INTERNAL_ERROR, "no server URL or method name");
    } else {
        const char* tail = nullptr;
        xmlrpc_build_value_va(env, format, args, params.out(), &tail);
        if (!env->fault_occurred && xmlrpc_value_type(params.get()) != XMLRPC_TYPE_ARRAY)
            xmlrpc_env_set_fault(env, XMLRPC_INTERNAL_ERROR, "request is not a parameter list");
    }
    xmlrpc_value_ref answer;
    if (!env->fault_occurred) {
        // On a fault the library leaves its result undefined: keep it only on success.
        xmlrpc_value* result = xmlrpc_client_call_params(env, url, method, params.get());
        if (!env->fault_occurred) answer.reset(result);
    }
    if (env->fault_occurred) {
        if (fn)
            fprintf(stderr, "%s: xmlrpc_client_callX(%s, %s) failed: %s (%d)", fn,
                    url ? url : "", method ? method : "", fault_text(env), env->fault_code);
        return nullptr;
    }
    return answer.release();
}

}  // namespace

xmlrpc_value* call_va(xmlrpc_env* env, const char* fn, const char* url, const char* method,
                      const char* format, va_list args)
{
    return call_and_report(env, fn ? fn : "", url, method, format, args);
}

xmlrpc_value* call_unreported(xmlrpc_env* env, const char* url, const char* method,
                              const char* format, ...)
{
    va_list args;
    va_start(args, format);
    xmlrpc_value* answer = call_and_report(env, nullptr, url, method, format, args);
    va_end(args);
    return answer;
}

xmlrpc_value* call(xmlrpc_env* env, const char* fn, const char* url, const char* method,
                   const char* format, ...)
{
    va_list args;
    va_start(args, format);
    xmlrpc_value* answer = call_va(env, fn, url, method, format, args);
    va_end(args);
    return answer;
}

int decode_result(xmlrpc_env* env, const char* fn, const char* method, xmlrpc_value* answer)
{
    int result = 0;
    xmlrpc_decompose_value(env, answer, "{s:i,*}", "result", &result);
    if (env->fault_occurred) {
        fprintf(stderr, "%s: %s, decompose value failed: %s (%d) [%s:%d]\n", fn, method,
                fault_text(env), env->fault_code, source_path, __LINE__);
        return VANTREL_EFAULT;
    }
    return result;
}

int std_call(const char* fn, const char* url, const char* method, const char* format, ...)
{
    xmlrpc_env_guard env;
    va_list args;
    va_start(args, format);
    xmlrpc_value_ref answer(call_va(env.get(), fn, url, method, format, args));
    va_end(args);
    if (!answer) return VANTREL_EFAULT;
    return decode_result(env.get(), fn, method, answer.get());
}

}  // namespace vantrel

using namespace vantrel;

int vantrel_init(const char* app_name, const char* app_version)
{
    int result = 0;
    {
        xmlrpc_env_guard env;
        xmlrpc_client_init2(env.get(), 0, app_name ? app_name : "", app_version ? app_version : "",
                            nullptr, 0);
        if (env.failed()) {
            fprintf(stderr, "%s: xmlrpc_client_init2 failed: %s (%d)\n", "vantrel_init",
                    env.fault_string(), env.fault_code());
            result = VANTREL_EFAULT;
        }
    }
    // Decimal points in doubles must not depend on the caller's locale.
    setlocale(LC_NUMERIC, "C");
    return result;
}

int vantrel_cleanup(void)
{
    xmlrpc_client_cleanup();
    return 0;
}

int vantrel_method_no_arg(const char* url, const char* method)
{
    return std_call("vantrel_method_no_arg", url, method, "()");
}

int parse_custom_list(const char* caller, xmlrpc_env* env, xmlrpc_value* answer,
                      const char* key, vantrel_item_cb cb, void* ctx)
{
    static const char* const self = "parse_custom_list";
    if (!caller) caller = "";
    if (env->fault_occurred) {
        fprintf(stderr, "%s/%s: xmlrpc_client_callX() failed: %s (%d)", caller, self,
                fault_text(env), env->fault_code);
        return VANTREL_EFAULT;
    }
    if (!answer) xmlrpc_env_set_fault(env, XMLRPC_TYPE_ERROR, "no answer value");
    xmlrpc_value_ref by_key;
    xmlrpc_value* array = answer;
    if (!env->fault_occurred && key) {
        xmlrpc_decompose_value(env, answer, "{s:A,*}", key, by_key.out());
        array = by_key.get();
    }
    if (env->fault_occurred) {
        fprintf(stderr, "%s/%s: decompose value failed: %s (%d) [%s:%d]\n", caller, self,
                fault_text(env), env->fault_code, source_path, __LINE__);
        return VANTREL_EFAULT;
    }
    int size = xmlrpc_array_size(env, array);
    if (env->fault_occurred) {
        fprintf(stderr, "%s/%s: xmlrpc_array_size failed: %s (%d) [%s:%d]\n", caller, self,
                fault_text(env), env->fault_code, source_path, __LINE__);
        return VANTREL_EFAULT;
    }
    int handled = 0;
    for (int i = 0; i < size; ++i) {
        xmlrpc_value_ref item;
        xmlrpc_array_read_item(env, array, i, item.out());
        if (!env->fault_occurred && cb) cb(env, item.get(), ctx, handled, size);
        if (env->fault_occurred) {
            fprintf(stderr, "%s/%s: xmlrpc_array_read_item failed: %s (%d)", caller, self,
                    fault_text(env), env->fault_code);
            // One bad element must not hide the rest of the list.
            clear_fault(env);
            continue;
        }
        ++handled;
    }
    return handled;
}

int parse_simple_list_response(const char* caller, xmlrpc_env* env, xmlrpc_value* answer,
                               char*** out)
{
    static const char* const self = "parse_simple_list_response";
    if (!caller) caller = "";
    if (out) *out = nullptr;
    if (env->fault_occurred) {
        fprintf(stderr, "%s/%s: xmlrpc_client_callX() failed: %s (%d)", caller, self,
                fault_text(env), env->fault_code);
        return VANTREL_EFAULT;
    }
    xmlrpc_value_ref owned(answer);
    if (!out) return VANTREL_EINVAL;
    if (!answer) xmlrpc_env_set_fault(env, XMLRPC_TYPE_ERROR, "no answer value");

    int result = 0;
    if (!env->fault_occurred) xmlrpc_decompose_value(env, answer, "{s:i,*}", "result", &result);
    if (env->fault_occurred) {
        fprintf(stderr, "%s/%s: decompose value failed: %s (%d) [%s:%d]\n", caller, self,
                fault_text(env), env->fault_code, source_path, __LINE__);
        return VANTREL_EFAULT;
    }
    if (result < 0) {
        fprintf(stderr, "%s/%s: return %d (%s)", caller, self, result, vantrel::errno_text(result));
        return result;
    }
    xmlrpc_value_ref list;
    xmlrpc_decompose_value(env, answer, "{s:A,*}", "list", list.out());
    if (env->fault_occurred) {
        fprintf(stderr, "%s/%s: decompose value failed: %s (%d) [%s:%d]\n", caller, self,
                fault_text(env), env->fault_code, source_path, __LINE__);
        return VANTREL_EFAULT;
    }
    int size = xmlrpc_array_size(env, list.get());
    if (env->fault_occurred) {
        fprintf(stderr, "%s/%s: xmlrpc_array_size failed: %s (%d) [%s:%d]\n", caller, self,
                fault_text(env), env->fault_code, source_path, __LINE__);
        return VANTREL_EFAULT;
    }
    char** strings = static_cast<char**>(calloc(static_cast<std::size_t>(size) + 1, sizeof(char*)));
    if (!strings) return VANTREL_ENOMEM;
    *out = strings;
    int stored = 0;
    for (int i = 0; i < size; ++i) {
        xmlrpc_value_ref item;
        xmlrpc_array_read_item(env, list.get(), i, item.out());
        const char* text = nullptr;
        if (!env->fault_occurred) xmlrpc_decompose_value(env, item.get(), "(s)", &text);
        if (env->fault_occurred) {
            fprintf(stderr, "%s/%s: xmlrpc_array_read_item failed: %s (%d)", caller, self,
                    fault_text(env), env->fault_code);
            clear_fault(env);
            continue;
        }
        strings[stored++] = const_cast<char*>(text);
    }
    return stored;
}

char** vantrel_str_list_new(void)
{
    return static_cast<char**>(calloc(1, sizeof(char*)));
}

int vantrel_str_list_count(char* const* list)
{
    int n = 0;
    while (list && list[n]) ++n;
    return n;
}

int vantrel_str_list_append(char*** list, char* item)
{
    if (!list) return VANTREL_EINVAL;
    int n = vantrel_str_list_count(*list);
    char** grown = static_cast<char**>(realloc(*list, (static_cast<std::size_t>(n) + 2) * sizeof(char*)));
    if (!grown) return VANTREL_ENOMEM;
    grown[n] = item;
    grown[n + 1] = nullptr;
    *list = grown;
    return n + 1;
}

void vantrel_str_list_free(char*** list)
{
    if (!list || !*list) return;
    for (char** entry = *list; *entry; ++entry) free(*entry);
    free(*list);
    *list = nullptr;
}
