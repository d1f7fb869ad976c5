// status [APP...]: one line per application, of one supervisor or many.
#include <memory>

#include "app_state.h"
#include "commands.h"
#include "duration.h"
#include "fleet.h"
#include "json_out.h"
#include "output.h"
#include "supervisor.h"
#include "targets.h"

namespace {

struct host_status {
    std::string error;
    status_listing listing;
    std::vector<int> shown; // slots that pass the APP filter
    bool answered = false;  // the supervisor was reached (error: the filter's)
};

void fetch(host_status& host, const std::string& url, const std::string& unreachable,
           const std::vector<std::string>& filter)
{
    if (!unreachable.empty()) {
        host.error = unreachable;
        return;
    }
    int count = vantrel_watchdog_get_status(url.c_str(), &host.listing.raw);
    if (count < 0) {
        host.error = ret_text(count);
        return;
    }
    host.answered = true;
    if (filter.empty()) {
        for (int i = 0; i < count; ++i) host.shown.push_back(i);
        return;
    }
    resolution found = resolve_many(app_refs(host.listing.raw), filter);
    if (found.ok()) host.shown = found.indexes;
    else host.error = found.error;
}

std::vector<cell> app_row(const vantrel_wd_app& app, int index)
{
    app_facts facts{app.pid, app.terminated, app.f_respawn, app.err};
    std::string state = state_name(derive_state(facts));
    return {{std::to_string(index)},
            {std::string("@") + app.ptr},
            {display_name(app)},
            {app.app_name},
            {state, state_colour(state)},
            {app.pid ? std::to_string(app.pid) : "-"},
            {app.pid ? format_duration(app.started) : "-"},
            {app.f_autorun ? "yes" : "no"},
            {app.f_respawn ? "yes" : "no"}};
}

void print_human(const ctl_context& ctx, const std::vector<host_status>& hosts)
{
    bool fleet = ctx.urls.size() > 1;
    std::vector<std::string> header = {"IDX", "HANDLE", "NAME", "TYPE", "STATE",
                                       "PID", "UPTIME", "AUTORUN", "RESPAWN"};
    if (fleet) header.insert(header.begin(), "HOST");
    std::vector<std::vector<cell>> rows;
    for (std::size_t h = 0; h < hosts.size(); ++h) {
        std::string host = url_authority(ctx.urls[h]);
        if (!hosts[h].error.empty()) {
            if (!fleet) continue;
            std::string why = hosts[h].answered ? hosts[h].error : "unreachable: " + hosts[h].error;
            rows.push_back({{host}, {why, "31"}});
            continue;
        }
        for (int index : hosts[h].shown) {
            std::vector<cell> row = app_row(hosts[h].listing.raw.apps[index], index);
            if (fleet) row.insert(row.begin(), cell{host});
            rows.push_back(std::move(row));
        }
    }
    print_table(header, rows);
}

void print_json(const ctl_context& ctx, const std::vector<host_status>& hosts)
{
    json out = json::array();
    for (std::size_t h = 0; h < hosts.size(); ++h) {
        if (!hosts[h].error.empty()) {
            out.push_back(host_json(ctx.urls[h], hosts[h].error));
            continue;
        }
        json host = listing_json(ctx.urls[h], hosts[h].listing.raw);
        host["apps"] = json::array();
        for (int index : hosts[h].shown)
            host["apps"].push_back(app_json(index, hosts[h].listing.raw.apps[index]));
        out.push_back(host);
    }
    print_hosts_json(out);
}

// 0 when everything shown that should run does; 3 otherwise; 4 when a host
// could not be asked.
void judge(ctl_context& ctx, const std::vector<host_status>& hosts)
{
    for (std::size_t h = 0; h < hosts.size(); ++h) {
        if (!hosts[h].error.empty()) {
            if (ctx.urls.size() == 1 && !ctx.json) print_error(ctx.urls[h] + ": " + hosts[h].error);
            ctx.fail(hosts[h].answered ? exit_failed : exit_unknown);
            continue;
        }
        for (int index : hosts[h].shown) {
            const vantrel_wd_app& app = hosts[h].listing.raw.apps[index];
            app_facts facts{app.pid, app.terminated, app.f_respawn, app.err};
            if (should_run(facts) && !counts_as_running(facts)) ctx.fail(exit_not_running);
        }
    }
}

}  // namespace

void add_status_command(CLI::App& app, ctl_context& ctx)
{
    auto filter = std::make_shared<std::vector<std::string>>();
    CLI::App* cmd = app.add_subcommand(
        "status", "List applications with their state (exit 3 when one that should run does not)");
    cmd->add_option("APP", *filter, "alias, index, @handle, glob or 'all' (default: all)");
    cmd->callback([&ctx, filter]() {
        std::vector<host_status> hosts(ctx.urls.size());
        for_each_host(ctx, [&](std::size_t i, const std::string& url, const std::string& unreachable) {
            fetch(hosts[i], url, unreachable, *filter);
        });
        if (ctx.json) print_json(ctx, hosts);
        else print_human(ctx, hosts);
        judge(ctx, hosts);
    });
}
