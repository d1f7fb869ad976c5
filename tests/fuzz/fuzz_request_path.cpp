// Arbitrary request documents through the real request path: the screening of
// the body and the method name, XML parsing, method dispatch, parameter
// decoding and the handlers, exactly as a request body arrives from the HTTP
// server. Whatever comes in, an answer (a response
// or a fault) goes out and the records stay consistent.
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <set>

#include <libxml/parser.h>
#include <xmlrpc-c/base.h>
#include <xmlrpc-c/server.h>

#include "app_types.h"
#include "common/xmlrpc_fault_guard.h"
#include "common/xmlrpc_raii.h"
#include "ctl.h"
#include "instance.h"
#include "log/log.h"
#include "os_ops.h"
#include "system_runner.h"

namespace {

constexpr pid_t FAKE_PID = 0x7ffffff0;   // no real process has a pid this large

instance* g_inst = nullptr;
xmlrpc_registry* g_registry = nullptr;

int fake_system(const char* command)
{
    if (strcmp(command, "/usr/sbin/reboot") != 0 && strcmp(command, "/usr/sbin/halt -f -p") != 0) abort();
    return 0;
}

int fake_kill(pid_t pid, int sig)
{
    if (pid != FAKE_PID || (sig != SIGINT && sig != SIGKILL)) abort();
    return 0;
}

pid_t fake_fork() { abort(); }

void populate(instance* inst)
{
    for (const char* type : {"elem_mixer", "script", "elem_flash"}) {
        app* a = app_new();
        a->type = instance_apps_lookup(type);
        a->config.set("/cfg/fuzz.xml");
        a->alias.set(type);
        a->raws.append("--port=36002");
        instance_slot_append(inst, a);
    }
    inst->apps[0]->pid = FAKE_PID;
    inst->apps[0]->started = 1;
}

}   // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    log_set_stderr(0);
    system_runner_set(fake_system);
    watchdog_os.fork = fake_fork;
    watchdog_os.kill = fake_kill;
    xmlInitParser();
    xmlrpc_fault_guard_install();   // as ctl_init does: the library's own i8 fault would crash

    if (instance_create(&g_inst) != 0) abort();
    xmlrpc_env_guard env;
    g_registry = xmlrpc_registry_new(env.get());
    if (env.failed() || !g_registry) abort();
    ctl_register_methods(env.get(), g_registry, g_inst);
    if (env.failed()) abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // A fresh set of records per input keeps every run reproducible on its own.
    {
        instance_lock_guard guard(g_inst);
        while (g_inst->cnt > 0) app_free(instance_slot_remove(g_inst, g_inst->cnt - 1));
        g_inst->last_app = nullptr;
        populate(g_inst);
    }

    xmlrpc_env_guard env;
    xmlrpc_mem_block* response = nullptr;
    ctl_process_call(env.get(), g_registry, reinterpret_cast<const char*>(data), size, &response);
    // Every refusal and failure becomes a fault response; only running out of
    // memory would leave the call unanswered.
    if (env.failed() || !response) abort();
    XMLRPC_MEMBLOCK_FREE(char, response);

    std::set<uint64_t> handles;
    if (g_inst->cnt < 0 || g_inst->cnt > APPS_MAX) abort();
    for (int i = 0; i < g_inst->cnt; i++) {
        const app* a = g_inst->apps[i];
        if (!a || !handles.insert(a->handle).second) abort();
        if (a->type < 0 || a->type >= APP_TYPES_CNT) abort();
    }
    return 0;
}
