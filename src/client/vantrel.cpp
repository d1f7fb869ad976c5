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

#include "vantrel_answer_screen.h"
#include "vantrel_internal.h"

namespace vantrel {

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

struct mem_block_deleter {
    void operator()(xmlrpc_mem_block* block) const { xmlrpc_mem_block_free(block); }
};
using mem_block = std::unique_ptr<xmlrpc_mem_block, mem_block_deleter>;

struct server_info_deleter {
    void operator()(xmlrpc_server_info* info) const { xmlrpc_server_info_free(info); }
};

// The process-wide client's call, taken apart so that the answer is screened
// before the XML-RPC library parses it (see vantrel_answer_screen.h). Faults
// read as the library's own call would give them.
xmlrpc_value* screened_call(xmlrpc_env* env, const char* url, const char* method,
                            xmlrpc_value* params)
{
    std::unique_ptr<xmlrpc_server_info, server_info_deleter> server(xmlrpc_server_info_new(env, url));
    if (env->fault_occurred) return nullptr;
    mem_block request(xmlrpc_mem_block_new(env, 0));
    if (env->fault_occurred) return nullptr;
    xmlrpc_serialize_call2(env, request.get(), method, params, xmlrpc_dialect_i8);
    if (env->fault_occurred) return nullptr;
    xmlrpc_mem_block* raw = nullptr;
    // A thread that chose a private client (vantrel_thread_client.h) calls through it.
    if (xmlrpc_client* own = thread_xmlrpc_client())
        xmlrpc_client_transport_call2(env, own, server.get(), request.get(), &raw);
    else
        xmlrpc_client_transport_call(env, nullptr, server.get(), request.get(), &raw);
    if (env->fault_occurred) return nullptr;
    mem_block response(raw);
    std::string_view xml(static_cast<const char*>(xmlrpc_mem_block_contents(raw)),
                         xmlrpc_mem_block_size(raw));
    if (const char* refusal = answer_refusal(xml)) {
        xmlrpc_env_set_fault(env, XMLRPC_PARSE_ERROR, refusal);
        return nullptr;
    }
    xmlrpc_value* answer = nullptr;
    int fault_code = 0;
    const char* fault_string = nullptr;
    xmlrpc_parse_response2(env, xml.data(), xml.size(), &answer, &fault_code, &fault_string);
    if (env->fault_occurred) return nullptr;
    if (fault_string) {
        xmlrpc_env_set_fault_formatted(env, fault_code, "RPC failed at server.  %s", fault_string);
        free(const_cast<char*>(fault_string));   // the parser hands out a malloc()ed copy
        return nullptr;
    }
    return answer;
}

}  // namespace

xmlrpc_value* call_va(xmlrpc_env* env, const char* url, const char* method, const char* format,
                      va_list args)
{
    if (!url || !method) {
        // The C library would dereference them; report like any other call failure.
        xmlrpc_env_set_fault(env, XMLRPC_INTERNAL_ERROR, "no server URL or method name");
        return nullptr;
    }
    xmlrpc_value_ref params;
    const char* tail = nullptr;
    xmlrpc_build_value_va(env, format, args, params.out(), &tail);
    if (!env->fault_occurred && xmlrpc_value_type(params.get()) != XMLRPC_TYPE_ARRAY)
        xmlrpc_env_set_fault(env, XMLRPC_INTERNAL_ERROR, "request is not a parameter list");
    if (env->fault_occurred) return nullptr;
    return screened_call(env, url, method, params.get());
}

xmlrpc_value* call_unreported(xmlrpc_env* env, const char* url, const char* method,
                              const char* format, ...)
{
    va_list args;
    va_start(args, format);
    xmlrpc_value* answer = call_va(env, url, method, format, args);
    va_end(args);
    return answer;
}

void report_call_failed(const xmlrpc_env* env, const char* fn, const char* url,
                        const char* method)
{
    fprintf(stderr, "%s: xmlrpc_client_callX(%s, %s) failed: %s (%d)", or_empty(fn),
            or_empty(url), or_empty(method), fault_text(env), env->fault_code);
}

int std_call(const char* fn, const char* url, const char* method, const char* format, ...)
{
    auto report = [&](const xmlrpc_env* env) { report_call_failed(env, fn, url, method); };
    auto decode = [&](xmlrpc_env* env, xmlrpc_value* answer) {
        return decode_result(env, fn, method, answer);
    };
    va_list args;
    va_start(args, format);
    int result = call_then_va(report, decode, url, method, format, args);
    va_end(args);
    return result;
}

int decode_result(xmlrpc_env* env, const char* fn, const char* method, xmlrpc_value* answer)
{
    int result = 0;
    if (!answer) xmlrpc_env_set_fault(env, XMLRPC_TYPE_ERROR, "no answer value");
    else xmlrpc_decompose_value(env, answer, "{s:i,*}", "result", &result);
    if (env->fault_occurred) {
        fprintf(stderr, "%s: %s, decompose value failed: %s (%d) [%s:%d]\n", fn, method,
                fault_text(env), env->fault_code, source_path, __LINE__);
        return VANTREL_EFAULT;
    }
    return result;
}

int decode_result_plain(xmlrpc_env* env, const char* fn, xmlrpc_value* answer)
{
    int result = 0;
    if (!answer) xmlrpc_env_set_fault(env, XMLRPC_TYPE_ERROR, "no answer value");
    else xmlrpc_decompose_value(env, answer, "{s:i,*}", "result", &result);
    if (env->fault_occurred) {
        report_decompose_value_failed(env, fn);
        return VANTREL_EFAULT;
    }
    return result;
}

int result_and_item(xmlrpc_env* env, const char* fn, xmlrpc_value* answer, decoded_value& item)
{
    int result = decode_result_plain(env, fn, answer);
    if (env->fault_occurred || result != 0) return result;
    xmlrpc_decompose_value(env, answer, "{s:S,*}", "item", item.out());
    if (env->fault_occurred) {
        report_decompose_value_failed(env, fn);
        return VANTREL_EFAULT;
    }
    decoded_adopt(item);
    return result;
}

void report_return(const char* fn, const char* method, int result)
{
    fprintf(stderr, "%s: %s return %d (%s)", fn, method, result, errno_text(result));
}

void report_decompose_failed(const xmlrpc_env* env, const char* fn)
{
    fprintf(stderr, "%s: xmlrpc_decompose_value failed: %s (%d)", fn, fault_text(env),
            env->fault_code);
}

void report_decompose_value_failed(const xmlrpc_env* env, const char* fn)
{
    fprintf(stderr, "%s: decompose value failed: %s (%d)", fn, fault_text(env), env->fault_code);
}

int result_and_list(xmlrpc_env* env, const char* fn, const char* method, xmlrpc_value* answer,
                    decoded_value& list, int* size, missing_list missing)
{
    int result = decode_result(env, fn, method, answer);
    if (env->fault_occurred) return VANTREL_EFAULT;
    if (result < 0) {
        report_return(fn, method, result);
        return result;
    }
    xmlrpc_decompose_value(env, answer, "{s:A,*}", "list", list.out());
    if (env->fault_occurred && missing == missing_list::own_line) {
        fprintf(stderr, "%s: decompose value failed: %s (%d) [%s:%d]", fn, fault_text(env),
                env->fault_code, source_path, __LINE__);
        return VANTREL_EFAULT;
    }
    // Without a list the size fails too, which is all such a listing reports.
    if (!env->fault_occurred) decoded_adopt(list);
    *size = array_size(env, fn, list.get());
    return *size < 0 ? VANTREL_EFAULT : result;
}

int array_size(xmlrpc_env* env, const char* fn, xmlrpc_value* array)
{
    int size = 0;
    if (!env->fault_occurred) {
        if (!array) xmlrpc_env_set_fault(env, XMLRPC_TYPE_ERROR, "no list value");
        else size = xmlrpc_array_size(env, array);
    }
    if (env->fault_occurred) {
        report_array_size_failed(env, fn);
        return VANTREL_EFAULT;
    }
    return size;
}

void report_array_size_failed(const xmlrpc_env* env, const char* fn)
{
    fprintf(stderr, "%s: xmlrpc_array_size failed: %s (%d)", fn, fault_text(env), env->fault_code);
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

namespace {

// The walkers' lines name the caller and the walker ("%s/%s").
bool entered_with_fault(const xmlrpc_env* env, const char* caller, const char* self)
{
    if (!env->fault_occurred) return false;
    fprintf(stderr, "%s/%s: xmlrpc_client_callX() failed: %s (%d)", caller, self,
            fault_text(env), env->fault_code);
    return true;
}

// The array to walk: the answer's member `key`, or the answer itself without
// a key. Returns its size, or -14 with the line written.
int take_array(xmlrpc_env* env, const char* caller, const char* self, xmlrpc_value* answer,
               const char* key, decoded_value& held, xmlrpc_value** array)
{
    *array = answer;
    if (!answer) xmlrpc_env_set_fault(env, XMLRPC_TYPE_ERROR, "no answer value");
    if (!env->fault_occurred && key) {
        xmlrpc_decompose_value(env, answer, "{s:A,*}", key, held.out());
        if (!env->fault_occurred) decoded_adopt(held);
        *array = held.get();
    }
    if (env->fault_occurred) {
        fprintf(stderr, "%s/%s: decompose value failed: %s (%d) [%s:%d]\n", caller, self,
                fault_text(env), env->fault_code, source_path, __LINE__);
        return VANTREL_EFAULT;
    }
    int size = xmlrpc_array_size(env, *array);
    if (env->fault_occurred) {
        fprintf(stderr, "%s/%s: xmlrpc_array_size failed: %s (%d) [%s:%d]\n", caller, self,
                fault_text(env), env->fault_code, source_path, __LINE__);
        return VANTREL_EFAULT;
    }
    return size;
}

// Hands every readable element to `cb` with the number handled so far as its
// index. A failing element is reported, its fault cleared, and the walk goes
// on: one bad element must not hide the rest of the list. Returns the number
// of elements handled.
int walk_elements(xmlrpc_env* env, const char* caller, const char* self, xmlrpc_value* array,
                  int size, vantrel_item_cb cb, void* ctx)
{
    int handled = 0;
    for (int i = 0; i < size; ++i) {
        xmlrpc_value_ref item;
        xmlrpc_array_read_item(env, array, i, item.out());
        if (!env->fault_occurred && cb) cb(env, item.get(), ctx, handled, size);
        if (env->fault_occurred) {
            fprintf(stderr, "%s/%s: xmlrpc_array_read_item failed: %s (%d)", caller, self,
                    fault_text(env), env->fault_code);
            clear_fault(env);
            continue;
        }
        ++handled;
    }
    return handled;
}

// Element of a simple list: an array holding one string, stored at `index`.
int store_string(xmlrpc_env* env, xmlrpc_value* item, void* ctx, int index, int)
{
    const char* text = nullptr;
    xmlrpc_decompose_value(env, item, "(s)", &text);
    if (env->fault_occurred) return VANTREL_EFAULT;
    static_cast<char**>(ctx)[index] = const_cast<char*>(text);
    return index + 1;
}

}  // namespace

int vantrel_parse_custom_list(const char* caller, xmlrpc_env* env, xmlrpc_value* answer,
                              const char* key, vantrel_item_cb cb, void* ctx)
{
    static const char* const self = "parse_custom_list";
    caller = or_empty(caller);
    if (entered_with_fault(env, caller, self)) return VANTREL_EFAULT;
    decoded_value held;
    xmlrpc_value* array = nullptr;
    int size = take_array(env, caller, self, answer, key, held, &array);
    if (size < 0) return size;
    return walk_elements(env, caller, self, array, size, cb, ctx);
}

int vantrel_parse_simple_list_response(const char* caller, xmlrpc_env* env,
                                       xmlrpc_value* answer, char*** out)
{
    static const char* const self = "parse_simple_list_response";
    caller = or_empty(caller);
    if (out) *out = nullptr;
    if (entered_with_fault(env, caller, self)) return VANTREL_EFAULT;
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
        fprintf(stderr, "%s/%s: return %d (%s)", caller, self, result, errno_text(result));
        return result;
    }
    decoded_value list;
    xmlrpc_value* array = nullptr;
    int size = take_array(env, caller, self, answer, "list", list, &array);
    if (size < 0) return size;
    char** strings = static_cast<char**>(calloc(static_cast<std::size_t>(size) + 1, sizeof(char*)));
    if (!strings) return VANTREL_ENOMEM;
    *out = strings;
    return walk_elements(env, caller, self, array, size, store_string, strings);
}

int parse_custom_list(const char* caller, xmlrpc_env* env, xmlrpc_value* answer,
                      const char* key, vantrel_item_cb cb, void* ctx)
{
    return vantrel_parse_custom_list(caller, env, answer, key, cb, ctx);
}

int parse_simple_list_response(const char* caller, xmlrpc_env* env, xmlrpc_value* answer,
                               char*** out)
{
    return vantrel_parse_simple_list_response(caller, env, answer, out);
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
