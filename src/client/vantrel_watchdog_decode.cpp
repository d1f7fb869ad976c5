// Answer decoders of the supervisor client.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "vantrel_decode_wd.h"
#include "vantrel_internal.h"

using namespace vantrel;

namespace {

// A supervisor holds at most this many slots; a longer listing is not one.
constexpr int apps_max = 1024;

void report_decode_failed(const xmlrpc_env* env, const char* fn, int line)
{
    fprintf(stderr, "%s: decompose value failed: %s (%d) [%s:%d]\n", fn, fault_text(env),
            env->fault_code, source_path, line);
}

bool no_answer(xmlrpc_env* env, xmlrpc_value* answer)
{
    if (!answer) xmlrpc_env_set_fault(env, XMLRPC_TYPE_ERROR, "no answer value");
    return env->fault_occurred;
}

// A handle longer than its field would be cut into another application's.
bool handle_fits(xmlrpc_env* env, const char* ptr)
{
    if (strlen(ptr) < VANTREL_WD_PTR_SIZE) return true;
    xmlrpc_env_set_fault(env, XMLRPC_LIMIT_EXCEEDED_ERROR, "handle text too long");
    return false;
}

int decode_app(xmlrpc_env* env, xmlrpc_value* entry, vantrel_wd_app* app)
{
    xmlrpc_int64 amend = 0, started = 0, terminated = 0;
    int pid = 0, autorun = 0, respawn = 0;
    decoded_text ptr, err, alias, thumb, app_name;
    xmlrpc_decompose_value(env, entry, "{s:I,s:s,s:i,s:I,s:I,s:i,s:i,s:s,s:s,s:s,s:s,*}", "amend",
                           &amend, "ptr", ptr.out(), "pid", &pid, "started", &started,
                           "terminated", &terminated, "f_autorun", &autorun, "f_respawn",
                           &respawn, "err", err.out(), "alias", alias.out(), "thumb", thumb.out(),
                           "app_name", app_name.out());
    if (env->fault_occurred) return VANTREL_EFAULT;
    decoded_adopt(ptr, err, alias, thumb, app_name);
    if (!handle_fits(env, ptr.get())) return VANTREL_EFAULT;
    app->amend = amend;
    str_copy(app->ptr, ptr.get(), sizeof app->ptr);
    app->pid = pid;
    app->started = started;
    app->terminated = terminated;
    app->f_autorun = autorun;
    app->f_respawn = respawn;
    str_copy(app->err, err.get(), sizeof app->err);
    str_copy(app->alias, alias.get(), sizeof app->alias);
    str_copy(app->thumb, thumb.get(), sizeof app->thumb);
    str_copy(app->app_name, app_name.get(), sizeof app->app_name);
    return 0;
}

int decode_element(xmlrpc_env* env, xmlrpc_value* entry, vantrel_wd_element* element)
{
    int id = 0, port = 0;
    decoded_text alias, thumb, app_name;
    xmlrpc_decompose_value(env, entry, "{s:i,s:i,s:s,s:s,s:s,*}", "id", &id, "port", &port,
                           "alias", alias.out(), "thumb", thumb.out(), "app_name",
                           app_name.out());
    if (env->fault_occurred) return VANTREL_EFAULT;
    decoded_adopt(alias, thumb, app_name);
    element->id = id;
    element->port = port;
    str_copy(element->alias, alias.get(), sizeof element->alias);
    str_copy(element->thumb, thumb.get(), sizeof element->thumb);
    str_copy(element->app_name, app_name.get(), sizeof element->app_name);
    return 0;
}

// The outer struct of GetStatus and GetElements; every entry goes through
// `decode` into one block of records, which is kept only when all decode.
template <typename T, typename Decode>
int decode_listing(xmlrpc_env* env, const char* fn, xmlrpc_value* answer,
                   vantrel_wd_listing* listing, T** records, Decode decode)
{
    xmlrpc_int64 amend = 0;
    decoded_value list;
    decoded_text version, instance_name;
    if (!no_answer(env, answer))
        xmlrpc_decompose_value(env, answer, "{s:I,s:A,s:s,s:s,*}", "amend", &amend, "list",
                               list.out(), "version", version.out(), "instance_name",
                               instance_name.out());
    if (env->fault_occurred) {
        report_decode_failed(env, fn, __LINE__);
        return VANTREL_EFAULT;
    }
    decoded_adopt(list, version, instance_name);
    int size = array_size(env, fn, list.get());
    if (size < 0) return size;
    if (size > apps_max) {
        fprintf(stderr, "%s: %d entries, more than a supervisor holds\n", fn, size);
        return VANTREL_EFAULT;
    }
    owned<T> block(static_cast<T*>(calloc(static_cast<std::size_t>(size) + 1, sizeof(T))));
    if (!block) return VANTREL_ENOMEM;
    int rc = for_each_element(env, fn, list.get(), size, [&](xmlrpc_value* entry, int i) {
        if (decode(env, entry, &block.get()[i]) == 0) return 0;
        report_decode_failed(env, fn, __LINE__);
        return VANTREL_EFAULT;
    });
    if (rc < 0) return rc;
    listing->amend = amend;
    str_copy(listing->version, version.get(), sizeof listing->version);
    str_copy(listing->instance_name, instance_name.get(), sizeof listing->instance_name);
    listing->count = size;
    *records = block.release();
    return size;
}

// A string array into a new string list; -14 or -12 on failure.
int decode_strings(xmlrpc_env* env, const char* fn, xmlrpc_value* array, char*** out)
{
    int size = array_size(env, fn, array);
    if (size < 0) return size;
    char** strings = vantrel_str_list_new();
    if (!strings) return VANTREL_ENOMEM;
    *out = strings;
    return for_each_element(env, fn, array, size, [&](xmlrpc_value* element, int) {
        decoded_text text;
        xmlrpc_decompose_value(env, element, "s", text.out());
        if (env->fault_occurred) {
            report_decompose_failed(env, fn);
            return VANTREL_EFAULT;
        }
        decoded_adopt(text);
        char* copy = strdup(text.get());
        if (!copy || vantrel_str_list_append(out, copy) < 0) {
            free(copy);
            return VANTREL_ENOMEM;
        }
        return 0;
    });
}

}  // namespace

int vantrel_watchdog_ret_decode(xmlrpc_env* env, const char* fn, xmlrpc_value* answer)
{
    int ret = 0;
    if (!no_answer(env, answer)) xmlrpc_decompose_value(env, answer, "{s:i,*}", "ret", &ret);
    if (env->fault_occurred) {
        report_decode_failed(env, fn, __LINE__);
        return VANTREL_EFAULT;
    }
    return ret;
}

int vantrel_watchdog_status_decode(xmlrpc_env* env, xmlrpc_value* answer,
                                   vantrel_wd_listing* status)
{
    if (!status) return VANTREL_EINVAL;
    memset(status, 0, sizeof *status);
    return decode_listing(env, "vantrel_watchdog_get_status", answer, status, &status->apps,
                          decode_app);
}

int vantrel_watchdog_elements_decode(xmlrpc_env* env, xmlrpc_value* answer,
                                     vantrel_wd_listing* elements)
{
    if (!elements) return VANTREL_EINVAL;
    memset(elements, 0, sizeof *elements);
    return decode_listing(env, "vantrel_watchdog_get_elements", answer, elements,
                          &elements->elements, decode_element);
}

int vantrel_watchdog_apps_decode(xmlrpc_env* env, xmlrpc_value* answer, char*** names)
{
    static const char* const fn = "vantrel_watchdog_get_apps";
    if (!names) return VANTREL_EINVAL;
    *names = nullptr;
    decoded_value apps;
    if (!no_answer(env, answer)) xmlrpc_decompose_value(env, answer, "{s:A,*}", "apps", apps.out());
    if (env->fault_occurred) {
        report_decode_failed(env, fn, __LINE__);
        return VANTREL_EFAULT;
    }
    decoded_adopt(apps);
    int rc = decode_strings(env, fn, apps.get(), names);
    if (rc < 0) {
        vantrel_str_list_free(names);
        return rc;
    }
    return vantrel_str_list_count(*names);
}

int vantrel_watchdog_item_decode(xmlrpc_env* env, xmlrpc_value* answer, vantrel_wd_item* item)
{
    static const char* const fn = "vantrel_watchdog_get_item";
    if (!item) return VANTREL_EINVAL;
    memset(item, 0, sizeof *item);
    int ret = vantrel_watchdog_ret_decode(env, fn, answer);
    if (ret < 0) return ret;
    int id = 0;
    decoded_text ptr, id_name, alias, thumb, config, bin_path, numa_bind;
    decoded_value raws, envs;
    xmlrpc_decompose_value(env, answer, "{s:s,s:i,s:s,s:s,s:s,s:s,s:s,s:s,s:A,s:A,*}", "ptr",
                           ptr.out(), "id", &id, "id_name", id_name.out(), "alias", alias.out(),
                           "thumb", thumb.out(), "config", config.out(), "bin_path",
                           bin_path.out(), "numa_bind", numa_bind.out(), "raws", raws.out(),
                           "envs", envs.out());
    if (env->fault_occurred) {
        report_decode_failed(env, fn, __LINE__);
        return VANTREL_EFAULT;
    }
    decoded_adopt(ptr, id_name, alias, thumb, config, bin_path, numa_bind, raws, envs);
    int rc = decode_strings(env, fn, raws.get(), &item->raws);
    if (rc == 0) rc = decode_strings(env, fn, envs.get(), &item->envs);
    if (rc < 0) {
        vantrel_watchdog_item_free(item);
        return rc;
    }
    str_copy(item->ptr, ptr.get(), sizeof item->ptr);
    item->id = id;
    str_copy(item->id_name, id_name.get(), sizeof item->id_name);
    str_copy(item->alias, alias.get(), sizeof item->alias);
    str_copy(item->thumb, thumb.get(), sizeof item->thumb);
    str_copy(item->config, config.get(), sizeof item->config);
    str_copy(item->bin_path, bin_path.get(), sizeof item->bin_path);
    str_copy(item->numa_bind, numa_bind.get(), sizeof item->numa_bind);
    return ret;
}

int vantrel_watchdog_std_buf_decode(xmlrpc_env* env, xmlrpc_value* answer,
                                    vantrel_wd_output* output)
{
    static const char* const fn = "vantrel_watchdog_get_std_buf";
    if (!output) return VANTREL_EINVAL;
    memset(output, 0, sizeof *output);
    int ret = vantrel_watchdog_ret_decode(env, fn, answer);
    if (ret < 0) return ret;
    xmlrpc_int64 off = 0, head = 0, tail = 0;
    int file_no = 0;
    decoded_text ptr, bytes;
    size_t size = 0;
    xmlrpc_decompose_value(env, answer, "{s:s,s:I,s:I,s:I,s:i,s:6,*}", "ptr", ptr.out(), "off",
                           &off, "head", &head, "tail", &tail, "file_no", &file_no, "buf",
                           reinterpret_cast<const unsigned char**>(bytes.out()), &size);
    if (env->fault_occurred) {
        report_decode_failed(env, fn, __LINE__);
        return VANTREL_EFAULT;
    }
    decoded_adopt(ptr, bytes);
    if (size > UINT32_MAX) {
        fprintf(stderr, "%s: %zu bytes, more than a reply holds\n", fn, size);
        return VANTREL_EFAULT;
    }
    if (size > 0) {
        output->data = static_cast<unsigned char*>(malloc(size));
        if (!output->data) return VANTREL_ENOMEM;
        memcpy(output->data, bytes.get(), size);
    }
    output->size = static_cast<uint32_t>(size);
    output->off = off;
    output->head = head;
    output->tail = tail;
    output->file_no = file_no;
    return ret;
}

int vantrel_watchdog_auth_decode(xmlrpc_env* env, xmlrpc_value* answer, char* session_out)
{
    static const char* const fn = "vantrel_watchdog_get_auth";
    if (session_out) session_out[0] = '\0';
    int ret = 0;
    decoded_text session;
    if (!no_answer(env, answer))
        xmlrpc_decompose_value(env, answer, "{s:i,s:s,*}", "ret", &ret, "session", session.out());
    if (env->fault_occurred) {
        report_decode_failed(env, fn, __LINE__);
        return VANTREL_EFAULT;
    }
    decoded_adopt(session);
    if (session_out) str_copy(session_out, session.get(), VANTREL_STR_SIZE);
    return ret;
}
