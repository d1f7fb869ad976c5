// The call frame: standard call outcomes, the two list walkers, string lists.
#include <cerrno>
#include <clocale>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "standin_server.h"
#include "vantrel.h"

using standin::value;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

class frame_call : public standin::standin_test {};

TEST_F(frame_call, no_arg_call_sends_empty_tuple_and_returns_result_unchanged)
{
    stub.answer(standin::result_only(7));
    EXPECT_EQ(7, vantrel_method_no_arg(url(), "VantrelIO.Play"));
    EXPECT_EQ("VantrelIO.Play", stub.last_method());
    EXPECT_EQ("()", stub.last_params());

    stub.answer(standin::result_only(-2));
    EXPECT_EQ(-2, vantrel_method_no_arg(url(), "VantrelIO.Stop"));
}

TEST_F(frame_call, answer_without_result_gives_efault_and_decompose_line)
{
    stub.answer(standin::missing_result());
    CaptureStderr();
    EXPECT_EQ(-14, vantrel_method_no_arg(url(), "VantrelIO.Pause"));
    std::string err = GetCapturedStderr();
    EXPECT_EQ(0u, err.find("vantrel_method_no_arg: VantrelIO.Pause, decompose value failed: "))
        << err;
    EXPECT_NE(std::string::npos, err.find(" [src/client/vantrel:")) << err;
    EXPECT_EQ('\n', err.back());
}

TEST_F(frame_call, malformed_answers_never_pass_as_results)
{
    CaptureStderr();
    stub.answer(standin::result_of_wrong_type());
    EXPECT_EQ(-14, vantrel_method_no_arg(url(), "VantrelIO.Play"));
    stub.answer(standin::build("(i)", 0));   // an array, not a struct
    EXPECT_EQ(-14, vantrel_method_no_arg(url(), "VantrelIO.Play"));
    stub.answer(standin::build("i", 0));
    EXPECT_EQ(-14, vantrel_method_no_arg(url(), "VantrelIO.Play"));
    GetCapturedStderr();
}

TEST_F(frame_call, server_fault_gives_efault_and_call_failed_line_without_newline)
{
    stub.answer_fault(-505, "boom");
    CaptureStderr();
    EXPECT_EQ(-14, vantrel_method_no_arg(url(), "VantrelIO.Record"));
    std::string err = GetCapturedStderr();
    std::string head = "vantrel_method_no_arg: xmlrpc_client_callX(" + std::string(url()) +
                       ", VantrelIO.Record) failed: ";
    EXPECT_EQ(0u, err.find(head)) << err;
    // The client library may prefix the server's text; code and end are ours.
    std::string tail = "boom (-505)";
    ASSERT_GE(err.size(), tail.size());
    EXPECT_EQ(tail, err.substr(err.size() - tail.size())) << err;
}

TEST_F(frame_call, unreachable_server_and_null_arguments_give_efault)
{
    CaptureStderr();
    // Port 1 on loopback: nothing listens there in a test environment.
    EXPECT_EQ(-14, vantrel_method_no_arg("http://127.0.0.1:1/RPC2", "VantrelIO.Play"));
    EXPECT_EQ(-14, vantrel_method_no_arg(nullptr, "VantrelIO.Play"));
    EXPECT_EQ(-14, vantrel_method_no_arg(url(), nullptr));
    std::string err = GetCapturedStderr();
    EXPECT_NE(std::string::npos, err.find("xmlrpc_client_callX(http://127.0.0.1:1/RPC2, VantrelIO.Play) failed"));
    EXPECT_EQ(0u, stub.call_count());
}

TEST_F(frame_call, second_init_fails_but_still_sets_numeric_locale)
{
    setlocale(LC_NUMERIC, "C.UTF-8");
    CaptureStderr();
    int rc = vantrel_init("again", "1");
    std::string err = GetCapturedStderr();
    EXPECT_STREQ("C", setlocale(LC_NUMERIC, nullptr));
    if (rc != 0) {
        EXPECT_EQ(-14, rc);
        EXPECT_EQ(0u, err.find("vantrel_init: xmlrpc_client_init2 failed: "));
    }
}

// Walkers are fed values directly: they never touch the transport.
struct walk_log {
    std::vector<std::pair<int, int>> index_and_count;
    std::vector<std::string> names;
};

int record_name(xmlrpc_env* env, xmlrpc_value* item, void* ctx, int index, int count)
{
    auto* log = static_cast<walk_log*>(ctx);
    decoded_text name;
    xmlrpc_decompose_value(env, item, "{s:s,*}", "name", name.out());
    if (env->fault_occurred) return -14;
    decoded_adopt(name);
    log->index_and_count.emplace_back(index, count);
    log->names.emplace_back(name.get());
    return index + 1;
}

TEST(custom_list, failing_elements_are_skipped_and_indexes_stay_dense)
{
    value a = standin::build("{s:s}", "name", "a");
    value bad = standin::build("{s:i}", "name", 3);
    value c = standin::build("{s:s}", "name", "c");
    value list = standin::build("(VVV)", a.get(), bad.get(), c.get());
    value answer = standin::with_list(0, list.get());

    xmlrpc_env_guard env;
    walk_log log;
    CaptureStderr();
    EXPECT_EQ(2, parse_custom_list("caller", env.get(), answer.get(), "list", record_name, &log));
    std::string err = GetCapturedStderr();
    EXPECT_EQ(0u, err.find("caller/parse_custom_list: xmlrpc_array_read_item failed: ")) << err;
    EXPECT_FALSE(env.failed());
    EXPECT_EQ((std::vector<std::string>{"a", "c"}), log.names);
    EXPECT_EQ((std::vector<std::pair<int, int>>{{0, 3}, {1, 3}}), log.index_and_count);
}

TEST(custom_list, without_key_walks_the_value_itself)
{
    value a = standin::build("{s:s}", "name", "x");
    value list = standin::build("(V)", a.get());
    xmlrpc_env_guard env;
    walk_log log;
    EXPECT_EQ(1, parse_custom_list("c", env.get(), list.get(), nullptr, record_name, &log));
    EXPECT_EQ(std::vector<std::string>{"x"}, log.names);
}

TEST(custom_list, shape_failures_give_efault)
{
    walk_log log;
    CaptureStderr();
    {
        xmlrpc_env_guard env;   // no such member
        value answer = standin::result_only(0);
        EXPECT_EQ(-14, parse_custom_list("c", env.get(), answer.get(), "list", record_name, &log));
    }
    {
        xmlrpc_env_guard env;   // not an array
        value answer = standin::build("{s:i}", "x", 1);
        EXPECT_EQ(-14, parse_custom_list("c", env.get(), answer.get(), nullptr, record_name, &log));
    }
    {
        xmlrpc_env_guard env;
        EXPECT_EQ(-14, parse_custom_list("c", env.get(), nullptr, "list", record_name, &log));
    }
    {
        xmlrpc_env_guard env;   // the transport already failed
        xmlrpc_env_set_fault(env.get(), -1, "down");
        EXPECT_EQ(-14, parse_custom_list("c", env.get(), nullptr, "list", record_name, &log));
    }
    std::string err = GetCapturedStderr();
    EXPECT_NE(std::string::npos, err.find("c/parse_custom_list: decompose value failed: "));
    EXPECT_NE(std::string::npos, err.find("c/parse_custom_list: xmlrpc_array_size failed: "));
    EXPECT_NE(std::string::npos, err.find("c/parse_custom_list: xmlrpc_client_callX() failed: down (-1)"));
    EXPECT_TRUE(log.names.empty());
}

TEST(simple_list, negative_result_is_returned_with_strerror_and_no_list)
{
    xmlrpc_env_guard env;
    char** list = reinterpret_cast<char**>(&env);   // must be overwritten
    CaptureStderr();
    EXPECT_EQ(-2, parse_simple_list_response("f", env.get(), standin::result_only(-2).release(), &list));
    EXPECT_EQ("f/parse_simple_list_response: return -2 (" + std::string(strerror(ENOENT)) + ")",
              GetCapturedStderr());
    EXPECT_EQ(nullptr, list);
}

TEST(simple_list, empty_list_gives_only_the_terminator)
{
    xmlrpc_env_guard env;
    char** list = nullptr;
    value empty = standin::empty_array();
    EXPECT_EQ(0, parse_simple_list_response("f", env.get(),
                                            standin::with_list(0, empty.get()).release(), &list));
    ASSERT_NE(nullptr, list);
    EXPECT_EQ(nullptr, list[0]);
    vantrel_str_list_free(&list);
}

TEST(simple_list, bad_rows_are_skipped_and_the_rest_kept_in_order)
{
    xmlrpc_env_guard env;
    char** list = nullptr;
    value rows = standin::string_rows({"one", "two"});
    value with_bad = standin::with_bad_element(rows.get());
    value tail = standin::build("(s)", "three");
    standin::push(with_bad.get(), tail.get());
    CaptureStderr();
    EXPECT_EQ(3, parse_simple_list_response("f", env.get(),
                                            standin::with_list(5, with_bad.get()).release(), &list));
    EXPECT_NE(std::string::npos, GetCapturedStderr().find("f/parse_simple_list_response: xmlrpc_array_read_item failed"));
    ASSERT_NE(nullptr, list);
    EXPECT_STREQ("one", list[0]);
    EXPECT_STREQ("two", list[1]);
    EXPECT_STREQ("three", list[2]);
    EXPECT_EQ(nullptr, list[3]);
    EXPECT_EQ(3, vantrel_str_list_count(list));
    vantrel_str_list_free(&list);
}

TEST(simple_list, malformed_answers_give_efault_and_no_list)
{
    char** list = nullptr;
    CaptureStderr();
    value not_a_list = standin::build("s", "x");
    value answers[] = {standin::missing_result(), standin::result_only(0),
                       standin::with_member(0, "list", not_a_list.get())};
    for (value& answer : answers) {
        xmlrpc_env_guard env;
        EXPECT_EQ(-14, parse_simple_list_response("f", env.get(), answer.release(), &list));
        EXPECT_EQ(nullptr, list);
    }
    std::string err = GetCapturedStderr();
    EXPECT_NE(std::string::npos, err.find("f/parse_simple_list_response: decompose value failed: "));
    EXPECT_NE(std::string::npos, err.find("[src/client/vantrel:"));
}

TEST(string_list, append_grows_by_one_and_keeps_the_terminator)
{
    char** list = nullptr;
    EXPECT_EQ(1, vantrel_str_list_append(&list, strdup("a")));
    EXPECT_EQ(2, vantrel_str_list_append(&list, strdup("b")));
    ASSERT_NE(nullptr, list);
    EXPECT_STREQ("b", list[1]);
    EXPECT_EQ(nullptr, list[2]);
    vantrel_str_list_free(&list);
    EXPECT_EQ(nullptr, list);
    vantrel_str_list_free(&list);   // freeing twice is harmless
    EXPECT_EQ(-22, vantrel_str_list_append(nullptr, nullptr));
}

}  // namespace
