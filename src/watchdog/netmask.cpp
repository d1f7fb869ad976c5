#include "netmask.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <charconv>
#include <cstring>
#include <string>

namespace {

bool parse_one(std::string_view entry, netmask& net)
{
    std::size_t slash = entry.find('/');
    std::string host(entry.substr(0, slash));
    if (inet_pton(AF_INET, host.c_str(), net.addr) == 1)
        net.family = AF_INET;
    else if (inet_pton(AF_INET6, host.c_str(), net.addr) == 1)
        net.family = AF_INET6;
    else
        return false;
    int bits = net.family == AF_INET ? 32 : 128;
    net.prefix = bits;
    if (slash == std::string_view::npos) return true;
    std::string_view len = entry.substr(slash + 1);
    auto [end, ec] = std::from_chars(len.data(), len.data() + len.size(), net.prefix);
    return ec == std::errc() && end == len.data() + len.size() && !len.empty() && net.prefix >= 0 &&
           net.prefix <= bits;
}

bool prefix_equal(const uint8_t* a, const uint8_t* b, int bits)
{
    int whole = bits / 8;
    if (memcmp(a, b, whole) != 0) return false;
    int rest = bits % 8;
    if (rest == 0) return true;
    uint8_t mask = static_cast<uint8_t>(0xff << (8 - rest));
    return (a[whole] & mask) == (b[whole] & mask);
}

// The peer's family and address bytes, with a mapped IPv4 address unwrapped.
int peer_address(const sockaddr* peer, const uint8_t** bytes)
{
    if (peer->sa_family == AF_INET) {
        *bytes = reinterpret_cast<const uint8_t*>(&reinterpret_cast<const sockaddr_in*>(peer)->sin_addr);
        return AF_INET;
    }
    if (peer->sa_family != AF_INET6) return 0;
    const in6_addr* a6 = &reinterpret_cast<const sockaddr_in6*>(peer)->sin6_addr;
    if (IN6_IS_ADDR_V4MAPPED(a6)) {
        *bytes = a6->s6_addr + 12;
        return AF_INET;
    }
    *bytes = a6->s6_addr;
    return AF_INET6;
}

}   // namespace

bool netmask_is_address(std::string_view text)
{
    netmask net;
    return text.find('/') == std::string_view::npos && parse_one(text, net);
}

bool netmask_parse_list(std::string_view text, std::vector<netmask>& out)
{
    std::vector<netmask> nets;
    while (true) {
        std::size_t comma = text.find(',');
        netmask net;
        if (!parse_one(text.substr(0, comma), net)) return false;
        nets.push_back(net);
        if (comma == std::string_view::npos) break;
        text.remove_prefix(comma + 1);
    }
    out = std::move(nets);
    return true;
}

bool netmask_match(const std::vector<netmask>& nets, const sockaddr* peer)
{
    if (nets.empty()) return true;
    const uint8_t* bytes = nullptr;
    int family = peer_address(peer, &bytes);
    for (const netmask& net : nets)
        if (net.family == family && prefix_equal(net.addr, bytes, net.prefix)) return true;
    return false;
}
