// show, types, elements, auth: read-only questions to one supervisor.
#include <memory>

#include "app_state.h"
#include "commands.h"
#include "duration.h"
#include "json_out.h"
#include "output.h"
#include "supervisor.h"

namespace {

void print_field(const char* key, const std::string& value) { printf("%-10s %s\n", key, value.c_str()); }

void print_list(const char* key, char* const* list)
{
    if (!list || !list[0]) print_field(key, "-");
    for (int i = 0; list && list[i]; ++i) print_field(i == 0 ? key : "", list[i]);
}

void show(ctl_context& ctx, const std::string& token)
{
    std::string url = single_target(ctx);
    if (url.empty()) return;
    supervisor sup(url);
    std::vector<std::string> handles;
    std::string error;
    if (!sup.resolve({token}, false, handles, error)) {
        print_error(error);
        return ctx.fail(exit_failed);
    }
    vantrel_wd_item item{};
    std::unique_ptr<vantrel_wd_item, void (*)(vantrel_wd_item*)> guard(&item, vantrel_watchdog_item_free);
    int index = vantrel_watchdog_get_item(url.c_str(), -1, handles[0].c_str(), &item);
    if (index < 0) {
        print_error(token + ": " + ret_text(index), index == VANTREL_EFAULT);
        return ctx.fail(exit_failed);
    }
    const vantrel_wd_app& app = *sup.find(handles[0]);
    app_facts facts{app.pid, app.terminated, app.f_respawn, app.err};
    if (ctx.json) {
        json host = host_json(url, "");
        host["item"] = item_json(index, item);
        host["status"] = app_json(index, app);
        return print_hosts_json(json::array({host}));
    }
    print_field("index", std::to_string(index));
    print_field("handle", "@" + std::string(item.ptr));
    print_field("type", item.id_name);
    print_field("alias", item.alias);
    print_field("thumb", item.thumb);
    print_field("config", item.config);
    print_field("bin-path", item.bin_path);
    print_field("numa-bind", item.numa_bind);
    print_list("env", item.envs);
    print_list("raw", item.raws);
    print_field("state", state_name(derive_state(facts)));
    print_field("pid", app.pid ? std::to_string(app.pid) : "-");
    print_field("uptime", app.pid ? format_duration(app.started) : "-");
    print_field("autorun", app.f_autorun ? "yes" : "no");
    print_field("respawn", app.f_respawn ? "yes" : "no");
    if (app.err[0]) print_field("error", app.err);
}

void types(ctl_context& ctx)
{
    std::string url = single_target(ctx);
    if (url.empty()) return;
    char** names = nullptr;
    int count = vantrel_watchdog_get_apps(url.c_str(), &names);
    std::unique_ptr<char**, void (*)(char***)> guard(&names, vantrel_str_list_free);
    if (count < 0) {
        print_error(url + ": " + ret_text(count), true);
        return ctx.fail(exit_failed);
    }
    if (ctx.json) {
        json host = host_json(url, "");
        host["types"] = json::array();
        for (int i = 0; i < count; ++i) host["types"].push_back(names[i]);
        return print_hosts_json(json::array({host}));
    }
    for (int i = 0; i < count; ++i) puts(names[i]);
}

void elements(ctl_context& ctx)
{
    std::string url = single_target(ctx);
    if (url.empty()) return;
    vantrel_wd_listing listing{};
    std::unique_ptr<vantrel_wd_listing, void (*)(vantrel_wd_listing*)> guard(
        &listing, vantrel_watchdog_listing_free);
    int count = vantrel_watchdog_get_elements(url.c_str(), &listing);
    if (count < 0) {
        print_error(url + ": " + ret_text(count), true);
        return ctx.fail(exit_failed);
    }
    if (ctx.json) {
        json host = listing_json(url, listing);
        host["elements"] = json::array();
        for (int i = 0; i < count; ++i) host["elements"].push_back(element_json(listing.elements[i]));
        return print_hosts_json(json::array({host}));
    }
    std::vector<std::vector<cell>> rows;
    for (int i = 0; i < count; ++i) {
        const vantrel_wd_element& e = listing.elements[i];
        rows.push_back({{e.alias[0] ? e.alias : e.app_name}, {e.app_name}, {std::to_string(e.port)}, {e.thumb}});
    }
    print_table({"NAME", "TYPE", "PORT", "THUMB"}, rows);
}

void auth(ctl_context& ctx, const std::string& secret, const std::string& session)
{
    std::string url = single_target(ctx);
    if (url.empty()) return;
    auto token = std::make_unique<char[]>(VANTREL_STR_SIZE);
    int ret = vantrel_watchdog_get_auth(url.c_str(), secret.c_str(), session.c_str(), token.get());
    if (ret < 0) {
        print_error(url + ": " + ret_text(ret), true);
        return ctx.fail(exit_failed);
    }
    if (ctx.json) {
        json host = host_json(url, "");
        host["accepted"] = ret == 1;
        host["session"] = token.get();
        print_hosts_json(json::array({host}));
    } else if (ret == 1) {
        printf("accepted\nsession: %s\n", token.get());
    } else {
        puts("refused");
    }
    if (ret != 1) ctx.fail(exit_failed);
}

}  // namespace

void add_info_commands(CLI::App& app, ctl_context& ctx)
{
    auto token = std::make_shared<std::string>();
    CLI::App* cmd = app.add_subcommand("show", "Show everything about one application");
    cmd->add_option("APP", *token, "alias, index, @handle or glob naming one application")->required();
    cmd->callback([&ctx, token]() { show(ctx, *token); });

    app.add_subcommand("types", "List the application types that can be added")
        ->callback([&ctx]() { types(ctx); });
    app.add_subcommand("elements", "List running processing elements with their control ports")
        ->callback([&ctx]() { elements(ctx); });

    auto secret = std::make_shared<std::string>();
    auto session = std::make_shared<std::string>();
    cmd = app.add_subcommand("auth", "Check a web secret or session token (exit 1 when refused)");
    cmd->add_option("SECRET", *secret, "the secret to check")->required();
    cmd->add_option("SESSION", *session, "a session token to check instead");
    cmd->callback([&ctx, secret, session]() { auth(ctx, *secret, *session); });
}
