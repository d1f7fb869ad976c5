// The request of every client call as the service receives it, method name
// and parameter tuple, one table row per call; then what comes back of the
// service's result, its faults and a missing service, over the real transport.
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/xmlrpc_fault_guard.h"
#include "standin.h"
#include "vantrel.h"

namespace {

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

template <typename T>
void free_all(T** list)
{
    for (T** r = list; r && *r; ++r) free(*r);
    free(list);
}

struct Requests : ::testing::Test {
    void SetUp() override { ASSERT_EQ(vantrel_init("client-tests", "1.0"), 0); }
    void TearDown() override { vantrel_cleanup(); }
    standin service;
};

char text[VANTREL_STR_SIZE], other[VANTREL_STR_SIZE];

TEST_F(Requests, EveryCallSendsItsMethodAndTuple)
{
    vantrel_playlist_item item{};
    strcpy(item.name, "n");
    item.in = 1;
    item.dur = 2;
    strcpy(item.cookie, "c");
    item.length = item.pos = item.start = item.idx = item.repeat = 99;
    vantrel_sched_item s{};
    s.min = 1, s.hour = 2, s.day = 3, s.weekday = 4, s.month = 5, s.year = 6, s.enabled = 7, s.duration = 8, s.tc = 9;
    strcpy(s.title, "title"), strcpy(s.path, "path"), strcpy(s.mode, "mode"), strcpy(s.enc, "enc");
    s.start_time = 10, s.id = 99, s.calc = 12345;
    strcpy(s.transfer, "transfer"), strcpy(s.prefix, "prefix");
    vantrel_ft_request ft{};
    ft.id = 5, ft.f_import = 1, ft.progress = 50;
    strcpy(ft.target, "archive"), strcpy(ft.object_local, "l.mxf"), strcpy(ft.object_remote, "r.mxf");
    vantrel_ftc_request ftc{};
    strcpy(ftc.src_object, "a.mxf"), strcpy(ftc.in, "00:00:01:00"), strcpy(ftc.dur, "250"), strcpy(ftc.dst_object, "b");
    strcpy(ftc.factory, "f"), strcpy(ftc.profile, "p"), strcpy(ftc.audio_map, "01"), strcpy(ftc.timecode, "tc");
    strcpy(ftc.osd, "o");
    ftc.f_delete = 1, ftc.audio_conf = 2, ftc.id = 44;
    const char* names[] = {"a", "b", nullptr};
    const char* values[] = {"1", nullptr, nullptr};
    const char* list[] = {"x", nullptr, "z", nullptr};
    const char* layers[] = {"a", "bc", nullptr};
    const std::vector<std::pair<std::function<void(const char*)>, const char*>> rows = {
        {[](const char* u) { vantrel_play(u); }, "VantrelIO.Play()"},
        {[](const char* u) { vantrel_pause(u); }, "VantrelIO.Pause()"},
        {[](const char* u) { vantrel_stop(u); }, "VantrelIO.Stop()"},
        {[](const char* u) { vantrel_cue_play(u); }, "VantrelIO.CuePlay()"},
        {[](const char* u) { vantrel_playlist_clear(u); }, "VantrelIO.PlaylistClear()"},
        {[](const char* u) { vantrel_record(u); }, "VantrelIO.Record()"},
        {[](const char* u) { vantrel_play_vari(u, 1.5); }, "VantrelIO.Play(1.5)"},
        {[](const char* u) { vantrel_cue_play_with_data(u, 9); }, "VantrelIO.CuePlayWithData(9)"},
        {[](const char* u) { vantrel_playlist_append(u, "clip", 1, 2, nullptr, nullptr, nullptr); },
         R"(VantrelIO.PlaylistAppend("clip",1,2,"","",""))"},
        {[](const char* u) { vantrel_playlist_insert(u, 4, "clip", 1, 2, "o", "p", "c"); },
         R"(VantrelIO.PlaylistInsert(4,"clip",1,2,"o","p","c"))"},
        {[](const char* u) { vantrel_playlist_remove(u, 5); }, "VantrelIO.PlaylistRemove(5)"},
        {[](const char* u) { vantrel_playlist_repeat_clip(u, 1, 2); }, "VantrelIO.PlaylistRepeatClip(1,2)"},
        {[](const char* u) { vantrel_playlist_resize_clip(u, 1, 2, 3); }, "VantrelIO.PlaylistResizeClip(1,2,3)"},
        {[](const char* u) { vantrel_playlist_move(u, 6, 7); }, "VantrelIO.PlaylistMove(6,7)"},
        {[](const char* u) { vantrel_playlist_loop(u, 1); }, "VantrelIO.PlaylistLoop(1)"},
        {[](const char* u) { vantrel_playlist_seek_to(u, 2, 50); }, "VantrelIO.PlaylistSeekTo(2,50)"},
        {[](const char* u) { vantrel_playlist_seek(u, -25); }, "VantrelIO.PlaylistSeek(-25)"},
        {[](const char* u) { vantrel_playlist_step(u, -1); }, "VantrelIO.PlaylistStep(-1)"},
        {[](const char* u) { vantrel_record_pause(u, 1); }, "VantrelIO.RecordPause(1)"},
        {[](const char* u) { vantrel_cue_record(u, "a", nullptr); }, R"(VantrelIO.CueRecord("a"))"},
        {[](const char* u) { vantrel_cue_record(u, "a", "b"); }, R"(VantrelIO.CueRecord("a","b"))"},
        {[](const char* u) { vantrel_record_next(u, "a", ""); }, R"(VantrelIO.RecordNext("a",""))"},
        {[](const char* u) { vantrel_cue_record_with_data(u, "a", 1, 2, nullptr); }, R"(VantrelIO.CueRecordWithData("a",1,2))"},
        {[](const char* u) { vantrel_cue_record_with_data(u, "a", 1, 2, "d"); }, R"(VantrelIO.CueRecordWithData("a",1,2,"d"))"},
        {[&](const char* u) { vantrel_playlist_insert2(u, 3, &item); },
         R"(VantrelIO.PlaylistInsert2(3,{"name":"n","in":1,"dur":2,"overlay_name":"","overlay_pos":"","cookie":"c","amap":""}))"},
        {[&](const char* u) { vantrel_playlist_append2(u, &item); },
         R"(VantrelIO.PlaylistAppend2({"name":"n","in":1,"dur":2,"overlay_name":"","overlay_pos":"","cookie":"c","amap":""}))"},
        {[&](const char* u) { vantrel_playlist_insert_template(u, 0, "t", 1, 2, -1, list, -1, names, values, nullptr); },
         R"(VantrelIO.PlaylistInsertTemplate(0,"t",1,2,["x"],{"a":"1"},""))"},
        {[&](const char* u) { vantrel_playlist_insert_template(u, 0, "t", 1, 2, 3, list, 2, names, values, "l"); },
         R"(VantrelIO.PlaylistInsertTemplate(0,"t",1,2,["x","z"],{"a":"1"},"l"))"},
        {[](const char* u) { vantrel_status st; vantrel_getstatus(u, &st); }, "VantrelIO.GetStatus()"},
        {[](const char* u) { vantrel_playlist_item* i = nullptr; int g, p, x; vantrel_playlist_items(u, &g, &p, &x, &i); free(i); },
         "VantrelIO.PlaylistItems()"},
        {[](const char* u) { vantrel_lib_register_item(u, "a"); }, R"(VantrelLib.LibRegisterItem("a"))"},
        {[](const char* u) { vantrel_lib_delete_item(u, "a"); }, R"(VantrelLib.LibDeleteItem("a"))"},
        {[](const char* u) { vantrel_lib_delete_dir(u, "d"); }, R"(VantrelLib.LibDeleteDir("d"))"},
        {[](const char* u) { vantrel_lib_rename_item(u, "a", "b"); }, R"(VantrelLib.LibRenameItem("a","b"))"},
        {[](const char* u) { vantrel_lib_delete_subclip(u, "a", 4); }, R"(VantrelLib.LibDeleteSubclip("a",4))"},
        {[](const char* u) { vantrel_lib_register_subclip(u, "a", 10, 20, "t"); }, R"(VantrelLib.LibRegisterSubclip("a",10,20,"t"))"},
        {[](const char* u) { vantrel_lib_dir** d = nullptr; vantrel_lib_list_dirs(u, "d", &d); free_all(d); }, R"(VantrelLib.LibListDirs("d"))"},
        {[](const char* u) { vantrel_lib_meta** m = nullptr; vantrel_lib_list_items2(u, "d", &m, 1, 2); free_all(m); },
         R"(VantrelLib.LibListItems("d",1,2))"},
        {[](const char* u) { vantrel_lib_meta** m = nullptr; vantrel_lib_list_items(u, "d", &m); free_all(m); }, R"(VantrelLib.LibListItems("d"))"},
        {[](const char* u) { vantrel_lib_meta* m = nullptr; vantrel_lib_meta_item(u, "p", &m); free(m); }, R"(VantrelLib.LibMetaItem("p"))"},
        {[](const char* u) { vantrel_lib_search_item(u, 1, nullptr, "n", text); }, R"(VantrelLib.LibSearchItem(1,"","n"))"},
        {[](const char* u) { vantrel_lib_search_item_dur_range(u, 2, "f", text, 1.5, 2.5); },
         R"(VantrelLib.LibSearchItemDurRange(2,"f",1.5,2.5))"},
        {[](const char* u) { vantrel_lib_subclip** c = nullptr; vantrel_lib_list_subclips(u, "p", &c, 7); vantrel_lib_subclips_free(&c); },
         R"(VantrelLib.LibListSubclips("p"))"},
        {[](const char* u) { unsigned char* d = nullptr; uint32_t n; vantrel_lib_thumb_item(u, "p", "k", 3, 4, &d, &n); free(d); },
         R"(VantrelLib.LibThumbItem("p","k",3,4))"},
        {[](const char* u) { unsigned char* d = nullptr; uint32_t n; vantrel_lib_thumb_overlay(u, "p", &d, &n); free(d); },
         R"(VantrelLib.LibThumbOverlay("p"))"},
        {[](const char* u) { vantrel_lib_overlay** g = nullptr; vantrel_lib_list_overlays(u, &g); vantrel_lib_overlays_free(&g); },
         "VantrelLib.LibListOverlays()"},
        {[](const char* u) { vantrel_lib_usage* x = nullptr; vantrel_lib_state(u, 5, &x); free(x); }, "VantrelLib.LibState(5)"},
        {[](const char* u) { vantrel_lib_usage* x = nullptr; vantrel_lib_disk_usage(u, &x); free(x); }, "VantrelLib.LibDiskUsage()"},
        {[](const char* u) { vantrel_lib_register_cue(u, "p", 3, nullptr, nullptr); }, R"(VantrelLib.LibRegisterCue("p",3))"},
        {[](const char* u) { vantrel_lib_basename_item(u, "p", "o", text, other, nullptr); }, R"(VantrelLib.LibBasenameItem("p","o"))"},
        {[](const char* u) { vantrel_lib_basename_item(u, "p", "", text, other, nullptr); }, R"(VantrelLib.LibBasenameItem("p"))"},
        {[](const char* u) { vantrel_io_basename_item(u, "p", text, other, nullptr); }, R"(VantrelIO.LibBasenameItem("p"))"},
        {[](const char* u) { vantrel_lib_basename_overlay(u, "p", text); }, R"(VantrelLib.LibBasenameOverlay("p"))"},
        {[](const char* u) { vantrel_lib_tmpl_add(u, "t"); }, R"(VantrelLib.LibTemplateAdd("t"))"},
        {[](const char* u) { vantrel_lib_tmpl_del(u, "t"); }, R"(VantrelLib.LibTemplateDel("t"))"},
        {[](const char* u) { vantrel_lib_tmpl_rename(u, "a", "b"); }, R"(VantrelLib.LibTemplateRename("a","b"))"},
        {[](const char* u) { vantrel_lib_tmpl_replace(u, "a", "b"); }, R"(VantrelLib.LibTemplateReplace("a","b"))"},
        {[](const char* u) { vantrel_lib_tmpl_clone(u, "a", "b"); }, R"(VantrelLib.LibTemplateClone("a","b"))"},
        {[](const char* u) { char** l = nullptr; vantrel_lib_list_templates(u, &l); vantrel_str_list_free(&l); }, "VantrelLib.LibListTemplates()"},
        {[](const char* u) { char** l = nullptr; vantrel_lib_list_template_vars(u, "c", &l); vantrel_str_list_free(&l); },
         R"(VantrelLib.LibListTemplateVars("c"))"},
        {[](const char* u) { char** l = nullptr; vantrel_lib_tmpl_get(u, "t", &l); vantrel_str_list_free(&l); }, R"(VantrelLib.LibTemplateGet("t"))"},
        {[&](const char* u) { vantrel_lib_tmpl_set(u, "t", layers); }, R"(VantrelLib.LibTemplateSet("t",[[b"a"],[b"bc"]]))"},
        {[](const char* u) { char** l = nullptr; vantrel_lib_tmpl_fonts(u, &l); vantrel_str_list_free(&l); }, "VantrelLib.LibTemplateFonts()"},
        {[](const char* u) { char** l = nullptr; vantrel_lib_tmpl_fonts2(u, &l); vantrel_str_list_free(&l); }, "VantrelLib.LibTemplateFonts2()"},
        {[&](const char* u) { vantrel_lib_build_template(u, text, "t", 5, 6, -1, list, -1, names, values, nullptr); },
         R"(VantrelLib.LibTemplateBuild("t","",5,6,["x"],{"a":"1"}))"},
        {[](const char* u) { vantrel_io_settings_save(u); }, "VantrelIO.SettingsSave()"},
        {[](const char* u) { vantrel_io_settings_set_mode(u, 2, 3); }, "VantrelIO.SettingsSetMode(2,3)"},
        {[](const char* u) { vantrel_io_settings_set_mode2(u, "hd", "50i"); }, R"(VantrelIO.SettingsSetMode("hd","50i"))"},
        {[](const char* u) { vantrel_io_settings_set_value(u, "keyer", "1"); }, R"(VantrelIO.SettingsSetValue("keyer","1"))"},
        {[](const char* u) { auto* x = new vantrel_io_settings; vantrel_io_settings_get(u, x); delete x; }, "VantrelIO.SettingsGet()"},
        {[](const char* u) { vantrel_io_mode** m = nullptr; vantrel_io_settings_get_modes(u, &m); if (m) vantrel_io_settings_modes_free(&m); },
         "VantrelIO.SettingsGetModes()"},
        {[&](const char* u) { vantrel_sched_item_add(u, &s); },
         R"(VantrelSched.SchedAddItem(1L,2L,3L,4L,5L,6L,7,8,9,"title","path","mode","enc",10,"transfer","prefix"))"},
        {[](const char* u) { vantrel_sched_item_del(u, 3); }, "VantrelSched.SchedDeleteItem(3)"},
        {[](const char* u) { vantrel_sched_item_enable(u, 3, 1); }, "VantrelSched.SchedEnableItem(3,1)"},
        {[](const char* u) { vantrel_sched_expand_curr(u, 2); }, "VantrelSched.SchedExpandCurr(2)"},
        {[](const char* u) { vantrel_sched_item* i = nullptr; vantrel_sched_item_get(u, 7, &i); free(i); }, "VantrelSched.SchedGetItem(7)"},
        {[](const char* u) { vantrel_sched_item** i = nullptr; vantrel_sched_item_list(u, &i); free_all(i); }, "VantrelSched.SchedListItems()"},
        {[](const char* u) { vantrel_sched_log** l = nullptr; vantrel_sched_log_list(u, &l); free_all(l); }, "VantrelSched.SchedListLogs()"},
        {[](const char* u) { vantrel_sched_state st; vantrel_sched_get_state(u, &st); }, "VantrelSched.SchedGetState()"},
        {[&](const char* u) { vantrel_filetransfer_request_add(u, &ft); },
         R"(VantrelFileTransfer.RequestAdd("archive",1,0,"l.mxf","r.mxf"))"},
        {[](const char* u) { vantrel_filetransfer_request_del(u, 4); }, "VantrelFileTransfer.RequestDel(4)"},
        {[](const char* u) { vantrel_filetransfer_request_cancel(u, 4); }, "VantrelFileTransfer.RequestCancel(4)"},
        {[](const char* u) { vantrel_filetransfer_request_restart(u, 4); }, "VantrelFileTransfer.RequestRestart(4)"},
        {[](const char* u) { vantrel_filetransfer_probe(u, "t", nullptr); }, R"(VantrelFileTransfer.ProbeRemote("t",""))"},
        {[](const char* u) { vantrel_ft_target t[2]; vantrel_filetransfer_targets_list(u, 1, 2, t); }, "VantrelFileTransfer.TargetsList(1,2)"},
        {[](const char* u) { std::vector<vantrel_ft_request> r(3); vantrel_filetransfer_requests_list(u, 1, 2, 3, r.data()); },
         "VantrelFileTransfer.RequestsList(1,2,3)"},
        {[](const char* u) { vantrel_ft_request r{}; vantrel_filetransfer_request_get(u, 7, &r); }, "VantrelFileTransfer.RequestGet(7)"},
        {[](const char* u) { char** l = nullptr; vantrel_filetransfer_list(u, "t", "l", &l); vantrel_str_list_free(&l); },
         R"(VantrelFileTransfer.ListRemote("t","l"))"},
        {[&](const char* u) { vantrel_filetranscoder_request_add(u, &ftc); },
         R"(VantrelFileTranscoder.RequestAdd("a.mxf","00:00:01:00","250","b","f","p",1,"01",2,"tc","o"))"},
        {[](const char* u) { vantrel_filetranscoder_request_del(u, 5); }, "VantrelFileTranscoder.RequestDel(5)"},
        {[](const char* u) { vantrel_filetranscoder_request_cancel(u, 5); }, "VantrelFileTranscoder.RequestCancel(5)"},
        {[](const char* u) { vantrel_filetranscoder_request_restart(u, 5); }, "VantrelFileTranscoder.RequestRestart(5)"},
        {[](const char* u) { std::vector<vantrel_ftc_request> r(3); vantrel_filetranscoder_requests_list(u, 1, 2, 3, r.data()); },
         "VantrelFileTranscoder.RequestsList(1,2,3)"},
    };
    xmlrpc_env_guard env;
    service.answer(xmlrpc_build_value(env.get(), "{s:i}", "result", 0));
    for (const auto& [run, request] : rows) {
        CaptureStderr();
        run(service.url.c_str());
        GetCapturedStderr();
        EXPECT_EQ(service.last(), request);
    }
}

TEST_F(Requests, ResultsComeBackUnchangedAndFailuresAsMinus14WithTheirLine)
{
    const char* url = service.url.c_str();
    xmlrpc_env_guard env;
    service.answer(xmlrpc_build_value(env.get(), "{s:i}", "result", -2));
    EXPECT_EQ(vantrel_playlist_seek(url, 1), -2);
    EXPECT_EQ(vantrel_method_no_arg(url, "VantrelIO.Play"), -2);
    service.answer(xmlrpc_build_value(env.get(), "{s:i}", "status", 0));
    CaptureStderr();
    EXPECT_EQ(vantrel_playlist_seek(url, 1), -14);
    EXPECT_EQ(GetCapturedStderr().find("vantrel_playlist_seek: VantrelIO.PlaylistSeek, decompose value failed: "), 0u);
    service.answer(xmlrpc_build_value(env.get(), "{s:s}", "result", "0"));
    CaptureStderr();
    EXPECT_EQ(vantrel_play(url), -14);
    GetCapturedStderr();
    service.answer(nullptr, 7);
    CaptureStderr();
    EXPECT_EQ(vantrel_lib_delete_item(url, "a"), -14);
    std::string err = GetCapturedStderr();
    EXPECT_NE(err.find("scripted fault"), std::string::npos) << err;
    EXPECT_EQ(err.find('\n'), std::string::npos) << "no newline after the call-failed line";
    CaptureStderr();
    EXPECT_EQ(vantrel_play("http://127.0.0.1:1/RPC2"), -14);
    EXPECT_EQ(vantrel_play(nullptr), -14);
    GetCapturedStderr();
    std::string before = service.last();
    EXPECT_EQ(vantrel_playlist_append(url, nullptr, 1, 2, "", "", ""), -22);
    EXPECT_EQ(vantrel_cue_record(url, nullptr, "b"), -22);
    EXPECT_EQ(vantrel_playlist_append2(url, nullptr), -22);
    EXPECT_EQ(service.last(), before) << "refused before sending";
}

// The installed library crashes while wording this fault; ours words it instead.
TEST(FaultGuard, MalformedI8InAnAnswerIsAParseFault)
{
    xmlrpc_fault_guard_install();
    for (const char* text : {"5x", "-", "99999999999999999999"}) {
        std::string doc = std::string("<?xml version=\"1.0\"?><methodResponse><params><param><value><struct><member>") +
                          "<name>result</name><value><i8>" + text + "</i8></value></member></struct></value></param>" +
                          "</params></methodResponse>";
        xmlrpc_env_guard env;
        xmlrpc_value_ref result;
        int fault_code = 0;
        const char* fault_string = nullptr;
        xmlrpc_parse_response2(env.get(), doc.c_str(), doc.size(), result.out(), &fault_code, &fault_string);
        EXPECT_NE(std::string(env.failed() ? env.fault_string() : "").find(
                      "<i8> XML element value is invalid: it does not represent a 64 bit integer"), std::string::npos) << text;
    }
}

}  // namespace
