// Supervision while fork keeps failing (process table full, out of memory):
// retried, never mistaken for a child that exited, and leaving none of the
// application's pipes open.
#include <fcntl.h>
#include <sys/stat.h>

#include <mutex>

#include "child_registry.h"
#include "supervision_fixture.h"

namespace {

using namespace unit_support;

std::atomic<int> fork_calls{0};
std::atomic<bool> fork_fails{true};
std::mutex pipes_lock;
std::vector<std::pair<int, ino_t>> pipes_made;   // descriptor and pipe identity

pid_t switchable_fork()
{
    fork_calls++;
    return fork_fails ? (errno = EAGAIN, -1) : child_registry_fork();
}

int noted_pipe(int fds[2])
{
    int rc = pipe2(fds, O_CLOEXEC);
    std::lock_guard<std::mutex> hold(pipes_lock);
    for (int i = 0; i < 2 && rc == 0; i++) {
        struct stat st {};
        fstat(fds[i], &st);
        pipes_made.emplace_back(fds[i], st.st_ino);
    }
    return rc;
}

// Pipes made for the application that are still open in this process.
int pipes_left()
{
    std::lock_guard<std::mutex> hold(pipes_lock);
    int left = 0;
    for (auto [fd, ino] : pipes_made) {
        struct stat st {};
        if (fstat(fd, &st) == 0 && S_ISFIFO(st.st_mode) && st.st_ino == ino) left++;
    }
    return left;
}

class ForkFailure : public supervision_fixture {
protected:
    ForkFailure() : supervision_fixture("fork_failure_test") {}
    void SetUp() override
    {
        supervision_fixture::SetUp();
        fork_calls = 0;
        fork_fails = true;
        pipes_made.clear();
        watchdog_os.fork = switchable_fork;
        watchdog_os.pipe = noted_pipe;
    }
};

TEST_F(ForkFailure, FailuresAreRetriedLeakNothingAndAreNoFastExits)
{
    app* r = add_app("lib", "exec sleep 30");
    app* once = add_app("sched", "exec sleep 30");
    r->f_respawn = 1;
    once->t_run = 1;
    start();
    // More failures than the fast-exit brake allows exits: none may count.
    ASSERT_TRUE(wait_until(5s, [] { return fork_calls.load() >= 8; }));
    with_lock([&] {
        EXPECT_EQ(pipes_left(), 0);
        EXPECT_EQ(r->pid, 0);
        EXPECT_EQ(r->f_respawn, 1);
        EXPECT_EQ(r->fast_respawn_cnt, 0);
        EXPECT_EQ(r->err.str(), "");
        EXPECT_EQ(once->t_run, 0);   // a one-shot request is spent by its failed attempt
        fork_fails = false;
    });
    EXPECT_TRUE(wait_until(5s, [&] { return r->pid != 0; }));
    EXPECT_EQ(with_lock([&] { return once->pid; }), 0);
}

}  // namespace
