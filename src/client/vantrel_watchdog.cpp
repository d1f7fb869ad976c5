// Supervisor client: request + call here, decoding in vantrel_watchdog_decode.cpp.
#include "vantrel_watchdog.h"

#include <cstdlib>
#include <cstring>

#include "vantrel_decode_wd.h"
#include "vantrel_internal.h"

using namespace vantrel;

namespace {

constexpr const char* m_get_status = "VantrelWatchdog.GetStatus";
constexpr const char* m_get_elements = "VantrelWatchdog.GetElements";
constexpr const char* m_get_apps = "VantrelWatchdog.GetApps";
constexpr const char* m_get_item = "VantrelWatchdog.GetItem";
constexpr const char* m_set_item = "VantrelWatchdog.SetItem";
constexpr const char* m_set_field = "VantrelWatchdog.SetField";
constexpr const char* m_get_std_buf = "VantrelWatchdog.GetStdXXXBuf";
constexpr const char* m_get_auth = "VantrelWatchdog.GetAuth";

// An answer that has only "ret" to say.
int ret_call(const char* fn, const char* url, const char* method, const char* format, ...)
{
    auto report = [&](const xmlrpc_env* env) { report_call_failed(env, fn, url, method); };
    auto decode = [&](xmlrpc_env* env, xmlrpc_value* answer) {
        return vantrel_watchdog_ret_decode(env, fn, answer);
    };
    va_list args;
    va_start(args, format);
    int result = call_then_va(report, decode, url, method, format, args);
    va_end(args);
    return result;
}

}  // namespace

int vantrel_watchdog_get_status(const char* url, vantrel_wd_listing* status)
{
    if (!status) return VANTREL_EINVAL;
    auto decode = [&](xmlrpc_env* env, xmlrpc_value* answer) {
        return vantrel_watchdog_status_decode(env, answer, status);
    };
    memset(status, 0, sizeof *status);
    return call_with("vantrel_watchdog_get_status", url, m_get_status, decode, "()");
}

int vantrel_watchdog_get_elements(const char* url, vantrel_wd_listing* elements)
{
    if (!elements) return VANTREL_EINVAL;
    auto decode = [&](xmlrpc_env* env, xmlrpc_value* answer) {
        return vantrel_watchdog_elements_decode(env, answer, elements);
    };
    memset(elements, 0, sizeof *elements);
    return call_with("vantrel_watchdog_get_elements", url, m_get_elements, decode, "()");
}

void vantrel_watchdog_listing_free(vantrel_wd_listing* listing)
{
    if (!listing) return;
    free(listing->apps);
    free(listing->elements);
    listing->apps = nullptr;
    listing->elements = nullptr;
    listing->count = 0;
}

int vantrel_watchdog_get_apps(const char* url, char*** names)
{
    if (!names) return VANTREL_EINVAL;
    *names = nullptr;
    auto decode = [&](xmlrpc_env* env, xmlrpc_value* answer) {
        return vantrel_watchdog_apps_decode(env, answer, names);
    };
    return call_with("vantrel_watchdog_get_apps", url, m_get_apps, decode, "()");
}

int vantrel_watchdog_get_item(const char* url, int idx, const char* ptr, vantrel_wd_item* item)
{
    if (!item) return VANTREL_EINVAL;
    memset(item, 0, sizeof *item);
    auto decode = [&](xmlrpc_env* env, xmlrpc_value* answer) {
        return vantrel_watchdog_item_decode(env, answer, item);
    };
    return call_with("vantrel_watchdog_get_item", url, m_get_item, decode, "(is)", idx,
                     or_empty(ptr));
}

int vantrel_watchdog_set_item(const char* url, int idx, const char* ptr,
                              const vantrel_wd_item* item)
{
    static const char* const fn = "vantrel_watchdog_set_item";
    if (!item) return VANTREL_EINVAL;
    xmlrpc_env_guard env;
    xmlrpc_value_ref raws(build_string_array(env.get(), -1, item->raws));
    xmlrpc_value_ref envs(build_string_array(env.get(), -1, item->envs));
    if (env.failed()) {
        report_call_failed(env.get(), fn, url, m_set_item);
        return VANTREL_EFAULT;
    }
    return ret_call(fn, url, m_set_item, "(isssssssAA)", idx, or_empty(ptr), item->id_name,
                    item->alias, item->thumb, item->config, item->bin_path, item->numa_bind,
                    raws.get(), envs.get());
}

void vantrel_watchdog_item_free(vantrel_wd_item* item)
{
    if (!item) return;
    vantrel_str_list_free(&item->raws);
    vantrel_str_list_free(&item->envs);
}

int vantrel_watchdog_set_field(const char* url, int idx, const char* ptr, const char* field,
                               const char* val)
{
    return ret_call("vantrel_watchdog_set_field", url, m_set_field, "(isss)", idx, or_empty(ptr),
                    or_empty(field), or_empty(val));
}

int vantrel_watchdog_get_std_buf(const char* url, int idx, const char* ptr, int64_t off,
                                 int file_no, vantrel_wd_output* output)
{
    if (!output) return VANTREL_EINVAL;
    memset(output, 0, sizeof *output);
    auto decode = [&](xmlrpc_env* env, xmlrpc_value* answer) {
        return vantrel_watchdog_std_buf_decode(env, answer, output);
    };
    return call_with("vantrel_watchdog_get_std_buf", url, m_get_std_buf, decode, "(isIi)", idx,
                     or_empty(ptr), xmlrpc_int64{off}, file_no);
}

void vantrel_watchdog_output_free(vantrel_wd_output* output)
{
    if (!output) return;
    free(output->data);
    output->data = nullptr;
    output->size = 0;
}

int vantrel_watchdog_get_auth(const char* url, const char* secret, const char* session,
                              char* session_out)
{
    if (session_out) session_out[0] = '\0';
    auto decode = [&](xmlrpc_env* env, xmlrpc_value* answer) {
        return vantrel_watchdog_auth_decode(env, answer, session_out);
    };
    return call_with("vantrel_watchdog_get_auth", url, m_get_auth, decode, "(ss)",
                     or_empty(secret), or_empty(session));
}
