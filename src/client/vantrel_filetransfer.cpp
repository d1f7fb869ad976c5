// File transfer and transcoder clients: request + call here, decoding in the
// *_decode functions.
#include "vantrel_filetransfer.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "vantrel_decode_ft.h"
#include "vantrel_internal.h"

using namespace vantrel;

namespace {

constexpr const char* m_ft_request_del = "VantrelFileTransfer.RequestDel";
constexpr const char* m_ft_request_cancel = "VantrelFileTransfer.RequestCancel";
constexpr const char* m_ft_request_restart = "VantrelFileTransfer.RequestRestart";
constexpr const char* m_ft_request_add = "VantrelFileTransfer.RequestAdd";
constexpr const char* m_ft_probe = "VantrelFileTransfer.ProbeRemote";
constexpr const char* m_ft_targets_list = "VantrelFileTransfer.TargetsList";
constexpr const char* m_ft_requests_list = "VantrelFileTransfer.RequestsList";
constexpr const char* m_ft_request_get = "VantrelFileTransfer.RequestGet";
constexpr const char* m_ft_list = "VantrelFileTransfer.ListRemote";
constexpr const char* m_ftc_request_del = "VantrelFileTranscoder.RequestDel";
constexpr const char* m_ftc_request_cancel = "VantrelFileTranscoder.RequestCancel";
constexpr const char* m_ftc_request_restart = "VantrelFileTranscoder.RequestRestart";
constexpr const char* m_ftc_request_add = "VantrelFileTranscoder.RequestAdd";
constexpr const char* m_ftc_requests_list = "VantrelFileTranscoder.RequestsList";

constexpr std::size_t text_size = VANTREL_STR_SIZE;

// Writes at most `capacity` records into the caller's array. A bad element
// ends the walk with -14; records before it stay written, as the array is
// the caller's and nothing was allocated for it.
template <typename T>
int decode_records(xmlrpc_env* env, xmlrpc_value* answer, const char* fn, const char* method,
                   int capacity, T* records, int (*decompose)(xmlrpc_env*, xmlrpc_value*, T*))
{
    decoded_value array;
    int size = 0;
    int result = result_and_list(env, fn, method, answer, array, &size);
    if (result < 0) return result;
    if (!records) capacity = 0;
    int count = size < capacity ? size : capacity;
    int rc = for_each_element(env, fn, array.get(), count, [&](xmlrpc_value* element, int i) {
        if (decompose(env, element, &records[i]) == 0) return 0;
        report_decompose_failed(env, fn);
        return VANTREL_EFAULT;
    });
    return rc < 0 ? rc : count;
}

int fail_without_item(xmlrpc_env* env, xmlrpc_value* item)
{
    if (item) return 0;
    xmlrpc_env_set_fault(env, XMLRPC_TYPE_ERROR, "no item value");
    return VANTREL_EFAULT;
}

}  // namespace

int vantrel_ft_target_decompose(xmlrpc_env* env, xmlrpc_value* item, vantrel_ft_target* out)
{
    if (fail_without_item(env, item) < 0) return VANTREL_EFAULT;
    decoded_text id, type, title, host, port, path, login, passw;
    xmlrpc_decompose_value(env, item, "{s:s,s:s,s:s,s:s,s:s,s:s,s:s,s:s,*}", "id", id.out(),
                           "type", type.out(), "title", title.out(), "host", host.out(), "port",
                           port.out(), "path", path.out(), "login", login.out(), "passw",
                           passw.out());
    if (env->fault_occurred) return VANTREL_EFAULT;
    decoded_adopt(id, type, title, host, port, path, login, passw);
    str_copy(out->id, id.get(), text_size);
    str_copy(out->type, type.get(), text_size);
    str_copy(out->title, title.get(), text_size);
    str_copy(out->host, host.get(), text_size);
    str_copy(out->port, port.get(), text_size);
    str_copy(out->path, path.get(), text_size);
    str_copy(out->login, login.get(), text_size);
    str_copy(out->passw, passw.get(), text_size);
    return 0;
}

int vantrel_ft_request_decompose(xmlrpc_env* env, xmlrpc_value* item, vantrel_ft_request* out)
{
    if (fail_without_item(env, item) < 0) return VANTREL_EFAULT;
    int id = 0, f_delete = 0, f_import = 0, progress = 0, state = 0;
    xmlrpc_int64 updated = 0, created = 0;
    decoded_text target, object_local, object_remote, error;
    xmlrpc_decompose_value(env, item, "{s:i,s:s,s:i,s:i,s:s,s:s,s:i,s:i,s:s,s:I,s:I,*}", "id", &id,
                           "target", target.out(), "f_delete", &f_delete, "f_import", &f_import,
                           "object_local", object_local.out(), "object_remote",
                           object_remote.out(), "progress", &progress, "state", &state, "error",
                           error.out(), "updated", &updated, "created", &created);
    if (env->fault_occurred) return VANTREL_EFAULT;
    decoded_adopt(target, object_local, object_remote, error);
    out->id = id;
    str_copy(out->target, target.get(), text_size);
    out->f_import = f_import;
    out->f_delete = f_delete;
    str_copy(out->object_local, object_local.get(), text_size);
    str_copy(out->object_remote, object_remote.get(), text_size);
    out->progress = progress;
    out->state = state;
    str_copy(out->error, error.get(), text_size);
    out->updated = updated;
    out->created = created;
    return 0;
}

int vantrel_ftc_request_decompose(xmlrpc_env* env, xmlrpc_value* item, vantrel_ftc_request* out)
{
    if (fail_without_item(env, item) < 0) return VANTREL_EFAULT;
    int id = 0, f_delete = 0, progress = 0, state = 0, audio_conf = 0;
    xmlrpc_int64 updated = 0, created = 0;
    decoded_text src_object, src_local, dst_object, dst_local, in, dur, factory, profile, error;
    decoded_text audio_map, timecode, osd;
    xmlrpc_decompose_value(
        env, item, "{s:i,s:I,s:I,s:i,s:s,s:s,s:s,s:s,s:s,s:s,s:s,s:s,s:i,s:i,s:s,*}", "id", &id,
        "updated", &updated, "created", &created, "f_delete", &f_delete, "src_object",
        src_object.out(), "src_local", src_local.out(), "dst_object", dst_object.out(),
        "dst_local", dst_local.out(), "in", in.out(), "dur", dur.out(), "factory", factory.out(),
        "profile", profile.out(), "progress", &progress, "state", &state, "error", error.out());
    if (env->fault_occurred) return VANTREL_EFAULT;
    // Ours from here, whatever the second decomposition does.
    decoded_adopt(src_object, src_local, dst_object, dst_local, in, dur, factory, profile, error);
    xmlrpc_decompose_value(env, item, "{s:s,s:i,s:s,s:s,*}", "audio_map", audio_map.out(),
                           "audio_conf", &audio_conf, "timecode", timecode.out(), "osd",
                           osd.out());
    if (env->fault_occurred) return VANTREL_EFAULT;
    decoded_adopt(audio_map, timecode, osd);
    out->id = id;
    out->updated = updated;
    out->created = created;
    out->f_delete = f_delete;
    str_copy(out->src_object, src_object.get(), text_size);
    str_copy(out->src_local, src_local.get(), text_size);
    str_copy(out->dst_object, dst_object.get(), text_size);
    str_copy(out->dst_local, dst_local.get(), text_size);
    str_copy(out->in, in.get(), text_size);
    str_copy(out->dur, dur.get(), text_size);
    str_copy(out->factory, factory.get(), text_size);
    str_copy(out->profile, profile.get(), text_size);
    str_copy(out->audio_map, audio_map.get(), text_size);
    out->audio_conf = audio_conf;
    out->progress = progress;
    out->state = state;
    str_copy(out->error, error.get(), text_size);
    str_copy(out->timecode, timecode.get(), text_size);
    str_copy(out->osd, osd.get(), text_size);
    return 0;
}

int vantrel_filetransfer_targets_list_decode(xmlrpc_env* env, xmlrpc_value* answer, int capacity,
                                             vantrel_ft_target* targets)
{
    return decode_records(env, answer, "vantrel_filetransfer_targets_list", m_ft_targets_list,
                          capacity, targets, vantrel_ft_target_decompose);
}

int vantrel_filetransfer_requests_list_decode(xmlrpc_env* env, xmlrpc_value* answer,
                                              int capacity, vantrel_ft_request* requests)
{
    return decode_records(env, answer, "vantrel_filetransfer_requests_list", m_ft_requests_list,
                          capacity, requests, vantrel_ft_request_decompose);
}

int vantrel_filetranscoder_requests_list_decode(xmlrpc_env* env, xmlrpc_value* answer,
                                                int capacity, vantrel_ftc_request* requests)
{
    return decode_records(env, answer, "vantrel_filetranscoder_requests_list", m_ftc_requests_list,
                          capacity, requests, vantrel_ftc_request_decompose);
}

int vantrel_filetransfer_request_get_decode(xmlrpc_env* env, xmlrpc_value* answer,
                                            vantrel_ft_request* request)
{
    static const char* const fn = "vantrel_filetransfer_request_get";
    int result = decode_result(env, fn, m_ft_request_get, answer);
    if (env->fault_occurred) return VANTREL_EFAULT;
    if (result < 0) {
        report_return(fn, m_ft_request_get, result);
        return result;
    }
    decoded_value item;
    xmlrpc_decompose_value(env, answer, "{s:S,*}", "item", item.out());
    if (env->fault_occurred) {
        fprintf(stderr, "%s: decompose value failed: %s (%d) [%s:%d]", fn, fault_text(env),
                env->fault_code, source_path, __LINE__);
        return VANTREL_EFAULT;
    }
    decoded_adopt(item);
    vantrel_ft_request scratch;
    if (vantrel_ft_request_decompose(env, item.get(), request ? request : &scratch) < 0) {
        report_decompose_failed(env, fn);
        return VANTREL_EFAULT;
    }
    return result;
}

namespace {

struct remote_walk {
    char*** list;
    bool failed = false;
};

int vantrel_filetransfer_list_iter(xmlrpc_env* env, xmlrpc_value* item, void* ctx, int, int)
{
    auto* walk = static_cast<remote_walk*>(ctx);
    decoded_text name;
    xmlrpc_decompose_value(env, item, "s", name.out());
    if (env->fault_occurred) {
        // Reported and skipped: the walker goes on with the next name.
        fprintf(stderr, "%s: xmlrpc_array_read_item failed: %s (%d)",
                "vantrel_filetransfer_list_iter", fault_text(env), env->fault_code);
        return VANTREL_EFAULT;
    }
    decoded_adopt(name);
    char* copy = strdup(name.get());
    int count = copy ? vantrel_str_list_append(walk->list, copy) : VANTREL_ENOMEM;
    if (count < 0) {
        free(copy);
        walk->failed = true;
        xmlrpc_env_set_fault(env, XMLRPC_INTERNAL_ERROR, "out of memory");
    }
    return count;
}

// Drops the entries appended after the first `keep`.
void truncate_list(char** list, int keep)
{
    if (!list) return;
    for (int i = keep; list[i]; ++i) {
        free(list[i]);
        list[i] = nullptr;
    }
}

}  // namespace

int vantrel_filetransfer_list_decode(xmlrpc_env* env, xmlrpc_value* answer, char*** list)
{
    static const char* const fn = "vantrel_filetransfer_list";
    if (!list) return VANTREL_EINVAL;
    if (!*list) {
        *list = vantrel_str_list_new();
        if (!*list) return VANTREL_ENOMEM;
    }
    const int before = vantrel_str_list_count(*list);
    decode_result(env, fn, m_ft_list, answer);
    if (env->fault_occurred) return VANTREL_EFAULT;
    remote_walk walk{list};
    int count = parse_custom_list(fn, env, answer, "list", vantrel_filetransfer_list_iter, &walk);
    // A bad name is skipped and the count says how many arrived; only running
    // out of memory takes back what this call appended.
    if (count < 0 || walk.failed) {
        truncate_list(*list, before);
        return VANTREL_EFAULT;
    }
    return count;
}

// ---- calls ----

int vantrel_filetransfer_request_del(const char* url, int id)
{
    return std_call("vantrel_filetransfer_request_del", url, m_ft_request_del, "(i)", id);
}

int vantrel_filetransfer_request_cancel(const char* url, int id)
{
    return std_call("vantrel_filetransfer_request_cancel", url, m_ft_request_cancel,
                    "(i)", id);
}

int vantrel_filetransfer_request_restart(const char* url, int id)
{
    return std_call("vantrel_filetransfer_request_restart", url, m_ft_request_restart,
                    "(i)", id);
}

int vantrel_filetransfer_request_add(const char* url, const vantrel_ft_request* request)
{
    if (!request) return VANTREL_EINVAL;
    const vantrel_ft_request& r = *request;
    return std_call("vantrel_filetransfer_request_add", url, m_ft_request_add, "(siiss)",
                    r.target, int{r.f_import}, int{r.f_delete}, r.object_local,
                    r.object_remote);
}

int vantrel_filetransfer_probe(const char* url, const char* target, const char* location)
{
    return std_call("vantrel_filetransfer_probe", url, m_ft_probe, "(ss)",
                    or_empty(target), or_empty(location));
}

int vantrel_filetranscoder_request_del(const char* url, int id)
{
    return std_call("vantrel_filetranscoder_request_del", url, m_ftc_request_del, "(i)",
                    id);
}

int vantrel_filetranscoder_request_cancel(const char* url, int id)
{
    return std_call("vantrel_filetranscoder_request_cancel", url, m_ftc_request_cancel,
                    "(i)", id);
}

int vantrel_filetranscoder_request_restart(const char* url, int id)
{
    return std_call("vantrel_filetranscoder_request_restart", url,
                    m_ftc_request_restart, "(i)", id);
}

int vantrel_filetranscoder_request_add(const char* url, const vantrel_ftc_request* request)
{
    if (!request) return VANTREL_EINVAL;
    const vantrel_ftc_request& r = *request;
    return std_call("vantrel_filetranscoder_request_add", url, m_ftc_request_add,
                    "(ssssssisiss)", r.src_object, r.in, r.dur, r.dst_object, r.factory,
                    r.profile, int{r.f_delete}, r.audio_map, int{r.audio_conf},
                    r.timecode, r.osd);
}

int vantrel_filetransfer_targets_list(const char* url, int arg, int capacity,
                                      vantrel_ft_target* targets)
{
    auto decode = [&](xmlrpc_env* env, xmlrpc_value* answer) {
        return vantrel_filetransfer_targets_list_decode(env, answer, capacity, targets);
    };
    return call_with("vantrel_filetransfer_targets_list", url, m_ft_targets_list, decode,
                     "(ii)", arg, capacity);
}

int vantrel_filetransfer_requests_list(const char* url, int arg1, int arg2, int capacity,
                                       vantrel_ft_request* requests)
{
    auto decode = [&](xmlrpc_env* env, xmlrpc_value* answer) {
        return vantrel_filetransfer_requests_list_decode(env, answer, capacity, requests);
    };
    return call_with("vantrel_filetransfer_requests_list", url, m_ft_requests_list,
                     decode, "(iii)", arg1, arg2, capacity);
}

int vantrel_filetransfer_request_get(const char* url, int id, vantrel_ft_request* request)
{
    auto decode = [&](xmlrpc_env* env, xmlrpc_value* answer) {
        return vantrel_filetransfer_request_get_decode(env, answer, request);
    };
    return call_with("vantrel_filetransfer_request_get", url, m_ft_request_get, decode,
                     "(i)", id);
}

int vantrel_filetransfer_list(const char* url, const char* target, const char* location,
                              char*** list)
{
    if (!list) return VANTREL_EINVAL;
    if (!*list) {
        *list = vantrel_str_list_new();
        if (!*list) return VANTREL_ENOMEM;
    }
    auto decode = [&](xmlrpc_env* env, xmlrpc_value* answer) {
        return vantrel_filetransfer_list_decode(env, answer, list);
    };
    return call_with("vantrel_filetransfer_list", url, m_ft_list, decode, "(ss)",
                     or_empty(target), or_empty(location));
}

int vantrel_filetranscoder_requests_list(const char* url, int arg1, int arg2, int capacity,
                                         vantrel_ftc_request* requests)
{
    auto decode = [&](xmlrpc_env* env, xmlrpc_value* answer) {
        return vantrel_filetranscoder_requests_list_decode(env, answer, capacity, requests);
    };
    return call_with("vantrel_filetranscoder_requests_list", url, m_ftc_requests_list,
                     decode, "(iii)", arg1, arg2, capacity);
}
