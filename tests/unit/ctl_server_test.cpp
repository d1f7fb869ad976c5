// Control server life cycle, and the status, output and auth handlers called
// directly with built parameter arrays.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <xmlrpc-c/client.h>

#include "banner.h"
#include "client/xmlrpc_raii.h"
#include "ctl.h"
#include "ctl_methods.h"
#include "instance.h"

// The library keeps a small block when server creation fails (port in use);
// only sanitizer builds look at this.
extern "C" const char* __lsan_default_suppressions() { return "leak:xmlrpc_server_abyss_create\n"; }

namespace {

using namespace std::chrono_literals;

int free_port()
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    close(fd);
    return ntohs(addr.sin_port);
}

struct instance_holder {
    instance* inst = nullptr;
    instance_holder() { instance_create(&inst); }
    ~instance_holder()
    {
        if (inst && inst->ctl) ctl_destroy(inst);
        instance_destroy(&inst);
    }
    app* add(int type = 21)
    {
        app* a = app_new();
        a->type = type;
        instance_slot_append(inst, a);
        return a;
    }
};

// ---- Life cycle ---------------------------------------------------------------

TEST(CtlLifecycle, EveryEntryRefusesWithoutAServer)
{
    EXPECT_EQ(ctl_init(nullptr), -22);
    EXPECT_EQ(ctl_run(nullptr), -22);
    EXPECT_EQ(ctl_terminate(nullptr), -22);
    EXPECT_EQ(ctl_destroy(nullptr), -22);
    instance_holder h;
    EXPECT_EQ(ctl_run(h.inst), -22);
    EXPECT_EQ(ctl_terminate(h.inst), -22);
    EXPECT_EQ(ctl_destroy(h.inst), -22);
}

TEST(CtlLifecycle, DestroyTwiceThenNothingIsLeft)
{
    instance_holder h;
    h.inst->port = free_port();
    ASSERT_EQ(ctl_init(h.inst), 0);
    EXPECT_EQ(ctl_destroy(h.inst), 0);
    EXPECT_EQ(h.inst->ctl, nullptr);
    EXPECT_EQ(ctl_destroy(h.inst), -22);
    EXPECT_EQ(ctl_run(h.inst), -22);
    EXPECT_EQ(ctl_terminate(h.inst), -22);
}

TEST(CtlLifecycle, PortInUseFailsAtServerCreationAndLeavesHalfBuiltStateForDestroy)
{
    int busy = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    socklen_t len = sizeof addr;
    ASSERT_EQ(bind(busy, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    ASSERT_EQ(listen(busy, 1), 0);
    getsockname(busy, reinterpret_cast<sockaddr*>(&addr), &len);

    instance_holder h;
    h.inst->port = ntohs(addr.sin_port);
    testing::internal::CaptureStderr();
    int rc = ctl_init(h.inst);
    std::string logged = testing::internal::GetCapturedStderr();
    close(busy);
    EXPECT_EQ(rc, -14);
    EXPECT_NE(logged.find("ctl_init: xmlrpc_server_abyss_create failed"), std::string::npos) << logged;
    EXPECT_NE(h.inst->ctl, nullptr);
    EXPECT_EQ(ctl_run(h.inst), -22);
    EXPECT_EQ(ctl_destroy(h.inst), 0);

    // Nothing of the failed attempt blocks a later server in the same process.
    h.inst->port = free_port();
    EXPECT_EQ(ctl_init(h.inst), 0);
}

TEST(CtlLifecycle, ChildrenStayWithTheirOwnWaiterWhileTheServerExists)
{
    instance_holder h;
    h.inst->port = free_port();
    ASSERT_EQ(ctl_init(h.inst), 0);
    pid_t child = fork();
    if (child == 0) _exit(3);
    ASSERT_GT(child, 0);
    usleep(200 * 1000);   // SIGCHLD has been delivered by now
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 3);
    struct sigaction pipe_action {};
    sigaction(SIGPIPE, nullptr, &pipe_action);
    EXPECT_EQ(pipe_action.sa_handler, SIG_IGN);   // broken clients must not kill us
}

// ---- Serving --------------------------------------------------------------------

class CtlServe : public ::testing::Test {
protected:
    void start()
    {
        h_.inst->port = free_port();
        ASSERT_EQ(ctl_init(h_.inst), 0);
        url_ = "http://127.0.0.1:" + std::to_string(h_.inst->port) + "/RPC2";
        run_ = std::async(std::launch::async, [this] { return ctl_run(h_.inst); });
    }
    // Stops the server from this thread, as the signal thread does.
    bool stop_within(std::chrono::seconds limit)
    {
        EXPECT_EQ(ctl_terminate(h_.inst), 0);
        bool ended = run_.wait_for(limit) == std::future_status::ready;
        if (ended) {
            EXPECT_EQ(run_.get(), 0);
        }
        return ended;
    }
    int call_get_apps_count()
    {
        xmlrpc_env_guard env;
        xmlrpc_value_ref reply(xmlrpc_client_call(env.get(), url_.c_str(), "VantrelWatchdog.GetApps", "()"));
        if (env.failed()) return -1;
        xmlrpc_value_ref apps;
        xmlrpc_struct_find_value(env.get(), reply.get(), "apps", apps.out());
        return env.failed() || !apps ? -1 : xmlrpc_array_size(env.get(), apps.get());
    }

    instance_holder h_;
    std::string url_;
    std::future<int> run_;
};

TEST_F(CtlServe, TerminateFromAnotherThreadEndsTheBlockedRun)
{
    start();
    std::this_thread::sleep_for(200ms);   // let ctl_run block in accept
    auto begin = std::chrono::steady_clock::now();
    ASSERT_TRUE(stop_within(5s)) << "ctl_run did not return after ctl_terminate";
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 1s);
}

TEST_F(CtlServe, TerminateEndsRunDespiteAnIdleKeepAliveConnection)
{
    start();
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(h_.inst->port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    std::string body = "<?xml version=\"1.0\"?><methodCall><methodName>VantrelWatchdog.GetApps</methodName>"
                       "<params/></methodCall>";
    std::string req = "POST /RPC2 HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: text/xml\r\nConnection: "
                      "keep-alive\r\nContent-Length: " +
                      std::to_string(body.size()) + "\r\n\r\n" + body;
    ASSERT_EQ(write(fd, req.data(), req.size()), static_cast<ssize_t>(req.size()));
    timeval tv{5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    char reply[256];
    ASSERT_GT(read(fd, reply, sizeof reply), 0);

    // Open connections are looked at in slices of about two seconds, far
    // below the keep-alive time-out.
    bool ended = stop_within(5s);
    close(fd);
    EXPECT_TRUE(ended);
}

TEST_F(CtlServe, ServesAgainAfterDestroyInTheSameProcess)
{
    for (int round = 0; round < 3; round++) {
        start();
        EXPECT_EQ(call_get_apps_count(), 45) << "round " << round;
        ASSERT_TRUE(stop_within(5s));
        ASSERT_EQ(ctl_destroy(h_.inst), 0);
    }
}

TEST_F(CtlServe, SignalCountedBeforeRunEndsRunAtOnce)
{
    std::atomic<int> sig_cnt{1};
    h_.inst->p_sig_cnt = &sig_cnt;
    start();
    EXPECT_EQ(run_.wait_for(5s), std::future_status::ready);
}

// ---- Handlers called directly -----------------------------------------------------

class CtlHandlers : public ::testing::Test {
protected:
    xmlrpc_value* call(xmlrpc_value* (*method)(xmlrpc_env*, xmlrpc_value*, void*, void*), const char* fmt, ...)
    {
        va_list ap;
        va_start(ap, fmt);
        const char* tail = nullptr;
        xmlrpc_value_ref params;
        xmlrpc_build_value_va(env_.get(), fmt, ap, params.out(), &tail);
        va_end(ap);
        EXPECT_FALSE(env_.failed());
        return method(env_.get(), params.get(), h_.inst, nullptr);
    }
    int64_t i8(xmlrpc_value* s, const char* key)
    {
        xmlrpc_int64 v = -1;
        xmlrpc_value_ref m;
        xmlrpc_struct_find_value(env_.get(), s, key, m.out());
        if (m) xmlrpc_read_i8(env_.get(), m.get(), &v);
        return v;
    }
    int i4(xmlrpc_value* s, const char* key)
    {
        int v = -1;
        xmlrpc_value_ref m;
        xmlrpc_struct_find_value(env_.get(), s, key, m.out());
        if (m) xmlrpc_read_int(env_.get(), m.get(), &v);
        return v;
    }
    std::string str(xmlrpc_value* s, const char* key)
    {
        xmlrpc_value_ref m;
        xmlrpc_struct_find_value(env_.get(), s, key, m.out());
        if (!m) return "<missing>";
        xmlrpc_cstr text;
        xmlrpc_read_string(env_.get(), m.get(), text.out());
        return text.get();
    }
    std::string bytes(xmlrpc_value* s)
    {
        xmlrpc_value_ref m;
        xmlrpc_struct_find_value(env_.get(), s, "buf", m.out());
        if (!m) return "<missing>";
        size_t len = 0;
        const unsigned char* data = nullptr;
        xmlrpc_read_base64(env_.get(), m.get(), &len, &data);
        std::string out(reinterpret_cast<const char*>(data), len);
        free(const_cast<unsigned char*>(data));
        return out;
    }
    std::vector<std::string> keys(xmlrpc_value* s)
    {
        std::vector<std::string> out;
        int n = xmlrpc_struct_size(env_.get(), s);
        for (int i = 0; i < n; i++) {
            xmlrpc_value* k = nullptr;
            xmlrpc_value* v = nullptr;
            xmlrpc_struct_read_member(env_.get(), s, i, &k, &v);
            xmlrpc_cstr text;
            xmlrpc_read_string(env_.get(), k, text.out());
            out.emplace_back(text.get());
            xmlrpc_DECREF(k);
            xmlrpc_DECREF(v);
        }
        return out;
    }
    xmlrpc_value* list_item(xmlrpc_value* reply, int i)
    {
        xmlrpc_value_ref list;
        xmlrpc_struct_find_value(env_.get(), reply, "list", list.out());
        xmlrpc_value* item = nullptr;
        xmlrpc_array_read_item(env_.get(), list.get(), i, &item);
        return item;
    }
    int list_size(xmlrpc_value* reply)
    {
        xmlrpc_value_ref list;
        xmlrpc_struct_find_value(env_.get(), reply, "list", list.out());
        return list ? xmlrpc_array_size(env_.get(), list.get()) : -1;
    }

    instance_holder h_;
    xmlrpc_env_guard env_;
};

// A full ring after 40000 bytes: it holds stream offsets 7232 to 40000, and the
// byte at offset p is p % 251.
class CtlStdBuf : public CtlHandlers {
protected:
    void SetUp() override
    {
        h_.add();
        app* a = h_.add();
        std_ring& r = a->std_bufs[1];
        r.head = 7232;
        r.tail = 40000;
        r.buf.reset(new char[STD_BUF_SIZE]);
        for (uint64_t p = r.head; p < r.tail; p++) r.buf[p - r.head] = static_cast<char>(p % 251);
        snprintf(ptr_, sizeof ptr_, "%lx", static_cast<unsigned long>(a->handle));
    }
    static std::string stream(uint64_t from, uint64_t to)
    {
        std::string out;
        for (uint64_t p = from; p < to; p++) out.push_back(static_cast<char>(p % 251));
        return out;
    }
    // Expects a reply with `from`..`to` of the stream and "off" `to`.
    void expect_window(xmlrpc_value* reply, uint64_t from, uint64_t to)
    {
        ASSERT_FALSE(env_.failed()) << env_.fault_string();
        EXPECT_EQ(i4(reply, "ret"), 1);
        EXPECT_EQ(i8(reply, "off"), static_cast<int64_t>(to));
        EXPECT_EQ(i8(reply, "head"), 7232);
        EXPECT_EQ(i8(reply, "tail"), 40000);
        EXPECT_EQ(bytes(reply), stream(from, to));
    }
    char ptr_[32];
};

TEST_F(CtlStdBuf, OffsetsAreClampedToTheHeldRangeAndChunksCapped)
{
    struct { int64_t off; uint64_t from, to; } cases[] = {
        {0, 7232, 8256},     {-7, 7232, 8256},       {7231, 7232, 8256},     {7232, 7232, 8256},
        {8256, 8256, 9280},  {39500, 39500, 40000},  {38976, 38976, 40000},  {40000, 40000, 40000},
        {40001, 40000, 40000}, {INT64_MAX, 40000, 40000},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.off);
        xmlrpc_value_ref reply(call(ctl_method_GetStdXXXBuf, "(isIi)", 1, "", static_cast<xmlrpc_int64>(c.off), 1));
        expect_window(reply.get(), c.from, c.to);
    }
}

TEST_F(CtlStdBuf, OffsetAsDecimalTextReadsTheSameAsI8)
{
    xmlrpc_value_ref text(call(ctl_method_GetStdXXXBuf, "(issi)", 1, "abc", " 8256xyz", 1));
    expect_window(text.get(), 8256, 9280);
    EXPECT_EQ(str(text.get(), "ptr"), "abc");
    xmlrpc_value_ref neg(call(ctl_method_GetStdXXXBuf, "(issi)", 1, "", "-3", 1));
    expect_window(neg.get(), 7232, 8256);
    xmlrpc_value_ref junk(call(ctl_method_GetStdXXXBuf, "(issi)", 1, "", "junk", 1));
    expect_window(junk.get(), 7232, 8256);
}

TEST_F(CtlStdBuf, HandleAddressingAnswersTheSlotIndexAndEchoesPtr)
{
    std::string upper = std::string("0X") + ptr_;
    for (char& c : upper) c = static_cast<char>(toupper(c));
    xmlrpc_value_ref reply(call(ctl_method_GetStdXXXBuf, "(isIi)", -1, upper.c_str(), xmlrpc_int64{39500}, 1));
    expect_window(reply.get(), 39500, 40000);
    EXPECT_EQ(str(reply.get(), "ptr"), upper);
    EXPECT_EQ(keys(reply.get()),
              (std::vector<std::string>{"ret", "ptr", "off", "head", "tail", "file_no", "buf"}));
}

TEST_F(CtlStdBuf, EmptyRecordsReadAsNothing)
{
    // Record 0 is never filled; record 2 of this app never received a byte.
    for (int file_no : {0, 2}) {
        xmlrpc_value_ref reply(call(ctl_method_GetStdXXXBuf, "(isIi)", 1, "", xmlrpc_int64{100}, file_no));
        ASSERT_FALSE(env_.failed());
        EXPECT_EQ(i4(reply.get(), "ret"), 1);
        EXPECT_EQ(i8(reply.get(), "off"), 0);
        EXPECT_EQ(i8(reply.get(), "head"), 0);
        EXPECT_EQ(i8(reply.get(), "tail"), 0);
        EXPECT_EQ(i4(reply.get(), "file_no"), file_no);
        EXPECT_EQ(bytes(reply.get()), "");
    }
}

TEST_F(CtlStdBuf, UnaddressableRequestsAnswerRangeError)
{
    struct { int idx; const char* ptr; int file_no; } cases[] = {
        {2, "", 1}, {-1, "", 1}, {-1, "fffffffff", 1}, {1, "", 3}, {1, "", -1}, {1, "", 1 << 20},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.idx) + " " + c.ptr + " " + std::to_string(c.file_no));
        xmlrpc_value_ref reply(call(ctl_method_GetStdXXXBuf, "(isIi)", c.idx, c.ptr, xmlrpc_int64{0}, c.file_no));
        ASSERT_FALSE(env_.failed());
        EXPECT_EQ(keys(reply.get()), std::vector<std::string>{"ret"});
        EXPECT_EQ(i4(reply.get(), "ret"), -34);
    }
}

TEST_F(CtlStdBuf, UndecodableRequestsFault)
{
    const char* formats[] = {"(isI)", "(iiIi)", "(sisi)", "()", "(isdi)"};
    for (const char* fmt : formats) {
        SCOPED_TRACE(fmt);
        env_.reset();
        xmlrpc_value_ref params;
        if (strcmp(fmt, "(isI)") == 0)
            params.reset(xmlrpc_build_value(env_.get(), fmt, 1, "", xmlrpc_int64{0}));
        else if (strcmp(fmt, "(iiIi)") == 0)
            params.reset(xmlrpc_build_value(env_.get(), fmt, 1, 2, xmlrpc_int64{0}, 1));
        else if (strcmp(fmt, "(sisi)") == 0)
            params.reset(xmlrpc_build_value(env_.get(), fmt, "1", 2, "0", 1));
        else if (strcmp(fmt, "()") == 0)
            params.reset(xmlrpc_build_value(env_.get(), fmt));
        else
            params.reset(xmlrpc_build_value(env_.get(), fmt, 1, "", 1.5, 1));
        ASSERT_FALSE(env_.failed());
        testing::internal::CaptureStderr();
        xmlrpc_value* reply = ctl_method_GetStdXXXBuf(env_.get(), params.get(), h_.inst, nullptr);
        std::string logged = testing::internal::GetCapturedStderr();
        EXPECT_EQ(reply, nullptr);
        EXPECT_TRUE(env_.failed());
        EXPECT_NE(logged.find("ctl_method_GetStdXXXBuf: xmlrpc_decompose_value('idx', 'ptr', 'off', 'file_no') failed"),
                  std::string::npos);
    }
}

TEST_F(CtlHandlers, AuthWithoutSecretAcceptsAnything)
{
    xmlrpc_value_ref reply(call(ctl_method_GetAuth, "(ss)", "", ""));
    EXPECT_EQ(i4(reply.get(), "ret"), 1);
    EXPECT_EQ(str(reply.get(), "session"), watchdog_banner());
    EXPECT_EQ(keys(reply.get()), (std::vector<std::string>{"ret", "session"}));
}

TEST_F(CtlHandlers, AuthWithSecretChecksSecretOrSessionExactly)
{
    h_.inst->web_auth_secret.set("Open Sesame");
    std::string token = watchdog_banner();
    struct { const char* secret; std::string session; int ret; } cases[] = {
        {"Open Sesame", "", 1}, {"open Sesame", "", 0}, {"", "", 0}, {"Open Sesame ", "", 0},
        {"Open", "", 0},        {"wrong", token, 1},    {"wrong", token + "x", 0}, {"Open Sesame", "junk", 1},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(std::string(c.secret) + "|" + c.session);
        xmlrpc_value_ref reply(call(ctl_method_GetAuth, "(ss)", c.secret, c.session.c_str()));
        EXPECT_EQ(i4(reply.get(), "ret"), c.ret);
        EXPECT_EQ(str(reply.get(), "session"), c.ret ? token : "");
    }
    env_.reset();
    xmlrpc_value_ref bad(call(ctl_method_GetAuth, "(s)", "Open Sesame"));
    EXPECT_EQ(bad.get(), nullptr);
    EXPECT_TRUE(env_.failed());
}

TEST_F(CtlHandlers, StatusReportsAgesUnsignedAmendAndTypeNames)
{
    h_.inst->instance_name.set("studio-a");
    app* running = h_.add(21);
    running->pid = 4711;
    running->started = time(nullptr) - 30;
    running->t_term = time(nullptr) - 7;
    running->amend = 5;
    running->alias.set("mix");
    running->err.set("Start error");
    h_.add(0);   // a slot whose type was refused
    h_.inst->amend = 0xfffffff0u;

    xmlrpc_value_ref reply(call(ctl_method_GetStatus, "()"));
    ASSERT_FALSE(env_.failed());
    EXPECT_EQ(keys(reply.get()), (std::vector<std::string>{"amend", "list", "version", "instance_name"}));
    EXPECT_EQ(i8(reply.get(), "amend"), 0xfffffff0LL);
    EXPECT_EQ(str(reply.get(), "version"), watchdog_version());
    EXPECT_EQ(str(reply.get(), "instance_name"), "studio-a");
    ASSERT_EQ(list_size(reply.get()), 2);

    xmlrpc_value_ref first(list_item(reply.get(), 0));
    EXPECT_EQ(keys(first.get()), (std::vector<std::string>{"amend", "ptr", "pid", "started", "terminated", "f_autorun",
                                                            "f_respawn", "err", "alias", "thumb", "app_name"}));
    EXPECT_NEAR(i8(first.get(), "started"), 30, 1);
    EXPECT_NEAR(i8(first.get(), "terminated"), 7, 1);
    EXPECT_EQ(i4(first.get(), "pid"), 4711);
    EXPECT_EQ(i8(first.get(), "amend"), 5);
    EXPECT_EQ(str(first.get(), "err"), "Start error");
    EXPECT_EQ(str(first.get(), "app_name"), "elem_mixer");
    char ptr[32];
    snprintf(ptr, sizeof ptr, "%lx", static_cast<unsigned long>(running->handle));
    EXPECT_EQ(str(first.get(), "ptr"), ptr);

    xmlrpc_value_ref second(list_item(reply.get(), 1));
    EXPECT_EQ(i8(second.get(), "started"), 0);
    EXPECT_EQ(i8(second.get(), "terminated"), 0);
    EXPECT_EQ(str(second.get(), "app_name"), "none");
}

TEST_F(CtlHandlers, ElementsListRunningElementsWithTheirPorts)
{
    auto running = [&](int type, std::vector<const char*> raws = {}) {
        app* a = h_.add(type);
        a->pid = 100 + h_.inst->cnt;
        for (const char* r : raws) a->raws.append(r);
        return a;
    };
    running(21);                                          // default 36001
    running(21, {"--other=1", "--port=0", "--port=4242x"});
    running(21, {" --port=5000"});                        // not at the start: default
    running(23, {"--port=5000"});                         // flash ignores --port=
    running(23, {"--xmlrpc-port=6000"});
    running(20, {"--port=4294967297"});                   // low 32 bits: 1
    h_.add(21);                                           // not running
    for (int excluded : {24, 25, 26, 27, 40, 4, 35, 43}) running(excluded, {"--port=7000"});
    running(45);

    xmlrpc_value_ref reply(call(ctl_method_GetElements, "(i)", 5));   // parameters are ignored
    ASSERT_FALSE(env_.failed());
    std::vector<std::pair<int, int>> expect = {{21, 36001}, {21, 4242}, {21, 36001}, {23, 0},
                                               {23, 6000},  {20, 1},    {45, 39701}};
    ASSERT_EQ(list_size(reply.get()), static_cast<int>(expect.size()));
    for (size_t i = 0; i < expect.size(); i++) {
        xmlrpc_value_ref item(list_item(reply.get(), static_cast<int>(i)));
        EXPECT_EQ(i4(item.get(), "id"), expect[i].first) << i;
        EXPECT_EQ(i4(item.get(), "port"), expect[i].second) << i;
    }
    xmlrpc_value_ref first(list_item(reply.get(), 0));
    EXPECT_EQ(keys(first.get()), (std::vector<std::string>{"id", "port", "alias", "thumb", "app_name"}));
}

TEST_F(CtlHandlers, AppsListsTheConfigurableTypes)
{
    xmlrpc_value_ref reply(call(ctl_method_GetApps, "()"));
    ASSERT_FALSE(env_.failed());
    xmlrpc_value_ref apps;
    xmlrpc_struct_find_value(env_.get(), reply.get(), "apps", apps.out());
    ASSERT_EQ(xmlrpc_array_size(env_.get(), apps.get()), 45);
    auto name = [&](int i) {
        xmlrpc_value_ref v;
        xmlrpc_array_read_item(env_.get(), apps.get(), i, v.out());
        xmlrpc_cstr text;
        xmlrpc_read_string(env_.get(), v.get(), text.out());
        return std::string(text.get());
    };
    EXPECT_EQ(name(0), "filetranscoder");
    EXPECT_EQ(name(44), "elem_clock");
}

}  // namespace
