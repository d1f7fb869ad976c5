// Control server life cycle, and the listing and output handlers called
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
#include <ctime>
#include <future>
#include <string>
#include <thread>

#include <xmlrpc-c/client.h>

#include "banner.h"
#include "common/xmlrpc_raii.h"
#include "ctl.h"
#include "ctl_methods.h"
#include "instance.h"

// Only sanitizer builds look at these. The library keeps a small block when
// server creation fails (port in use), and on termination it writes to a
// connection's wake-up pipe while that connection's thread may close it.
extern "C" const char* __lsan_default_suppressions() { return "leak:xmlrpc_server_abyss_create\n"; }
extern "C" const char* __tsan_default_suppressions() { return "race:libxmlrpc_abyss.so\n"; }

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
        if (inst->ctl) ctl_destroy(inst);
        instance_destroy(&inst);
    }
    app* add(int type = 21, int pid = 0)
    {
        app* a = app_new();
        a->type = type;
        a->pid = pid;
        instance_slot_append(inst, a);
        return a;
    }
};

// A reply as compact text: member order, wire types and values in one string.
// i8 values end in "L"; base64 shows only its length.
std::string render(xmlrpc_value* v)
{
    xmlrpc_env_guard env;
    std::string out;
    switch (xmlrpc_value_type(v)) {
    case XMLRPC_TYPE_INT: {
        int i = 0;
        xmlrpc_read_int(env.get(), v, &i);
        return std::to_string(i);
    }
    case XMLRPC_TYPE_I8: {
        xmlrpc_int64 i = 0;
        xmlrpc_read_i8(env.get(), v, &i);
        return std::to_string(i) + "L";
    }
    case XMLRPC_TYPE_STRING: {
        decoded_text s;
        xmlrpc_read_string(env.get(), v, s.out());
        if (!env.failed()) decoded_adopt(s);
        return std::string("'") + s.get() + "'";
    }
    case XMLRPC_TYPE_BASE64: {
        size_t len = 0;
        const unsigned char* data = nullptr;
        xmlrpc_read_base64(env.get(), v, &len, &data);
        free(const_cast<unsigned char*>(data));
        return "b" + std::to_string(len);
    }
    case XMLRPC_TYPE_ARRAY:
        for (int i = 0; i < xmlrpc_array_size(env.get(), v); i++) {
            xmlrpc_value_ref item;
            xmlrpc_array_read_item(env.get(), v, i, item.out());
            out += (i ? "," : "") + render(item.get());
        }
        return "[" + out + "]";
    case XMLRPC_TYPE_STRUCT:
        for (int i = 0; i < xmlrpc_struct_size(env.get(), v); i++) {
            xmlrpc_value_ref key, value;
            xmlrpc_struct_read_member(env.get(), v, i, key.out(), value.out());
            std::string k = render(key.get());
            out += (i ? "," : "") + k.substr(1, k.size() - 2) + ":" + render(value.get());
        }
        return "{" + out + "}";
    default:
        return "?";
    }
}

// ---- Life cycle -----------------------------------------------------------------

TEST(CtlLifecycle, EntriesRefuseWithoutAServerAndDestroyRunsOnce)
{
    EXPECT_EQ(ctl_init(nullptr), -22);
    EXPECT_EQ(ctl_run(nullptr), -22);
    EXPECT_EQ(ctl_terminate(nullptr), -22);
    EXPECT_EQ(ctl_destroy(nullptr), -22);
    instance_holder h;
    EXPECT_EQ(ctl_run(h.inst), -22);
    EXPECT_EQ(ctl_terminate(h.inst), -22);
    EXPECT_EQ(ctl_destroy(h.inst), -22);
    h.inst->port = free_port();
    ASSERT_EQ(ctl_init(h.inst), 0);
    EXPECT_EQ(ctl_destroy(h.inst), 0);
    EXPECT_EQ(ctl_destroy(h.inst), -22);
    EXPECT_EQ(ctl_run(h.inst), -22);
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

// ---- Serving ----------------------------------------------------------------------

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
    std::chrono::steady_clock::duration stop()
    {
        auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(ctl_terminate(h_.inst), 0);
        EXPECT_EQ(run_.wait_for(10s), std::future_status::ready) << "ctl_run did not return";
        return std::chrono::steady_clock::now() - begin;
    }

    instance_holder h_;
    std::string url_;
    std::future<int> run_;
};

TEST_F(CtlServe, TerminateFromAnotherThreadEndsTheBlockedRun)
{
    start();
    std::this_thread::sleep_for(200ms);   // let ctl_run block in accept
    EXPECT_LT(stop(), 1s);
    EXPECT_EQ(run_.get(), 0);
}

TEST_F(CtlServe, ServesAgainAfterDestroyAndStopsDespiteAKeptAliveConnection)
{
    for (int round = 0; round < 3; round++) {
        start();
        xmlrpc_env_guard env;
        xmlrpc_value_ref reply(xmlrpc_client_call(env.get(), url_.c_str(), "VantrelWatchdog.GetApps", "()"));
        EXPECT_FALSE(env.failed()) << "round " << round << ": " << env.fault_string();
        // The client keeps its connection open; the server looks at open
        // connections in slices of about two seconds.
        EXPECT_LT(stop(), 5s);
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

// ---- Handlers ---------------------------------------------------------------------

class CtlHandlers : public ::testing::Test {
protected:
    xmlrpc_value* call(xmlrpc_value* (*method)(xmlrpc_env*, xmlrpc_value*, void*, void*), xmlrpc_value* params)
    {
        xmlrpc_value_ref owned(params);
        return method(env_.get(), params, h_.inst, nullptr);
    }
    std::string call_text(xmlrpc_value* (*method)(xmlrpc_env*, xmlrpc_value*, void*, void*), xmlrpc_value* params)
    {
        xmlrpc_value_ref reply(call(method, params));
        return reply ? render(reply.get()) : std::string("fault: ") + env_.fault_string();
    }
    xmlrpc_value* params(const char* fmt, ...)
    {
        va_list ap;
        va_start(ap, fmt);
        xmlrpc_value* v = nullptr;
        const char* tail = nullptr;
        xmlrpc_build_value_va(env_.get(), fmt, ap, &v, &tail);
        va_end(ap);
        return v;
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
    }
    // Reply text for reading from `off`; checks the returned bytes as well.
    std::string read(xmlrpc_value* request)
    {
        xmlrpc_value_ref reply(call(ctl_method_GetStdXXXBuf, request));
        if (!reply) return std::string("fault: ") + env_.fault_string();
        xmlrpc_int64 off = 0;
        const unsigned char* data = nullptr;
        size_t len = 0;
        xmlrpc_decompose_value(env_.get(), reply.get(), "{s:I,s:6,*}", "off", &off, "buf", &data, &len);
        if (!env_.failed()) {
            for (size_t i = 0; i < len; i++)
                EXPECT_EQ(data[i], static_cast<unsigned char>((off - len + i) % 251)) << "byte " << i;
            free(const_cast<unsigned char*>(data));
        }
        env_.reset();
        return render(reply.get());
    }
    // Reply text of slot 1's stdout ring ending at `next` with `len` bytes.
    static std::string window(int64_t next, size_t len)
    {
        return "{ret:1,ptr:'',off:" + std::to_string(next) + "L,head:7232L,tail:40000L,file_no:1,buf:b" +
               std::to_string(len) + "}";
    }
};

TEST_F(CtlStdBuf, OffsetsAreClampedToTheHeldRangeAndChunksCapped)
{
    struct { int64_t off, next; size_t len; } cases[] = {
        {0, 8256, 1024},         {-7, 8256, 1024},        {7231, 8256, 1024},      {8256, 9280, 1024},
        {39500, 40000, 500},     {38976, 40000, 1024},    {40000, 40000, 0},       {INT64_MAX, 40000, 0},
    };
    for (auto& c : cases) {
        EXPECT_EQ(read(params("(isIi)", 1, "", xmlrpc_int64{c.off}, 1)), window(c.next, c.len)) << c.off;
    }
}

TEST_F(CtlStdBuf, RecordsThatNeverReceivedAByteReadAsEmpty)
{
    EXPECT_EQ(read(params("(isIi)", 1, "", xmlrpc_int64{100}, 0)),
              "{ret:1,ptr:'',off:0L,head:0L,tail:0L,file_no:0,buf:b0}");
    EXPECT_EQ(read(params("(isIi)", 0, "", xmlrpc_int64{100}, 2)),
              "{ret:0,ptr:'',off:0L,head:0L,tail:0L,file_no:2,buf:b0}");
}

TEST_F(CtlStdBuf, UnaddressableRequestsAnswerRangeError)
{
    EXPECT_EQ(read(params("(isIi)", 2, "", xmlrpc_int64{0}, 1)), "{ret:-34}");
    EXPECT_EQ(read(params("(isIi)", -1, "", xmlrpc_int64{0}, 1)), "{ret:-34}");
    EXPECT_EQ(read(params("(isIi)", 1, "", xmlrpc_int64{0}, 3)), "{ret:-34}");
    EXPECT_EQ(read(params("(isIi)", 1, "", xmlrpc_int64{0}, -1)), "{ret:-34}");
}

TEST_F(CtlStdBuf, UndecodableRequestsFaultAndSayWhy)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(read(params("(isI)", 1, "", xmlrpc_int64{0})).substr(0, 6), "fault:");
    env_.reset();
    EXPECT_EQ(read(params("(iiii)", 1, 2, 0, 1)).substr(0, 6), "fault:");
    env_.reset();
    EXPECT_EQ(read(params("(isdi)", 1, "", 1.5, 1)).substr(0, 6), "fault:");
    std::string logged = testing::internal::GetCapturedStderr();
    EXPECT_NE(logged.find("ctl_method_GetStdXXXBuf: xmlrpc_decompose_value('idx', 'ptr', 'off', 'file_no') failed"),
              std::string::npos);
}

TEST_F(CtlHandlers, StatusReportsAgesUnsignedAmendAndTypeNames)
{
    h_.inst->instance_name.set("studio-a");
    app* running = h_.add(21, 4711);
    running->started = time(nullptr) - 30;
    running->t_term = time(nullptr) - 7;
    running->amend = 5;
    running->f_respawn = 1;
    running->alias.set("mix");
    running->err.set("Start error");
    app* refused = h_.add(0);   // a slot whose type was refused
    h_.inst->amend = 0xfffffff0u;

    xmlrpc_value_ref reply(call(ctl_method_GetStatus, params("()")));
    ASSERT_TRUE(reply);
    xmlrpc_value* list = nullptr;
    xmlrpc_value* first = nullptr;
    xmlrpc_int64 started = 0, terminated = 0;
    xmlrpc_decompose_value(env_.get(), reply.get(), "{s:A,*}", "list", &list);
    xmlrpc_array_read_item(env_.get(), list, 0, &first);
    xmlrpc_decompose_value(env_.get(), first, "{s:I,s:I,*}", "started", &started, "terminated", &terminated);
    EXPECT_NEAR(started, 30, 1);
    EXPECT_NEAR(terminated, 7, 1);
    xmlrpc_DECREF(first);
    xmlrpc_DECREF(list);

    char ptr[32], ptr2[32];
    snprintf(ptr, sizeof ptr, "%lx", static_cast<unsigned long>(running->handle));
    snprintf(ptr2, sizeof ptr2, "%lx", static_cast<unsigned long>(refused->handle));
    running->started = running->t_term = 0;
    EXPECT_EQ(call_text(ctl_method_GetStatus, params("(i)", 1)),
              std::string("{amend:4294967280L,list:[") +
                  "{amend:5L,ptr:'" + ptr + "',pid:4711,started:0L,terminated:0L,f_autorun:0,f_respawn:1,"
                  "err:'Start error',alias:'mix',thumb:'',app_name:'elem_mixer'}," +
                  "{amend:0L,ptr:'" + ptr2 +
                  "',pid:0,started:0L,terminated:0L,f_autorun:0,f_respawn:0,err:'',alias:'',thumb:'',"
                  "app_name:'none'}],version:'" + watchdog_version() + "',instance_name:'studio-a'}");
}

TEST_F(CtlHandlers, ElementsListRunningElementsWithTheirPorts)
{
    h_.add(21, 101);                                                      // default 36001
    app* raws = h_.add(21, 102);
    for (const char* r : {"--other=1", "--port=0", "--port=4242x"}) raws->raws.append(r);
    h_.add(21, 103)->raws.append(" --port=5000");                         // not at the start
    h_.add(23, 104)->raws.append("--port=5000");                          // flash ignores --port=
    h_.add(23, 105)->raws.append("--xmlrpc-port=6000");
    h_.add(20, 106)->raws.append("--port=4294967297");                    // low 32 bits: 1
    h_.add(21, 0);                                                        // not running
    for (int excluded : {24, 25, 26, 27, 40, 4, 35, 43}) h_.add(excluded, 200)->raws.append("--port=7000");
    h_.add(45, 107)->alias.set("clock");

    auto entry = [](int id, int port, const char* alias, const char* name) {
        return "{id:" + std::to_string(id) + ",port:" + std::to_string(port) + ",alias:'" + alias +
               "',thumb:'',app_name:'" + name + "'}";
    };
    EXPECT_EQ(call_text(ctl_method_GetElements, params("()")),
              "{amend:" + std::to_string(h_.inst->amend) + "L,list:[" + entry(21, 36001, "", "elem_mixer") + "," +
                  entry(21, 4242, "", "elem_mixer") + "," + entry(21, 36001, "", "elem_mixer") + "," +
                  entry(23, 0, "", "elem_flash") + "," + entry(23, 6000, "", "elem_flash") + "," +
                  entry(20, 1, "", "elem_matrix") + "," + entry(45, 39701, "clock", "elem_clock") +
                  "],version:'" + watchdog_version() + "',instance_name:''}");
}

}  // namespace
