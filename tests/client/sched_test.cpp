// Scheduler client against the stand-in service, and its decoders fed
// directly with broken answers.
#include <cstdlib>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "standin_server.h"
#include "vantrel_decode_sched.h"
#include "vantrel_sched.h"

using standin::free_records;
using standin::value;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

class sched_call : public standin::standin_test {};

value item_struct(int id, xmlrpc_int64 calc, bool with_transfer = true)
{
    value item = standin::build(
        "{s:i,s:i,s:i,s:i,s:s,s:s,s:I,s:I,s:I,s:I,s:I,s:I,s:I,s:s,s:s}", "duration", 3600, "tc",
        1, "id", id, "enabled", 1, "path", "rec/news", "title", "News", "min", xmlrpc_int64{30},
        "hour", xmlrpc_int64{20}, "day", xmlrpc_int64{-1}, "weekday", xmlrpc_int64{5}, "month",
        xmlrpc_int64{-1}, "year", xmlrpc_int64{2026}, "calc", calc, "mode", "rec", "enc", "h264");
    if (with_transfer) {
        value extra = standin::build("{s:i,s:s,s:s}", "start_time", 15, "transfer", "ftp1",
                                     "prefix", "n_");
        xmlrpc_env_guard env;
        for (const char* key : {"start_time", "transfer", "prefix"}) {
            xmlrpc_value* member = nullptr;
            xmlrpc_struct_find_value(env.get(), extra.get(), key, &member);
            xmlrpc_struct_set_value(env.get(), item.get(), key, member);
            xmlrpc_DECREF(member);
        }
    }
    return item;
}

TEST_F(sched_call, add_sends_sixteen_values_in_wire_order)
{
    vantrel_sched_item item{};
    item.min = 1;
    item.hour = 2;
    item.day = 3;
    item.weekday = 4;
    item.month = 5;
    item.year = 6;
    item.enabled = 7;
    item.duration = 8;
    item.tc = 9;
    strcpy(item.title, "title");
    strcpy(item.path, "path");
    strcpy(item.mode, "mode");
    strcpy(item.enc, "enc");
    item.start_time = 10;
    strcpy(item.transfer, "transfer");
    strcpy(item.prefix, "prefix");
    item.id = 99;       // the scheduler's own: never sent
    item.calc = 12345;  // computed by the scheduler: never sent
    stub.answer(standin::result_only(42));
    EXPECT_EQ(42, vantrel_sched_item_add(url(), &item));
    EXPECT_EQ("VantrelSched.SchedAddItem", stub.last_method());
    EXPECT_EQ("(1L,2L,3L,4L,5L,6L,7,8,9,\"title\",\"path\",\"mode\",\"enc\",10,\"transfer\","
              "\"prefix\")",
              stub.last_params());
}

TEST_F(sched_call, small_commands_send_their_integers)
{
    stub.answer(standin::result_only(0));
    EXPECT_EQ(0, vantrel_sched_item_del(url(), 5));
    EXPECT_EQ("VantrelSched.SchedDeleteItem", stub.last_method());
    EXPECT_EQ("(5)", stub.last_params());
    EXPECT_EQ(0, vantrel_sched_item_enable(url(), 5, 0));
    EXPECT_EQ("(5,0)", stub.last_params());
    EXPECT_EQ(0, vantrel_sched_expand_curr(url(), 1));
    EXPECT_EQ("VantrelSched.SchedExpandCurr", stub.last_method());
}

TEST_F(sched_call, list_orders_by_calc_with_the_earliest_of_equals_first)
{
    value a = item_struct(1, 300);
    value b = item_struct(2, 100);
    value c = item_struct(3, 100);
    stub.answer(standin::with_list(0, standin::build("(VVV)", a.get(), b.get(), c.get()).get()));
    vantrel_sched_item** items = nullptr;
    ASSERT_EQ(3, vantrel_sched_item_list(url(), &items));
    EXPECT_EQ("()", stub.last_params());
    EXPECT_EQ(2, items[0]->id);
    EXPECT_EQ(3, items[1]->id);
    EXPECT_EQ(1, items[2]->id);
    EXPECT_EQ(5, items[0]->weekday);
    EXPECT_STREQ("ftp1", items[0]->transfer);
    free_records(&items);
}

TEST_F(sched_call, list_refusal_and_bad_element_leave_no_array)
{
    stub.answer(standin::result_only(-13));
    vantrel_sched_item** items = nullptr;
    CaptureStderr();
    EXPECT_EQ(-13, vantrel_sched_item_list(url(), &items));
    EXPECT_EQ("vantrel_sched_item_list: VantrelSched.SchedListItems return -13 (" +
                  std::string(strerror(13)) + ")",
              GetCapturedStderr());
    EXPECT_EQ(nullptr, items);

    value a = item_struct(1, 1);
    value list = standin::build("(V)", a.get());
    stub.answer(standin::with_list(0, standin::with_bad_element(list.get()).get()));
    CaptureStderr();
    EXPECT_EQ(-14, vantrel_sched_item_list(url(), &items));
    EXPECT_EQ(0u, GetCapturedStderr().find("vantrel_sched_item_decompose: xmlrpc_decompose_value failed: "));
    EXPECT_EQ(nullptr, items);

    stub.answer(standin::result_only(0));   // no list at all
    CaptureStderr();
    EXPECT_EQ(-14, vantrel_sched_item_list(url(), &items));
    EXPECT_EQ(0u, GetCapturedStderr().find("vantrel_sched_item_list: decompose value failed: "));
}

TEST_F(sched_call, get_decodes_only_a_zero_result)
{
    stub.answer(standin::result_only(-2));
    vantrel_sched_item* item = reinterpret_cast<vantrel_sched_item*>(this);
    EXPECT_EQ(-2, vantrel_sched_item_get(url(), 7, &item));
    EXPECT_EQ(nullptr, item);
    EXPECT_EQ("(7)", stub.last_params());

    stub.answer(standin::with_member(0, "item", item_struct(7, 55).get()));
    ASSERT_EQ(0, vantrel_sched_item_get(url(), 7, &item));
    EXPECT_EQ(55, item->calc);
    EXPECT_EQ(15, item->start_time);
    EXPECT_STREQ("rec/news", item->path);
    EXPECT_STREQ("n_", item->prefix);
    free(item);

    stub.answer_fault(-1, "down");
    CaptureStderr();
    EXPECT_EQ(-14, vantrel_sched_item_get(url(), 7, &item));
    EXPECT_EQ(0u, GetCapturedStderr().find("vantrel_sched_item_get: xmlrpc_client_callX(7) failed: "));
}

TEST(sched_item, transfer_members_are_optional)
{
    // An older scheduler: the item has no start_time, transfer or prefix.
    value bare = item_struct(4, 10, false);
    xmlrpc_env_guard env;
    vantrel_sched_item* item = nullptr;
    CaptureStderr();
    ASSERT_EQ(0, vantrel_sched_item_decompose(env.get(), bare.get(), &item));
    EXPECT_EQ("", GetCapturedStderr());
    EXPECT_FALSE(env.failed());
    EXPECT_EQ(0, item->start_time);
    EXPECT_STREQ("", item->transfer);
    EXPECT_STREQ("h264", item->enc);
    free(item);

    // Mistyped: reported, left empty, the rest of the record kept.
    value odd = item_struct(4, 10, false);
    value number = standin::build("i", 3);
    xmlrpc_struct_set_value(env.get(), odd.get(), "prefix", number.get());
    CaptureStderr();
    ASSERT_EQ(0, vantrel_sched_item_decompose(env.get(), odd.get(), &item));
    EXPECT_EQ(0u, GetCapturedStderr().find("vantrel_sched_item_decompose: xmlrpc_decompose_value failed: "));
    EXPECT_FALSE(env.failed());
    EXPECT_STREQ("", item->prefix);
    EXPECT_STREQ("News", item->title);
    free(item);

    // A required member missing fails the record.
    value broken = standin::build("{s:i}", "id", 1);
    CaptureStderr();
    EXPECT_EQ(-14, vantrel_sched_item_decompose(env.get(), broken.get(), &item));
    GetCapturedStderr();
    EXPECT_EQ(nullptr, item);
}

value log_struct(const char* origin, xmlrpc_int64 start)
{
    return standin::build("{s:i,s:i,s:i,s:s,s:I,s:I,s:s,s:s,s:i,s:s,s:s}", "duration", 60, "tc",
                          0, "status", 2, "origin", origin, "start", start, "calc", start - 5,
                          "mode", "rec", "enc", "mpeg2", "start_time", 3, "transfer", "t",
                          "prefix", "p");
}

TEST_F(sched_call, log_keeps_the_answer_order_and_fails_whole)
{
    value a = log_struct("late", 900);
    value b = log_struct("early", 100);
    value list = standin::build("(VV)", a.get(), b.get());
    stub.answer(standin::with_list(0, list.get()));
    vantrel_sched_log** logs = nullptr;
    ASSERT_EQ(2, vantrel_sched_log_list(url(), &logs));
    EXPECT_EQ("VantrelSched.SchedListLogs", stub.last_method());
    EXPECT_STREQ("late", logs[0]->origin);
    EXPECT_EQ(900, logs[0]->start);
    EXPECT_EQ(95, logs[1]->calc);
    EXPECT_STREQ("mpeg2", logs[1]->enc);
    free_records(&logs);

    stub.answer(standin::with_list(0, standin::with_bad_element(list.get()).get()));
    CaptureStderr();
    EXPECT_EQ(-14, vantrel_sched_log_list(url(), &logs));
    EXPECT_EQ(0u, GetCapturedStderr().find("vantrel_sched_log_decompose: xmlrpc_decompose_value failed: "));
    EXPECT_EQ(nullptr, logs);
}

TEST_F(sched_call, state_has_a_running_shape_and_an_idle_shape)
{
    value running = standin::build("{s:i,s:i,s:s,s:I,s:s,s:I,s:s,s:I}", "status", 4, "duration",
                                   600, "s_now", "12:00", "t_now", xmlrpc_int64{1000}, "s_start",
                                   "11:55", "t_start", xmlrpc_int64{700}, "s_end", "12:05",
                                   "t_end", xmlrpc_int64{1300});
    stub.answer(standin::build("{s:i,s:V}", "result", 1, "state", running.get()));
    vantrel_sched_state st;
    memset(&st, 0x5a, sizeof st);
    ASSERT_EQ(1, vantrel_sched_get_state(url(), &st));
    EXPECT_EQ(1, st.state);
    EXPECT_EQ(1000, st.t_now);
    EXPECT_STREQ("12:00", st.s_now);
    EXPECT_EQ(4, st.status);
    EXPECT_EQ(600, st.duration);
    EXPECT_EQ(700, st.t_start);
    EXPECT_EQ(1300, st.t_end);
    EXPECT_STREQ("12:05", st.s_end);

    value idle = standin::build("{s:s,s:I,s:s,s:I}", "s_now", "13:00", "t_now",
                                xmlrpc_int64{2000}, "s_next", "14:00", "t_next",
                                xmlrpc_int64{5600});
    stub.answer(standin::build("{s:i,s:V}", "result", 0, "state", idle.get()));
    memset(&st, 0x5a, sizeof st);
    ASSERT_EQ(0, vantrel_sched_get_state(url(), &st));
    EXPECT_EQ(0, st.state);
    EXPECT_EQ(2000, st.t_now);
    EXPECT_EQ(5600, st.t_next);
    EXPECT_STREQ("14:00", st.s_next);

    // A running answer in the idle shape is no answer.
    stub.answer(standin::build("{s:i,s:V}", "result", 1, "state", idle.get()));
    CaptureStderr();
    EXPECT_EQ(-14, vantrel_sched_get_state(url(), &st));
    std::string err = GetCapturedStderr();
    EXPECT_EQ(0u, err.find("vantrel_sched_get_state: decompose value failed: ")) << err;
    EXPECT_EQ('\n', err.back());
}

}  // namespace
