// Status listings built outside the lock: the element port read from raw
// lines, and a reused GetStatus answer that must never hide a change.
#include "ctl_methods.h"
#include "ctl_status.h"
#include "common/xmlrpc_raii.h"
#include "unit_support.h"

namespace {

using namespace unit_support;

TEST(ElementPort, ValuesThatDoNotFitAPositiveIntAreListedWithTheirLow32Bits)
{
    struct row {
        int type;
        const char* raw;
        bool listed;
        int port;
    } rows[] = {
        {21, "--port=-1", true, -1},
        {21, "--port=3000000000", true, -1294967296},
        {21, "--port=0", true, 36001},
        {23, "--xmlrpc-port=-5", true, -5},
        {24, "--port=7000", false, 0},
    };
    for (const row& w : rows) {
        app record;
        record.type = w.type;
        record.raws.append(w.raw);
        int port = 0;
        EXPECT_EQ(ctl_element_port(record, &port), w.listed) << w.raw;
        EXPECT_EQ(w.listed ? port : 0, w.port) << w.raw;
    }
}

// "pid/f_respawn/alias;" of every entry of a GetStatus answer.
std::string status_of(instance* inst)
{
    xmlrpc_env_guard env;
    xmlrpc_value_ref reply(ctl_method_GetStatus(env.get(), nullptr, inst, nullptr));
    xmlrpc_value* list = xmlrpc_struct_get_value(env.get(), reply.get(), "list");   // borrowed
    std::string out;
    for (int i = 0; i < xmlrpc_array_size(env.get(), list); i++) {
        xmlrpc_value* item = xmlrpc_array_get_item(env.get(), list, i);   // borrowed
        int pid = 0, respawn = 0;
        decoded_text alias;
        xmlrpc_decompose_value(env.get(), item, "{s:i,s:i,s:s,*}", "pid", &pid, "f_respawn", &respawn, "alias",
                               alias.out());
        alias.adopt();
        out += std::to_string(pid) + "/" + std::to_string(respawn) + "/" + alias.get() + ";";
    }
    return out;
}

TEST(StatusAnswer, AChangeWithinTheSameSecondIsNeverHiddenByTheReusedAnswer)
{
    instance* inst = nullptr;
    ASSERT_EQ(instance_create(&inst), 0);
    app* a = app_new();
    instance_slot_append(inst, a);
    EXPECT_EQ(status_of(inst), "0/0/;");
    EXPECT_EQ(status_of(inst), "0/0/;");
    a->pid = 42;   // no counter raised, as when a signal handler stops a child
    EXPECT_EQ(status_of(inst), "42/0/;");
    a->f_respawn = 1;
    a->alias.set("x");
    EXPECT_EQ(status_of(inst), "42/1/x;");
    instance_slot_append(inst, app_new());
    EXPECT_EQ(status_of(inst), "42/1/x;0/0/;");
    instance_destroy(&inst);
}

}  // namespace
