// What reaches the control port's parser, who may connect, and how stored
// text is cut and repaired: the pure pieces behind the port's defences.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>

#include <string>
#include <vector>

#include "bounded.h"
#include "ctl_screen.h"
#include "netmask.h"

namespace {

std::string repeat(const std::string& s, int n) { return n > 0 ? s + repeat(s, n - 1) : ""; }

std::string call(const std::string& method, const std::string& inner = "")
{
    return "<?xml version=\"1.0\"?><methodCall><methodName>" + method + "</methodName><params>" + inner +
           "</params></methodCall>";
}

std::string arrays(int depth) { return repeat("<value><array><data>", depth) + repeat("</data></array></value>", depth); }

TEST(CtlScreen, RefusesDeclarationsAndDeepNestingAndTakesTheMethodName)
{
    using v = ctl_screen_verdict;
    struct row { const char* name; std::string body; v verdict; std::string method; } rows[] = {
        {"plain call", call("VantrelWatchdog.GetStatus"), v::pass, "VantrelWatchdog.GetStatus"},
        {"blanks around the name", call(" \n m\t"), v::pass, "m"},
        {"doctype", "<!DOCTYPE m>" + call("VantrelWatchdog.GetStatus"), v::declaration, ""},
        {"entity inside", call("x", "<!ENTITY a 'b'>"), v::declaration, ""},
        {"comment and PI skipped", "<?xml?><!-- <!DOCTYPE --><methodCall><methodName>m</methodName></methodCall>",
         v::pass, "m"},
        {"64 arrays", call("m", arrays(64)), v::pass, "m"},
        {"65 arrays", call("m", arrays(65)), v::too_deep, ""},
        {"65 structs", call("m", repeat("<struct><member>", 65)), v::too_deep, ""},
        {"closed arrays do not add up", call("m", repeat(arrays(40), 10)), v::pass, "m"},
        {"empty arrays do not nest", call("m", repeat("<array/>", 100)), v::pass, "m"},
        {"deep unknown elements", call("m", repeat("<x>", 300)), v::too_deep, ""},
        {"UTF-16", std::string("<\0m\0", 4), v::encoding, ""},
        {"two method names", call("m") + "<methodName>n</methodName>", v::pass, ""},
        {"CDATA in the name", call("<![CDATA[system.multicall]]>"), v::pass, ""},
        {"character reference kept raw", call("system&#46;multicall"), v::pass, "system&#46;multicall"},
    };
    for (const row& r : rows) {
        ctl_screen_result got = ctl_screen_request(r.body);
        EXPECT_EQ(got.verdict, r.verdict) << r.name;
        if (got.verdict == v::pass) {
            EXPECT_EQ(got.method, r.method) << r.name;
        }
    }
}

sockaddr_storage peer(const char* text)
{
    sockaddr_storage sa{};
    bool v4 = inet_pton(AF_INET, text, &reinterpret_cast<sockaddr_in*>(&sa)->sin_addr) == 1;
    if (!v4) inet_pton(AF_INET6, text, &reinterpret_cast<sockaddr_in6*>(&sa)->sin6_addr);
    sa.ss_family = v4 ? AF_INET : AF_INET6;
    return sa;
}

TEST(Netmask, ParsesListsAndMatchesPeersByPrefix)
{
    // expected: 1 match, 0 no match, -1 the list does not parse
    struct row { const char* list; const char* peer; int expected; } rows[] = {
        {"10.0.0.0/8", "10.255.1.2", 1}, {"10.0.0.0/8", "11.0.0.1", 0}, {"192.168.1.7", "192.168.1.7", 1},
        {"192.168.1.7", "192.168.1.8", 0}, {"172.16.0.0/12", "172.31.255.255", 1},
        {"172.16.0.0/12", "172.32.0.0", 0}, {"10.0.0.0/8,127.0.0.0/8", "127.0.0.1", 1},
        {"0.0.0.0/0", "203.0.113.9", 1}, {"fd00::/8", "fd12::1", 1}, {"fd00::/8", "fe80::1", 0},
        {"127.0.0.1", "::ffff:127.0.0.1", 1}, {"::1", "127.0.0.1", 0}, {"10.0.0.0/33", "10.0.0.1", -1},
        {"10.0.0.0/", "10.0.0.1", -1}, {"10.0.0.0/8x", "10.0.0.1", -1}, {"10.0.0.0/8,", "10.0.0.1", -1},
        {"host.example", "10.0.0.1", -1}, {"::/129", "::1", -1},
    };
    for (const row& r : rows) {
        std::vector<netmask> nets;
        bool parsed = netmask_parse_list(r.list, nets);
        sockaddr_storage sa = peer(r.peer);
        int got = parsed ? netmask_match(nets, reinterpret_cast<sockaddr*>(&sa)) : -1;
        EXPECT_EQ(got, r.expected) << r.list << " / " << r.peer;
    }
    EXPECT_TRUE(netmask_is_address("::") && !netmask_is_address("10.0.0.0/8"));
}

TEST(BoundedText, CutsOnCharacterBoundariesAndRepairsInvalidBytes)
{
    const std::string a4094(4094, 'a');
    struct row { const char* name; std::string in, stored; } rows[] = {
        {"two-byte character cut", a4094 + "\xc3\xa9", a4094},
        {"two-byte character fits", std::string(4093, 'a') + "\xc3\xa9", std::string(4093, 'a') + "\xc3\xa9"},
        {"four-byte character cut", std::string(4092, 'a') + "\xf0\x9f\x8e\xac", std::string(4092, 'a')},
        {"stray bytes", "a\xff" "b\xc3", "a?b?"},
        {"surrogate and overlong", "\xed\xa0\x80.\xc0\xaf", "???.??"},
        {"controls XML cannot carry", "a\x01\tb\x1f", "a?\tb?"},
    };
    for (const row& r : rows) {
        bounded_str field;
        field.set(r.in);
        EXPECT_EQ(field.str(), r.stored) << r.name;
    }
    char buf[5];
    str_copy(buf, "ab\xc3\xa9\xc3\xa9", sizeof buf);
    EXPECT_STREQ(buf, "ab\xc3\xa9");
    bounded_str grown(a4094);
    EXPECT_FALSE(grown.cat("\xc3\xa9"));
    EXPECT_EQ(grown.str(), a4094);
}

}   // namespace
