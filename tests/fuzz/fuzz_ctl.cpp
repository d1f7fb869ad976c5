// The control port's request path (screening, XML parsing, dispatch, parameter
// decoding, the handlers) against a populated instance. An input starting with
// byte 0x01 is a script of up to eight calls, each built into a mostly
// well-formed request for one method, so sequences such as add, clone, move and
// delete are explored; any other input is one raw request document.
//
// Nothing here may touch the machine or start a process: the machine command
// runner and kill are replaced, and no supervision thread runs, so t_run only
// marks a record.
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>

#include <libxml/parser.h>
#include <xmlrpc-c/base.h>
#include <xmlrpc-c/server.h>

#include "app_types.h"
#include "byte_reader.h"
#include "common/xmlrpc_fault_guard.h"
#include "common/xmlrpc_raii.h"
#include "ctl.h"
#include "instance.h"
#include "log/log.h"
#include "os_ops.h"
#include "std_capture.h"
#include "system_runner.h"

namespace {

constexpr uint8_t SCRIPT_MARK = 0x01;
constexpr int CALLS_MAX = 8;
constexpr int PARAMS_MAX = 12;          // SetItem takes ten; a few more test the tail
constexpr int ITEMS_MAX = 140;          // enough to overfill the 128 raws
constexpr pid_t FAKE_PID = 0x7ffffff0;  // no real process has a pid this large

instance* g_inst = nullptr;
xmlrpc_registry* g_registry = nullptr;

// The only commands the control interface may ever ask for.
int fake_system(const char* command)
{
    return strcmp(command, "/usr/sbin/reboot") && strcmp(command, "/usr/sbin/halt -f -p") ? (abort(), 1) : 0;
}

// Only the invented child (or its group) may be signalled, and only to terminate.
int fake_kill(pid_t pid, int sig)
{
    return (pid != FAKE_PID && pid != -FAKE_PID) || (sig != SIGINT && sig != SIGKILL) ? (abort(), 1) : 0;
}

pid_t fake_fork() { abort(); }   // a launch from a control method would be a fault of its own

const char* const METHODS[] = {"GetStatus", "GetElements", "SetField", "GetItem",
                               "SetItem",   "GetApps",     "GetStdXXXBuf", "GetAuth"};

const char* const WORDS[] = {
    "", "t_run", "t_term", "f_respawn", "f_autorun", "t_up", "t_down", "t_del", "t_clone",
    "T_CLONE", "t_reboot", "t_shutdown", "x", "1", "-1", "abc", " 2", "0x", "0", "none",
    "elem_mixer", "Elem_Mixer", "script", "elem_flash", "gpi", "--port=36002", "--xmlrpc-port=9",
    "#--db=x", "A=B", "6024", "-99999999999999999999", "ffffffffffffffff",
};

// A string value, or "bad" when the bytes are not acceptable text.
xmlrpc_value* text_value(xmlrpc_env* env, const std::string& s)
{
    xmlrpc_value* v = xmlrpc_string_new_lp(env, s.size(), s.c_str());
    if (!env->fault_occurred) return v;
    xmlrpc_env_clean(env);
    xmlrpc_env_init(env);
    return xmlrpc_string_new(env, "bad");
}

struct builder {
    byte_reader& in;
    instance* inst;

    std::string text()
    {
        uint8_t kind = in.u8();
        switch (kind % 6) {
        case 0: return WORDS[in.u8() % (sizeof WORDS / sizeof WORDS[0])];
        case 1: {   // a live handle, in either case, with or without 0x
            char text[32] = "1";
            if (inst->cnt > 0)
                snprintf(text, sizeof text, (kind & 0x40) ? "%s%lX" : "%s%lx", (kind & 0x80) ? "0x" : "",
                         static_cast<unsigned long>(inst->apps[in.u8() % inst->cnt]->handle));
            return text;
        }
        case 2: return std::string(4090 + in.u8() % 16, 'a' + in.u8() % 26);   // around the field size
        default: return in.bytes(in.u8());
        }
    }

    int32_t integer()
    {
        const int32_t picks[] = {-1, inst->cnt, inst->cnt - 1, INT32_MIN, INT32_MAX};
        uint8_t kind = in.u8() % 8;
        return kind < 5 ? picks[kind] : kind == 5 ? static_cast<int32_t>(in.u32()) : in.u8() % 8;
    }

    // Any scalar, or (outside arrays) an array of them; deeper nesting, structs
    // and byte strings come with the raw documents.
    xmlrpc_value* value(xmlrpc_env* env, bool in_array)
    {
        uint8_t kind = in.u8();
        switch (kind % 8) {
        case 0: return xmlrpc_int_new(env, integer());
        case 1: return xmlrpc_i8_new(env, (kind & 0x80) ? integer() : static_cast<int64_t>(in.u32()) << 32 | in.u32());
        case 2: return (kind & 0x80) ? xmlrpc_double_new(env, in.u32() / 7.0) : xmlrpc_bool_new(env, kind & 1);
        case 3: return in_array ? xmlrpc_nil_new(env) : array(env, in.u8() % ITEMS_MAX, SCALARS);
        default: return text_value(env, text());
        }
    }

    enum contents { TEXTS, SCALARS, VALUES };
    xmlrpc_value* array(xmlrpc_env* env, int items, int contents)
    {
        xmlrpc_value* arr = xmlrpc_array_new(env);
        for (int i = 0; i < items && !env->fault_occurred; i++) {
            xmlrpc_value_ref item(contents == TEXTS ? text_value(env, text()) : value(env, contents == SCALARS));
            if (!env->fault_occurred) xmlrpc_array_append_item(env, arr, item.get());
        }
        return arr;
    }

    // Mostly well-formed parameters for the chosen method, so the handlers get
    // past decoding; the rest are arbitrary arrays.
    xmlrpc_value* params(xmlrpc_env* env, int method)
    {
        if (in.u8() & 1) return array(env, in.u8() % PARAMS_MAX, VALUES);
        xmlrpc_value* arr = xmlrpc_array_new(env);
        auto add = [&](xmlrpc_value* v) {
            if (!env->fault_occurred) xmlrpc_array_append_item(env, arr, xmlrpc_value_ref(v).get());
        };
        auto texts = [&](int n) { for (int i = 0; i < n; i++) add(text_value(env, text())); };
        // SetField (isss), GetItem (is), SetItem (isssssssAA*), GetStdXXXBuf (isIi) or (issi), GetAuth (ss);
        // the listing methods take nothing.
        if ((method >= 2 && method <= 4) || method == 6) add(xmlrpc_int_new(env, integer()));
        texts(method == 2 ? 3 : method == 3 || method == 6 ? 1 : method == 4 ? 7 : method == 7 ? 2 : 0);
        if (method == 4)
            for (int i = 0; i < 2; i++) add(array(env, in.u8() % ITEMS_MAX, in.u8() & 1 ? SCALARS : TEXTS));
        if (method == 6) {
            if (in.u8() & 1) texts(1);
            else add(xmlrpc_i8_new(env, static_cast<int64_t>(in.u32()) - 0x7fffffff));
            add(xmlrpc_int_new(env, in.u8() % 2 ? integer() : in.u8() % 4));
        }
        return arr;
    }
};

// A fresh set of records per input keeps every run reproducible on its own.
void populate(instance* inst)
{
    instance_lock_guard guard(inst);
    while (inst->cnt > 0) app_free(instance_slot_remove(inst, inst->cnt - 1));
    inst->last_app = nullptr;
    for (const char* type : {"elem_mixer", "script", "elem_flash", "lib", "elem_io_ndi_in"}) {
        app* a = app_new();
        a->type = instance_apps_lookup(type);
        a->config.set("/cfg/fuzz.xml"), a->alias.set(std::string("fuzz ") + type);
        a->raws.append("--port=36002"), a->raws.append("#old"), a->envs.append("A=B");
        instance_slot_append(inst, a);
    }
    // One record that looks running, so the paths for a live child are taken.
    app* live = inst->apps[0];
    live->pid = FAKE_PID, live->started = 1;
    for (int i = 0; i < 5; i++) std_ring_append(live->std_bufs[1], std::string(8000, 'o').data(), 8000);
    std_ring_append(live->std_bufs[2], "err\n", 4);
    inst->web_auth_secret.set("secret");
}

// Every request gets an answer (a response or a fault) and leaves the records consistent.
void call(const char* xml, size_t size)
{
    xmlrpc_env_guard env;
    xmlrpc_mem_block* response = nullptr;
    ctl_process_call(env.get(), g_inst, g_registry, xml, size, &response);
    if (env.failed() || !response) abort();
    XMLRPC_MEMBLOCK_FREE(char, response);

    if (g_inst->cnt < 0 || g_inst->cnt > APPS_MAX) abort();
    std::set<uint64_t> handles;
    for (int i = 0; i < APPS_MAX; i++) {
        const app* a = g_inst->apps[i];
        if (i >= g_inst->cnt ? a != nullptr : !a || !a->handle || !handles.insert(a->handle).second) abort();
        if (a && (a->type < 0 || a->type >= APP_TYPES_CNT || a->envs.size() > APP_ENVS_MAX || a->raws.size() > APP_RAWS_MAX))
            abort();
    }
}

}   // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    log_set_stderr(0);   // the log is not started: lines are dropped, not printed
    system_runner_set(fake_system);
    watchdog_os.fork = fake_fork;
    watchdog_os.kill = fake_kill;
    xmlInitParser();
    xmlrpc_fault_guard_install();   // as ctl_init does: the library's own i8 fault would crash
    xmlrpc_env_guard env;
    if (instance_create(&g_inst) != 0 || !(g_registry = xmlrpc_registry_new(env.get()))) abort();
    ctl_register_methods(env.get(), g_registry, g_inst);
    return env.failed() ? (abort(), 1) : 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    populate(g_inst);
    if (size == 0 || data[0] != SCRIPT_MARK) return call(reinterpret_cast<const char*>(data), size), 0;
    byte_reader in{data + 1, size - 1};
    for (int n = 0; n < CALLS_MAX && in.n > 0; n++) {
        int method = in.u8() % 8;
        xmlrpc_env_guard env;
        xmlrpc_value_ref params(builder{in, g_inst}.params(env.get(), method));
        if (env.failed() || !params) continue;
        xmlrpc_mem_block* request = XMLRPC_MEMBLOCK_NEW(char, env.get(), 0);
        xmlrpc_serialize_call(env.get(), request, (std::string("VantrelWatchdog.") + METHODS[method]).c_str(), params.get());
        if (!env.failed()) call(XMLRPC_MEMBLOCK_CONTENTS(char, request), XMLRPC_MEMBLOCK_SIZE(char, request));
        XMLRPC_MEMBLOCK_FREE(char, request);
    }
    return 0;
}
