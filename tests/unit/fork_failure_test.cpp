// Supervision while fork keeps failing (process table full, out of memory):
// the failure is logged and retried, never mistaken for a child that exited,
// never blocks the rest of the pass, and leaves no descriptor or thread behind.
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <sstream>
#include <string>
#include <thread>

#include "app_types.h"
#include "child_registry.h"
#include "instance.h"
#include "log/log.h"
#include "os_ops.h"
#include "respawner.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using steady = std::chrono::steady_clock;

namespace {

std::atomic<int> fork_calls{0};
std::atomic<bool> fork_fails{false};

pid_t switchable_fork()
{
    fork_calls++;
    if (fork_fails) {
        errno = EAGAIN;
        return -1;
    }
    return child_registry_fork();
}

int open_fd_count()
{
    int n = 0;
    if (DIR* d = opendir("/proc/self/fd")) {
        while (readdir(d)) n++;
        closedir(d);
    }
    return n;
}

fs::path g_dir;

class ForkFailure : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        char tmpl[] = "/tmp/fork_failure_test-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        g_dir = tmpl;
        log_set_stderr(0);
        ASSERT_EQ(log_start((g_dir / "wd.log").c_str(), 86400), 0);
    }
    static void TearDownTestSuite()
    {
        log_stop();
        fs::remove_all(g_dir);
    }

    void SetUp() override
    {
        dir_ = g_dir / ::testing::UnitTest::GetInstance()->current_test_info()->name();
        fs::create_directories(dir_ / "bin");
        ASSERT_EQ(instance_create(&inst_), 0);
        inst_->log_file_name.set((dir_ / "wd.log").string());
        inst_->p_sig_cnt = &sig_cnt_;
        fork_calls = 0;
        fork_fails = true;
        watchdog_os.fork = switchable_fork;
    }
    void TearDown() override
    {
        stop();
        os_ops_reset();
        instance_destroy(&inst_);
    }

    app* add_app(const char* type, const std::string& body)
    {
        int row = instance_apps_lookup(type);
        fs::path exe = dir_ / "bin" / app_types[row].exe;
        std::ofstream(exe) << "#!/bin/sh\n" << body << "\n";
        fs::permissions(exe, fs::perms::owner_all);
        app* r = app_new();
        r->type = row;
        r->bin_path.set((dir_ / "bin").string());
        r->envs.append("PATH=/usr/bin:/bin");
        instance_lock_guard guard(inst_);
        EXPECT_EQ(instance_slot_append(inst_, r), 0);
        return r;
    }
    void start()
    {
        watchdog_respawner_start(inst_);
        started_ = true;
    }
    // Shutdown as the signal handler does it; the thread must end in time.
    bool stop(std::chrono::seconds limit = 10s)
    {
        if (!started_) return true;
        {
            instance_lock_guard guard(inst_);
            sig_cnt_ = 1;
            for (int i = 0; i < inst_->cnt; i++)
                if (inst_->apps[i]->pid) kill(inst_->apps[i]->pid, SIGKILL);
        }
        auto joined = std::async(std::launch::async, [this] { watchdog_respawner_join(inst_); });
        bool in_time = joined.wait_for(limit) == std::future_status::ready;
        if (!in_time) {
            instance_lock_guard guard(inst_);
            for (int i = 0; i < inst_->cnt; i++)
                if (inst_->apps[i]->pid) kill(inst_->apps[i]->pid, SIGKILL);
        }
        joined.wait();
        started_ = false;
        return in_time;
    }
    bool wait_until(std::chrono::milliseconds limit, const std::function<bool()>& pred)
    {
        auto deadline = steady::now() + limit;
        for (int round = 0; round < 100000; round++) {
            {
                instance_lock_guard guard(inst_);
                if (pred()) return true;
            }
            if (steady::now() >= deadline) return false;
            std::this_thread::sleep_for(5ms);
        }
        return false;
    }

    fs::path dir_;
    instance* inst_ = nullptr;
    std::atomic<int> sig_cnt_{0};
    bool started_ = false;
};

std::string log_text()
{
    std::ifstream in(g_dir / "wd.log");
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

TEST_F(ForkFailure, ManyFailedForksAreNotFastExitsAndTheAppStartsOnceForkWorks)
{
    app* r = add_app("lib", "exec sleep 30");
    r->f_respawn = 1;
    start();
    // More failures than the fast-exit brake allows exits: none of them may count.
    ASSERT_TRUE(wait_until(5000ms, [] { return fork_calls.load() >= 8; }));
    {
        instance_lock_guard guard(inst_);
        EXPECT_EQ(r->pid, 0);
        EXPECT_EQ(r->f_respawn, 1);
        EXPECT_EQ(r->fast_respawn_cnt, 0);
        EXPECT_EQ(r->err.str(), "");
        fork_fails = false;
    }
    ASSERT_TRUE(wait_until(5000ms, [&] { return r->pid != 0; }));
    EXPECT_EQ(r->err.str(), "");

    // The failures reached the log with their errno.
    auto deadline = steady::now() + 3s;
    while (log_text().find("fork failed, errno=[11]") == std::string::npos && steady::now() < deadline)
        std::this_thread::sleep_for(20ms);
    EXPECT_NE(log_text().find("watchdog_respawner_run_proc: fork failed, errno=[11]"), std::string::npos);
}

TEST_F(ForkFailure, OneAppFailingToStartDoesNotStallTheOthers)
{
    fork_fails = false;
    app* talker = add_app("lib", "i=0\nwhile [ $i -lt 300 ]; do echo tick; i=$((i+1)); sleep 0.02; done");
    talker->f_respawn = 1;
    start();
    ASSERT_TRUE(wait_until(5000ms, [&] { return talker->pid != 0 && talker->std_bufs[1].tail > 0; }));

    app* failing = add_app("sched", "exec sleep 30");
    uint64_t tail_before;
    {
        instance_lock_guard guard(inst_);
        fork_fails = true;
        failing->f_respawn = 1;
        tail_before = talker->std_bufs[1].tail;
    }
    int calls_before = fork_calls.load();
    // Every pass tries the failing app again and still collects the talker's output.
    ASSERT_TRUE(wait_until(5000ms, [&] {
        return fork_calls.load() >= calls_before + 5 && talker->std_bufs[1].tail >= tail_before + 5 * 5;
    }));
    instance_lock_guard guard(inst_);
    EXPECT_EQ(failing->pid, 0);
    EXPECT_NE(talker->pid, 0);
}

TEST_F(ForkFailure, RepeatedFailuresLeaveNoDescriptorsAndShutdownStillEnds)
{
    app* a = add_app("lib", "exec sleep 30");
    app* b = add_app("sched", "exec sleep 30");
    a->f_respawn = 1;
    b->t_run = 1;
    int fds_before = open_fd_count();
    start();
    ASSERT_TRUE(wait_until(5000ms, [] { return fork_calls.load() >= 10; }));
    {
        instance_lock_guard guard(inst_);
        // Three pipes per attempt: a leak would show after ten attempts.
        EXPECT_EQ(open_fd_count(), fds_before);
        for (const app* r : {a, b})
            for (const std_pipe& p : r->std_pipes) EXPECT_TRUE(p.rd == -1 && p.wr == -1);
        // A one-shot start request is spent by its failed attempt.
        EXPECT_EQ(b->t_run, 0);
    }
    EXPECT_TRUE(stop(3s)) << "supervision must end although no child ever started";
    EXPECT_EQ(a->forker_cnt, 0);
    EXPECT_EQ(b->forker_cnt, 0);
}

}   // namespace
