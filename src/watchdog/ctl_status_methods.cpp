// GetStatus, GetElements, GetApps: read-only listings. Each copies the plain
// fields it needs under the lock (one consistent moment) and builds the
// XML-RPC values after releasing it, so supervision never waits for them.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "app_types.h"
#include "banner.h"
#include "common/xmlrpc_raii.h"
#include "ctl_methods.h"
#include "ctl_status.h"
#include "instance.h"
#include "mem_policy.h"

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

// A listing this long leaves megabytes of freed values in the allocator.
constexpr std::size_t LARGE_LISTING_ROWS = 64;

// The outer fields shared by GetStatus and GetElements, copied under the lock.
struct listing_head {
    uint32_t amend = 0;
    std::string instance_name;
    bool operator==(const listing_head&) const = default;
};

listing_head copy_head(const instance* inst) { return {inst->amend, inst->instance_name.str()}; }

xmlrpc_value* build_listing(xmlrpc_env* env, const listing_head& head, xmlrpc_value* list)
{
    return xmlrpc_build_value(env, "{s:I,s:A,s:s,s:s}", "amend", static_cast<xmlrpc_int64>(head.amend), "list",
                              list, "version", watchdog_version(), "instance_name", head.instance_name.c_str());
}

struct status_row {
    uint64_t amend;
    uint64_t handle;
    int pid;
    int64_t started;
    int64_t t_term;
    int f_autorun;
    int f_respawn;
    int type;
    std::string err, alias, thumb;
    bool operator==(const status_row&) const = default;
};

// The last GetStatus answer as sent, with everything it was built from. An
// answer is a function of these and of the second it was asked in, so when
// they are all equal the same bytes go out again: a front end polling once a
// second per user then costs neither building nor serialising (1024
// applications take milliseconds of CPU and leave megabytes of small values
// behind in the allocator).
struct status_cache {
    std::mutex guard;
    int64_t now = -1;
    listing_head head;
    std::vector<status_row> rows;
    std::shared_ptr<const std::string> xml;   // a whole methodResponse
};

status_cache& last_status()
{
    static status_cache* cache = new status_cache;   // lives until exit, after every server thread
    return *cache;
}

// One build at a time: eight clients crossing a second together would
// otherwise build eight copies of the same answer side by side.
std::mutex& status_build_guard()
{
    static std::mutex* guard = new std::mutex;
    return *guard;
}

std::shared_ptr<const std::string> status_reuse(int64_t now, const listing_head& head,
                                                const std::vector<status_row>& rows)
{
    status_cache& cache = last_status();
    std::lock_guard<std::mutex> hold(cache.guard);
    if (!cache.xml || cache.now != now || !(cache.head == head) || cache.rows != rows) return nullptr;
    return cache.xml;
}

// An answer from an earlier second can never be sent again: it goes as soon
// as that second is over.
bool status_drop_stale(int64_t now_s)
{
    status_cache& cache = last_status();
    std::shared_ptr<const std::string> old;
    std::vector<status_row> old_rows;
    {
        std::lock_guard<std::mutex> hold(cache.guard);
        if (!cache.xml || cache.now == now_s) return false;
        old.swap(cache.xml);
        old_rows.swap(cache.rows);
    }
    return true;
}

void status_keep(int64_t now, listing_head head, std::vector<status_row> rows,
                 std::shared_ptr<const std::string> xml)
{
    mem_policy_set_release_hook(status_drop_stale);
    status_cache& cache = last_status();
    std::lock_guard<std::mutex> hold(cache.guard);
    cache.xml.swap(xml);
    cache.now = now;
    cache.head = std::move(head);
    cache.rows.swap(rows);
}   // the previous answer and rows are freed here, after the guard is released

struct element_row {
    int type;
    int port;
    std::string alias, thumb;
};

xmlrpc_value* status_item(xmlrpc_env* env, const status_row& r, int64_t now)
{
    char ptr[64];
    snprintf(ptr, sizeof ptr, "%lx", static_cast<unsigned long>(r.handle));
    return xmlrpc_build_value(env, "{s:I,s:s,s:i,s:I,s:I,s:i,s:i,s:s,s:s,s:s,s:s}", "amend",
                              static_cast<xmlrpc_int64>(r.amend), "ptr", ptr, "pid", r.pid, "started",
                              static_cast<xmlrpc_int64>(seconds_since(now, r.started)), "terminated",
                              static_cast<xmlrpc_int64>(seconds_since(now, r.t_term)), "f_autorun", r.f_autorun,
                              "f_respawn", r.f_respawn, "err", r.err.c_str(), "alias", r.alias.c_str(), "thumb",
                              r.thumb.c_str(), "app_name", type_name(r.type));
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

bool ctl_element_port(const app& record, int* port)
{
    int fallback = ctl_element_default_port(record.type);
    if (fallback < 0) return false;
    *port = fallback;
    const char* marker = record.type == APP_TYPE_ELEM_FLASH ? "--xmlrpc-port=" : "--port=";
    std::size_t marker_len = strlen(marker);
    for (const bounded_str& raw : record.raws) {
        if (strncmp(raw.c_str(), marker, marker_len) != 0) continue;
        // A leading-number conversion, cut to 32 bits as the element reads it.
        int value = static_cast<int>(static_cast<uint32_t>(strtoll(raw.c_str() + marker_len, nullptr, 10)));
        if (value != 0) {
            *port = value;
            break;
        }
    }
    return true;
}

namespace {

// Copies what a status answer needs; `now` is read before waiting for the
// lock, so a slow lock does not inflate the reported run times.
int64_t status_copy(instance* inst, listing_head& head, std::vector<status_row>& rows)
{
    int64_t now = time(nullptr);
    rows.reserve(APPS_MAX);   // no reallocation while the lock is held
    instance_lock_guard hold(inst);
    head = copy_head(inst);
    for (int i = 0; i < inst->cnt; i++) {
        const app* a = inst->apps[i];
        rows.push_back({a->amend, a->handle, a->pid, a->started, a->t_term, a->f_autorun, a->f_respawn, a->type,
                        a->err.str(), a->alias.str(), a->thumb.str()});
    }
    return now;
}

xmlrpc_value* status_build(xmlrpc_env* env, const listing_head& head, const std::vector<status_row>& rows,
                           int64_t now)
{
    xmlrpc_value_ref list(xmlrpc_array_new(env));
    if (env->fault_occurred) return nullptr;
    for (const status_row& r : rows)
        if (!append_item(env, list.get(), status_item(env, r, now))) return nullptr;
    return build_listing(env, head, list.get());
}

std::shared_ptr<const std::string> status_serialize(xmlrpc_env* env, const listing_head& head,
                                                    const std::vector<status_row>& rows, int64_t now)
{
    xmlrpc_value_ref answer(status_build(env, head, rows, now));
    if (env->fault_occurred) return nullptr;
    xmlrpc_mem_block* block = XMLRPC_MEMBLOCK_NEW(char, env, 0);
    if (env->fault_occurred) return nullptr;
    xmlrpc_serialize_response2(env, block, answer.get(), xmlrpc_dialect_i8);
    std::shared_ptr<const std::string> xml;
    if (!env->fault_occurred)
        xml = std::make_shared<const std::string>(XMLRPC_MEMBLOCK_CONTENTS(char, block),
                                                  XMLRPC_MEMBLOCK_SIZE(char, block));
    XMLRPC_MEMBLOCK_FREE(char, block);
    return xml;
}

std::shared_ptr<const std::string> status_xml(xmlrpc_env* env, instance* inst)
{
    listing_head head;
    std::vector<status_row> rows;
    int64_t now = status_copy(inst, head, rows);
    if (auto same = status_reuse(now, head, rows)) return same;
    std::lock_guard<std::mutex> one_build(status_build_guard());
    if (auto built_meanwhile = status_reuse(now, head, rows)) return built_meanwhile;
    auto xml = status_serialize(env, head, rows, now);
    // The build's values are freed by now; a burst of callers must not find
    // the process holding them until the next release.
    if (rows.size() >= LARGE_LISTING_ROWS) mem_policy_release_now();
    if (xml) status_keep(now, std::move(head), std::move(rows), xml);
    return xml;
}

}  // namespace

bool ctl_status_respond(xmlrpc_env* env, instance* inst, xmlrpc_mem_block** response)
{
    std::shared_ptr<const std::string> xml = status_xml(env, inst);
    if (!xml) return false;
    *response = XMLRPC_MEMBLOCK_NEW(char, env, xml->size());
    if (env->fault_occurred) return false;
    memcpy(XMLRPC_MEMBLOCK_CONTENTS(char, *response), xml->data(), xml->size());
    return true;
}

CTL_METHOD(GetStatus)
{
    (void)params;
    (void)call_info;
    listing_head head;
    std::vector<status_row> rows;
    int64_t now = status_copy(static_cast<instance*>(server_info), head, rows);
    // The caller frees this answer; the supervision thread hands the memory back later.
    if (rows.size() >= LARGE_LISTING_ROWS) mem_policy_note_large_answer();
    return status_build(env, head, rows, now);
}

CTL_METHOD(GetElements)
{
    (void)params;
    (void)call_info;
    instance* inst = static_cast<instance*>(server_info);

    listing_head head;
    std::vector<element_row> rows;
    {
        instance_lock_guard hold(inst);
        head = copy_head(inst);
        for (int i = 0; i < inst->cnt; i++) {
            const app* a = inst->apps[i];
            int port = 0;
            if (a->pid == 0 || !ctl_element_port(*a, &port)) continue;
            rows.push_back({a->type, port, a->alias.str(), a->thumb.str()});
        }
    }

    xmlrpc_value_ref list(xmlrpc_array_new(env));
    if (env->fault_occurred) return nullptr;
    for (const element_row& r : rows) {
        xmlrpc_value* item = xmlrpc_build_value(env, "{s:i,s:i,s:s,s:s,s:s}", "id", r.type, "port", r.port, "alias",
                                                r.alias.c_str(), "thumb", r.thumb.c_str(), "app_name",
                                                type_name(r.type));
        if (!append_item(env, list.get(), item)) return nullptr;
    }
    return build_listing(env, head, list.get());
}

CTL_METHOD(GetApps)
{
    (void)params;
    (void)call_info;
    (void)server_info;

    // The type table is constant: no lock.
    xmlrpc_value_ref names(xmlrpc_array_new(env));
    if (env->fault_occurred) return nullptr;
    // Row 0 ("none") is no type a client may configure.
    for (int type = 1; type < APP_TYPES_CNT; type++) {
        xmlrpc_value* name = xmlrpc_string_new(env, app_types[type].name);
        if (!append_item(env, names.get(), name)) return nullptr;
    }
    return xmlrpc_build_value(env, "{s:A}", "apps", names.get());
}
