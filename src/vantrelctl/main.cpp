// vantrelctl: the operator's command line for one supervisor or a fleet.
#include <CLI/CLI.hpp>

#include "client/vantrel.h"
#include "commands.h"
#include "output.h"
#include "targets.h"

namespace {

// The main thread's own client, bounded by --timeout.
vantrel_client* main_client = nullptr;

void add_shared_options(CLI::App& app, ctl_context& ctx)
{
    app.add_option("-u,--url", ctx.url_flags,
                   "supervisor URL or host[:port], repeatable (default: $VANTREL_WATCHDOG_URL, "
                   "else " + std::string(default_url) + ")");
    app.add_option("--hosts", ctx.hosts_file, "file with one URL or host[:port] a line");
    app.add_flag("--json", ctx.json, "machine-readable output for listings");
    app.add_flag("--no-color", ctx.no_color, "no colour even on a terminal (as NO_COLOR)");
    app.add_option("--connect-timeout", ctx.connect_timeout, "seconds to wait for a connection")
        ->check(CLI::Range(0.1, 600.0));
    app.add_option("--timeout", ctx.timeout, "seconds to wait for each answer")
        ->check(CLI::Range(0.1, 3600.0));
}

// Runs before any command callback: targets, output, the library.
void prepare(ctl_context& ctx)
{
    std::string error = collect_targets(ctx.url_flags, ctx.hosts_file, ctx.urls);
    if (!error.empty()) throw CLI::ValidationError("targets", error);
    output_init(ctx.no_color);
    main_client = vantrel_client_new(ctx.timeout_ms());
    if (!main_client) throw CLI::ValidationError("client", "cannot set up an XML-RPC client");
    vantrel_client_use(main_client);
}

}  // namespace

int main(int argc, char** argv)
{
    ctl_context ctx;
    CLI::App app{"vantrelctl: control VantrelWatchdog supervisors"};
    app.require_subcommand(1);
    app.fallthrough();
    add_shared_options(app, ctx);
    add_status_command(app, ctx);
    add_run_commands(app, ctx);
    add_tail_command(app, ctx);
    add_config_commands(app, ctx);
    add_info_commands(app, ctx);
    add_machine_commands(app, ctx);
    app.parse_complete_callback([&ctx]() { prepare(ctx); });

    if (vantrel_init("vantrelctl", "1") != 0) return exit_failed;
    int status = exit_ok;
    try {
        app.parse(argc, argv);
        status = ctx.exit_status;
    } catch (const CLI::ParseError& e) {
        int rc = app.exit(e);
        status = rc == 0 ? exit_ok : exit_usage;
    }
    vantrel_client_use(nullptr);
    vantrel_client_free(main_client);
    vantrel_cleanup();
    return status;
}
