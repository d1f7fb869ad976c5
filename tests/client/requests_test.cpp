// The request of every media library, scheduler, file transfer and decoding
// playout call, as the service receives it: the method name and the
// parameter tuple. A misspelt method or a swapped parameter reaches no
// service, so these are pinned call by call.
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "standin_server.h"
#include "vantrel.h"

using standin::free_records;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

class requests : public standin::standin_test {};

struct request_case {
    const char* method;
    const char* params;
    std::function<void(const char* url)> run;
};

std::vector<request_case> cases()
{
    static char text[VANTREL_STR_SIZE];
    static char other[VANTREL_STR_SIZE];
    return {
        {"VantrelLib.LibRegisterItem", R"(("a"))",
         [](const char* u) { vantrel_lib_register_item(u, "a"); }},
        {"VantrelLib.LibDeleteItem", R"(("a"))",
         [](const char* u) { vantrel_lib_delete_item(u, "a"); }},
        {"VantrelLib.LibDeleteDir", R"(("d"))",
         [](const char* u) { vantrel_lib_delete_dir(u, "d"); }},
        {"VantrelLib.LibRenameItem", R"(("a","b"))",
         [](const char* u) { vantrel_lib_rename_item(u, "a", "b"); }},
        {"VantrelLib.LibDeleteSubclip", R"(("a",4))",
         [](const char* u) { vantrel_lib_delete_subclip(u, "a", 4); }},
        {"VantrelLib.LibRegisterSubclip", R"(("a",10,20,"t"))",
         [](const char* u) { vantrel_lib_register_subclip(u, "a", 10, 20, "t"); }},
        {"VantrelLib.LibListDirs", R"(("d"))",
         [](const char* u) {
             vantrel_lib_dir** dirs = nullptr;
             vantrel_lib_list_dirs(u, "d", &dirs);
             free_records(&dirs);
         }},
        {"VantrelLib.LibListItems", R"(("d",1,2))",
         [](const char* u) {
             vantrel_lib_meta** items = nullptr;
             vantrel_lib_list_items2(u, "d", &items, 1, 2);
             free_records(&items);
         }},
        {"VantrelLib.LibListItems", R"(("d"))",
         [](const char* u) {
             vantrel_lib_meta** items = nullptr;
             vantrel_lib_list_items(u, "d", &items);
             free_records(&items);
         }},
        {"VantrelLib.LibMetaItem", R"(("p"))",
         [](const char* u) {
             vantrel_lib_meta* meta = nullptr;
             vantrel_lib_meta_item(u, "p", &meta);
             free(meta);
         }},
        {"VantrelLib.LibSearchItem", R"((1,"","n"))",
         [](const char* u) { vantrel_lib_search_item(u, 1, nullptr, "n", text); }},
        {"VantrelLib.LibSearchItemDurRange", R"((2,"f",1.5,2.5))",
         [](const char* u) { vantrel_lib_search_item_dur_range(u, 2, "f", text, 1.5, 2.5); }},
        {"VantrelLib.LibListSubclips", R"(("p"))",
         [](const char* u) {
             vantrel_lib_subclip** clips = nullptr;
             vantrel_lib_list_subclips(u, "p", &clips, 7);
             vantrel_lib_subclips_free(&clips);
         }},
        {"VantrelLib.LibThumbItem", R"(("p","k",3,4))",
         [](const char* u) {
             unsigned char* data = nullptr;
             uint32_t size = 0;
             vantrel_lib_thumb_item(u, "p", "k", 3, 4, &data, &size);
             free(data);
         }},
        {"VantrelLib.LibThumbOverlay", R"(("p"))",
         [](const char* u) {
             unsigned char* data = nullptr;
             uint32_t size = 0;
             vantrel_lib_thumb_overlay(u, "p", &data, &size);
             free(data);
         }},
        {"VantrelLib.LibListOverlays", "()",
         [](const char* u) {
             vantrel_lib_overlay** groups = nullptr;
             vantrel_lib_list_overlays(u, &groups);
             vantrel_lib_overlays_free(&groups);
         }},
        {"VantrelLib.LibState", "(5)",
         [](const char* u) {
             vantrel_lib_usage* usage = nullptr;
             vantrel_lib_state(u, 5, &usage);
             free(usage);
         }},
        {"VantrelLib.LibDiskUsage", "()",
         [](const char* u) {
             vantrel_lib_usage* usage = nullptr;
             vantrel_lib_disk_usage(u, &usage);
             free(usage);
         }},
        {"VantrelLib.LibRegisterCue", R"(("p",3))",
         [](const char* u) { vantrel_lib_register_cue(u, "p", 3, nullptr, nullptr); }},
        {"VantrelLib.LibBasenameItem", R"(("p","o"))",
         [](const char* u) { vantrel_lib_basename_item(u, "p", "o", text, other, nullptr); }},
        // An empty optional string is not sent at all.
        {"VantrelLib.LibBasenameItem", R"(("p"))",
         [](const char* u) { vantrel_lib_basename_item(u, "p", "", text, other, nullptr); }},
        {"VantrelIO.LibBasenameItem", R"(("p"))",
         [](const char* u) { vantrel_io_basename_item(u, "p", text, other, nullptr); }},
        {"VantrelLib.LibBasenameOverlay", R"(("p"))",
         [](const char* u) { vantrel_lib_basename_overlay(u, "p", text); }},

        {"VantrelSched.SchedDeleteItem", "(3)",
         [](const char* u) { vantrel_sched_item_del(u, 3); }},
        {"VantrelSched.SchedEnableItem", "(3,1)",
         [](const char* u) { vantrel_sched_item_enable(u, 3, 1); }},
        {"VantrelSched.SchedExpandCurr", "(2)",
         [](const char* u) { vantrel_sched_expand_curr(u, 2); }},
        {"VantrelSched.SchedGetItem", "(7)",
         [](const char* u) {
             vantrel_sched_item* item = nullptr;
             vantrel_sched_item_get(u, 7, &item);
             free(item);
         }},
        {"VantrelSched.SchedListItems", "()",
         [](const char* u) {
             vantrel_sched_item** items = nullptr;
             vantrel_sched_item_list(u, &items);
             free_records(&items);
         }},
        {"VantrelSched.SchedListLogs", "()",
         [](const char* u) {
             vantrel_sched_log** logs = nullptr;
             vantrel_sched_log_list(u, &logs);
             free_records(&logs);
         }},
        {"VantrelSched.SchedGetState", "()",
         [](const char* u) {
             vantrel_sched_state state;
             vantrel_sched_get_state(u, &state);
         }},

        {"VantrelFileTransfer.RequestDel", "(4)",
         [](const char* u) { vantrel_filetransfer_request_del(u, 4); }},
        {"VantrelFileTransfer.RequestCancel", "(4)",
         [](const char* u) { vantrel_filetransfer_request_cancel(u, 4); }},
        {"VantrelFileTransfer.RequestRestart", "(4)",
         [](const char* u) { vantrel_filetransfer_request_restart(u, 4); }},
        {"VantrelFileTransfer.ProbeRemote", R"(("t",""))",
         [](const char* u) { vantrel_filetransfer_probe(u, "t", nullptr); }},
        {"VantrelFileTransfer.TargetsList", "(1,2)",
         [](const char* u) {
             std::vector<vantrel_ft_target> targets(2);
             vantrel_filetransfer_targets_list(u, 1, 2, targets.data());
         }},
        {"VantrelFileTransfer.RequestsList", "(1,2,3)",
         [](const char* u) {
             std::vector<vantrel_ft_request> found(3);
             vantrel_filetransfer_requests_list(u, 1, 2, 3, found.data());
         }},
        {"VantrelFileTransfer.RequestGet", "(7)",
         [](const char* u) {
             vantrel_ft_request request{};
             vantrel_filetransfer_request_get(u, 7, &request);
         }},
        {"VantrelFileTransfer.ListRemote", R"(("t","l"))",
         [](const char* u) {
             char** names = nullptr;
             vantrel_filetransfer_list(u, "t", "l", &names);
             vantrel_str_list_free(&names);
         }},
        {"VantrelFileTranscoder.RequestDel", "(5)",
         [](const char* u) { vantrel_filetranscoder_request_del(u, 5); }},
        {"VantrelFileTranscoder.RequestCancel", "(5)",
         [](const char* u) { vantrel_filetranscoder_request_cancel(u, 5); }},
        {"VantrelFileTranscoder.RequestRestart", "(5)",
         [](const char* u) { vantrel_filetranscoder_request_restart(u, 5); }},
        {"VantrelFileTranscoder.RequestsList", "(1,2,3)",
         [](const char* u) {
             std::vector<vantrel_ftc_request> found(3);
             vantrel_filetranscoder_requests_list(u, 1, 2, 3, found.data());
         }},

        {"VantrelIO.GetStatus", "()",
         [](const char* u) {
             vantrel_status status;
             vantrel_getstatus(u, &status);
         }},
        {"VantrelIO.PlaylistItems", "()",
         [](const char* u) {
             vantrel_playlist_item* items = nullptr;
             int gen = 0, pos = 0, idx = 0;
             vantrel_playlist_items(u, &gen, &pos, &idx, &items);
             free(items);
         }},
    };
}

TEST_F(requests, every_call_sends_its_method_and_tuple)
{
    // Answers that decode no further than "result" are fine: only the
    // request matters here.
    stub.answer(standin::result_only(0));
    for (const request_case& c : cases()) {
        std::size_t before = stub.call_count();
        CaptureStderr();
        c.run(url());
        GetCapturedStderr();
        ASSERT_EQ(before + 1, stub.call_count()) << c.method;
        EXPECT_EQ(c.method, stub.last_method());
        EXPECT_EQ(c.params, stub.last_params()) << c.method;
    }
}

}  // namespace
