// Supervision while fork keeps failing (process table full, out of memory):
// the failure is logged and retried, never mistaken for a child that exited,
// never blocks the rest of the pass, and leaves no descriptor or thread behind.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <string>
#include <thread>

#include "app_types.h"
#include "child_registry.h"
#include "instance.h"
#include "log/log.h"
#include "os_ops.h"
#include "respawner.h"
#include "supervision_fixture.h"

using namespace std::chrono_literals;
using steady = std::chrono::steady_clock;

namespace {

using namespace unit_support;

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

// Each test has its own log, which the supervision thread writes to.
class ForkFailure : public supervision_fixture {
protected:
    ForkFailure() : supervision_fixture("fork_failure_test") {}
    void SetUp() override
    {
        supervision_fixture::SetUp();
        log_set_stderr(0);
        ASSERT_EQ(log_start((dir_ / "wd.log").c_str(), 86400), 0);
        fork_calls = 0;
        fork_fails = true;
        watchdog_os.fork = switchable_fork;
    }
    void TearDown() override
    {
        supervision_fixture::TearDown();
        log_stop();
        log_set_stderr(1);
    }
    std::string log_text() { return file_text(dir_ / "wd.log"); }
};

TEST_F(ForkFailure, ManyFailedForksAreNotFastExitsAndTheAppStartsOnceForkWorks)
{
    app* r = add_script_app("lib", "exec sleep 30");
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
    app* talker = add_script_app("lib", "i=0\nwhile [ $i -lt 300 ]; do echo tick; i=$((i+1)); sleep 0.02; done");
    talker->f_respawn = 1;
    start();
    ASSERT_TRUE(wait_until(5000ms, [&] { return talker->pid != 0 && talker->std_bufs[1].tail > 0; }));

    app* failing = add_script_app("sched", "exec sleep 30");
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
    app* a = add_script_app("lib", "exec sleep 30");
    app* b = add_script_app("sched", "exec sleep 30");
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
