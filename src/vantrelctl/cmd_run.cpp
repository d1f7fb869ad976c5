// start, stop, restart: the request by handle, then (unless --no-wait) a
// bounded wait until the supervisor shows the change.
#include <chrono>
#include <memory>
#include <thread>

#include "commands.h"
#include "output.h"
#include "supervisor.h"

namespace {

enum class verb { start, stop, restart };

// The supervisor sends SIGKILL this long after SIGINT.
constexpr int64_t kill_after_seconds = 15;
constexpr auto poll_interval = std::chrono::milliseconds(100);

struct run_options {
    std::vector<std::string> apps;
    bool no_wait = false;
    double wait_timeout = 30.0;
};

// One application's way through the command.
struct target {
    std::string handle;
    std::string name;
    int32_t first_pid = 0; // when the command began
    int32_t old_pid = 0;   // the new process must differ from this one
    int64_t first_amend = 0; // an error text older than the command is not its outcome
    bool restart_by_respawn = false;
    bool stop_phase = false; // restart without respawn: waiting for the stop
    int64_t longest_term = 0;
    bool done = false;
    bool failed = false;
    std::string outcome;
};

void finish(target& t, std::string outcome, bool failed = false)
{
    t.done = true;
    t.failed = failed;
    t.outcome = std::move(outcome);
}

bool request(const supervisor& sup, target& t, const char* field, const char* value = "")
{
    int ret = sup.set_field(t.handle, field, value);
    if (ret < 0) finish(t, ret_text(ret), true);
    return ret >= 0;
}

// Sends what the verb needs; may finish the target at once.
void begin(const supervisor& sup, verb how, target& t, const vantrel_wd_app& app)
{
    t.first_pid = t.old_pid = app.pid;
    t.first_amend = app.amend;
    t.name = display_name(app);
    if (how == verb::stop) {
        // Respawn off first, or the supervisor would start it again at once.
        if (app.f_respawn && !request(sup, t, "f_respawn", "0")) return;
        if (!app.pid) return finish(t, "not running");
        request(sup, t, "t_term");
        return;
    }
    if (!app.pid) {
        request(sup, t, "t_run");
        return;
    }
    if (how == verb::start) return finish(t, "already running (pid " + std::to_string(app.pid) + ")");
    t.restart_by_respawn = app.f_respawn != 0;
    t.stop_phase = !t.restart_by_respawn;
    request(sup, t, "t_term");
}

std::string stopped_text(const target& t)
{
    if (t.longest_term >= kill_after_seconds)
        return "stopped (did not end on SIGINT; killed with SIGKILL after " +
               std::to_string(kill_after_seconds) + " s)";
    return "stopped";
}

// Looks at the current entry (null: gone) and finishes the target when the
// change has happened.
void check(const supervisor& sup, verb how, target& t, const vantrel_wd_app* app)
{
    if (!app) return finish(t, "the application no longer exists (removed by someone else?)", true);
    if (app->pid) t.longest_term = std::max(t.longest_term, app->terminated);
    bool stopping = how == verb::stop || t.stop_phase;
    if (stopping) {
        if (app->pid) return;
        if (how == verb::stop) return finish(t, stopped_text(t));
        t.stop_phase = false;
        t.old_pid = 0;
        request(sup, t, "t_run");
        return;
    }
    if (app->pid && app->pid != t.old_pid) {
        std::string pid = std::to_string(app->pid);
        if (!t.first_pid) return finish(t, "started (pid " + pid + ")");
        return finish(t, "restarted (pid " + std::to_string(t.first_pid) + " -> " + pid + ")");
    }
    if (!app->pid && app->err[0] && app->amend != t.first_amend)
        finish(t, std::string("not started: ") + app->err, true);
}

void run(ctl_context& ctx, verb how, const run_options& opts)
{
    std::string url = single_target(ctx);
    if (url.empty()) return;
    supervisor sup(url);
    std::vector<std::string> handles;
    std::string error;
    if (!sup.resolve(opts.apps, true, handles, error)) {
        print_error(error);
        return ctx.fail(exit_failed);
    }
    std::vector<target> targets(handles.size());
    for (std::size_t i = 0; i < handles.size(); ++i) {
        targets[i].handle = handles[i];
        begin(sup, how, targets[i], *sup.find(handles[i]));
    }
    auto deadline = std::chrono::steady_clock::now() +
                    std::chrono::milliseconds(static_cast<int64_t>(opts.wait_timeout * 1000));
    auto pending = [&]() {
        for (const target& t : targets)
            if (!t.done && !(opts.no_wait && !t.stop_phase)) return true;
        return false;
    };
    while (pending() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(poll_interval);
        if (!sup.refresh(error)) continue;
        for (target& t : targets)
            if (!t.done) check(sup, how, t, sup.find(t.handle));
    }
    static const char* const requested[] = {"start requested", "stop requested", "restart requested"};
    for (target& t : targets) {
        if (!t.done && opts.no_wait) finish(t, requested[static_cast<int>(how)]);
        if (!t.done)
            finish(t, "no change within " + std::to_string(static_cast<int>(opts.wait_timeout)) + " s", true);
        printf("%s: %s\n", t.name.c_str(), t.outcome.c_str());
        if (t.failed) ctx.fail(exit_failed);
    }
}

void add_verb(CLI::App& app, ctl_context& ctx, const char* name, verb how, const char* help)
{
    auto opts = std::make_shared<run_options>();
    CLI::App* cmd = app.add_subcommand(name, help);
    cmd->add_option("APP", opts->apps, "alias, index, @handle, glob or 'all'")->required();
    cmd->add_flag("--no-wait", opts->no_wait, "send the request and return");
    cmd->add_option("--wait-timeout", opts->wait_timeout, "seconds to wait for the change")
        ->check(CLI::Range(0.1, 3600.0));
    cmd->callback([&ctx, how, opts]() { run(ctx, how, *opts); });
}

}  // namespace

void add_run_commands(CLI::App& app, ctl_context& ctx)
{
    add_verb(app, ctx, "start", verb::start, "Start applications and wait until they run");
    add_verb(app, ctx, "stop", verb::stop,
             "Stop applications for good (respawn off) and wait until they have ended");
    add_verb(app, ctx, "restart", verb::restart, "Restart applications and wait for the new process");
}
