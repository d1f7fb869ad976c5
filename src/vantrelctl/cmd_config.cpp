// add, edit, remove, clone, move, autorun, respawn: configuration changes,
// each addressed by handle and persisted by the supervisor.
#include <cstring>
#include <memory>

#include "commands.h"
#include "output.h"
#include "supervisor.h"

namespace {

struct item_options {
    std::string app; // edit: the application; add: the type
    std::string type, config, alias, thumb, bin_path, numa_bind;
    std::vector<std::string> envs, raws;
    bool no_env = false, no_raw = false;
    CLI::Option *o_type = nullptr, *o_config, *o_alias, *o_thumb, *o_bin_path, *o_numa_bind,
                *o_env, *o_raw;
};

struct item_guard {
    vantrel_wd_item raw{};
    ~item_guard() { vantrel_watchdog_item_free(&raw); }
};

void set_text(char* field, std::size_t size, const std::string& text)
{
    snprintf(field, size, "%s", text.c_str());
}

bool set_list(char*** list, const std::vector<std::string>& texts)
{
    vantrel_str_list_free(list);
    *list = vantrel_str_list_new();
    for (const std::string& text : texts) {
        char* copy = strdup(text.c_str());
        if (!copy || vantrel_str_list_append(list, copy) < 0) {
            free(copy);
            return false;
        }
    }
    return *list != nullptr;
}

// Only what was given changes; lists are replaced as a whole.
bool apply(const item_options& o, vantrel_wd_item& item)
{
    if (o.o_type && o.o_type->count()) set_text(item.id_name, sizeof item.id_name, o.type);
    if (o.o_config->count()) set_text(item.config, sizeof item.config, o.config);
    if (o.o_alias->count()) set_text(item.alias, sizeof item.alias, o.alias);
    if (o.o_thumb->count()) set_text(item.thumb, sizeof item.thumb, o.thumb);
    if (o.o_bin_path->count()) set_text(item.bin_path, sizeof item.bin_path, o.bin_path);
    if (o.o_numa_bind->count()) set_text(item.numa_bind, sizeof item.numa_bind, o.numa_bind);
    if ((o.o_env->count() || o.no_env) && !set_list(&item.envs, o.envs)) return false;
    if ((o.o_raw->count() || o.no_raw) && !set_list(&item.raws, o.raws)) return false;
    return true;
}

// An unknown type would leave an empty slot behind in the supervisor.
bool known_type(const std::string& url, const std::string& type, std::string& error)
{
    char** names = nullptr;
    int count = vantrel_watchdog_get_apps(url.c_str(), &names);
    bool found = false;
    for (int i = 0; i < count; ++i) found = found || type == names[i];
    vantrel_str_list_free(&names);
    if (count < 0) error = "cannot read the type names: " + ret_text(count);
    else if (!found) error = "unknown type '" + type + "' (see 'vantrelctl types')";
    return found;
}

void add_item_options(CLI::App* cmd, item_options& o)
{
    o.o_config = cmd->add_option("--config", o.config, "the application's configuration");
    o.o_alias = cmd->add_option("--alias", o.alias, "display name");
    o.o_thumb = cmd->add_option("--thumb", o.thumb, "picture");
    o.o_bin_path = cmd->add_option("--bin-path", o.bin_path, "directory of the executable");
    o.o_numa_bind = cmd->add_option("--numa-bind", o.numa_bind, "NUMA nodes, e.g. 0,1");
    o.o_env = cmd->add_option("--env", o.envs, "NAME=VALUE for the child, repeatable (replaces all)");
    o.o_raw = cmd->add_option("--raw", o.raws, "line of the child's option file, repeatable (replaces all)");
    cmd->add_flag("--no-env", o.no_env, "clear the environment entries");
    cmd->add_flag("--no-raw", o.no_raw, "clear the raw lines");
}

// The common start of a command on one application: the target and its
// handle, or false with the error reported.
bool one_app(ctl_context& ctx, const std::string& token, std::unique_ptr<supervisor>& sup,
             std::string& handle)
{
    std::string url = single_target(ctx);
    if (url.empty()) return false;
    sup = std::make_unique<supervisor>(url);
    std::vector<std::string> handles;
    std::string error;
    if (!sup->resolve({token}, false, handles, error)) {
        print_error(error);
        ctx.fail(exit_failed);
        return false;
    }
    handle = handles[0];
    return true;
}

bool check_ret(ctl_context& ctx, const std::string& what, int ret)
{
    if (ret >= 0) return true;
    print_error(what + ": " + ret_text(ret), ret == VANTREL_EFAULT);
    ctx.fail(exit_failed);
    return false;
}

// "NAME at index N (@handle)" from a fresh listing, or the handle alone.
std::string where(supervisor& sup, const std::string& handle)
{
    std::string error;
    const vantrel_wd_app* app = sup.refresh(error) ? sup.find(handle) : nullptr;
    if (!app) return "@" + handle;
    return display_name(*app) + " at index " + std::to_string(app - sup.listing().apps) + " (@" +
           handle + ")";
}

void add_app(ctl_context& ctx, const item_options& o)
{
    std::string url = single_target(ctx);
    if (url.empty()) return;
    std::string error;
    if (!known_type(url, o.app, error)) {
        print_error(error);
        return ctx.fail(exit_failed);
    }
    item_guard item;
    set_text(item.raw.id_name, sizeof item.raw.id_name, o.app);
    if (!apply(o, item.raw)) return ctx.fail(exit_failed);
    if (!check_ret(ctx, "add " + o.app, vantrel_watchdog_set_item(url.c_str(), -1, "", &item.raw)))
        return;
    // A new application takes the last slot.
    supervisor sup(url);
    if (sup.refresh(error) && sup.listing().count > 0)
        printf("added %s\n", where(sup, sup.listing().apps[sup.listing().count - 1].ptr).c_str());
    else printf("added %s\n", o.app.c_str());
}

void edit_app(ctl_context& ctx, const item_options& o)
{
    std::unique_ptr<supervisor> sup;
    std::string handle, error;
    if (!one_app(ctx, o.app, sup, handle)) return;
    item_guard item;
    int ret = vantrel_watchdog_get_item(sup->url().c_str(), -1, handle.c_str(), &item.raw);
    if (!check_ret(ctx, o.app, ret)) return;
    if (o.o_type->count() && !known_type(sup->url(), o.type, error)) {
        print_error(error);
        return ctx.fail(exit_failed);
    }
    if (!apply(o, item.raw)) return ctx.fail(exit_failed);
    ret = vantrel_watchdog_set_item(sup->url().c_str(), -1, handle.c_str(), &item.raw);
    if (check_ret(ctx, o.app, ret)) printf("updated %s\n", where(*sup, handle).c_str());
}

// One SetField command on one application, then what became of it.
void field_command(ctl_context& ctx, const std::string& token, const char* field, const char* value,
                   const char* done)
{
    std::unique_ptr<supervisor> sup;
    std::string handle;
    if (!one_app(ctx, token, sup, handle)) return;
    const vantrel_wd_app* app = sup->find(handle);
    std::string name = display_name(*app);
    if (strcmp(field, "t_del") == 0 && app->pid) {
        print_error(name + " is running; stop it first");
        return ctx.fail(exit_failed);
    }
    if (!check_ret(ctx, token, sup->set_field(handle, field, value))) return;
    std::string error;
    if (strcmp(field, "t_del") == 0) {
        if (sup->refresh(error) && sup->find(handle)) {
            print_error(name + " was not removed: it is running");
            return ctx.fail(exit_failed);
        }
        printf("%s %s\n", done, name.c_str());
        return;
    }
    if (strcmp(field, "t_clone") == 0) {
        // The copy lands right after its source.
        if (sup->refresh(error) && (app = sup->find(handle)) != nullptr &&
            app + 1 < sup->listing().apps + sup->listing().count) {
            printf("%s %s to %s\n", done, name.c_str(), where(*sup, (app + 1)->ptr).c_str());
            return;
        }
    }
    printf("%s %s\n", done, where(*sup, handle).c_str());
}

void add_switch(CLI::App& app, ctl_context& ctx, const char* name, const char* field, const char* help)
{
    auto token = std::make_shared<std::string>();
    auto value = std::make_shared<std::string>();
    CLI::App* cmd = app.add_subcommand(name, help);
    cmd->add_option("APP", *token, "alias, index, @handle or glob naming one application")->required();
    cmd->add_option("VALUE", *value, "on or off")->required()->check(CLI::IsMember({"on", "off"}));
    cmd->callback([&ctx, token, value, field, name]() {
        bool on = *value == "on";
        std::string done = std::string(name) + (on ? " on for" : " off for");
        field_command(ctx, *token, field, on ? "1" : "0", done.c_str());
    });
}

void add_simple(CLI::App& app, ctl_context& ctx, const char* name, const char* field,
                const char* done, const char* help)
{
    auto token = std::make_shared<std::string>();
    CLI::App* cmd = app.add_subcommand(name, help);
    cmd->add_option("APP", *token, "alias, index, @handle or glob naming one application")->required();
    cmd->callback([&ctx, token, field, done]() { field_command(ctx, *token, field, "", done); });
}

}  // namespace

void add_config_commands(CLI::App& app, ctl_context& ctx)
{
    auto add = std::make_shared<item_options>();
    CLI::App* cmd = app.add_subcommand("add", "Add an application of a type (see 'types')");
    cmd->add_option("TYPE", add->app, "application type, e.g. elem_mixer")->required();
    add_item_options(cmd, *add);
    cmd->callback([&ctx, add]() { add_app(ctx, *add); });

    auto edit = std::make_shared<item_options>();
    cmd = app.add_subcommand("edit", "Change an application's configuration (given options only)");
    cmd->add_option("APP", edit->app, "alias, index, @handle or glob naming one application")->required();
    edit->o_type = cmd->add_option("--type", edit->type, "application type");
    add_item_options(cmd, *edit);
    cmd->callback([&ctx, edit]() { edit_app(ctx, *edit); });

    add_simple(app, ctx, "remove", "t_del", "removed", "Remove a stopped application");
    add_simple(app, ctx, "clone", "t_clone", "cloned", "Copy an application to the slot after it");

    auto token = std::make_shared<std::string>();
    auto direction = std::make_shared<std::string>();
    cmd = app.add_subcommand("move", "Move an application one slot up or down");
    cmd->add_option("APP", *token, "alias, index, @handle or glob naming one application")->required();
    cmd->add_option("DIRECTION", *direction, "up or down")->required()->check(CLI::IsMember({"up", "down"}));
    cmd->callback([&ctx, token, direction]() {
        field_command(ctx, *token, *direction == "up" ? "t_up" : "t_down", "", "moved");
    });

    add_switch(app, ctx, "autorun", "f_autorun", "Start the application when the supervisor starts");
    add_switch(app, ctx, "respawn", "f_respawn", "Keep the application running (restart when it ends)");
}
