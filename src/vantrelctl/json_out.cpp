#include "json_out.h"

#include <cstdio>

#include "app_state.h"
#include "supervisor.h"

namespace {

json strings(char* const* list)
{
    json out = json::array();
    for (int i = 0; list && list[i]; ++i) out.push_back(list[i]);
    return out;
}

}  // namespace

json host_json(const std::string& url, const std::string& error)
{
    json host;
    host["url"] = url;
    host["ok"] = error.empty();
    host["error"] = error.empty() ? json(nullptr) : json(error);
    return host;
}

json listing_json(const std::string& url, const vantrel_wd_listing& listing)
{
    json host = host_json(url, "");
    host["instance_name"] = listing.instance_name;
    host["version"] = listing.version;
    host["amend"] = listing.amend;
    return host;
}

json app_json(int index, const vantrel_wd_app& app)
{
    app_facts facts{app.pid, app.terminated, app.f_respawn, app.err};
    json out;
    out["index"] = index;
    out["handle"] = app.ptr;
    out["name"] = display_name(app);
    out["alias"] = app.alias;
    out["type"] = app.app_name;
    out["state"] = state_name(derive_state(facts));
    out["pid"] = app.pid;
    out["uptime"] = app.started;
    out["stopping_for"] = app.terminated;
    out["autorun"] = app.f_autorun != 0;
    out["respawn"] = app.f_respawn != 0;
    out["error"] = app.err;
    out["thumb"] = app.thumb;
    out["amend"] = app.amend;
    return out;
}

json element_json(const vantrel_wd_element& element)
{
    json out;
    out["type_id"] = element.id;
    out["type"] = element.app_name;
    out["port"] = element.port;
    out["alias"] = element.alias;
    out["thumb"] = element.thumb;
    return out;
}

json item_json(int index, const vantrel_wd_item& item)
{
    json out;
    out["index"] = index;
    out["handle"] = item.ptr;
    out["type"] = item.id_name;
    out["type_id"] = item.id;
    out["alias"] = item.alias;
    out["thumb"] = item.thumb;
    out["config"] = item.config;
    out["bin_path"] = item.bin_path;
    out["numa_bind"] = item.numa_bind;
    out["raws"] = strings(item.raws);
    out["envs"] = strings(item.envs);
    return out;
}

void print_hosts_json(const json& hosts)
{
    json doc;
    doc["hosts"] = hosts;
    // Replace, not throw, on bytes that are not UTF-8: servers send any text.
    puts(doc.dump(-1, ' ', false, json::error_handler_t::replace).c_str());
}
