// The supervision thread with real children (shell scripts in bin/), the
// clocks and process calls in the test's hand: starts, the respawn brakes,
// restarts within milliseconds under a status flood, whole process groups
// stopped, SIGKILL by the monotonic clock, capture of a burst, session files
// that come back, failing forks and shutdown. Waits are bounded polls.
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include "app_life.h"
#include "app_types.h"
#include "child_registry.h"
#include "common/xmlrpc_raii.h"
#include "ctl_methods.h"
#include "log/log.h"
#include "os_ops.h"
#include "respawner.h"
#include "run_phase.h"
#include "unit_support.h"

namespace {

using namespace unit_support;
using namespace std::chrono_literals;
using steady = std::chrono::steady_clock;
constexpr auto npos = std::string::npos;

std::atomic<int64_t> mono_ms{1'000'000}, wall_s{1'700'000'000};
std::atomic<int> forks{0}, group_kills{0}, group_ints{0};
std::atomic<bool> fork_fails{false};
std::mutex pipes_lock;
std::vector<std::pair<int, ino_t>> pipes_made;   // descriptor and pipe identity

pid_t test_fork() { return forks++, fork_fails ? (errno = EAGAIN, -1) : child_registry_fork(); }

// Counts stops and escalations sent to a whole group whose leader still runs
// (not the clean-up of what is left after a child's end).
int test_kill(pid_t pid, int sig)
{
    if (pid < 0 && sig == SIGKILL && !process_gone(-pid)) group_kills++;
    if (pid < 0 && sig == SIGINT) group_ints++;
    return kill(pid, sig);
}
int test_pipe(int fds[2])
{
    int rc = pipe2(fds, O_CLOEXEC);
    struct stat st {};
    std::lock_guard<std::mutex> hold(pipes_lock);
    for (int i = 0; i < 2 && rc == 0 && fstat(fds[i], &st) == 0; i++) pipes_made.emplace_back(fds[i], st.st_ino);
    return rc;
}

// The application's pipes still open here: the leak count ignores descriptors
// that other threads or a sanitizer runtime open.
long pipes_left()
{
    std::lock_guard<std::mutex> hold(pipes_lock);
    return std::count_if(pipes_made.begin(), pipes_made.end(), [](const auto& made) {
        struct stat st {};
        return fstat(made.first, &st) == 0 && S_ISFIFO(st.st_mode) && st.st_ino == made.second;
    });
}

class Supervision : public ::testing::Test {
protected:
    template <typename F>
    auto locked(F&& read) { instance_lock_guard guard(inst_); return read(); }
    void SetUp() override
    {
        fs::create_directories(dir_ / "bin");
        fs::create_directory(dir_ / "wd.log.sessions");
        ASSERT_EQ(instance_create(&inst_), 0);
        inst_->log_file_name.set((dir_ / "wd.log").string());
        inst_->p_sig_cnt = &sig_cnt_;
        forks = group_kills = group_ints = 0;
        pipes_made.clear();
        watchdog_os = {test_fork, test_kill, watchdog_os.waitpid, watchdog_os.waitid, test_pipe,
                       [] { return mono_ms.load(); }, [] { return wall_s.load(); }};
    }
    void TearDown() override
    {
        fork_fails = false;
        if (started_) {   // shutdown with every child killed outright
            {
                instance_lock_guard guard(inst_);
                sig_cnt_ = 1;
                for (int i = 0; i < inst_->cnt; i++)
                    if (int pid = inst_->apps[i]->pid) kill(-pid, SIGKILL), kill(pid, SIGKILL);
            }
            watchdog_respawner_wake(inst_);
            EXPECT_TRUE(wait_until(10s, [&] { return idle(); }));
            watchdog_respawner_join(inst_);
        }
        os_ops_reset();
        instance_destroy(&inst_);
    }
    // An app of `type` whose executable in bin/ is a shell script with `body`.
    app* add_app(const char* type, const std::string& body = "")
    {
        if (!body.empty()) write_script(dir_ / "bin" / app_types[instance_apps_lookup(type)].exe, body);
        app* r = app_new();
        r->type = instance_apps_lookup(type);
        r->bin_path.set((dir_ / "bin").string());
        r->envs.append("PATH=/usr/bin:/bin");
        locked([&] { return instance_slot_append(inst_, r); });
        return r;
    }
    void start() { started_ = watchdog_respawner_start(inst_) == 0; }
    void advance_ms(int64_t ms) { mono_ms += ms, watchdog_respawner_wake(inst_); }
    bool idle() { return std::all_of(inst_->apps, inst_->apps + inst_->cnt, [](const app* a) { return !a->pid; }); }
    // Polls `pred` under the lock until it holds or `limit` passes.
    template <typename P>
    bool wait_until(std::chrono::milliseconds limit, P pred)
    {
        auto deadline = steady::now() + limit;
        for (int round = 0; round < 1'000'000; round++, std::this_thread::sleep_for(1ms))
            if (locked(pred)) return true;
            else if (steady::now() >= deadline) return false;
        return false;
    }
    fs::path session_file(app* r, const char* suffix)
    {
        return dir_ / "wd.log.sessions" / (locked([&] { return r->session_name.str(); }) + suffix);
    }
    pid_t grandchild(int line) { return std::stoi(lines_of(file_text(dir_ / "gc")).at(line)); }

    scratch_dir scratch_{"respawner_test"};
    fs::path dir_ = scratch_.path;
    instance* inst_ = nullptr;
    std::atomic<int> sig_cnt_{0};
    bool started_ = false;
};

TEST_F(Supervision, ChildStartsIsolatedStartErrorsAndSixQuickEndsStopRespawningWhileTheWallClockJumps)
{
    app* r = add_app("io", "read -r p c s pp pg sid rest < /proc/$$/stat\n"
                           "echo \"$*|$(pwd)|$(umask)|$((sid == $$))|$(readlink /proc/$$/fd/0 | cut -c1-5)"
                           "$(readlink /proc/$$/fd/1 | cut -c1-5)$(readlink /proc/$$/fd/2 | cut -c1-5)\"");
    r->config.set("/cfg/io.xml");
    r->t_run = 1;
    app *missing = add_app("sched"), *gpi = add_app("gpi"), *none = add_app("none");   // no sched script
    app* quick = add_app("lib", "exit 0");
    missing->f_respawn = gpi->f_respawn = none->f_respawn = quick->f_respawn = 1;
    std::jthread stepper([](std::stop_token stop) {   // an operator setting the date, over and over
        for (int i = 0; i < 20000 && !stop.stop_requested(); i++, std::this_thread::sleep_for(100us)) wall_s += 3600;
    });
    start();
    ASSERT_TRUE(wait_until(10s, [&] {
        for (const app* a : {missing, gpi, none})
            if (a->err.str() != "Start error" || a->f_respawn != 0) return false;
        return !r->session_name.empty() && quick->f_respawn == 0 && idle();
    }));
    EXPECT_EQ(file_text(session_file(r, "-1")), "--nodemonize /cfg/io.xml|/|0000|1|pipe:pipe:pipe:\n");
    EXPECT_TRUE(locked([&] { return r->t_run == 0 && r->f_respawn == 0 && r->err.empty(); }));
    EXPECT_EQ(locked([&] { return quick->err.str(); }), "Respawn too fast");
    EXPECT_EQ(forks.load(), 3 + 6);   // gpi names nothing to fork
}

TEST_F(Supervision, RestartsComeWithinMillisecondsEvenUnderAStatusFloodAndShutdownStopsWholeGroups)
{
    ASSERT_EQ(log_start((dir_ / "w.log").c_str(), 86400), 0);
    setenv("CUDA_VISIBLE_DEVICES", "0,1", 1);
    setenv("VANTREL_ELEMENTS_DEVICE", "", 1);   // set but empty still counts
    unsetenv("CUDA_MPS_LOG_DIRECTORY");
    EXPECT_EQ(run_phase_inherit_envs(inst_), 2);
    for (int i = 0; i < 1000; i++) add_app("lib");
    app* r = add_app("sched", "sleep 60 &\necho $! >> " + (dir_ / "gc").string() + "\nexec sleep 60");
    app* stubborn = add_app("ltc", "trap '' INT\nexec sleep 60");   // already stopping when the signal comes
    r->f_respawn = stubborn->t_run = 1;
    start();
    for (int flood = 0, restarts = 0; flood <= 1; flood++) {
        std::vector<std::jthread> clients;   // stopped and joined at the end of the round
        for (int c = 0; c < 4 * flood; c++)
            clients.emplace_back([&](std::stop_token stop) {
                for (int i = 0; i < 100000 && !stop.stop_requested(); i++) {
                    xmlrpc_env_guard env;
                    xmlrpc_value_ref answer(ctl_method_GetStatus(env.get(), nullptr, inst_, nullptr));
                    // A change each time, so that no answer is handed out again.
                    locked([&] { return inst_->apps[0]->alias.set(std::to_string(i)), 0; });
                }
            });
        std::vector<double> gaps;
        for (int i = 0; i < 3; i++, restarts++) {
            ASSERT_TRUE(wait_until(5s, [&] { return lines_of(file_text(dir_ / "gc")).size() == restarts + 1u; }));
            int old = locked([&] { return r->pid; });
            mono_ms += 5000;   // a long run: no fast end
            auto killed = steady::now();
            kill(old, SIGKILL);
            EXPECT_TRUE(wait_until(5s, [&] { return r->pid != 0 && r->pid != old; }));
            gaps.push_back(std::chrono::duration<double, std::milli>(steady::now() - killed).count());
            EXPECT_TRUE(wait_until(2s, [&] { return process_gone(grandchild(restarts)); })) << "restart " << i;
        }
        std::sort(gaps.begin(), gaps.end());
        EXPECT_LT(gaps[1], 500.0) << "flood " << flood;   // a few ms; the bound catches a stall, not a slowdown
    }

    // A termination signal: SIGINT to the group once, counted, nothing started again.
    int pid = locked([&] { return r->pid; }), forked = forks;
    EXPECT_EQ(locked([&] { return app_life_request_stop(*stubborn); }), stop_result::signalled);
    EXPECT_EQ(run_phase_take_termination(inst_, SIGTERM), 1);
    ASSERT_TRUE(wait_until(5s, [&] { return r->pid == 0; }));
    EXPECT_EQ(group_ints.load(), 2);
    advance_ms(KILL_AFTER_MS + 1);   // the stubborn child ends by SIGKILL
    EXPECT_EQ(run_phase_take_termination(inst_, SIGHUP), 2);
    sighandler(SIGTERM);   // off the signal thread the dispositions neither count nor kill
    sigchld_reaper(SIGCHLD);
    EXPECT_EQ(sig_cnt_.load() + sig_cnt.load(), 2);
    watchdog_respawner_join(inst_);
    started_ = false;
    EXPECT_EQ(forks.load(), forked);
    EXPECT_EQ(r->forker_cnt, 0);   // joined at the end
    log_stop();
    std::vector<std::string> said;
    for (const std::string& line : lines_of(file_text(dir_ / "w.log")))
        if (line.find(" main: ") != npos || line.find(" sighandler: ") != npos) said.push_back(line.substr(0, 2) + line.substr(28));
    std::string me = std::to_string(getpid());
    EXPECT_EQ(said, (std::vector<std::string>{"  main: VANTREL_ELEMENTS_DEVICE=", "  main: CUDA_VISIBLE_DEVICES=0,1",
                                              "! sighandler: [" + me + "] catched 15",
                                              "! sighandler: killing child pid=" + std::to_string(pid),
                                              "! sighandler: [" + me + "] catched 1"}));
}

TEST_F(Supervision, ABurstIsNotHeldUpSessionFilesComeBackAndSigkillFollowsAfter15MonotonicSeconds)
{
    constexpr std::size_t size = 10 << 20;
    app* burst = add_app("io", "s=$(date +%s%N)\nyes 0123456789abcde 2>/dev/null | head -c " + std::to_string(size) +
                                   "\necho $(( $(date +%s%N) - s )) > " + (dir_ / "took").string() + "\necho err >&2");
    app* r = add_app("lib", "trap '' INT\nsleep 60 &\necho $! > " + (dir_ / "gc").string() + "\nwait\nwait");
    app* probe = add_app("sched", "exit 0");   // a later slot: its launch marks a finished round
    burst->t_run = r->t_run = 1;
    start();
    ASSERT_TRUE(wait_until(10s, [&] { return fs::exists(dir_ / "took") && burst->pid == 0; }));
    EXPECT_LT(std::stoll(file_text(dir_ / "took")), 1'000'000'000LL) << "the child waited for the supervisor";
    std::string expected;
    for (std::size_t line = 0; line < size / 16; line++) expected += "0123456789abcde\n";
    EXPECT_TRUE(file_text(session_file(burst, "-1")) == expected);
    EXPECT_EQ(file_text(session_file(burst, "-2")), "err\n");

    ASSERT_TRUE(wait_until(5s, [&] { return r->pid != 0 && !r->session_name.empty() && fs::exists(dir_ / "gc"); }));
    fs::path out = session_file(r, "-1"), err = session_file(r, "-2");
    ASSERT_TRUE(fs::exists(out) && fs::exists(err));   // a silent child gets its files
    fs::remove(out);
    fs::rename(err, err.string() + ".old");
    EXPECT_TRUE(wait_until(1s, [&] { return fs::exists(out) && fs::exists(err); }));

    EXPECT_EQ(locked([&] { return app_life_request_stop(*r); }), stop_result::signalled);
    advance_ms(15000);
    wall_s += 7200;
    locked([&] { return app_life_request_start(inst_, *probe); });
    ASSERT_TRUE(wait_until(5s, [] { return forks.load() == 3; }));
    EXPECT_EQ(group_kills.load(), 0);
    advance_ms(1);
    ASSERT_TRUE(wait_until(5s, [&] { return r->pid == 0; }));
    EXPECT_GE(group_kills.load(), 1);
    EXPECT_TRUE(wait_until(2s, [&] { return process_gone(grandchild(0)); }));
}

TEST_F(Supervision, ForkFailuresAreRetriedLeakNoPipesAndAreNoFastExits)
{
    fork_fails = true;
    app *r = add_app("lib", "exec sleep 30"), *once = add_app("sched", "exec sleep 30");
    r->f_respawn = 1;
    once->t_run = 1;
    start();
    // More failures than the fast-exit brake allows exits: none may count.
    ASSERT_TRUE(wait_until(5s, [] { return forks.load() >= 8; }));
    locked([&] {
        EXPECT_EQ(pipes_left(), 0);
        EXPECT_TRUE(r->pid == 0 && r->f_respawn == 1 && r->fast_respawn_cnt == 0 && r->err.empty());
        EXPECT_EQ(once->t_run, 0);   // a one-shot request is spent by its failed attempt
        return fork_fails = false;
    });
    EXPECT_TRUE(wait_until(5s, [&] { return r->pid != 0; }));
    EXPECT_EQ(locked([&] { return once->pid; }), 0);
}

}  // namespace
