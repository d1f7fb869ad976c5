// The XML-RPC control server: registry, request screening, Abyss request
// handling on connections taken by the control port's own listener, and its
// life cycle.
#include <signal.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include <libxml/parser.h>
#include <xmlrpc-c/abyss.h>
#include <xmlrpc-c/base.h>
#include <xmlrpc-c/client.h>
#include <xmlrpc-c/server.h>
#include <xmlrpc-c/server_abyss.h>

#include "common/xmlrpc_fault_guard.h"
#include "banner.h"
#include "common/xmlrpc_raii.h"
#include "ctl.h"
#include "ctl_listener.h"
#include "ctl_methods.h"
#include "ctl_screen.h"
#include "ctl_status.h"
#include "descriptors.h"
#include "instance.h"
#include "log/log.h"
#include "netmask.h"

// Frees the library's error texts (xmlrpc-c's util library; its header is
// not installed).
extern "C" void xmlrpc_strfree(const char* text);

struct ctl_state {
    instance* inst = nullptr;
    TServer abyss{};            // reads requests and writes answers; accepts nothing itself
    bool abyss_created = false;
    xmlrpc_registry* registry = nullptr;
    ctl_listener* listener = nullptr;
    struct sigaction saved_sigpipe {};
    bool sigpipe_saved = false;
};

namespace {

struct ctl_method {
    const char* name;
    xmlrpc_method2 handler;   // the library's name for the four-argument form
};

// Polled by every front end: answered from ready bytes instead of the registry.
const char* const STATUS_METHOD = "VantrelWatchdog.GetStatus";

// The only methods reachable over the wire, in registration order.
const ctl_method ctl_methods[] = {
    {STATUS_METHOD, ctl_method_GetStatus},
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

bool method_in_table(const std::string& name)
{
    for (const ctl_method* m = ctl_methods; m->name; m++)
        if (name == m->name) return true;
    return false;
}

// Why a screened body is not handed to the parser, or null when it may be.
const char* refusal_of(const ctl_screen_result& screened, int* code)
{
    switch (screened.verdict) {
    case ctl_screen_verdict::declaration:
        *code = XMLRPC_PARSE_ERROR;
        return "document type declarations and entities are not accepted";
    case ctl_screen_verdict::too_deep:
        *code = XMLRPC_LIMIT_EXCEEDED_ERROR;
        return "values are nested too deeply";
    case ctl_screen_verdict::encoding:
        *code = XMLRPC_PARSE_ERROR;
        return "only UTF-8 requests are accepted";
    case ctl_screen_verdict::pass: break;
    }
    // Nothing outside the table is reachable: no multicall (one small request
    // could ask for thousands of listings), no introspection.
    *code = XMLRPC_NO_SUCH_METHOD_ERROR;
    return method_in_table(screened.method) ? nullptr : "no such method";
}

// Whether `xml` is a well-formed call; the registry answers one that is not.
bool parses_as_call(const char* xml, size_t len)
{
    xmlrpc_env_guard env;
    const char* method = nullptr;
    xmlrpc_value* params = nullptr;
    xmlrpc_parse_call(env.get(), xml, len, &method, &params);
    if (env.failed()) return false;
    xmlrpc_strfree(method);
    xmlrpc_DECREF(params);
    return true;
}

void fault_response(xmlrpc_env* env, int code, const char* text, xmlrpc_mem_block** response)
{
    xmlrpc_env_guard fault;
    xmlrpc_env_set_fault(fault.get(), code, text);
    *response = XMLRPC_MEMBLOCK_NEW(char, env, 0);
    if (env->fault_occurred) return;
    xmlrpc_serialize_fault(env, *response, fault.get());
}

void process_xml(xmlrpc_env* env, void* state, const char* xml, size_t len, TSession*,
                 xmlrpc_mem_block** response)
{
    ctl_listener_request_read();
    ctl_state* ctl = static_cast<ctl_state*>(state);
    ctl_process_call(env, ctl->inst, ctl->registry, xml, len, response);
}

void serve_connection(int fd, void* arg)
{
    ctl_state* ctl = static_cast<ctl_state*>(arg);
    TChannel* channel = nullptr;
    abyss_unix_chaninfo* info = nullptr;
    const char* error = nullptr;
    ChannelUnixCreateFd(fd, &channel, &info, &error);
    if (error) {
        log_printf(LOG_ERROR, "%s: %s", "ctl_serve_connection", error);
        xmlrpc_strfree(error);
        return;
    }
    ServerRunChannel(&ctl->abyss, channel, info, &error);
    if (error) xmlrpc_strfree(error);   // a client that went away: nothing to tell
    ChannelDestroy(channel);            // leaves the descriptor to the listener
    free(info);
}

// Abyss reads and answers the requests; the timeouts bound how long a slow
// sender holds its thread. One request per connection: a kept-alive client
// would hold a thread while it thinks.
bool create_abyss(ctl_state* ctl)
{
    if (!ServerCreateNoAccept(&ctl->abyss, "VantrelWatchdog", nullptr, nullptr)) return false;
    ctl->abyss_created = true;
    ServerSetTimeout(&ctl->abyss, CTL_READ_TIMEOUT_S);
    ServerSetKeepaliveTimeout(&ctl->abyss, 1);
    ServerSetKeepaliveMaxConn(&ctl->abyss, 1);
    ServerSetAdvertise(&ctl->abyss, false);

    xmlrpc_env_guard env;
    xmlrpc_server_abyss_handler_parms handler{};
    handler.xml_processor = process_xml;
    handler.xml_processor_arg = ctl;
    handler.uri_path = "/RPC2";
    xmlrpc_server_abyss_set_handler3(env.get(), &ctl->abyss, &handler, XMLRPC_AHPSIZE(uri_path));
    xmlrpc_server_abyss_set_default_handler(&ctl->abyss);
    return !env.failed();
}

int open_listener(instance* inst, ctl_state* ctl)
{
    std::vector<netmask> allow;
    if (!inst->ctl_allow.empty() && !netmask_parse_list(inst->ctl_allow.str(), allow)) {
        log_printf(LOG_ERROR, "%s: --allow=%s is not a list of networks", "ctl_init", inst->ctl_allow.c_str());
        return -EINVAL;
    }
    int r = ctl_listener_open(&ctl->listener, inst->ctl_listen.c_str(), inst->port, allow, serve_connection, ctl);
    if (r != 0)
        log_printf(LOG_ERROR, "%s: cannot listen on [%s] port %d (%s)", "ctl_init",
                   inst->ctl_listen.empty() ? "*" : inst->ctl_listen.c_str(), inst->port, strerror(-r));
    return r;
}

// A client that closes its socket early must cost a failed write, not the process.
void ignore_sigpipe(ctl_state* ctl)
{
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    ctl->sigpipe_saved = sigaction(SIGPIPE, &ignore, &ctl->saved_sigpipe) == 0;
}

}  // namespace

void ctl_process_call(xmlrpc_env* env, instance* inst, xmlrpc_registry* registry, const char* xml, size_t len,
                      xmlrpc_mem_block** response)
{
    int code = 0;
    ctl_screen_result screened = ctl_screen_request(std::string_view(xml, len));
    const char* refusal = refusal_of(screened, &code);
    if (refusal) {
        log_printf(LOG_ERROR, "%s: request refused: %s", "ctl_process_call", refusal);
        fault_response(env, code, refusal, response);
        return;
    }
    if (screened.method == STATUS_METHOD && parses_as_call(xml, len)) {
        xmlrpc_env_guard status_env;
        if (ctl_status_respond(status_env.get(), inst, response)) return;
        // Out of memory: the registry's answer says so.
    }
    xmlrpc_registry_process_call2(env, registry, xml, len, nullptr, response);
}

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
    xmlrpc_registry_disable_introspection(registry);
}

int ctl_init(instance* inst)
{
    if (!inst) return -EINVAL;

    xmlInitParser();
    xmlrpc_fault_guard_install();

    ctl_state* ctl = new (std::nothrow) ctl_state{};
    if (!ctl) return -ENOMEM;
    inst->ctl = ctl;
    ctl->inst = inst;

    xmlrpc_env_guard env;
    ctl->registry = xmlrpc_registry_new(env.get());
    if (env.failed() || !ctl->registry) {
        ctl->registry = nullptr;
        return ctl_init_failed("ctl_init: xmlrpc_registry_new failed");
    }
    ctl_register_methods(env.get(), ctl->registry, inst);

    xmlrpc_server_abyss_global_init(env.get());
    if (env.failed()) return ctl_init_failed("ctl_init: xmlrpc_server_abyss_global_init failed");

    bool created = create_abyss(ctl) && open_listener(inst, ctl) == 0;
    if (!created) {
        // Without a server ctl_destroy would not give the globals back.
        if (ctl->abyss_created) ServerFree(&ctl->abyss);
        ctl->abyss_created = false;
        xmlrpc_server_abyss_global_term();
        return ctl_init_failed("ctl_init: xmlrpc_server_abyss_create failed");
    }
    ignore_sigpipe(ctl);

    client_init_once(env.get());
    if (env.failed()) return ctl_init_failed("ctl_init: xmlrpc_client_init2 failed");

    // The libraries open their sockets and pipes without close-on-exec.
    fd_cloexec_sweep();
    return 0;
}

int ctl_run(instance* inst)
{
    if (!inst || !inst->ctl || !inst->ctl->listener) return -EINVAL;
    // A termination signal that came before the server existed found nothing
    // to stop; honour it here instead of serving on.
    if (inst->p_sig_cnt && inst->p_sig_cnt->load() != 0) return 0;
    ctl_listener_run(inst->ctl->listener);
    return 0;
}

int ctl_terminate(instance* inst)
{
    if (!inst || !inst->ctl || !inst->ctl->listener) return -EINVAL;
    ctl_listener_stop(inst->ctl->listener);
    return 0;
}

int ctl_destroy(instance* inst)
{
    if (!inst || !inst->ctl) return -EINVAL;
    ctl_state* ctl = inst->ctl;
    inst->ctl = nullptr;

    // Connections still being served use the Abyss server and the registry.
    ctl_listener_close(ctl->listener);
    if (ctl->abyss_created) {
        if (ctl->sigpipe_saved) sigaction(SIGPIPE, &ctl->saved_sigpipe, nullptr);
        ServerFree(&ctl->abyss);
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
