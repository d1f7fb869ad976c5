// The supervision thread with real children: launches, restarts, the fast-exit
// and start-error brakes, termination escalation, output capture, shutdown and
// descriptor hygiene.
//
// Children are small shell scripts, or this very test program started under
// an application's executable name: with WD_TEST_CHILD=record in its
// environment it writes down what it was given and exits before any test runs.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "app_types.h"
#include "child_conf.h"
#include "child_registry.h"
#include "instance.h"
#include "os_ops.h"
#include "respawner.h"
#include "supervision_fixture.h"

extern char** environ;
namespace fs = std::filesystem;
using namespace std::chrono_literals;
using steady = std::chrono::steady_clock;

namespace {

// ---- child side -----------------------------------------------------------

void record_line(std::string& out, const std::string& key, const std::string& value)
{
    out += key + "=" + value + "\n";
}

std::string fd_target(int fd)
{
    char link[64], target[256];
    snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
    ssize_t n = readlink(link, target, sizeof(target) - 1);
    return n > 0 ? std::string(target, static_cast<size_t>(n)) : "closed";
}

// What a launched application can observe about its start.
void child_record(int argc, char** argv)
{
    std::string out;
    for (int i = 0; i < argc; i++) record_line(out, "argv", argv[i]);
    for (char** e = environ; *e; e++) record_line(out, "env", *e);
    char cwd[4096];
    record_line(out, "cwd", getcwd(cwd, sizeof(cwd)) ? cwd : "?");
    record_line(out, "session_leader", getsid(0) == getpid() ? "1" : "0");
    mode_t mask = umask(0);
    record_line(out, "umask", std::to_string(mask));
    struct sigaction action {};
    sigaction(SIGPIPE, nullptr, &action);
    record_line(out, "sigpipe", action.sa_handler == SIG_IGN ? "ignored" : "other");
    sigaction(SIGUSR2, nullptr, &action);
    record_line(out, "sigusr2", action.sa_handler == SIG_DFL ? "default" : "other");
    sigset_t blocked;
    sigprocmask(SIG_SETMASK, nullptr, &blocked);
    record_line(out, "sigint_blocked", sigismember(&blocked, SIGINT) ? "1" : "0");
    record_line(out, "sigterm_blocked", sigismember(&blocked, SIGTERM) ? "1" : "0");
    for (int fd = 0; fd < 3; fd++) record_line(out, "fd" + std::to_string(fd), fd_target(fd).substr(0, 5));
    // The option file is gone once the child has ended: keep its lines.
    if (std::ifstream conf{argv[argc - 1]}; argc > 1 && strstr(argv[argc - 1], ".conf"))
        for (std::string line; std::getline(conf, line);) record_line(out, "conf", line);

    const char* path = getenv("WD_TEST_OUT");
    if (!path) _exit(3);
    std::string tmp = std::string(path) + ".part";
    FILE* f = fopen(tmp.c_str(), "w");
    if (!f) _exit(4);
    fputs(out.c_str(), f);
    fclose(f);
    rename(tmp.c_str(), path);   // the test reads only complete records
}

int child_hook(int argc, char** argv, char**)
{
    const char* mode = getenv("WD_TEST_CHILD");
    if (mode && strcmp(mode, "record") == 0) {
        child_record(argc, argv);
        _exit(0);
    }
    return 0;
}

// Runs before main, so a launched copy of this program never reaches the tests.
__attribute__((used, section(".init_array"))) int (*child_hook_entry)(int, char**, char**) = child_hook;

// ---- test side ------------------------------------------------------------

using namespace unit_support;

std::vector<std::string> values_of(const std::string& record, const std::string& key)
{
    std::vector<std::string> out;
    for (const std::string& line : lines_of(record))
        if (line.compare(0, key.size() + 1, key + "=") == 0) out.push_back(line.substr(key.size() + 1));
    return out;
}

std::atomic<int> forks_seen{0};
pid_t counting_fork()
{
    forks_seen++;
    return child_registry_fork();
}

class Supervision : public supervision_fixture {
protected:
    Supervision() : supervision_fixture("respawner_test") {}
    void SetUp() override
    {
        supervision_fixture::SetUp();
        forks_seen = 0;
        watchdog_os.fork = counting_fork;
    }
};

TEST_F(Supervision, ChildSeesItsArgumentsEnvironmentOptionFileAndCleanState)
{
    fs::create_symlink(fs::read_symlink("/proc/self/exe"), bin() / "VantrelFileTranscoder");
    fs::create_symlink(fs::read_symlink("/proc/self/exe"), bin() / "VantrelIO");
    app* ft = add_app("filetranscoder");
    ft->alias.set("ft main");
    ft->config.set("/cfg/ft.xml");
    ft->raws.append("--db=/data/my.db");
    ft->raws.append("#--log-file-name=x");
    ft->envs.append("WD_TEST_CHILD=record");
    ft->envs.append("WD_TEST_OUT=" + (dir_ / "ft.rec").string());
    ft->envs.append("#HIDDEN=1");
    ft->t_run = 1;
    app* io = add_app("io");
    io->raws.append("--xmlrpc-port=9101");
    io->numa_bind.set("0");   // node 0 exists everywhere; the binding must not stop the launch
    io->envs.append("WD_TEST_CHILD=record");
    io->envs.append("WD_TEST_OUT=" + (dir_ / "io.rec").string());
    io->t_run = 1;
    inst_->inherited_envs.append("CUDA_VISIBLE_DEVICES=3");

    // As in the run phase, where a signal thread takes the termination signals.
    sigset_t blocked, previous;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGINT);
    sigaddset(&blocked, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &blocked, &previous);
    struct sigaction handler {}, old_handler {};
    handler.sa_handler = [](int) {};
    sigaction(SIGUSR2, &handler, &old_handler);
    start();
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);

    ASSERT_TRUE(wait_file(dir_ / "ft.rec", 5000ms));
    ASSERT_TRUE(wait_file(dir_ / "io.rec", 5000ms));
    ASSERT_TRUE(wait_until(5000ms, [&] { return ft->pid == 0 && io->pid == 0 && ft->started == 0; }));
    sigaction(SIGUSR2, &old_handler, nullptr);

    std::string rec = file_text(dir_ / "ft.rec");
    std::vector<std::string> ft_argv = values_of(rec, "argv");
    ASSERT_EQ(ft_argv.size(), 4u);
    EXPECT_EQ(ft_argv[3].rfind(child_conf_dir() + "/", 0), 0u) << ft_argv[3];
    EXPECT_FALSE(fs::exists(ft_argv[3]));
    EXPECT_EQ(std::vector<std::string>(ft_argv.begin(), ft_argv.begin() + 3),
              (std::vector<std::string>{"ft main", "--nodemonize", "/cfg/ft.xml"}));
    EXPECT_EQ(values_of(rec, "env"),
              (std::vector<std::string>{"PATH=/usr/bin:/bin", "WD_TEST_CHILD=record",
                                        "WD_TEST_OUT=" + (dir_ / "ft.rec").string(), "CUDA_VISIBLE_DEVICES=3"}));
    EXPECT_EQ(values_of(rec, "conf"),
              (std::vector<std::string>{"--db=/data/my.db", "#--log-file-name=x", "--log-file-name=/Vantrel/logs/ft main/log"}));
    EXPECT_EQ(values_of(rec, "cwd"), std::vector<std::string>{"/"});
    EXPECT_EQ(values_of(rec, "session_leader"), std::vector<std::string>{"1"});
    EXPECT_EQ(values_of(rec, "umask"), std::vector<std::string>{"0"});
    EXPECT_EQ(values_of(rec, "sigpipe"), std::vector<std::string>{"ignored"});
    EXPECT_EQ(values_of(rec, "sigusr2"), std::vector<std::string>{"default"});
    EXPECT_EQ(values_of(rec, "sigint_blocked"), std::vector<std::string>{"0"});
    EXPECT_EQ(values_of(rec, "sigterm_blocked"), std::vector<std::string>{"0"});
    for (const char* fd : {"fd0", "fd1", "fd2"}) EXPECT_EQ(values_of(rec, fd), std::vector<std::string>{"pipe:"}) << fd;

    // Without an alias the executable path is argument 0 and no defaults are added.
    std::string io_rec = file_text(dir_ / "io.rec");
    EXPECT_EQ(values_of(io_rec, "argv")[0], (bin() / "VantrelIO").string());
    EXPECT_EQ(values_of(io_rec, "conf"), std::vector<std::string>{"--xmlrpc-port=9101"});

    // A one-shot start is consumed and leaves the app idle without error.
    EXPECT_EQ(locked<int>([&] { return ft->t_run + ft->f_respawn; }), 0);
    EXPECT_TRUE(locked<bool>([&] { return ft->err.empty(); }));
    EXPECT_EQ(forks_seen.load(), 2);
}

TEST_F(Supervision, ScriptTypeRunsBinPathWithRawsAsArguments)
{
    fs::path tool = dir_ / "tool.sh";
    write_script(tool, "printf '%s\\n' \"$@\" > " + (dir_ / "args.part").string() + "; mv " +
                     (dir_ / "args.part").string() + " " + (dir_ / "args").string());
    app* s = add_app("script");
    s->bin_path.set(tool.string());
    s->config.set("not-passed");
    s->raws.append("-v");
    s->raws.append("#old");
    s->raws.append("input");
    s->t_run = 1;
    start();
    ASSERT_TRUE(wait_file(dir_ / "args", 5000ms));
    EXPECT_EQ(file_text(dir_ / "args"), "-v\ninput\n");
    ASSERT_TRUE(wait_until(5000ms, [&] { return s->pid == 0 && s->started == 0; }));
    EXPECT_TRUE(locked<bool>([&] { return s->err.empty() && s->child_conf_file.empty(); }));
}

TEST_F(Supervision, MissingExecutableAndTypesWithoutOneAreStartErrors)
{
    app* missing = add_app("io");   // no script written: bin/VantrelIO does not exist
    missing->f_respawn = 1;
    app* gpi = add_app("gpi");
    gpi->f_respawn = 1;
    // A slot whose type was refused, and a script without its program: both
    // resolve to a directory, which the child fails to execute.
    app* none = add_app("none");
    none->t_run = 1;
    app* script = add_app("script");
    script->bin_path.clear();
    script->t_run = 1;
    start();
    ASSERT_TRUE(wait_until(5000ms, [&] {
        for (const app* a : {missing, gpi, none, script})
            if (a->err.str() != "Start error" || a->pid != 0 || a->started != 0) return false;
        return true;
    }));
    EXPECT_EQ(locked<int>([&] { return missing->f_respawn + gpi->f_respawn + none->f_respawn + script->f_respawn; }), 0);
    // None is tried again, and nothing was ever forked for the gpi app.
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(forks_seen.load(), 3);
    EXPECT_EQ(locked<int>([&] { return gpi->forker_cnt; }), 1);
}

TEST_F(Supervision, SixQuickExitsInARowStopRespawning)
{
    app* r = add_script_app("lib", "echo x >> " + (dir_ / "starts").string());
    r->f_respawn = 1;
    start();
    ASSERT_TRUE(wait_until(10000ms, [&] { return r->f_respawn == 0 && r->pid == 0; }));
    EXPECT_EQ(locked<std::string>([&] { return r->err.str(); }), "Respawn too fast");
    EXPECT_EQ(locked<int>([&] { return r->fast_respawn_cnt; }), 6);
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(lines_of(file_text(dir_ / "starts")).size(), 6u);
}

TEST_F(Supervision, AnEndAfterALongRunResetsTheFastExitCount)
{
    app* r = add_script_app("lib", "exec sleep 5");
    r->fast_respawn_cnt = 5;
    r->t_run = 1;
    start();
    ASSERT_TRUE(wait_until(3000ms, [&] { return r->pid != 0; }));
    ASSERT_TRUE(wait_until(9000ms, [&] { return r->pid == 0; }));
    EXPECT_EQ(locked<int>([&] { return r->fast_respawn_cnt; }), 0);
    EXPECT_TRUE(locked<bool>([&] { return r->err.empty(); }));
}

TEST_F(Supervision, AnEndedChildIsStartedAgainWithinAPass)
{
    fs::path times = dir_ / "times";
    app* r = add_script_app("lib", "echo start $(date +%s%N) >> " + times.string() + "; sleep 0.3; echo end $(date +%s%N) >> " +
                                       times.string());
    r->f_autorun = 1;   // autorun alone is enough to keep it running
    start();
    EXPECT_EQ(locked<int>([&] { return r->f_respawn; }), 1);
    ASSERT_TRUE(wait_until(8000ms, [&] { return lines_of(file_text(times)).size() >= 7; }));
    std::vector<std::string> lines = lines_of(file_text(times));
    for (size_t i = 1; i + 1 < 7; i += 2) {
        ASSERT_EQ(lines[i].substr(0, 4), "end ");
        ASSERT_EQ(lines[i + 1].substr(0, 6), "start ");
        long long gap_ns = std::stoll(lines[i + 1].substr(6)) - std::stoll(lines[i].substr(4));
        // One pass period plus shell start-up; generous for a loaded machine.
        EXPECT_LT(gap_ns, 600'000'000LL) << "restart " << i / 2;
    }
}

TEST_F(Supervision, ChildIgnoringSigintIsKilledAfterMoreThan15Seconds)
{
    app* r = add_script_app("lib", "trap '' INT\nexec sleep 60");
    r->t_run = 1;
    start();
    ASSERT_TRUE(wait_until(3000ms, [&] { return r->pid != 0; }));
    std::this_thread::sleep_for(200ms);   // let the shell set up its trap
    auto asked = steady::now();
    {
        instance_lock_guard guard(inst_);
        r->t_term = time(nullptr);
        kill(r->pid, SIGINT);
    }
    ASSERT_TRUE(wait_until(20000ms, [&] { return r->pid == 0; }));
    double waited = std::chrono::duration<double>(steady::now() - asked).count();
    EXPECT_GT(waited, 14.9);
    EXPECT_LT(waited, 17.5);
    EXPECT_EQ(locked<int64_t>([&] { return r->t_term; }), 0);
}

TEST_F(Supervision, EveryByteOfBothStreamsReachesTheSessionFilesAndRings)
{
    app* r = add_script_app("lib", "awk 'BEGIN { for (i = 0; i < 20000; i++) printf \"%09d\\n\", i }'\n"
                                   "awk 'BEGIN { for (i = 0; i < 5000; i++) printf \"e%08d\\n\", i }' >&2");
    r->t_run = 1;
    start();
    ASSERT_TRUE(wait_until(8000ms, [&] { return forks_seen.load() == 1 && r->pid == 0; }));
    std::string session = locked<std::string>([&] { return r->session_name.str(); });
    std::string out, err;
    char line[16];
    for (int i = 0; i < 20000; i++) out += (snprintf(line, sizeof(line), "%09d\n", i), line);
    for (int i = 0; i < 5000; i++) err += (snprintf(line, sizeof(line), "e%08d\n", i), line);
    EXPECT_TRUE(file_text(dir_ / "wd.log.sessions" / (session + "-1")) == out);
    EXPECT_TRUE(file_text(dir_ / "wd.log.sessions" / (session + "-2")) == err);
    instance_lock_guard guard(inst_);
    const std_ring& ring = r->std_bufs[1];
    EXPECT_EQ(ring.tail, 200000u);
    EXPECT_EQ(ring.head, 200000u - STD_BUF_SIZE);
    ASSERT_TRUE(ring.buf);
    EXPECT_TRUE(std::string(ring.buf.get(), STD_BUF_SIZE) == out.substr(200000 - STD_BUF_SIZE));
    EXPECT_EQ(r->std_bufs[2].tail, 50000u);
}

TEST_F(Supervision, ShutdownStartsNothingAndEndsOnceTheLastChildEnded)
{
    app* r = add_script_app("lib", "echo x >> " + (dir_ / "starts").string() + "\nexec sleep 60");
    r->f_respawn = 1;
    start();
    ASSERT_TRUE(wait_file(dir_ / "starts", 3000ms));
    int pid = locked<int>([&] { return r->pid; });
    {
        // What the signal handler does on the first termination signal.
        instance_lock_guard guard(inst_);
        sig_cnt_ = 1;
        r->t_term = time(nullptr);
        kill(r->pid, SIGINT);
    }
    EXPECT_TRUE(join_within(5s));
    EXPECT_EQ(kill(pid, 0), -1);
    EXPECT_EQ(lines_of(file_text(dir_ / "starts")).size(), 1u);
    EXPECT_EQ(r->pid, 0);
    EXPECT_EQ(r->forker_cnt, 0);   // joined at the end
}

TEST_F(Supervision, NothingIsLaunchedOnceShutdownWasRequested)
{
    app* r = add_script_app("lib", "exec sleep 60");
    r->f_respawn = 1;
    r->t_run = 1;
    sig_cnt_ = 1;
    start();
    EXPECT_TRUE(join_within(5s));
    EXPECT_EQ(forks_seen.load(), 0);
    EXPECT_EQ(r->forker_cnt, 0);
}

TEST_F(Supervision, NoDescriptorsLeakAcrossLaunches)
{
    app* quick = add_script_app("lib", "echo out; echo err >&2");
    app* broken = add_app("io");   // missing executable
    app* gpi = add_app("gpi");
    int fds_before = open_fd_count();
    start();
    for (int round = 0; round < 4; round++) {
        {
            instance_lock_guard guard(inst_);
            quick->t_run = 1;
            broken->t_run = 1;
            gpi->t_run = 1;
        }
        ASSERT_TRUE(wait_until(3000ms, [&] { return quick->t_run == 0 && broken->t_run == 0 && gpi->t_run == 0; }));
        ASSERT_TRUE(wait_until(3000ms, [&] { return quick->pid == 0 && broken->pid == 0; }));
    }
    // Counted under the lock: a pass may hold a session file open for a moment.
    EXPECT_EQ(locked<int>([] { return open_fd_count(); }), fds_before);
    EXPECT_EQ(locked<uint64_t>([&] { return quick->std_bufs[1].tail + quick->std_bufs[2].tail; }), 4u * 8u);
}

TEST_F(Supervision, ConfigurationChangeRewritesTheOptionFileWithABackup)
{
    fs::path conf = dir_ / "wd.conf";
    std::ofstream(conf) << "--port=9000\n";
    inst_->conf_file.set(conf.string());
    inst_->port = 9000;
    start();
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(file_text(conf), "--port=9000\n");   // no change yet, no rewrite

    app* added = app_new();
    added->type = instance_apps_lookup("lib");
    added->config.set("/cfg/lib.xml");
    {
        instance_lock_guard guard(inst_);
        instance_slot_append(inst_, added);   // raises the instance's amend
    }
    ASSERT_TRUE(wait_until(2000ms, [&] { return file_text(conf).find("\n--lib=/cfg/lib.xml\n") != std::string::npos; }));
    int backups = 0;
    for (const auto& entry : fs::directory_iterator(dir_)) {
        if (entry.path().filename().string().rfind("wd.conf-", 0) != 0) continue;
        backups++;
        EXPECT_EQ(file_text(entry.path()), "--port=9000\n");
    }
    EXPECT_EQ(backups, 1);
}

}  // namespace
