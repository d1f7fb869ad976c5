// Arbitrary parameter arrays for every control method, against a populated
// instance. Each input is a short script of calls, so sequences such as
// add, clone, move and delete are explored and not just single requests.
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

#include <xmlrpc-c/base.h>

#include "app_types.h"
#include "common/xmlrpc_raii.h"
#include "ctl_methods.h"
#include "instance.h"
#include "log/log.h"
#include "os_ops.h"
#include "std_capture.h"
#include "system_runner.h"

namespace {

constexpr int CALLS_MAX = 8;        // calls per input
constexpr int PARAMS_MAX = 12;      // SetItem takes ten; a few more test the tail
constexpr int NEST_MAX = 3;         // arrays and structs inside parameters
constexpr int ITEMS_MAX = 140;      // enough to overfill the 128 raws
constexpr pid_t FAKE_PID = 0x7ffffff0;   // no real process has a pid this large

int fake_system(const char* command)
{
    // The only commands the control interface may ever ask for.
    if (strcmp(command, "/usr/sbin/reboot") != 0 && strcmp(command, "/usr/sbin/halt -f -p") != 0) abort();
    return 0;
}

int fake_kill(pid_t pid, int sig)
{
    // Only the invented child may be signalled, and only to terminate.
    if (pid != FAKE_PID || (sig != SIGINT && sig != SIGKILL)) abort();
    return 0;
}

pid_t fake_fork()
{
    abort();   // a launch from a control method would be a fault of its own
}

// Reads the input from the front; runs dry into zeros.
struct byte_reader {
    const uint8_t* p;
    size_t n;

    uint8_t u8()
    {
        if (n == 0) return 0;
        n--;
        return *p++;
    }
    uint32_t u32()
    {
        uint32_t v = 0;
        for (int i = 0; i < 4; i++) v = (v << 8) | u8();
        return v;
    }
    std::string bytes(size_t len)
    {
        len = std::min(len, n);
        std::string s(reinterpret_cast<const char*>(p), len);
        p += len;
        n -= len;
        return s;
    }
};

const char* const WORDS[] = {
    "", "t_run", "t_term", "f_respawn", "f_autorun", "t_up", "t_down", "t_del", "t_clone",
    "T_CLONE", "t_reboot", "t_shutdown", "x", "1", "-1", "abc", " 2", "0x", "0", "none",
    "elem_mixer", "Elem_Mixer", "script", "elem_flash", "gpi", "--port=36002", "--xmlrpc-port=9",
    "#--db=x", "A=B", "6024", "-99999999999999999999", "ffffffffffffffff",
};

struct builder {
    byte_reader& in;
    instance* inst;

    std::string handle_text(bool upper, bool prefix)
    {
        if (inst->cnt == 0) return "1";
        const app* a = inst->apps[in.u8() % inst->cnt];
        char text[32];
        snprintf(text, sizeof text, upper ? "%s%lX" : "%s%lx", prefix ? "0x" : "",
                 static_cast<unsigned long>(a->handle));
        return text;
    }

    std::string text()
    {
        uint8_t kind = in.u8();
        switch (kind % 6) {
        case 0: return WORDS[in.u8() % (sizeof WORDS / sizeof WORDS[0])];
        case 1: return handle_text(kind & 0x40, kind & 0x80);
        case 2: return std::string(4090 + in.u8() % 16, 'a' + in.u8() % 26);   // around the field size
        default: return in.bytes(in.u8());
        }
    }

    int32_t integer()
    {
        uint8_t kind = in.u8();
        switch (kind % 8) {
        case 0: return -1;
        case 1: return inst->cnt;
        case 2: return inst->cnt - 1;
        case 3: return INT32_MIN;
        case 4: return INT32_MAX;
        case 5: return static_cast<int32_t>(in.u32());
        default: return in.u8() % 8;
        }
    }

    xmlrpc_value* value(xmlrpc_env* env, int depth)
    {
        uint8_t kind = in.u8();
        switch (kind % 10) {
        case 0:
        case 1: return xmlrpc_int_new(env, integer());
        case 2: {
            int64_t v = static_cast<int64_t>(in.u32()) << 32 | in.u32();
            if (kind & 0x80) v = integer();
            return xmlrpc_i8_new(env, v);
        }
        case 3:
        case 4:
        case 5: {
            std::string s = text();
            xmlrpc_value* v = xmlrpc_string_new_lp(env, s.size(), s.c_str());
            if (env->fault_occurred) {   // not valid text: a string all the same
                xmlrpc_env_clean(env);
                xmlrpc_env_init(env);
                v = xmlrpc_string_new(env, "bad");
            }
            return v;
        }
        case 6: {
            std::string s = in.bytes(in.u8());
            return xmlrpc_base64_new(env, s.size(), reinterpret_cast<const unsigned char*>(s.data()));
        }
        case 7:
            if (depth < NEST_MAX) return array(env, depth + 1, in.u8() % ITEMS_MAX);
            return xmlrpc_nil_new(env);
        case 8:
            if (depth < NEST_MAX) {
                xmlrpc_value* st = xmlrpc_struct_new(env);
                int members = in.u8() % 4;
                for (int i = 0; i < members && !env->fault_occurred; i++) {
                    xmlrpc_value_ref member(value(env, depth + 1));
                    if (env->fault_occurred) break;
                    // The library's own key conversion frees garbage when the key
                    // is not valid text, so the key is made and checked here.
                    std::string text_key = text();
                    xmlrpc_value* key_value = xmlrpc_string_new_lp(env, text_key.size(), text_key.data());
                    if (env->fault_occurred) {   // key_value is not set then
                        xmlrpc_env_clean(env);
                        xmlrpc_env_init(env);
                        continue;
                    }
                    xmlrpc_value_ref key(key_value);
                    xmlrpc_struct_set_value_v(env, st, key.get(), member.get());
                }
                return st;
            }
            return xmlrpc_bool_new(env, kind & 0x80);
        default: return (kind & 0x80) ? xmlrpc_double_new(env, in.u32() / 7.0) : xmlrpc_bool_new(env, kind & 1);
        }
    }

    xmlrpc_value* array(xmlrpc_env* env, int depth, int items)
    {
        xmlrpc_value* arr = xmlrpc_array_new(env);
        for (int i = 0; i < items && !env->fault_occurred; i++) {
            xmlrpc_value_ref item(value(env, depth));
            if (env->fault_occurred) break;
            xmlrpc_array_append_item(env, arr, item.get());
        }
        return arr;
    }

    // Mostly well-formed requests for the chosen method, so the handlers get
    // past decoding; the rest are arbitrary arrays.
    xmlrpc_value* params(xmlrpc_env* env, int method)
    {
        if (in.u8() & 1) return array(env, 0, in.u8() % PARAMS_MAX);
        xmlrpc_value* arr = xmlrpc_array_new(env);
        auto add = [&](xmlrpc_value* v) {
            xmlrpc_value_ref owned(v);
            if (!env->fault_occurred) xmlrpc_array_append_item(env, arr, v);
        };
        auto add_text = [&]() {
            std::string s = text();
            xmlrpc_value* v = xmlrpc_string_new_lp(env, s.size(), s.c_str());
            if (env->fault_occurred) {
                xmlrpc_env_clean(env);
                xmlrpc_env_init(env);
                v = xmlrpc_string_new(env, "");
            }
            add(v);
        };
        switch (method) {
        case 2:   // SetField (isss)
            add(xmlrpc_int_new(env, integer()));
            add_text();
            add_text();
            add_text();
            break;
        case 3:   // GetItem (is)
            add(xmlrpc_int_new(env, integer()));
            add_text();
            break;
        case 4:   // SetItem (isssssssAA*)
            add(xmlrpc_int_new(env, integer()));
            for (int i = 0; i < 7; i++) add_text();
            add(array(env, NEST_MAX, in.u8() % ITEMS_MAX));
            add(array(env, NEST_MAX, in.u8() % ITEMS_MAX));
            break;
        case 6:   // GetStdXXXBuf (isIi) or (issi)
            add(xmlrpc_int_new(env, integer()));
            add_text();
            if (in.u8() & 1)
                add_text();
            else
                add(xmlrpc_i8_new(env, static_cast<int64_t>(in.u32()) - 0x7fffffff));
            add(xmlrpc_int_new(env, in.u8() % 2 ? integer() : in.u8() % 4));
            break;
        case 7:   // GetAuth (ss)
            add_text();
            add_text();
            break;
        default: break;   // the listing methods take nothing
        }
        return arr;
    }
};

void populate(instance* inst)
{
    static const char* const types[] = {"elem_mixer", "script", "elem_flash", "lib", "elem_io_ndi_in"};
    for (const char* type : types) {
        app* a = app_new();
        a->type = instance_apps_lookup(type);
        a->config.set("/cfg/fuzz.xml");
        a->alias.set(std::string("fuzz ") + type);
        a->raws.append("--port=36002");
        a->raws.append("#old");
        a->envs.append("A=B");
        instance_slot_append(inst, a);
    }
    // One record that looks running, so the paths for a live child are taken.
    app* live = inst->apps[0];
    live->pid = FAKE_PID;
    live->started = 1;
    std::string out(40000, 'o');
    for (size_t off = 0; off < out.size(); off += 8000) std_ring_append(live->std_bufs[1], out.data() + off, 8000);
    std_ring_append(live->std_bufs[2], "err\n", 4);
    inst->web_auth_secret.set("secret");
}

// What must hold after any request, whatever it carried.
void check_invariants(const instance* inst)
{
    if (inst->cnt < 0 || inst->cnt > APPS_MAX) abort();
    std::set<uint64_t> handles;
    for (int i = 0; i < inst->cnt; i++) {
        const app* a = inst->apps[i];
        if (!a || a->handle == 0 || !handles.insert(a->handle).second) abort();
        if (a->type < 0 || a->type >= APP_TYPES_CNT) abort();
        for (const auto& ring : a->std_bufs)
            if (ring.tail < ring.head || ring.tail - ring.head > STD_BUF_SIZE) abort();
        if (a->alias.size() > TEXT_FIELD_MAX || a->envs.size() > APP_ENVS_MAX || a->raws.size() > APP_RAWS_MAX)
            abort();
    }
    for (int i = inst->cnt; i < APPS_MAX; i++)
        if (inst->apps[i]) abort();
}

using handler_fn = xmlrpc_value* (*)(xmlrpc_env*, xmlrpc_value*, void*, void*);
const handler_fn HANDLERS[] = {
    ctl_method_GetStatus, ctl_method_GetElements, ctl_method_SetField, ctl_method_GetItem,
    ctl_method_SetItem,   ctl_method_GetApps,     ctl_method_GetStdXXXBuf, ctl_method_GetAuth,
};

}   // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    log_set_stderr(0);   // the log is not started: lines are dropped, not printed
    system_runner_set(fake_system);
    watchdog_os.fork = fake_fork;
    watchdog_os.kill = fake_kill;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    instance* inst = nullptr;
    if (instance_create(&inst) != 0) abort();
    populate(inst);

    byte_reader in{data, size};
    for (int call = 0; call < CALLS_MAX && in.n > 0; call++) {
        int method = in.u8() % 8;
        xmlrpc_env_guard env;
        builder b{in, inst};
        xmlrpc_value_ref params(b.params(env.get(), method));
        if (env.failed() || !params) continue;

        xmlrpc_value_ref reply(HANDLERS[method](env.get(), params.get(), inst, nullptr));
        // A handler answers with a value or a fault, never both or neither.
        if (env.failed() == static_cast<bool>(reply)) abort();
        if (reply) {
            // Every reply must survive the trip onto the wire.
            xmlrpc_env_guard ser_env;
            xmlrpc_mem_block* out = XMLRPC_MEMBLOCK_NEW(char, ser_env.get(), 0);
            xmlrpc_serialize_response(ser_env.get(), out, reply.get());
            XMLRPC_MEMBLOCK_FREE(char, out);
        }
        check_invariants(inst);
    }

    if (instance_destroy(&inst) != 0) abort();
    return 0;
}
