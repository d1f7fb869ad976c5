// GetStatus, GetElements, GetApps: read-only listings, built whole under the
// lock so that each is a consistent picture of one moment.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "app_types.h"
#include "banner.h"
#include "common/xmlrpc_raii.h"
#include "ctl_methods.h"
#include "ctl_status.h"
#include "instance.h"

namespace {

struct element_port {
    int type;
    int default_port;
};

// The processing elements that GetElements reports, with the control port used
// when no raw line names one. DeckLink, NDI and JPEG outputs are left out on
// purpose: they have no control port of their own.
constexpr element_port element_default_ports[] = {
    {20, 31001}, {21, 36001}, {22, 0},     {23, 0},     {28, 34001}, {29, 0},     {30, 37001},
    {31, 0},     {32, 35001}, {33, 32001}, {34, 38001}, {36, 39001}, {37, 39101}, {38, 39201},
    {39, 39301}, {41, 39501}, {42, 39401}, {44, 39601}, {45, 39701},
};

const char* type_name(int type)
{
    return type >= 0 && type < APP_TYPES_CNT ? app_types[type].name : app_types[APP_TYPE_NONE].name;
}

int64_t seconds_since(int64_t now, int64_t then) { return then ? now - then : 0; }

// The outer struct shared by GetStatus and GetElements.
xmlrpc_value* build_listing(xmlrpc_env* env, const instance* inst, xmlrpc_value* list)
{
    return xmlrpc_build_value(env, "{s:I,s:A,s:s,s:s}", "amend", static_cast<xmlrpc_int64>(inst->amend),
                              "list", list, "version", watchdog_version(), "instance_name",
                              inst->instance_name.c_str());
}

// Appends `item` (built by the caller) to `list`; false with a fault in `env`.
bool append_item(xmlrpc_env* env, xmlrpc_value* list, xmlrpc_value* item)
{
    if (env->fault_occurred) return false;
    xmlrpc_value_ref owned(item);
    xmlrpc_array_append_item(env, list, item);
    return !env->fault_occurred;
}

}  // namespace

int ctl_element_default_port(int type)
{
    for (const element_port& e : element_default_ports)
        if (e.type == type) return e.default_port;
    return -1;
}

int ctl_element_port(const app& record)
{
    int fallback = ctl_element_default_port(record.type);
    if (fallback < 0) return -1;
    const char* marker = record.type == APP_TYPE_ELEM_FLASH ? "--xmlrpc-port=" : "--port=";
    std::size_t marker_len = strlen(marker);
    for (const bounded_str& raw : record.raws) {
        if (strncmp(raw.c_str(), marker, marker_len) != 0) continue;
        // A leading-number conversion, cut to 32 bits as the element reads it.
        int port = static_cast<int>(static_cast<uint32_t>(strtoll(raw.c_str() + marker_len, nullptr, 10)));
        if (port != 0) return port;
    }
    return fallback;
}

CTL_METHOD(GetStatus)
{
    (void)params;
    (void)call_info;
    instance* inst = static_cast<instance*>(server_info);
    // The clock is read before waiting for the lock, so a slow lock does not
    // inflate the reported run times.
    int64_t now = time(nullptr);

    instance_lock_guard hold(inst);
    xmlrpc_value_ref list(xmlrpc_array_new(env));
    if (env->fault_occurred) return nullptr;
    for (int i = 0; i < inst->cnt; i++) {
        const app* a = inst->apps[i];
        char ptr[64];
        snprintf(ptr, sizeof ptr, "%lx", static_cast<unsigned long>(a->handle));
        xmlrpc_value* item = xmlrpc_build_value(
            env, "{s:I,s:s,s:i,s:I,s:I,s:i,s:i,s:s,s:s,s:s,s:s}", "amend", static_cast<xmlrpc_int64>(a->amend),
            "ptr", ptr, "pid", a->pid, "started", static_cast<xmlrpc_int64>(seconds_since(now, a->started)),
            "terminated", static_cast<xmlrpc_int64>(seconds_since(now, a->t_term)), "f_autorun", a->f_autorun,
            "f_respawn", a->f_respawn, "err", a->err.c_str(), "alias", a->alias.c_str(), "thumb",
            a->thumb.c_str(), "app_name", type_name(a->type));
        if (!append_item(env, list.get(), item)) return nullptr;
    }
    return build_listing(env, inst, list.get());
}

CTL_METHOD(GetElements)
{
    (void)params;
    (void)call_info;
    instance* inst = static_cast<instance*>(server_info);

    instance_lock_guard hold(inst);
    xmlrpc_value_ref list(xmlrpc_array_new(env));
    if (env->fault_occurred) return nullptr;
    for (int i = 0; i < inst->cnt; i++) {
        const app* a = inst->apps[i];
        if (a->pid == 0) continue;
        int port = ctl_element_port(*a);
        if (port < 0) continue;
        xmlrpc_value* item = xmlrpc_build_value(env, "{s:i,s:i,s:s,s:s,s:s}", "id", a->type, "port", port,
                                                "alias", a->alias.c_str(), "thumb", a->thumb.c_str(),
                                                "app_name", type_name(a->type));
        if (!append_item(env, list.get(), item)) return nullptr;
    }
    return build_listing(env, inst, list.get());
}

CTL_METHOD(GetApps)
{
    (void)params;
    (void)call_info;
    instance* inst = static_cast<instance*>(server_info);

    instance_lock_guard hold(inst);
    xmlrpc_value_ref names(xmlrpc_array_new(env));
    if (env->fault_occurred) return nullptr;
    // Row 0 ("none") is no type a client may configure.
    for (int type = 1; type < APP_TYPES_CNT; type++) {
        xmlrpc_value* name = xmlrpc_string_new(env, app_types[type].name);
        if (!append_item(env, names.get(), name)) return nullptr;
    }
    return xmlrpc_build_value(env, "{s:A}", "apps", names.get());
}
