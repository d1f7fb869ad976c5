// reboot, halt: the machine of one supervisor, only with --confirm.
#include <memory>

#include "commands.h"
#include "output.h"
#include "supervisor.h"

namespace {

void machine(ctl_context& ctx, const char* name, const char* field, bool confirmed)
{
    if (!confirmed) {
        print_error(std::string(name) + " acts on the whole machine; add --confirm to mean it");
        return ctx.fail(exit_usage);
    }
    std::string url = single_target(ctx);
    if (url.empty()) return;
    // Index -1 with no handle addresses no application: the machine command.
    int ret = vantrel_watchdog_set_field(url.c_str(), -1, "", field, "");
    if (ret < 0) {
        print_error(url + ": " + ret_text(ret), ret == VANTREL_EFAULT);
        return ctx.fail(exit_failed);
    }
    printf("%s requested on %s\n", name, url.c_str());
}

void add_machine(CLI::App& app, ctl_context& ctx, const char* name, const char* field, const char* help)
{
    auto confirmed = std::make_shared<bool>(false);
    CLI::App* cmd = app.add_subcommand(name, help);
    cmd->add_flag("--confirm", *confirmed, "required: yes, really");
    cmd->callback([&ctx, name, field, confirmed]() { machine(ctx, name, field, *confirmed); });
}

}  // namespace

void add_machine_commands(CLI::App& app, ctl_context& ctx)
{
    add_machine(app, ctx, "reboot", "t_reboot", "Reboot the supervisor's machine (needs --confirm)");
    add_machine(app, ctx, "halt", "t_shutdown", "Power the supervisor's machine off (needs --confirm)");
}
