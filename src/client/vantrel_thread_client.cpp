// Private clients: one xmlrpc-c client object with curl transport parameters
// per vantrel_client, and the thread's choice in a thread-local pointer.
#include "vantrel_thread_client.h"

#include <cstdio>
#include <mutex>

#include <xmlrpc-c/client.h>

#include "vantrel_internal.h"

struct vantrel_client {
    xmlrpc_client* client;
};

namespace {

thread_local vantrel_client* thread_client = nullptr;

// xmlrpc-c counts its global set-up but does not lock it.
std::mutex global_const_lock;

}  // namespace

vantrel_client* vantrel_client_new(unsigned timeout_ms)
{
    static const char* const fn = "vantrel_client_new";
    vantrel::owned<vantrel_client> self(vantrel::new_record<vantrel_client>());
    if (!self) return nullptr;
    xmlrpc_env_guard env;
    std::lock_guard<std::mutex> hold(global_const_lock);
    xmlrpc_client_setup_global_const(env.get());
    if (env.failed()) {
        fprintf(stderr, "%s: xmlrpc_client_setup_global_const failed: %s (%d)\n", fn,
                env.fault_string(), env.fault_code());
        return nullptr;
    }
    struct xmlrpc_curl_xportparms curl = {};
    curl.timeout = timeout_ms;
    struct xmlrpc_clientparms parms = {};
    parms.transport = "curl";
    parms.transportparmsP = &curl;
    parms.transportparm_size = XMLRPC_CXPSIZE(timeout);
    xmlrpc_client_create(env.get(), 0, "vantrel", "1", &parms, XMLRPC_CPSIZE(transportparm_size),
                         &self->client);
    if (env.failed()) {
        fprintf(stderr, "%s: xmlrpc_client_create failed: %s (%d)\n", fn, env.fault_string(),
                env.fault_code());
        xmlrpc_client_teardown_global_const();
        return nullptr;
    }
    return self.release();
}

void vantrel_client_free(vantrel_client* client)
{
    if (!client) return;
    std::lock_guard<std::mutex> hold(global_const_lock);
    xmlrpc_client_destroy(client->client);
    xmlrpc_client_teardown_global_const();
    free(client);
}

vantrel_client* vantrel_client_use(vantrel_client* client)
{
    vantrel_client* before = thread_client;
    thread_client = client;
    return before;
}

namespace vantrel {

xmlrpc_client* thread_xmlrpc_client()
{
    return thread_client ? thread_client->client : nullptr;
}

}  // namespace vantrel
