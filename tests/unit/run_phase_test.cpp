// The run phase's own decisions: which variables children inherit, and what a
// termination signal does to the children's groups and the count.
#include <sys/wait.h>

#include "log/log.h"
#include "run_phase.h"
#include "unit_support.h"

namespace {

using namespace unit_support;

class RunPhaseTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(instance_create(&inst_), 0);
        inst_->p_sig_cnt = &count_;
        for (const char* name : {"VANTREL_ELEMENTS_DEVICE", "CUDA_MPS_LOG_DIRECTORY", "CUDA_VISIBLE_DEVICES"})
            unsetenv(name);
        log_set_stderr(0);
        ASSERT_EQ(log_start((dir_ / "w.log").c_str(), 86400), 0);
    }
    void TearDown() override
    {
        for (pid_t pid : children_) kill(-pid, SIGKILL), waitpid(pid, nullptr, 0);
        log_stop();
        log_set_stderr(1);
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
        record->pid = pid;
        record->t_term = t_term;
        instance_slot_append(inst_, record);
        return record;
    }
    // A group leader, as launched children are, with a second member; both
    // wait for a signal and give up by themselves after 30 s.
    pid_t spawn_group()
    {
        pid_t pid = fork();
        if (pid == 0) {
            setsid();
            fork();
            alarm(30);
            for (int i = 0; i < 100; i++) pause();
            _exit(0);
        }
        children_.push_back(pid);
        for (int i = 0; i < 2000 && getpgid(pid) != pid; i++) usleep(1000);   // its setsid
        return pid;
    }
    // Polls `pred` every 10 ms for up to `ms`.
    template <typename P>
    bool within(int ms, P pred)
    {
        for (int i = 0; i < ms / 10; i++, usleep(10000))
            if (pred()) return true;
        return false;
    }

    instance* inst_ = nullptr;
    std::atomic<int> count_{0};
    scratch_dir scratch_{"run_phase_test"};
    fs::path dir_ = scratch_.path();
    std::vector<pid_t> children_;
};

TEST_F(RunPhaseTest, OnlyTheVariablesThatAreSetAreTakenInTheirFixedOrder)
{
    setenv("CUDA_VISIBLE_DEVICES", "0,1", 1);
    setenv("VANTREL_ELEMENTS_DEVICE", "", 1);   // set but empty still counts
    EXPECT_EQ(run_phase_inherit_envs(inst_), 2);
    EXPECT_EQ(messages(), (std::vector<std::string>{"main: VANTREL_ELEMENTS_DEVICE=", "main: CUDA_VISIBLE_DEVICES=0,1"}));
    ASSERT_EQ(inst_->inherited_envs.size(), 2u);
    EXPECT_EQ(inst_->inherited_envs[1].str(), "CUDA_VISIBLE_DEVICES=0,1");
}

TEST_F(RunPhaseTest, SignalsStopEveryRunningGroupOnceAndCount)
{
    pid_t running = spawn_group(), terminating = spawn_group();
    app* a = add_app(running);
    add_app(0);
    app* c = add_app(terminating, 12345);
    EXPECT_EQ(run_phase_take_termination(inst_, SIGTERM), 1);
    EXPECT_NE(a->t_term, 0);
    EXPECT_EQ(c->t_term, 12345);   // already asked to stop: left alone
    int status = 0;   // the leader reaped, its group gone: both members got SIGINT
    EXPECT_TRUE(within(2000, [&] { return waitpid(running, &status, WNOHANG) == running; }));
    std::erase(children_, running);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGINT);
    EXPECT_TRUE(within(2000, [&] { return kill(-running, 0) == -1; }));
    EXPECT_EQ(kill(-terminating, 0), 0);
    int64_t first = a->t_term;
    EXPECT_EQ(run_phase_take_termination(inst_, SIGHUP), 2);
    EXPECT_EQ(a->t_term, first);

    std::string me = std::to_string(getpid());
    EXPECT_EQ(messages(), (std::vector<std::string>{"sighandler: [" + me + "] catched 15",
                                                    "sighandler: killing child pid=" + std::to_string(running),
                                                    "sighandler: [" + me + "] catched 1"}));
    // Off the signal thread the dispositions neither count nor kill.
    sighandler(SIGTERM);
    sigchld_reaper(SIGCHLD);
    EXPECT_EQ(count_.load() + sig_cnt.load(), 2);
    EXPECT_EQ(kill(-terminating, 0), 0);
}

}  // namespace
