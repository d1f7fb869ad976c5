// The control port and the records it serves: the slot table, clones and
// bounded text; the methods called directly with built parameter arrays
// (replies compared as compact text: member order, wire types and values), the
// server's life cycle, and the pure defences (request screening, peer lists).
// Machine commands and signals go to recording fakes installed before any test runs.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <xmlrpc-c/client.h>

#include "banner.h"
#include "bounded.h"
#include "common/xmlrpc_raii.h"
#include "ctl.h"
#include "ctl_methods.h"
#include "ctl_status.h"
#include "ctl_screen.h"
#include "netmask.h"
#include "os_ops.h"
#include "../client/standin.h"
#include "system_runner.h"
#include "unit_support.h"

// Only sanitizer builds look at these. The library keeps a small block when
// server creation fails (port in use), and on termination it writes to a
// connection's wake-up pipe while that connection's thread may close it.
extern "C" const char* __lsan_default_suppressions() { return "leak:xmlrpc_server_abyss_create\n"; }
extern "C" const char* __tsan_default_suppressions() { return "race:libxmlrpc_abyss.so\n"; }

namespace {

using namespace unit_support;
using namespace std::chrono_literals;
using method_fn = xmlrpc_value* (*)(xmlrpc_env*, xmlrpc_value*, void*, void*);
std::string hex(uint64_t handle) { char t[32]; snprintf(t, sizeof t, "%" PRIx64, handle); return t; }

std::string g_effects;   // what the fake runner and the fake kill were asked to do
int record_command(const char* command) { return g_effects += std::string(" run(") + command + ")", 0; }
// A stop signals the child or its whole process group (a negative pid): both show as the child.
int record_kill(pid_t pid, int sig) { return g_effects += " kill(" + std::to_string(pid) + "," + std::to_string(sig) + ")", 0; }
const bool g_fake_runner = (system_runner_set(record_command), true);

struct Ctl : ::testing::Test {
    void SetUp() override
    {
        ASSERT_TRUE(g_fake_runner);
        ASSERT_EQ(instance_create(&inst), 0);
        watchdog_os.kill = record_kill;
        g_effects.clear();
    }
    void TearDown() override
    {
        for (int i = 0; i < inst->cnt; i++) inst->apps[i]->pid = 0;
        instance_destroy(&inst);
        os_ops_reset();
    }
    app* add(const std::string& alias, int type = 21, int pid = 0)
    {
        app* a = app_new();
        a->type = type, a->pid = pid;
        a->alias.set(alias);
        return instance_slot_append(inst, a), a;
    }
    // The reply as compact text (i8 values end in "L", base64 shows its length), or "fault"; what was logged meanwhile lands in `logged`.
    std::string call(method_fn method, const char* format, ...)
    {
        va_list ap;
        va_start(ap, format);
        xmlrpc_value_ref params(build_va(format, ap));
        va_end(ap);
        xmlrpc_env_guard env;
        testing::internal::CaptureStderr();
        last_reply.reset(method(env.get(), params.get(), inst, nullptr));
        logged = testing::internal::GetCapturedStderr();
        EXPECT_EQ(env.failed(), !last_reply);
        return last_reply ? render(last_reply.get(), true) : "fault";
    }
    bool has_line(const std::string& line) const
    {
        for (const std::string& l : lines_of(logged))
            if (l.size() > 28 && l.substr(0, 2) + l.substr(28) == line) return true;
        return false;
    }
    // Slot order with each record's counter and run marks, the instance's counter and the effects.
    std::string state() const
    {
        std::string out = std::to_string(inst->amend);
        for (int i = 0; i < inst->cnt; i++) {
            const app& a = *inst->apps[i];
            out += " " + a.alias.str() + ":" + std::to_string(a.amend) + (a.f_respawn ? "r" + std::to_string(a.f_respawn) : "") +
                   (a.f_autorun ? "a" + std::to_string(a.f_autorun) : "") + (a.t_run ? "run" : "") + (a.t_term ? "term" : "");
        }
        return out + g_effects;
    }
    instance* inst = nullptr;
    std::string logged;
    xmlrpc_value_ref last_reply;
};

// ---- Records ----

TEST_F(Ctl, SlotsEveryChangeMovesTheCounterAndBadPositionsChangeNothing)
{
    for (const char* alias : {"a", "c", "d"}) add(alias);
    app *b = app_new(), *z = app_new();
    b->alias.set("b");
    ASSERT_EQ(instance_slot_insert(inst, 1, b), 0);
    for (int at : {5, -1}) EXPECT_EQ(instance_slot_insert(inst, at, z), -EINVAL) << at;
    app_free(instance_slot_remove(inst, 0));
    EXPECT_EQ(instance_slot_remove(inst, 3), nullptr);
    uint64_t handle = inst->apps[0]->handle;
    instance_slot_swap(inst, 0, 2);
    instance_slot_swap(inst, 2, 3);   // no slot 3: nothing moves
    EXPECT_EQ(state(), "5 d:0 c:0 b:0");
    EXPECT_EQ(inst->apps[2]->handle, handle);
    app_free(z);
}

TEST(Records, AClonesCopiesConfigurationButNoRunState)
{
    app* src = app_new();
    src->type = 21, src->t_run = src->f_respawn = src->f_autorun = 1;
    src->config.set("/cfg/m.xml"), src->alias.set("Mixer"), src->err.set("Respawn too fast");
    src->envs.append("A=1"), src->raws.append("--r");
    src->pid = 1234, src->started = 100, src->t_term = 200, src->fast_respawn_cnt = 3, src->amend = 9;
    src->std_bufs[1].buf.reset(new char[STD_BUF_SIZE]);
    memset(src->std_bufs[1].buf.get(), 'x', STD_BUF_SIZE);
    src->std_bufs[1].head = 10, src->std_bufs[1].tail = 50;
    app* copy = app_clone(*src);
    src->std_bufs[1].buf[0] = 'y';   // the copy's ring is its own
    const app& c = *copy;
    EXPECT_EQ(std::to_string(c.type) + c.config.str() + c.alias.str() + c.envs[0].str() + c.raws[0].str() + c.err.str() +
                  testing::PrintToString(std::vector<long>{c.t_run, c.pid, c.started, c.t_term, c.fast_respawn_cnt, long(c.amend), c.f_respawn,
                                                           c.f_autorun, c.std_pipes[1].rd, c.std_pipes[2].wr}) +
                  std::to_string(c.std_bufs[1].tail - c.std_bufs[1].head) + c.std_bufs[1].buf[0],
              "21/cfg/m.xmlMixerA=1--rRespawn too fast{ 1, 0, 0, 0, 0, 0, 0, 0, -1, -1 }40x");
    EXPECT_NE(copy->handle, src->handle);
    app_free(src), app_free(copy);
}

// Stored text holds at most 4095 bytes, is cut on character boundaries and
// has invalid bytes repaired.
TEST(Bounded, TextsAreCutOnCharacterBoundariesAndRepaired)
{
    const std::string a4094(4094, 'a'), a4090(4090, 'a');
    struct row { const char* name; std::string in, stored; } rows[] = {
        {"long text", std::string(5000, 'a'), std::string(4095, 'a')},
        {"two-byte character cut", a4094 + "\xc3\xa9", a4094},
        {"two-byte character fits", std::string(4093, 'a') + "\xc3\xa9", std::string(4093, 'a') + "\xc3\xa9"},
        {"four-byte character cut", std::string(4092, 'a') + "\xf0\x9f\x8e\xac", std::string(4092, 'a')},
        {"stray bytes", "a\xff" "b\xc3", "a?b?"}, {"surrogate and overlong", "\xed\xa0\x80.\xc0\xaf", "???.??"},
        {"controls XML cannot carry", "a\x01\tb\x1f", "a?\tb?"},
    };
    for (const row& r : rows) EXPECT_EQ(bounded_str(r.in).str(), r.stored) << r.name;
    bounded_str s(a4090), grown(a4094);
    EXPECT_FALSE(str_cat(s, "0123456789") || grown.cat("\xc3\xa9"));
    EXPECT_EQ(s.str() + "|" + grown.str(), a4090 + "01234|" + a4094);
    // {text, appended, buffer size, kept}: C strings are cut on character boundaries too.
    for (auto [in, more, size, kept] : {std::tuple{"0123456789", "", 8, "0123456"}, {"ab", "cdefghij", 8, "abcdefg"},
                                        {"ab\xc3\xa9\xc3\xa9", "", 5, "ab\xc3\xa9"}}) {
        char buf[8];
        str_copy(buf, in, size), str_cat(buf, more, size);
        EXPECT_STREQ(buf, kept);
    }
}

// ---- Methods ----

TEST_F(Ctl, SetFieldRows)
{
    // ptr_of: slot whose handle is sent as ptr, or -1; line: mark and text of one logged line, or "".
    struct { const char* field; int idx, ptr_of; const char* val, *reply_state, *line; } rows[] = {
        {"f_respawn", 0, -1, "  -3x", "{ret:0} 5 a0:1r-3 a1:0 a2:0 a3:0", ""},
        {"F_AUTORUN", -1, 2, "7 8", "{ret:0} 5 a0:0 a1:0 a2:1a7 a3:0", ""},
        {"f_respawn", 0, -1, "abc", "{ret:0} 5 a0:1 a1:0 a2:0 a3:0", ""},
        {"t_run", 0, -1, "", "{ret:0} 4 a0:0run a1:0 a2:0 a3:0", "! ctl_method_SetField: marking to start"},
        {"T_RUN", 1, -1, "", "{ret:0} 4 a0:0 a1:0 a2:0 a3:0", "! ctl_method_SetField: already running"},
        {"t_term", 1, -1, "", "{ret:0} 4 a0:0 a1:1term a2:0 a3:0 kill(-4321,2)", ""},
        {"t_term", 0, -1, "", "{ret:0} 4 a0:1 a1:0 a2:0 a3:0", "! ctl_method_SetField: not running"},
        {"t_up", 3, -1, "", "{ret:0} 5 a0:0 a1:0 a3:0 a2:0", ""},
        {"T_DOWN", -1, 0, "", "{ret:0} 5 a1:0 a0:0 a2:0 a3:0", ""},
        {"t_up", 0, -1, "", "{ret:0} 5 a0:0 a1:0 a2:0 a3:0", ""},
        {"t_del", 0, -1, "", "{ret:0} 5 a1:0 a2:0 a3:0", ""},
        {"t_del", 1, -1, "", "{ret:0} 5 a0:0 a1:0 a2:0 a3:0", ""},
        {"t_clone", 2, -1, "", "{ret:0} 5 a0:0 a1:0 a2:0 a2(clone):0 a3:0", ""},
        {"t_bogus", 0, -1, "", "{ret:-2} 4 a0:0 a1:0 a2:0 a3:0", "! ctl_method_SetField: field=[t_bogus] not known"},
        {"t_bogus", 4, -1, "", "{ret:-34} 4 a0:0 a1:0 a2:0 a3:0", "! ctl_method_SetField: idx=4 out of apps range (4)"},
        {"f_respawn", -1, -1, "1", "{ret:-34} 4 a0:0 a1:0 a2:0 a3:0", ""},
        {"t_reboot", 0, -1, "", "{ret:-2} 4 a0:0 a1:0 a2:0 a3:0", ""},
        {"t_shutdown", -1, 3, "", "{ret:-2} 4 a0:0 a1:0 a2:0 a3:0", ""},
        {"t_reboot", -1, -1, "", "{ret:0} 4 a0:0 a1:0 a2:0 a3:0 run(/usr/sbin/reboot)", "  ctl_method_SetField: will reboot"},
        {"T_SHUTDOWN", 7, -1, "", "{ret:0} 4 a0:0 a1:0 a2:0 a3:0 run(/usr/sbin/halt -f -p)", "  ctl_method_SetField: will shutdown"},
        {"t_reboot", -1, -1, "", "{ret:0} 4 a0:0 a1:0 a2:0 a3:0 run(/usr/sbin/reboot)",
         "? ctl_method_SetField: idx=-1, ptr=[], field=[t_reboot], val=[]"},
    };
    for (auto& r : rows) {
        TearDown(), SetUp();
        for (int i = 0; i < 4; i++) add("a" + std::to_string(i), 21, i == 1 ? 4321 : 0);
        std::string ptr = r.ptr_of >= 0 ? "0X" + hex(inst->apps[r.ptr_of]->handle) : "";
        std::string got = call(ctl_method_SetField, "(isss)", r.idx, ptr.c_str(), r.field, r.val);
        SCOPED_TRACE(std::string(r.field) + " idx=" + std::to_string(r.idx) + " val=" + r.val);
        EXPECT_EQ(got + " " + state(), r.reply_state);
        EXPECT_TRUE(!*r.line || has_line(r.line)) << logged;
    }
}

TEST_F(Ctl, CloneIsCutToTheFieldAndRefusedWhenFullAndDeleteJoinsTheForker)
{
    add(std::string(TEXT_FIELD_MAX - 3, 'x'));
    EXPECT_EQ(call(ctl_method_SetField, "(isss)", 0, "", "t_clone", ""), "{ret:0}");
    EXPECT_EQ(inst->apps[1]->alias.str(), std::string(TEXT_FIELD_MAX - 3, 'x') + "(cl");
    for (int i = inst->cnt; i < APPS_MAX; i++) add("n");
    uint32_t amend = inst->amend;
    EXPECT_EQ(call(ctl_method_SetField, "(isss)", 5, "", "t_clone", ""), "{ret:-12}");
    EXPECT_TRUE(has_line("! ctl_method_SetField: instance->apps.cnt=1024 is maximal")) << logged;
    EXPECT_EQ(inst->amend, amend);
    // A launched record still has its forker thread; deletion waits for it.
    static std::atomic<bool> forker_done;
    app& record = *inst->apps[0];
    pthread_barrier_init(&record.forker_barrier, nullptr, 2);
    record.forker_cnt = 1;
    auto slow_forker = [](void*) -> void* { return std::this_thread::sleep_for(std::chrono::milliseconds(200)), forker_done = true, nullptr; };
    ASSERT_EQ(pthread_create(&record.forker, nullptr, slow_forker, nullptr), 0);
    EXPECT_EQ(call(ctl_method_SetField, "(isss)", 0, "", "t_del", ""), "{ret:0}");
    EXPECT_TRUE(forker_done) << "t_del returned before the forker thread ended";
}

TEST_F(Ctl, SetItemAddsAndUpdatesAndGetItemReadsBack)
{
    const char* item = "(isssssss(ss)(sss))";
    EXPECT_EQ(call(ctl_method_SetItem, item, -1, "", "elem_mixer", "Mixer 1", "m.png", "/cfg/m.xml", "/opt", "0,1",
                   "--x=1", "", "A=1", "B=2", "C=3"), "{ret:0}");
    std::string h = hex(inst->apps[0]->handle);
    EXPECT_EQ(call(ctl_method_GetItem, "(is)", 0, "junk"),
              "{ret:0,ptr:'junk',id:21,id_name:'elem_mixer',alias:'Mixer 1',thumb:'m.png',config:'/cfg/m.xml',"
              "bin_path:'/opt',numa_bind:'0,1',raws:['--x=1'],envs:['A=1','B=2','C=3']}");
    EXPECT_EQ(state(), "2 Mixer 1:1");
    // By handle in any spelling; the index is looked up afresh and echoed back.
    add("second");
    for (std::string ptr : {h, "  0x" + h})
        EXPECT_EQ(call(ctl_method_SetItem, "(isssssss()())", -1, ptr.c_str(), "lib", "L", "", "", "", ""), "{ret:0}");
    instance_slot_swap(inst, 0, 1);
    EXPECT_EQ(call(ctl_method_GetItem, "(is)", -1, ("0X" + h).c_str()), "{ret:1,ptr:'0X" + h +
              "',id:6,id_name:'lib',alias:'L',thumb:'',config:'',bin_path:'',numa_bind:'',raws:[],envs:[]}");
    EXPECT_EQ(state(), "5 second:0 L:3");
    // Refused type: on update nothing changes, on add an empty "none" slot stays.
    EXPECT_EQ(call(ctl_method_SetItem, item, 0, "", "ELEM_MIXER", "x", "", "", "", "", "", "", "", "", ""), "{ret:-2}");
    EXPECT_EQ(call(ctl_method_SetItem, item, -1, "", "none", "x", "", "", "", "", "", "", "", "", ""), "{ret:-2}");
    EXPECT_EQ(call(ctl_method_GetItem, "(is)", 2, "").substr(0, 42), "{ret:2,ptr:'',id:0,id_name:'none',alias:''");
    EXPECT_EQ(call(ctl_method_SetItem, item, 3, "", "lib", "", "", "", "", "", "", "", "", "", ""), "{ret:-34}");
    EXPECT_EQ(call(ctl_method_SetItem, item, -1, "123", "lib", "", "", "", "", "", "", "", "", "", ""), "{ret:-34}");
    EXPECT_EQ(call(ctl_method_GetItem, "(is)", 3, "") + call(ctl_method_GetItem, "(is)", -1, ""), "{ret:-34}{ret:-34}");
    EXPECT_EQ(state(), "6 second:0 L:3 :0");
}

TEST_F(Ctl, SetItemListsAreBoundedAndABadEntryFaultsAfterStoringTheFieldsBefore)
{
    xmlrpc_env_guard env;
    xmlrpc_value_ref envs(xmlrpc_array_new(env.get()));
    for (int i = 0; i < 130; i++) {
        xmlrpc_value_ref e(xmlrpc_string_new(env.get(), ("E" + std::to_string(i) + "=1").c_str()));
        xmlrpc_array_append_item(env.get(), envs.get(), e.get());
    }
    std::string big(5000, 'c');   // raws end at an empty entry
    EXPECT_EQ(call(ctl_method_SetItem, "(isssssss(ssss)A)", -1, "", "io", "", "", big.c_str(), "", "", "--r0", "--r1", "", "--r3",
                   envs.get()), "{ret:0}");
    const app& added = *inst->apps[0];
    EXPECT_EQ(list_text(added.envs) + " " + list_text(added.raws) + " " + std::to_string(added.config.size()), "64:E0=1..E63=1 --r0,--r1 4095");
    EXPECT_EQ(call(ctl_method_SetItem, "(isssssss(s)(ssis))", 0, "", "lib", "new", "", "cfg", "", "", "--new", "A=1",
                   "B=2", 7, "C=3"), "fault");
    EXPECT_EQ(describe(inst).substr(describe(inst).find('[')), "[6:cfg alias=new env=A=1,B=2]");
    EXPECT_EQ(state(), "3 new:2");
    EXPECT_EQ(call(ctl_method_SetItem, "(isssssss()()is)", -1, "", "io", "", "", "", "", "", 5, "extra"), "{ret:0}") << "extra parameters are ignored";
}

TEST_F(Ctl, UndecodableRequestsFaultAndUnknownHandlesAndIndexesAddressNothingWithALine)
{
    add("a");
    // Braces keep the calls in order: the last one's line is checked below.
    for (const std::string& reply : {call(ctl_method_SetField, "(sss)", "0", "t_del", ""),
                                     call(ctl_method_SetField, "(issi)", -1, "", "t_reboot", 1), call(ctl_method_SetItem, "(is)", -1, ""),
                                     call(ctl_method_SetItem, "(isssssssss)", -1, "", "lib", "", "", "", "", "", "x", "y"),
                                     call(ctl_method_GetItem, "(ss)", "0", ""), call(ctl_method_GetStdXXXBuf, "(iiii)", 0, 2, 0, 1),
                                     call(ctl_method_GetAuth, "(i)", 1), call(ctl_method_SetField, "(iss)", 0, "", "t_del")})
        EXPECT_EQ(reply, "fault");
    EXPECT_TRUE(has_line("! ctl_method_SetField: xmlrpc_decompose_value('idx', 'ptr', 'field', 'val') failed")) << logged;
    EXPECT_EQ(call(ctl_method_GetStdXXXBuf, "(isdi)", 0, "", 1.5, 1), "fault");
    EXPECT_TRUE(has_line("! ctl_method_GetStdXXXBuf: xmlrpc_decompose_value('idx', 'ptr', 'off', 'file_no') failed")) << logged;
    EXPECT_EQ(state(), "1 a:0");
    // Handles resolve in any notation, and a miss says why nothing was addressed.
    for (int i = 1; i < 3; i++) add("a" + std::to_string(i));
    std::string h = hex(inst->apps[2]->handle);
    for (std::string ptr : {h, "0x" + h, "0X" + h, "  \t+" + h, "000" + h, h + "zz"})
        EXPECT_EQ(ctl_app_resolve(inst, "test", -1, ptr.c_str()), 2) << ptr;
    EXPECT_EQ(ctl_app_resolve(inst, "test", -42, h.c_str()), 2);
    EXPECT_EQ(ctl_app_resolve(inst, "test", 1, h.c_str()), 1) << "an index in range wins";
    for (const char* ptr : {"", "xyz", "0x", "-"}) EXPECT_EQ(ctl_app_resolve(inst, "test", -1, ptr), -1) << ptr;
    testing::internal::CaptureStderr();
    EXPECT_EQ(ctl_app_resolve(inst, "test", 3, h.c_str()), -1);
    char unused[40], shown[40];
    snprintf(unused, sizeof unused, "0x%" PRIx64 "g", inst->apps[2]->handle + 1000);
    snprintf(shown, sizeof shown, "%p", reinterpret_cast<void*>(inst->apps[2]->handle + 1000));
    EXPECT_EQ(ctl_app_resolve(inst, "test", -1, unused), -1);
    logged = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(has_line("! test: idx=3 out of apps range (3)")) << logged;
    EXPECT_TRUE(has_line(std::string("! test: ptr=[") + unused + "], p=" + shown + " not found")) << logged;
}

TEST_F(Ctl, ListingsReportEverySlotAndElementPorts)
{
    inst->instance_name.set("studio-a");
    app* running = add("mix", 21, 4711);
    running->amend = 5, running->f_respawn = 1;
    running->err.set("Start error");
    running->started = time(nullptr) - 30, running->t_term = time(nullptr) - 7;
    add("", 0);
    inst->amend = 0xfffffff0u;
    std::string status = call(ctl_method_GetStatus, "()"), ages = status.substr(status.find("started:"), 31);
    std::string v = std::string("],version:'") + watchdog_version() + "',instance_name:'studio-a'}";
    EXPECT_TRUE(ages == "started:30L,terminated:7L,f_aut" || ages == "started:31L,terminated:8L,f_aut") << ages;
    running->started = running->t_term = 0;
    EXPECT_EQ(call(ctl_method_GetStatus, "(i)", 1),
              "{amend:4294967280L,list:[{amend:5L,ptr:'" + hex(running->handle) + "',pid:4711,started:0L,terminated:0L,"
              "f_autorun:0,f_respawn:1,err:'Start error',alias:'mix',thumb:'',app_name:'elem_mixer'},{amend:0L,ptr:'" +
              hex(inst->apps[1]->handle) + "',pid:0,started:0L,terminated:0L,f_autorun:0,f_respawn:0,err:'',alias:'',"
              "thumb:'',app_name:'none'}" + v);

    app_free(instance_slot_remove(inst, 1));
    app* raws = add("", 21, 102);
    for (const char* r : {"--other=1", "--port=4242x", "--port=5"}) raws->raws.append(r);
    add("", 21, 103)->raws.append(" --port=5000");   // not at the start
    add("", 23, 104)->raws.append("--port=5000");    // flash reads only --xmlrpc-port=
    add("", 23, 105)->raws.append("--xmlrpc-port=6000");
    add("", 20, 106)->raws.append("--port=4294967297");
    add("", 21, 0);
    for (int excluded : {24, 25, 26, 27, 40, 4, 35, 43}) add("", excluded, 200)->raws.append("--port=7000");
    add("clock", 45, 107);
    inst->amend = 3;
    auto entry = [](int id, int port, std::string alias, std::string name) { return "{id:" + std::to_string(id) + ",port:" +
        std::to_string(port) + ",alias:'" + alias + "',thumb:'',app_name:'" + name + "'}"; };
    EXPECT_EQ(call(ctl_method_GetElements, "()"),
              "{amend:3L,list:[" + entry(21, 36001, "mix", "elem_mixer") + "," + entry(21, 4242, "", "elem_mixer") + "," +
              entry(21, 36001, "", "elem_mixer") + "," + entry(23, 0, "", "elem_flash") + "," +
              entry(23, 6000, "", "elem_flash") + "," + entry(20, 1, "", "elem_matrix") + "," +
              entry(45, 39701, "clock", "elem_clock") + v);
}

// Changes that raise no counter (a signal handler stopping a child) must still
// show within the same second, though an unchanged answer is handed out again.
TEST_F(Ctl, AChangeWithinTheSameSecondIsNeverHiddenByTheReusedAnswer)
{
    app* a = add("");
    auto status = [&] {   // as the control port sends it
        xmlrpc_env_guard env;
        xmlrpc_mem_block* xml = nullptr;
        EXPECT_TRUE(ctl_status_respond(env.get(), inst, &xml));
        xmlrpc_value_ref reply(xmlrpc_parse_response(env.get(), XMLRPC_MEMBLOCK_CONTENTS(char, xml), XMLRPC_MEMBLOCK_SIZE(char, xml)));
        XMLRPC_MEMBLOCK_FREE(char, xml);
        return render(reply.get(), true);
    };
    status();
    a->pid = 42;
    EXPECT_NE(status().find(",pid:42,"), std::string::npos);
    a->f_respawn = 1, a->alias.set("x");
    EXPECT_NE(status().find("f_respawn:1,err:'',alias:'x'"), std::string::npos);
    a->err.set("e"), a->thumb.set("t");
    EXPECT_NE(status().find("err:'e',alias:'x',thumb:'t'"), std::string::npos);
}

// A full ring after 40000 bytes: it holds stream offsets 7232 to 40000, and
// the byte at offset p is p % 251.
TEST_F(Ctl, OutputIsReadByStreamOffsetClampedToTheRingInChunksOf1024)
{
    add("empty");
    std_ring& ring = add("full")->std_bufs[1];
    ring.head = 7232, ring.tail = 40000;
    ring.buf.reset(new char[STD_BUF_SIZE]);
    for (uint64_t p = ring.head; p < ring.tail; p++) ring.buf[p - ring.head] = static_cast<char>(p % 251);
    const int64_t rows[][3] = {{0, 8256, 1024},     {-7, 8256, 1024},   {7231, 8256, 1024}, {8256, 9280, 1024},
                               {39500, 40000, 500}, {38976, 40000, 1024}, {40000, 40000, 0}, {INT64_MAX, 40000, 0}};
    for (auto& r : rows) {
        EXPECT_EQ(call(ctl_method_GetStdXXXBuf, "(isIi)", 1, "", xmlrpc_int64{r[0]}, 1),
                  "{ret:1,ptr:'',off:" + std::to_string(r[1]) + "L,head:7232L,tail:40000L,file_no:1,buf:b" + std::to_string(r[2]) + "}");
        xmlrpc_env_guard env;
        const unsigned char* data = nullptr;   // the reply's bytes, which the stream offsets below must match
        size_t len = 0;
        xmlrpc_decompose_value(env.get(), last_reply.get(), "{s:6,*}", "buf", &data, &len);
        for (size_t i = 0; i < len; i++) ASSERT_EQ(data[i], (r[1] - len + i) % 251) << "offset " << r[0] << " byte " << i;
        free(const_cast<unsigned char*>(data));
    }
    EXPECT_EQ(call(ctl_method_GetStdXXXBuf, "(issi)", 0, "", "100", 2),
              "{ret:0,ptr:'',off:0L,head:0L,tail:0L,file_no:2,buf:b0}") << "the offset may come as a decimal text";
    for (int file_no : {0, 3, -1}) EXPECT_EQ(call(ctl_method_GetStdXXXBuf, "(isIi)", 1, "", xmlrpc_int64{0}, file_no),
                                             file_no ? "{ret:-34}" : "{ret:1,ptr:'',off:0L,head:0L,tail:0L,file_no:0,buf:b0}");
    EXPECT_EQ(call(ctl_method_GetStdXXXBuf, "(isIi)", 2, "", xmlrpc_int64{0}, 1), "{ret:-34}");
}

// ---- The server ----

struct CtlServer : ::testing::Test {
    void SetUp() override { ASSERT_EQ(instance_create(&inst), 0); }
    void TearDown() override
    {
        if (run.valid()) run.wait();
        if (inst->ctl) ctl_destroy(inst);
        instance_destroy(&inst);
    }
    int bound_socket() { return loopback_socket(&inst->port); }
    int init_on_free_port() { return close(bound_socket()), ctl_init(inst); }
    void start()
    {
        ASSERT_EQ(init_on_free_port(), 0);
        url = "http://127.0.0.1:" + std::to_string(inst->port) + "/RPC2";
        run = std::async(std::launch::async, [this] { return ctl_run(inst); });
    }
    instance* inst = nullptr;
    std::string url;
    std::future<int> run;
};

TEST_F(CtlServer, ABusyPortLeavesHalfBuiltStateForDestroyAndChildrenStayWithTheirOwnWaiter)
{
    int busy = bound_socket();
    ASSERT_EQ(listen(busy, 1), 0);
    testing::internal::CaptureStderr();
    int rc = ctl_init(inst);
    std::string logged = testing::internal::GetCapturedStderr();
    close(busy);
    EXPECT_EQ(rc, -14);
    EXPECT_NE(logged.find("ctl_init: xmlrpc_server_abyss_create failed"), std::string::npos) << logged;
    EXPECT_EQ(ctl_run(inst), -22);
    EXPECT_EQ(ctl_destroy(inst), 0);
    ASSERT_EQ(init_on_free_port(), 0) << "nothing of the failed attempt blocks a later server";
    // Children stay with their own waiter while the server exists.
    pid_t child = fork();
    if (child == 0) _exit(3);
    ASSERT_GT(child, 0);
    // Once it is a zombie, SIGCHLD has been sent; a reaper would take it now.
    for (int i = 0; i < 1000 && !process_gone(child); i++) usleep(10 * 1000);
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 3);
    struct sigaction pipe_action {};
    sigaction(SIGPIPE, nullptr, &pipe_action);
    EXPECT_EQ(pipe_action.sa_handler, SIG_IGN);   // broken clients must not kill us
}

TEST_F(CtlServer, ServesAgainAfterDestroyAndStopsDespiteAKeptAliveConnectionOrAnEarlySignal)
{
    start();
    xmlrpc_env_guard env;
    xmlrpc_value_ref reply(xmlrpc_client_call(env.get(), url.c_str(), "VantrelWatchdog.GetApps", "()"));
    EXPECT_FALSE(env.failed()) << env.fault_string();
    // The client keeps its connection open; the server looks at open connections in
    // slices of about two seconds. Stopped from this thread, as the signal thread does.
    EXPECT_EQ(ctl_terminate(inst), 0);
    EXPECT_EQ(run.wait_for(10s), std::future_status::ready) << "ctl_run did not return";
    ASSERT_EQ(ctl_destroy(inst), 0);
    std::atomic<int> sig_cnt{1};   // a signal counted before the run ends the run at once (on a new server)
    inst->p_sig_cnt = &sig_cnt;
    start();
    EXPECT_EQ(run.wait_for(5s), std::future_status::ready);
}

// ---- Defences ----

std::string repeat(const std::string& s, int n) { return n > 0 ? s + repeat(s, n - 1) : ""; }
std::string request(const std::string& method, const std::string& inner = "")
{
    return "<?xml version=\"1.0\"?><methodCall><methodName>" + method + "</methodName><params>" + inner + "</params></methodCall>";
}
std::string arrays(int depth) { return repeat("<value><array><data>", depth) + repeat("</data></array></value>", depth); }

TEST(CtlScreen, RefusesDeclarationsAndDeepNestingAndTakesTheMethodName)
{
    using v = ctl_screen_verdict;
    struct row { const char* name; std::string body; v verdict; std::string method; } rows[] = {
        {"plain call", request("VantrelWatchdog.GetStatus"), v::pass, "VantrelWatchdog.GetStatus"},
        {"blanks around the name", request(" \n m\t"), v::pass, "m"},
        {"doctype", "<!DOCTYPE m>" + request("m"), v::declaration, ""}, {"entity inside", request("x", "<!ENTITY a 'b'>"), v::declaration, ""},
        {"comment and PI skipped", "<?xml?><!-- <!DOCTYPE --><methodCall><methodName>m</methodName></methodCall>", v::pass, "m"},
        {"64 arrays", request("m", arrays(64)), v::pass, "m"}, {"65 arrays", request("m", arrays(65)), v::too_deep, ""},
        {"closed arrays do not add up", request("m", repeat(arrays(40), 10)), v::pass, "m"},
        {"empty arrays do not nest", request("m", repeat("<array/>", 100)), v::pass, "m"},
        {"65 structs", request("m", repeat("<struct><member>", 65)), v::too_deep, ""},
        {"deep unknown elements", request("m", repeat("<x>", 300)), v::too_deep, ""},
        {"UTF-16", std::string("<\0m\0", 4), v::encoding, ""}, {"two method names", request("m") + "<methodName>n</methodName>", v::pass, ""},
        {"CDATA in the name", request("<![CDATA[system.multicall]]>"), v::pass, ""},
        {"character reference kept raw", request("system&#46;multicall"), v::pass, "system&#46;multicall"},
    };
    for (const row& r : rows) {
        ctl_screen_result got = ctl_screen_request(r.body);
        EXPECT_EQ(got.verdict, r.verdict) << r.name;
        EXPECT_EQ(got.verdict == v::pass ? got.method : r.method, r.method) << r.name;
    }
}

TEST(Netmask, ParsesListsAndMatchesPeersByPrefix)
{
    // expected: 1 match, 0 no match, -1 the list does not parse
    struct row { const char* list; const char* peer; int expected; } rows[] = {
        {"10.0.0.0/8", "10.255.1.2", 1}, {"10.0.0.0/8", "11.0.0.1", 0}, {"192.168.1.7", "192.168.1.7", 1}, {"::/129", "::1", -1},
        {"192.168.1.7", "192.168.1.8", 0}, {"172.16.0.0/12", "172.31.255.255", 1}, {"172.16.0.0/12", "172.32.0.0", 0},
        {"10.0.0.0/8,127.0.0.0/8", "127.0.0.1", 1}, {"0.0.0.0/0", "203.0.113.9", 1}, {"fd00::/8", "fd12::1", 1},
        {"fd00::/8", "fe80::1", 0}, {"127.0.0.1", "::ffff:127.0.0.1", 1}, {"::1", "127.0.0.1", 0}, {"10.0.0.0/33", "10.0.0.1", -1},
        {"10.0.0.0/", "10.0.0.1", -1}, {"10.0.0.0/8x", "10.0.0.1", -1}, {"10.0.0.0/8,", "10.0.0.1", -1}, {"host.example", "10.0.0.1", -1},
    };
    for (const row& r : rows) {
        sockaddr_storage sa{};
        bool v4 = inet_pton(AF_INET, r.peer, &reinterpret_cast<sockaddr_in*>(&sa)->sin_addr) == 1;
        if (!v4) inet_pton(AF_INET6, r.peer, &reinterpret_cast<sockaddr_in6*>(&sa)->sin6_addr);
        sa.ss_family = v4 ? AF_INET : AF_INET6;
        std::vector<netmask> nets;
        int got = netmask_parse_list(r.list, nets) ? netmask_match(nets, reinterpret_cast<sockaddr*>(&sa)) : -1;
        EXPECT_EQ(got, r.expected) << r.list << " / " << r.peer;
    }
    EXPECT_TRUE(netmask_is_address("::") && !netmask_is_address("10.0.0.0/8"));
}

}  // namespace
