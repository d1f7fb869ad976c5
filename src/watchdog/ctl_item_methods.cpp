// GetItem and SetItem: reading and replacing one application's configuration,
// or adding a new application.
#include "app_types.h"
#include "common/xmlrpc_raii.h"
#include "ctl.h"
#include "ctl_methods.h"
#include "ctl_reply.h"
#include "instance.h"
#include "log/log.h"

namespace {

// An array of the list's strings; the list holds no empty entries, so all of
// them are sent.
template <std::size_t Capacity>
xmlrpc_value* list_to_array(xmlrpc_env* env, const bounded_list<Capacity>& list)
{
    xmlrpc_value_ref array(xmlrpc_array_new(env));
    if (env->fault_occurred) return nullptr;
    for (const bounded_str& entry : list) {
        xmlrpc_value_ref item(xmlrpc_string_new(env, entry.c_str()));
        if (env->fault_occurred) return nullptr;
        xmlrpc_array_append_item(env, array.get(), item.get());
        if (env->fault_occurred) return nullptr;
    }
    return array.release();
}

// Copies the strings of `array` into `list`, which the caller has emptied.
// Entries beyond the list's capacity are dropped without a message, as the
// option reader drops them, so a request never fails merely for its length.
// An empty entry ends the list, as it does everywhere the list is read; the
// entries after it are still decoded so a malformed request is refused.
// False after logging the library's fault, which stays in `env`.
template <std::size_t Capacity>
bool array_to_list(xmlrpc_env* env, const char* method, xmlrpc_value* array, bounded_list<Capacity>& list)
{
    int size = xmlrpc_array_size(env, array);
    if (env->fault_occurred) {
        log_printf(LOG_ERROR, "%s: xmlrpc_array_size failed: %s (%d)", method, env->fault_string, env->fault_code);
        return false;
    }
    bool ended = false;
    for (int i = 0; i < size; i++) {
        xmlrpc_value_ref item;
        xmlrpc_array_read_item(env, array, i, item.out());
        if (env->fault_occurred) {
            log_printf(LOG_ERROR, "%s: xmlrpc_array_read_item failed: %s (%d)", method, env->fault_string,
                       env->fault_code);
            return false;
        }
        decoded_text text;
        xmlrpc_decompose_value(env, item.get(), "s", text.out());
        if (env->fault_occurred) {
            log_printf(LOG_ERROR, "%s: xmlrpc_decompose_value failed: %s (%d)", method, env->fault_string,
                       env->fault_code);
            return false;
        }
        decoded_adopt(text);
        if (*text.get() == '\0') ended = true;
        if (!ended) list.append(text.get());
    }
    return true;
}

}  // namespace

CTL_METHOD(GetItem)
{
    (void)call_info;
    static const char* const method = "ctl_method_GetItem";
    auto* inst = static_cast<instance*>(server_info);

    int idx = 0;
    decoded_text ptr;
    xmlrpc_decompose_value(env, params, "(is)", &idx, ptr.out());
    if (env->fault_occurred) return ctl_decode_failed(method, "'idx', 'ptr'");
    ptr.adopt();
    log_printf(LOG_TRACE, "%s: idx=%d, ptr=[%s]", method, idx, ptr.get());

    // A copy of the record's configuration, taken under the lock; the answer is
    // built from it after the lock is released.
    app record;
    int slot;
    {
        instance_lock_guard hold(inst);
        slot = ctl_app_resolve(inst, method, idx, ptr.get());
        if (slot < 0) return ctl_reply_ret(env, CTL_RET_NO_APP);
        const app& source = *inst->apps[slot];
        record.type = source.type;
        record.alias = source.alias;
        record.thumb = source.thumb;
        record.config = source.config;
        record.bin_path = source.bin_path;
        record.numa_bind = source.numa_bind;
        record.raws = source.raws;
        record.envs = source.envs;
    }

    xmlrpc_value_ref raws(list_to_array(env, record.raws));
    if (env->fault_occurred) return nullptr;
    xmlrpc_value_ref envs(list_to_array(env, record.envs));
    if (env->fault_occurred) return nullptr;
    const char* type_name = record.type >= 0 && record.type < APP_TYPES_CNT ? app_types[record.type].name : "";
    return xmlrpc_build_value(env, "{s:i,s:s,s:i,s:s,s:s,s:s,s:s,s:s,s:s,s:A,s:A}",
                              "ret", slot,
                              "ptr", ptr.get(),
                              "id", record.type,
                              "id_name", type_name,
                              "alias", record.alias.c_str(),
                              "thumb", record.thumb.c_str(),
                              "config", record.config.c_str(),
                              "bin_path", record.bin_path.c_str(),
                              "numa_bind", record.numa_bind.c_str(),
                              "raws", raws.get(),
                              "envs", envs.get());
}

CTL_METHOD(SetItem)
{
    (void)call_info;
    static const char* const method = "ctl_method_SetItem";
    auto* inst = static_cast<instance*>(server_info);

    int idx = 0;
    decoded_text ptr, type_name, alias, thumb, config, bin_path, numa_bind;
    decoded_value raws, envs;
    xmlrpc_decompose_value(env, params, "(isssssssAA*)", &idx, ptr.out(), type_name.out(), alias.out(),
                           thumb.out(), config.out(), bin_path.out(), numa_bind.out(), raws.out(), envs.out());
    if (env->fault_occurred) {
        // The line number is part of the message that operators grep for.
        log_printf(LOG_ERROR, "%s:%d: xmlrpc_decompose_value(): %s (%d)", method, 23, env->fault_string,
                   env->fault_code);
        return nullptr;
    }
    decoded_adopt(ptr, type_name, alias, thumb, config, bin_path, numa_bind, raws, envs);
    log_printf(LOG_TRACE, "%s: idx=%d, ptr=[%s], alias=[%s], config=[%s], bin_path=[%s], thumb=[%s], numa_bind=[%s]",
               method, idx, ptr.get(), alias.get(), config.get(), bin_path.get(), thumb.get(), numa_bind.get());

    instance_lock_guard hold(inst);
    app* record = nullptr;
    if (idx < 0 && ctl_handle_parse(ptr.get()) == 0) {
        // No handle is 0, so such a request asks for a new application.
        if (inst->cnt >= APPS_MAX) {
            log_printf(LOG_ERROR, "%s: instance->apps.cnt=%d is maximal", method, inst->cnt);
            return ctl_reply_ret(env, CTL_RET_FULL);
        }
        record = app_new();
        if (!record) {
            log_printf(LOG_ERROR, "%s: out of memory for a new application", method);
            return ctl_reply_ret(env, -ENOMEM);
        }
        instance_slot_append(inst, record);   // raises cnt and amend
        inst->last_app = record;
    } else {
        int slot = ctl_app_resolve(inst, method, idx, ptr.get());
        if (slot < 0) return ctl_reply_ret(env, CTL_RET_NO_APP);
        record = inst->apps[slot];
    }

    // A slot added above stays, of type "none", when the type is refused: the
    // client sees it in listings and may delete it.
    int type = instance_apps_lookup(type_name.get());
    if (type < 1) {
        log_printf(LOG_ERROR, "%s: instance_apps_lookup(%s) failed", method, type_name.get());
        return ctl_reply_ret(env, CTL_RET_UNKNOWN);
    }

    record->type = type;
    str_copy(record->config, config.get());
    str_copy(record->alias, alias.get());
    str_copy(record->thumb, thumb.get());
    str_copy(record->bin_path, bin_path.get());
    str_copy(record->numa_bind, numa_bind.get());
    record->envs.clear();
    record->raws.clear();
    // A list failure keeps what was stored so far and still counts as a change,
    // so the option file follows the record; the caller gets the library's fault.
    bool lists_read = array_to_list(env, method, envs.get(), record->envs) &&
                      array_to_list(env, method, raws.get(), record->raws);
    record->amend++;
    inst->amend++;
    if (!lists_read) return nullptr;
    return ctl_reply_ret(env, CTL_RET_OK);
}
