// Control server life cycle: creation, a busy port, serving, stopping from
// another thread, and that children stay with their own waiter.
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
#include "unit_support.h"

// Only sanitizer builds look at these. The library keeps a small block when
// server creation fails (port in use), and on termination it writes to a
// connection's wake-up pipe while that connection's thread may close it.
extern "C" const char* __lsan_default_suppressions() { return "leak:xmlrpc_server_abyss_create\n"; }
extern "C" const char* __tsan_default_suppressions() { return "race:libxmlrpc_abyss.so\n"; }

namespace {

using namespace std::chrono_literals;
using unit_support::file_text;

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

// ---- Life cycle -----------------------------------------------------------------

TEST(CtlLifecycle, EntriesRefuseWithoutAServerAndDestroyRunsOnce)
{
    instance_holder h;
    EXPECT_EQ(ctl_init(nullptr), -22);
    EXPECT_EQ(ctl_run(h.inst), -22);
    h.inst->port = free_port();
    ASSERT_EQ(ctl_init(h.inst), 0);
    EXPECT_EQ(ctl_destroy(h.inst), 0);
    EXPECT_EQ(ctl_destroy(h.inst), -22);
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
    // Once it is a zombie, SIGCHLD has been sent; a reaper would take it now.
    for (int i = 0; i < 1000 && file_text("/proc/" + std::to_string(child) + "/stat").find(") Z") == std::string::npos; i++)
        usleep(10 * 1000);
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

}  // namespace
