// A malformed <i8> in a server's answer or a client's request is a fault, not
// a crash of the process parsing it.
#include <gtest/gtest.h>

#include <string>

#include <xmlrpc-c/base.h>

#include "common/xmlrpc_fault_guard.h"
#include "common/xmlrpc_raii.h"

namespace {

std::string answer_with_i8(const std::string& text)
{
    return "<?xml version=\"1.0\"?><methodResponse><params><param><value><struct><member><name>result</name>"
           "<value><i8>" + text + "</i8></value></member></struct></value></param></params></methodResponse>";
}

TEST(fault_guard, malformed_i8_in_an_answer_is_a_parse_fault)
{
    xmlrpc_fault_guard_install();
    for (const char* text : {"5x", "-", "99999999999999999999", "5 ", ""}) {
        std::string doc = answer_with_i8(text);
        xmlrpc_env_guard env;
        xmlrpc_value_ref result;
        int fault_code = 0;
        const char* fault_string = nullptr;
        xmlrpc_parse_response2(env.get(), doc.c_str(), doc.size(), result.out(), &fault_code, &fault_string);
        EXPECT_TRUE(env.failed()) << text;
        EXPECT_NE(std::string(env.fault_string()).find("i8"), std::string::npos) << text << ": " << env.fault_string();
    }
}

TEST(fault_guard, other_faults_keep_their_formatted_text)
{
    xmlrpc_env_guard env;
    xmlrpc_env_set_fault_formatted(env.get(), 7, "value %d of %s", 3, "list");
    EXPECT_STREQ(env.fault_string(), "value 3 of list");

    std::string doc = answer_with_i8("42");
    xmlrpc_env_guard parse_env;
    xmlrpc_value_ref result;
    int fault_code = 0;
    const char* fault_string = nullptr;
    xmlrpc_parse_response2(parse_env.get(), doc.c_str(), doc.size(), result.out(), &fault_code, &fault_string);
    ASSERT_FALSE(parse_env.failed());
    xmlrpc_int64 value = 0;
    xmlrpc_decompose_value(parse_env.get(), result.get(), "{s:I,*}", "result", &value);
    EXPECT_EQ(value, 42);
}

}  // namespace
