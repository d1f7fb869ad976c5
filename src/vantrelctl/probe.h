#pragma once
// A TCP connection attempt bounded in time, so that an unreachable host is
// told apart quickly and with its reason before any request is sent.
#include <string>

// "" when "host:port" (default port 80) accepts a connection within
// `timeout_ms`, else the reason ("connection refused", "timed out after 2 s").
std::string probe_connect(const std::string& authority, int timeout_ms);
