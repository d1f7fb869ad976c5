#pragma once
// The one JSON shape of every listing command (--json), documented in the
// manual page:
//   {"hosts": [{"url": ..., "ok": true|false, "error": null|"reason", ...}]}
// where each host carries its command's payload: "instance_name",
// "version", "amend" and "apps" (status) or "elements" (elements); "types"
// (types); "item" (show); "accepted" and "session" (auth).
#include <nlohmann/json.hpp>

#include "client/vantrel_watchdog.h"

using json = nlohmann::ordered_json;

json host_json(const std::string& url, const std::string& error);
json listing_json(const std::string& url, const vantrel_wd_listing& listing);
json app_json(int index, const vantrel_wd_app& app);
json element_json(const vantrel_wd_element& element);
json item_json(int index, const vantrel_wd_item& item);

// Prints {"hosts": hosts} on one line.
void print_hosts_json(const json& hosts);
