#pragma once
// Which supervisors a command talks to: --url (repeatable), then --hosts
// FILE, else VANTREL_WATCHDOG_URL, else the local default.
#include <string>
#include <vector>

constexpr const char* default_url = "http://127.0.0.1:9000/RPC2";

// "host", "host:port" or a full URL into a URL; "" when the text cannot be one.
std::string url_from_host(const std::string& text);

// Reads a hosts file: one URL or host[:port] a line, '#' comments and blank
// lines skipped. Fills `urls` or returns an error text.
std::string read_hosts_file(const std::string& path, std::vector<std::string>& urls);

// The URLs for this run, or an error text.
std::string collect_targets(const std::vector<std::string>& flags, const std::string& hosts_file,
                            std::vector<std::string>& urls);

// "host:port" of a URL, for connecting and for the host column.
std::string url_authority(const std::string& url);
