// The supervision thread with real children and a driven clock: a child's
// start, restarts within milliseconds, the respawn brakes, stopping a whole
// process group, capture of a burst, session files that come back, status
// calls that do not slow restarts, shutdown and the option-file write-back.
#include <algorithm>

#include "app_life.h"
#include "child_registry.h"
#include "common/xmlrpc_raii.h"
#include "ctl_methods.h"
#include "supervision_fixture.h"

namespace {

using namespace unit_support;
using steady = std::chrono::steady_clock;

std::atomic<int> forks_seen{0}, group_kills{0};
pid_t counting_fork() { return forks_seen++, child_registry_fork(); }
int counting_kill(pid_t pid, int sig) { return group_kills += pid < 0 && sig == SIGKILL, kill(pid, sig); }

class Supervision : public supervision_fixture {
protected:
    Supervision() : supervision_fixture("respawner_test") {}
    void SetUp() override
    {
        supervision_fixture::SetUp();
        forks_seen = group_kills = 0;
        watchdog_os.fork = counting_fork;
        watchdog_os.kill = counting_kill;
    }
    fs::path session_file(app* r, const char* suffix)
    {
        return dir_ / "wd.log.sessions" / (with_lock([&] { return r->session_name.str(); }) + suffix);
    }
    // Kills the running child and times the launch of the next one.
    double restart_gap_ms(app* r)
    {
        int old = with_lock([&] { return r->pid; });
        auto killed = steady::now();
        kill(old, SIGKILL);
        EXPECT_TRUE(wait_until(5s, [&] { return r->pid != 0 && r->pid != old; }));
        return std::chrono::duration<double, std::milli>(steady::now() - killed).count();
    }
    pid_t grandchild(int line) { return std::stoi(lines_of(file_text(dir_ / "gc")).at(line)); }
};

TEST_F(Supervision, ChildStartsInItsOwnSessionAtRootWithPipesAndStartErrorsStopRespawning)
{
    fs::path out = dir_ / "seen";
    app* r = add_app("io", "read -r p c s pp pg sid rest < /proc/$$/stat\n"
                           "echo \"$*|$(pwd)|$(umask)|$((sid == $$))|$(readlink /proc/$$/fd/0 | cut -c1-5)"
                           "$(readlink /proc/$$/fd/1 | cut -c1-5)$(readlink /proc/$$/fd/2 | cut -c1-5)\" > " +
                               out.string() + ".part && mv " + out.string() + ".part " + out.string());
    r->config.set("/cfg/io.xml");
    r->t_run = 1;
    app *missing = add_app("sched"), *gpi = add_app("gpi"), *none = add_app("none");   // no sched script
    missing->f_respawn = gpi->f_respawn = none->f_respawn = 1;
    start();
    ASSERT_TRUE(wait_until(5s, [&] {
        for (const app* a : {missing, gpi, none})
            if (a->err.str() != "Start error" || a->f_respawn != 0) return false;
        return fs::exists(out) && idle();
    }));
    EXPECT_EQ(file_text(out), "--nodemonize /cfg/io.xml|/|0000|1|pipe:pipe:pipe:\n");
    EXPECT_TRUE(with_lock([&] { return r->t_run == 0 && r->f_respawn == 0 && r->err.empty(); }));
    EXPECT_EQ(forks_seen.load(), 3);   // gpi names nothing to fork
}

TEST_F(Supervision, SixQuickEndsStopRespawningWhileTheWallClockJumps)
{
    app* r = add_app("lib", "exit 0");
    r->f_respawn = 1;
    std::atomic<bool> done{false};
    std::thread stepper([&] {   // an operator setting the date, over and over
        for (int i = 0; i < 20000 && !done; i++, std::this_thread::sleep_for(100us)) fake_wall_s += 3600;
    });
    start();
    bool stopped = wait_until(10s, [&] { return r->f_respawn == 0 && r->pid == 0; });
    done = true;
    stepper.join();
    ASSERT_TRUE(stopped);
    EXPECT_EQ(with_lock([&] { return r->err.str(); }), "Respawn too fast");
    EXPECT_EQ(forks_seen.load(), 6);

    // Five seconds of running, by the monotonic clock, reset the count.
    app* slow = add_app("sched", "exec sleep 60");
    with_lock([&] { return slow->fast_respawn_cnt = 5, slow->t_run = 1; });
    watchdog_respawner_wake(inst_);
    ASSERT_TRUE(wait_until(5s, [&] { return slow->pid != 0; }));
    advance_ms(5000);
    kill(with_lock([&] { return slow->pid; }), SIGKILL);
    ASSERT_TRUE(wait_until(5s, [&] { return slow->pid == 0; }));
    EXPECT_EQ(with_lock([&] { return slow->fast_respawn_cnt; }), 0);
}

TEST_F(Supervision, AnEndedChildIsReplacedWithinMillisecondsAndItsGroupGoesWithIt)
{
    app* r = add_app("lib", "sleep 60 &\necho $! >> " + (dir_ / "gc").string() + "\nexec sleep 60");
    r->f_respawn = 1;
    start();
    std::vector<double> gaps;
    for (int i = 0; i < 4; i++) {
        ASSERT_TRUE(wait_until(5s, [&] { return lines_of(file_text(dir_ / "gc")).size() == i + 1u; }));
        gaps.push_back(restart_gap_ms(r));
        EXPECT_TRUE(wait_until(2s, [&] { return process_gone(grandchild(i)); })) << "restart " << i;
    }
    std::sort(gaps.begin(), gaps.end());
    EXPECT_LT(gaps[1], 100.0);   // a few ms when idle; the bound allows a loaded machine
}

TEST_F(Supervision, SigkillFollowsOnlyAfter15MonotonicSecondsAndReachesTheGroup)
{
    app* r = add_app("lib", "trap '' INT\nsleep 60 &\necho $! > " + (dir_ / "gc").string() + "\nwait\nwait");
    app* probe = add_app("sched", "exit 0");   // a later slot: its launch marks a finished round
    r->t_run = 1;
    start();
    ASSERT_TRUE(wait_until(5s, [&] { return r->pid != 0 && fs::exists(dir_ / "gc"); }));
    EXPECT_EQ(with_lock([&] { return app_life_request_stop(*r); }), stop_result::signalled);
    advance_ms(15000);
    fake_wall_s += 7200;
    with_lock([&] { return app_life_request_start(inst_, *probe); });
    ASSERT_TRUE(wait_until(5s, [] { return forks_seen.load() == 2; }));
    EXPECT_EQ(group_kills.load(), 0);
    EXPECT_NE(with_lock([&] { return r->pid; }), 0);

    advance_ms(1);
    ASSERT_TRUE(wait_until(5s, [&] { return r->pid == 0; }));
    EXPECT_GE(group_kills.load(), 1);
    EXPECT_TRUE(wait_until(2s, [&] { return process_gone(grandchild(0)); }));
}

TEST_F(Supervision, ATenMebibyteBurstIsNotHeldUpAndEveryByteIsKept)
{
    constexpr std::size_t size = 10 << 20;
    app* r = add_app("lib", "s=$(date +%s%N)\nyes 0123456789abcde 2>/dev/null | head -c " + std::to_string(size) +
                                "\necho $(( $(date +%s%N) - s )) > " + (dir_ / "took").string() + "\necho err >&2");
    r->t_run = 1;
    start();
    ASSERT_TRUE(wait_until(10s, [&] { return fs::exists(dir_ / "took") && r->pid == 0; }));
    EXPECT_LT(std::stoll(file_text(dir_ / "took")), 1'000'000'000LL) << "the child waited for the supervisor";
    std::string expected;
    while (expected.size() < size) expected += "0123456789abcde\n";
    expected.resize(size);
    EXPECT_TRUE(file_text(session_file(r, "-1")) == expected);
    EXPECT_EQ(file_text(session_file(r, "-2")), "err\n");
    instance_lock_guard guard(inst_);
    EXPECT_EQ(r->std_bufs[1].tail, size);
    EXPECT_EQ(r->std_bufs[1].head, size - STD_BUF_SIZE);
    EXPECT_TRUE(std::string(r->std_bufs[1].buf.get(), STD_BUF_SIZE) == expected.substr(size - STD_BUF_SIZE));
}

TEST_F(Supervision, SessionFilesRemovedOrMovedFromOutsideComeBack)
{
    app* r = add_app("lib", "exec sleep 60");
    r->t_run = 1;
    start();
    ASSERT_TRUE(wait_until(5s, [&] { return r->pid != 0 && !r->session_name.empty(); }));
    fs::path out = session_file(r, "-1"), err = session_file(r, "-2");
    ASSERT_TRUE(fs::exists(out) && fs::exists(err));   // a silent child gets its files
    fs::remove(out);
    fs::rename(err, err.string() + ".old");
    EXPECT_TRUE(wait_until(1s, [&] { return fs::exists(out) && fs::exists(err); }));
}

TEST_F(Supervision, StatusCallsInAFloodDoNotDelayARestart)
{
    for (int i = 0; i < 1000; i++) add_app("lib");
    app* r = add_app("sched", "exec sleep 60");
    r->f_respawn = 1;
    start();
    std::atomic<bool> done{false};
    std::vector<std::thread> clients;
    for (int c = 0; c < 4; c++)
        clients.emplace_back([&] {
            for (int i = 0; i < 100000 && !done; i++) {
                xmlrpc_env_guard env;
                xmlrpc_value_ref answer(ctl_method_GetStatus(env.get(), nullptr, inst_, nullptr));
                // A change each time, so that no answer is handed out again.
                with_lock([&] { return inst_->apps[0]->alias.set(std::to_string(i)), 0; });
            }
        });
    std::vector<double> gaps;
    for (int i = 0; i < 3; i++) {
        ASSERT_TRUE(wait_until(5s, [&] { return r->pid != 0; }));
        gaps.push_back(restart_gap_ms(r));
    }
    done = true;
    for (auto& t : clients) t.join();
    std::sort(gaps.begin(), gaps.end());
    EXPECT_LT(gaps[1], 200.0);
}

TEST_F(Supervision, AChangeIsWrittenBackSoonAndShutdownEndsWhenTheLastChildEnded)
{
    write_file(dir_ / "wd.conf", "--port=9000\n");
    inst_->conf_file.set((dir_ / "wd.conf").string());
    app* r = add_app("lib", "exec sleep 60");
    r->f_respawn = 1;
    start();
    ASSERT_TRUE(wait_until(5s, [&] { return r->pid != 0; }));
    with_lock([&] { return r->config.set("/cfg/lib.xml"), ++inst_->amend; });
    EXPECT_TRUE(wait_until(2s, [&] { return file_text(dir_ / "wd.conf").find("\n--lib=/cfg/lib.xml\n") != std::string::npos; }));

    with_lock([&] { return sig_cnt_ = 1, app_life_request_stop(*r); });
    watchdog_respawner_wake(inst_);
    ASSERT_TRUE(wait_until(5s, [&] { return r->pid == 0; }));
    watchdog_respawner_join(inst_);
    started_ = false;
    EXPECT_EQ(forks_seen.load(), 1);   // nothing started again
    EXPECT_EQ(r->forker_cnt, 0);       // joined at the end
}

}  // namespace
