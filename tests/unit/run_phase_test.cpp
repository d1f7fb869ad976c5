// The run phase's own decisions: which variables children inherit, and what a
// termination signal does to the children and the count.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "instance.h"
#include "log/log.h"
#include "run_phase.h"
#include "unit_support.h"

namespace fs = std::filesystem;

namespace {

using namespace unit_support;

const char* const INHERITED[] = {"VANTREL_ELEMENTS_DEVICE", "CUDA_MPS_LOG_DIRECTORY", "CUDA_VISIBLE_DEVICES"};

class RunPhaseTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(instance_create(&inst_), 0);
        inst_->p_sig_cnt = &count_;
        for (const char* name : INHERITED) unsetenv(name);
        log_set_stderr(0);
        ASSERT_EQ(log_start((dir_ / "w.log").c_str(), 86400), 0);
    }
    void TearDown() override
    {
        for (pid_t pid : children_) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        log_stop();
        log_set_stderr(1);
        for (const char* name : INHERITED) unsetenv(name);
        instance_destroy(&inst_);
    }

    // Messages of the log so far (stops the log).
    std::vector<std::string> messages()
    {
        log_stop();
        std::vector<std::string> out;
        for (const std::string& line : lines_of(file_text(dir_ / "w.log"))) out.push_back(line.substr(28));
        return out;
    }

    app* add_app(int pid, int64_t t_term = 0)
    {
        app* record = app_new();
        record->type = 1;
        record->pid = pid;
        record->t_term = t_term;
        instance_slot_append(inst_, record);
        return record;
    }

    // A child that waits for a signal and gives up by itself after 30 s.
    pid_t spawn_waiter()
    {
        pid_t pid = fork();
        if (pid == 0) {
            alarm(30);
            for (int i = 0; i < 100; i++) pause();
            _exit(0);
        }
        children_.push_back(pid);
        return pid;
    }

    // Signal that ended the child, 0 if it still runs after `ms`.
    int ended_by(pid_t pid, int ms = 2000)
    {
        for (int i = 0; i < ms / 10; i++) {
            int status = 0;
            if (waitpid(pid, &status, WNOHANG) == pid) {
                std::erase(children_, pid);
                return WIFSIGNALED(status) ? WTERMSIG(status) : -1;
            }
            usleep(10000);
        }
        return 0;
    }

    instance* inst_ = nullptr;
    std::atomic<int> count_{0};
    scratch_dir scratch_{"run_phase_test"};
    fs::path dir_ = scratch_.path();
    std::vector<pid_t> children_;
};

}  // namespace

TEST_F(RunPhaseTest, OnlyTheVariablesThatAreSetAreTakenWithoutGaps)
{
    setenv("CUDA_VISIBLE_DEVICES", "3", 1);
    EXPECT_EQ(run_phase_inherit_envs(inst_), 1);
    ASSERT_EQ(inst_->inherited_envs.size(), 1u);
    EXPECT_EQ(inst_->inherited_envs[0].str(), "CUDA_VISIBLE_DEVICES=3");
    EXPECT_EQ(messages(), std::vector<std::string>{"main: CUDA_VISIBLE_DEVICES=3"});
}

TEST_F(RunPhaseTest, InheritedVariablesKeepTheirFixedOrder)
{
    setenv("CUDA_VISIBLE_DEVICES", "0,1", 1);
    setenv("VANTREL_ELEMENTS_DEVICE", "", 1);   // set but empty still counts
    setenv("CUDA_MPS_LOG_DIRECTORY", "/tmp/mps", 1);
    EXPECT_EQ(run_phase_inherit_envs(inst_), 3);
    ASSERT_EQ(inst_->inherited_envs.size(), 3u);
    EXPECT_EQ(inst_->inherited_envs[0].str(), "VANTREL_ELEMENTS_DEVICE=");
    EXPECT_EQ(inst_->inherited_envs[1].str(), "CUDA_MPS_LOG_DIRECTORY=/tmp/mps");
    EXPECT_EQ(inst_->inherited_envs[2].str(), "CUDA_VISIBLE_DEVICES=0,1");
}

TEST_F(RunPhaseTest, FirstSignalStopsEveryRunningChildOnce)
{
    pid_t running = spawn_waiter();
    pid_t terminating = spawn_waiter();
    app* a = add_app(running);
    add_app(0);
    app* c = add_app(terminating, 12345);

    time_t before = time(nullptr);
    EXPECT_EQ(run_phase_take_termination(inst_, SIGTERM), 1);
    EXPECT_EQ(count_.load(), 1);
    EXPECT_GE(a->t_term, before);
    EXPECT_EQ(c->t_term, 12345);   // already asked to stop: left alone
    EXPECT_EQ(ended_by(running), SIGINT);
    EXPECT_EQ(ended_by(terminating, 200), 0);

    auto msgs = messages();
    ASSERT_EQ(msgs.size(), 2u);
    EXPECT_EQ(msgs[0], "sighandler: [" + std::to_string(getpid()) + "] catched 15");
    EXPECT_EQ(msgs[1], "sighandler: killing child pid=" + std::to_string(running));
}

TEST_F(RunPhaseTest, LaterSignalsCountButSignalNoChildTwice)
{
    pid_t child = spawn_waiter();
    app* a = add_app(child);
    EXPECT_EQ(run_phase_take_termination(inst_, SIGINT), 1);
    int64_t first = a->t_term;
    EXPECT_EQ(ended_by(child), SIGINT);
    a->pid = child;   // as if the child were still being waited for
    EXPECT_EQ(run_phase_take_termination(inst_, SIGHUP), 2);
    EXPECT_EQ(a->t_term, first);

    auto msgs = messages();
    int kills = 0;
    for (const auto& m : msgs) kills += m.rfind("sighandler: killing child", 0) == 0;
    EXPECT_EQ(kills, 1);
    EXPECT_EQ(msgs.back(), "sighandler: [" + std::to_string(getpid()) + "] catched 1");
}

TEST_F(RunPhaseTest, HandlerOffTheSignalThreadTouchesNothing)
{
    // No signal thread runs: the disposition must neither count nor kill.
    pid_t child = spawn_waiter();
    add_app(child);
    sighandler(SIGTERM);
    sigchld_reaper(SIGCHLD);
    EXPECT_EQ(count_.load(), 0);
    EXPECT_EQ(sig_cnt.load(), 0);
    EXPECT_EQ(ended_by(child, 200), 0);
}
