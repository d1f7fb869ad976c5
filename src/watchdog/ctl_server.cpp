// The XML-RPC control server: registry, Abyss server, and its life cycle.
#include <signal.h>

#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <new>

#include <libxml/parser.h>
#include <xmlrpc-c/base.h>
#include <xmlrpc-c/client.h>
#include <xmlrpc-c/server.h>
#include <xmlrpc-c/server_abyss.h>

#include "common/xmlrpc_fault_guard.h"
#include "banner.h"
#include "common/xmlrpc_raii.h"
#include "ctl.h"
#include "ctl_methods.h"
#include "descriptors.h"
#include "instance.h"
#include "log/log.h"

struct ctl_state {
    xmlrpc_server_abyss_parms parms;
    xmlrpc_server_abyss_t* server;
    xmlrpc_registry* registry;
    xmlrpc_server_abyss_sig* saved_sig;
};

namespace {

struct ctl_method {
    const char* name;
    xmlrpc_method2 handler;   // the library's name for the four-argument form
};

// The only methods reachable over the wire, in registration order.
const ctl_method ctl_methods[] = {
    {"VantrelWatchdog.GetStatus", ctl_method_GetStatus},
    {"VantrelWatchdog.GetElements", ctl_method_GetElements},
    {"VantrelWatchdog.SetField", ctl_method_SetField},
    {"VantrelWatchdog.GetItem", ctl_method_GetItem},
    {"VantrelWatchdog.SetItem", ctl_method_SetItem},
    {"VantrelWatchdog.GetApps", ctl_method_GetApps},
    {"VantrelWatchdog.GetStdXXXBuf", ctl_method_GetStdXXXBuf},
    {"VantrelWatchdog.GetAuth", ctl_method_GetAuth},
    {nullptr, nullptr},
};

// The library keeps one global client per process and faults on a second
// xmlrpc_client_init2 until xmlrpc_client_cleanup. The client outlives every
// server (nothing shuts it down), so a later ctl_init in the same process
// reuses it instead of failing for good.
std::mutex client_mutex;
bool client_ready = false;

void client_init_once(xmlrpc_env* env)
{
    std::lock_guard<std::mutex> hold(client_mutex);
    if (client_ready) return;
    xmlrpc_client_init2(env, 0, "VantrelWatchdog", watchdog_version(), nullptr, 0);
    if (!env->fault_occurred) client_ready = true;
}

int ctl_init_failed(const char* message)
{
    log_printf(LOG_ERROR, "%s", message);
    return -EFAULT;
}

}  // namespace

void ctl_register_methods(xmlrpc_env* env, xmlrpc_registry* registry, instance* inst)
{
    // Registration faults surface later, as calls to an unknown method.
    for (const ctl_method* m = ctl_methods; m->name; m++) {
        xmlrpc_method_info3 info{};
        info.methodName = m->name;
        info.methodFunction = m->handler;
        info.serverInfo = inst;
        xmlrpc_registry_add_method3(env, registry, &info);
    }
}

int ctl_init(instance* inst)
{
    if (!inst) return -EINVAL;

    xmlInitParser();
    xmlrpc_fault_guard_install();

    ctl_state* ctl = new (std::nothrow) ctl_state{};
    if (!ctl) return -ENOMEM;
    inst->ctl = ctl;

    xmlrpc_env_guard env;
    ctl->registry = xmlrpc_registry_new(env.get());
    if (env.failed() || !ctl->registry) {
        ctl->registry = nullptr;
        return ctl_init_failed("ctl_init: xmlrpc_registry_new failed");
    }

    ctl->parms.config_file_name = nullptr;
    ctl->parms.registryP = ctl->registry;
    ctl->parms.port_number = static_cast<unsigned int>(inst->port);
    ctl->parms.log_file_name = nullptr;

    ctl_register_methods(env.get(), ctl->registry, inst);

    xmlrpc_server_abyss_global_init(env.get());
    if (env.failed()) return ctl_init_failed("ctl_init: xmlrpc_server_abyss_global_init failed");

    // Only the members up to log_file_name are ours; the library's defaults
    // apply to the rest (URI path, keep-alive, time-outs, no shutdown method).
    xmlrpc_server_abyss_create(env.get(), &ctl->parms, XMLRPC_APSIZE(log_file_name), &ctl->server);
    if (env.failed()) {
        ctl->server = nullptr;
        // The globals were taken above; without a server ctl_destroy would not
        // give them back.
        xmlrpc_server_abyss_global_term();
        return ctl_init_failed("ctl_init: xmlrpc_server_abyss_create failed");
    }

    // The library's SIGCHLD handler reaps every child of the process, which
    // would steal the exit status each forker waits for. It is only needed
    // for a forking server, not this threaded one, so the process's own
    // reaper is put back; the library keeps its SIGPIPE setting.
    struct sigaction own_sigchld {};
    sigaction(SIGCHLD, nullptr, &own_sigchld);
    xmlrpc_server_abyss_setup_sig(env.get(), ctl->server, &ctl->saved_sig);
    if (env.failed()) {
        ctl->saved_sig = nullptr;
        return ctl_init_failed("ctl_init: xmlrpc_server_abyss_setup_sig failed");
    }
    sigaction(SIGCHLD, &own_sigchld, nullptr);

    client_init_once(env.get());
    if (env.failed()) return ctl_init_failed("ctl_init: xmlrpc_client_init2 failed");

    // The libraries open their sockets and pipes without close-on-exec.
    fd_cloexec_sweep();
    return 0;
}

int ctl_run(instance* inst)
{
    if (!inst || !inst->ctl || !inst->ctl->server) return -EINVAL;
    // A termination signal that came before the server existed found nothing
    // to stop; honour it here instead of serving on.
    if (inst->p_sig_cnt && inst->p_sig_cnt->load() != 0) return 0;
    xmlrpc_env_guard env;
    xmlrpc_server_abyss_run_server(env.get(), inst->ctl->server);
    return 0;
}

int ctl_terminate(instance* inst)
{
    if (!inst || !inst->ctl || !inst->ctl->server) return -EINVAL;
    xmlrpc_env_guard env;
    xmlrpc_server_abyss_terminate(env.get(), inst->ctl->server);
    return 0;
}

int ctl_destroy(instance* inst)
{
    if (!inst || !inst->ctl) return -EINVAL;
    ctl_state* ctl = inst->ctl;
    inst->ctl = nullptr;

    if (ctl->server) {
        if (ctl->saved_sig) {
            xmlrpc_server_abyss_restore_sig(ctl->saved_sig);
            free(ctl->saved_sig);
        }
        xmlrpc_server_abyss_destroy(ctl->server);
        xmlrpc_server_abyss_global_term();
    }
    if (ctl->registry) xmlrpc_registry_free(ctl->registry);

    delete ctl;
    xmlCleanupParser();
    return 0;
}

xmlrpc_value* ctl_method_missing(xmlrpc_env* env, const char* method)
{
    xmlrpc_env_set_fault_formatted(env, XMLRPC_NO_SUCH_METHOD_ERROR, "%s is not available yet", method);
    return nullptr;
}
