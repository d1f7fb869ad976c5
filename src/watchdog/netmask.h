#pragma once
// Networks in CIDR notation ("10.1.0.0/16", "fd00::/8", a bare address for one
// host) and the check of a connecting peer against a list of them.
#include <cstdint>
#include <string_view>
#include <vector>

struct sockaddr;

struct netmask {
    int family = 0;           // AF_INET or AF_INET6
    uint8_t addr[16] = {};    // network address, 4 or 16 bytes used
    int prefix = 0;           // leading bits that must match
};

// Parses a comma-separated list; false (and `out` unchanged) when any entry is
// not an address with an optional prefix length in range.
// True for an IPv4 or IPv6 address without a prefix length.
bool netmask_is_address(std::string_view text);
bool netmask_parse_list(std::string_view text, std::vector<netmask>& out);
// True when `peer` lies in one of `nets`, or `nets` is empty. An IPv4 peer seen
// on an IPv6 socket (::ffff:a.b.c.d) is matched as the IPv4 address it is.
bool netmask_match(const std::vector<netmask>& nets, const sockaddr* peer);
