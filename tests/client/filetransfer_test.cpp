// File transfer and transcoder clients against the stand-in service.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "standin_server.h"
#include "vantrel_decode_ft.h"
#include "vantrel_filetransfer.h"

using standin::value;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

class ft_call : public standin::standin_test {};

value request_struct(int id)
{
    std::string target = "target" + std::to_string(id);
    return standin::build("{s:i,s:s,s:i,s:i,s:s,s:s,s:i,s:i,s:s,s:I,s:I}", "id", id, "target",
                          target.c_str(), "f_delete", 1, "f_import", 0, "object_local", "local",
                          "object_remote", "remote", "progress", 10 * id, "state", 2, "error", "",
                          "updated", xmlrpc_int64{1700000000} + id, "created",
                          xmlrpc_int64{1600000000});
}

value transcode_struct(int id)
{
    value req = standin::build(
        "{s:i,s:I,s:I,s:i,s:s,s:s,s:s,s:s,s:s,s:s,s:s,s:s,s:i,s:i,s:s}", "id", id, "updated",
        xmlrpc_int64{5}, "created", xmlrpc_int64{4}, "f_delete", 0, "src_object", "src.mxf",
        "src_local", "/in/src.mxf", "dst_object", "dst.mp4", "dst_local", "/out/dst.mp4", "in",
        "00:00:10:00", "dur", "00:01:00:00", "factory", "ff", "profile", "web", "progress", 50,
        "state", 1, "error", "none");
    value rest = standin::build("{s:s,s:i,s:s,s:s}", "audio_map", "0123", "audio_conf", 3,
                                "timecode", "10:00:00:00", "osd", "logo");
    xmlrpc_env_guard env;
    for (const char* key : {"audio_map", "audio_conf", "timecode", "osd"}) {
        xmlrpc_value* member = nullptr;
        xmlrpc_struct_find_value(env.get(), rest.get(), key, &member);
        xmlrpc_struct_set_value(env.get(), req.get(), key, member);
        xmlrpc_DECREF(member);
    }
    return req;
}

template <typename... Values>
value list_of(const Values&... items)
{
    value list = standin::empty_array();
    (standin::push(list.get(), items.get()), ...);
    return list;
}

TEST_F(ft_call, requests_list_writes_no_more_than_the_capacity)
{
    stub.answer(standin::with_list(0, list_of(request_struct(1), request_struct(2),
                                              request_struct(3), request_struct(4),
                                              request_struct(5))
                                          .get()));
    // The slot past the capacity must stay untouched.
    auto requests = std::make_unique<vantrel_ft_request[]>(3);
    memset(requests.get(), 0, 3 * sizeof(vantrel_ft_request));
    strcpy(requests[0].user_data, "mine");
    requests[2].id = -77;
    EXPECT_EQ(2, vantrel_filetransfer_requests_list(url(), 8, 9, 2, requests.get()));
    EXPECT_EQ("VantrelFileTransfer.RequestsList", stub.last_method());
    EXPECT_EQ("(8,9,2)", stub.last_params());
    EXPECT_EQ(1, requests[0].id);
    EXPECT_STREQ("target1", requests[0].target);
    EXPECT_EQ(1, requests[0].f_delete);
    EXPECT_EQ(0, requests[0].f_import);
    EXPECT_EQ(20, requests[1].progress);
    EXPECT_EQ(1700000002, requests[1].updated);
    EXPECT_STREQ("mine", requests[0].user_data);
    EXPECT_EQ(-77, requests[2].id);

    EXPECT_EQ(0, vantrel_filetransfer_requests_list(url(), 0, 0, 0, requests.get()));
    EXPECT_EQ("(0,0,0)", stub.last_params());
}

TEST_F(ft_call, a_bad_element_fails_the_list_but_earlier_records_stay)
{
    value list = list_of(request_struct(1));
    stub.answer(standin::with_list(0, standin::with_bad_element(list.get()).get()));
    vantrel_ft_request requests[3] = {};
    CaptureStderr();
    EXPECT_EQ(-14, vantrel_filetransfer_requests_list(url(), 0, 0, 3, requests));
    EXPECT_EQ(0u, GetCapturedStderr().find("vantrel_filetransfer_requests_list: xmlrpc_decompose_value failed: "));
    EXPECT_EQ(1, requests[0].id);
    EXPECT_EQ(0, requests[1].id);

    value target = standin::build("{s:s,s:s,s:s,s:s,s:s,s:s,s:s,s:s}", "id", "1", "type", "ftp",
                                  "title", "Archive", "host", "127.0.0.1", "port", "21", "path",
                                  "/a", "login", "u", "passw", "p");
    stub.answer(standin::with_list(0, standin::with_bad_element(list_of(target).get()).get()));
    vantrel_ft_target targets[2] = {};
    CaptureStderr();
    EXPECT_EQ(-14, vantrel_filetransfer_targets_list(url(), 1, 2, targets));
    GetCapturedStderr();
    EXPECT_EQ("(1,2)", stub.last_params());
    EXPECT_STREQ("Archive", targets[0].title);
    EXPECT_STREQ("p", targets[0].passw);

    stub.answer(standin::with_list(0, standin::with_bad_element(list_of(transcode_struct(1)).get()).get()));
    vantrel_ftc_request transcodes[2] = {};
    CaptureStderr();
    EXPECT_EQ(-14, vantrel_filetranscoder_requests_list(url(), 0, 0, 2, transcodes));
    GetCapturedStderr();
    EXPECT_STREQ("0123", transcodes[0].audio_map);
}

TEST_F(ft_call, transcode_list_reads_both_member_groups)
{
    stub.answer(standin::with_list(0, list_of(transcode_struct(6)).get()));
    vantrel_ftc_request r{};
    ASSERT_EQ(1, vantrel_filetranscoder_requests_list(url(), 1, 2, 1, &r));
    EXPECT_EQ("VantrelFileTranscoder.RequestsList", stub.last_method());
    EXPECT_EQ(6, r.id);
    EXPECT_EQ(5, r.updated);
    EXPECT_STREQ("00:00:10:00", r.in);
    EXPECT_STREQ("/out/dst.mp4", r.dst_local);
    EXPECT_EQ(3, r.audio_conf);
    EXPECT_STREQ("logo", r.osd);

    // Without the second group the element is bad and nothing is written.
    value first_only = standin::build("{s:i,s:I,s:I,s:i,s:s,s:s,s:s,s:s,s:s,s:s,s:s,s:s,s:i,s:i,s:s}",
                                      "id", 9, "updated", xmlrpc_int64{0}, "created",
                                      xmlrpc_int64{0}, "f_delete", 0, "src_object", "", "src_local",
                                      "", "dst_object", "", "dst_local", "", "in", "", "dur", "",
                                      "factory", "", "profile", "", "progress", 0, "state", 0,
                                      "error", "");
    stub.answer(standin::with_list(0, list_of(first_only).get()));
    CaptureStderr();
    EXPECT_EQ(-14, vantrel_filetranscoder_requests_list(url(), 1, 2, 1, &r));
    GetCapturedStderr();
    EXPECT_EQ(6, r.id);
}

TEST_F(ft_call, request_add_sends_only_what_the_service_takes)
{
    vantrel_ft_request r{};
    r.id = 5;
    strcpy(r.target, "archive");
    r.f_import = 1;
    r.f_delete = 0;
    strcpy(r.object_local, "local.mxf");
    strcpy(r.object_remote, "remote.mxf");
    r.progress = 50;
    r.state = 3;
    strcpy(r.error, "old error");
    r.updated = 9;
    stub.answer(standin::result_only(12));
    EXPECT_EQ(12, vantrel_filetransfer_request_add(url(), &r));
    EXPECT_EQ("VantrelFileTransfer.RequestAdd", stub.last_method());
    EXPECT_EQ("(\"archive\",1,0,\"local.mxf\",\"remote.mxf\")", stub.last_params());
}

TEST_F(ft_call, transcode_add_sends_in_and_dur_as_text)
{
    vantrel_ftc_request r{};
    strcpy(r.src_object, "a.mxf");
    strcpy(r.in, "00:00:01:00");
    strcpy(r.dur, "250");
    strcpy(r.dst_object, "b.mp4");
    strcpy(r.factory, "f");
    strcpy(r.profile, "p");
    r.f_delete = 1;
    strcpy(r.audio_map, "01");
    r.audio_conf = 2;
    strcpy(r.timecode, "tc");
    strcpy(r.osd, "o");
    r.id = 44;
    stub.answer(standin::result_only(0));
    EXPECT_EQ(0, vantrel_filetranscoder_request_add(url(), &r));
    EXPECT_EQ("VantrelFileTranscoder.RequestAdd", stub.last_method());
    EXPECT_EQ("(\"a.mxf\",\"00:00:01:00\",\"250\",\"b.mp4\",\"f\",\"p\",1,\"01\",2,\"tc\",\"o\")",
              stub.last_params());
}

TEST_F(ft_call, id_commands_reach_their_own_service)
{
    stub.answer(standin::result_only(0));
    struct expected {
        int (*fn)(const char*, int);
        const char* method;
    };
    for (const expected& e : {
             expected{vantrel_filetransfer_request_del, "VantrelFileTransfer.RequestDel"},
             expected{vantrel_filetransfer_request_cancel, "VantrelFileTransfer.RequestCancel"},
             expected{vantrel_filetransfer_request_restart, "VantrelFileTransfer.RequestRestart"},
             expected{vantrel_filetranscoder_request_del, "VantrelFileTranscoder.RequestDel"},
             expected{vantrel_filetranscoder_request_cancel, "VantrelFileTranscoder.RequestCancel"},
             expected{vantrel_filetranscoder_request_restart, "VantrelFileTranscoder.RequestRestart"},
         }) {
        EXPECT_EQ(0, e.fn(url(), 31));
        EXPECT_EQ(e.method, stub.last_method());
        EXPECT_EQ("(31)", stub.last_params());
    }
    EXPECT_EQ(0, vantrel_filetransfer_probe(url(), "t", nullptr));
    EXPECT_EQ("(\"t\",\"\")", stub.last_params());
}

TEST_F(ft_call, request_get_fills_the_callers_record)
{
    stub.answer(standin::with_member(1, "item", request_struct(8).get()));
    vantrel_ft_request r{};
    EXPECT_EQ(1, vantrel_filetransfer_request_get(url(), 8, &r));
    EXPECT_EQ("(8)", stub.last_params());
    EXPECT_EQ(8, r.id);
    EXPECT_STREQ("remote", r.object_remote);

    stub.answer(standin::result_only(-2));
    CaptureStderr();
    EXPECT_EQ(-2, vantrel_filetransfer_request_get(url(), 8, &r));
    EXPECT_EQ(0u, GetCapturedStderr().find("vantrel_filetransfer_request_get: VantrelFileTransfer.RequestGet return -2 ("));
}

TEST_F(ft_call, remote_listing_appends_to_the_callers_list)
{
    stub.answer(standin::with_list(0, standin::string_array({"a.mxf", "b.mxf"}).get()));
    char** names = nullptr;
    ASSERT_EQ(2, vantrel_filetransfer_list(url(), "archive", "/in", &names));
    EXPECT_EQ("VantrelFileTransfer.ListRemote", stub.last_method());
    EXPECT_EQ("(\"archive\",\"/in\")", stub.last_params());
    ASSERT_EQ(2, vantrel_filetransfer_list(url(), "archive", "/in", &names));
    ASSERT_EQ(4, vantrel_str_list_count(names));
    EXPECT_STREQ("b.mxf", names[3]);

    // A bad name is reported and skipped; the good one of this call is kept.
    value good = standin::string_array({"c.mxf"});
    stub.answer(standin::with_list(0, standin::with_bad_element(good.get()).get()));
    CaptureStderr();
    EXPECT_EQ(1, vantrel_filetransfer_list(url(), "archive", "/in", &names));
    std::string err = GetCapturedStderr();
    EXPECT_EQ(0u, err.find("vantrel_filetransfer_list_iter: xmlrpc_array_read_item failed: ")) << err;
    EXPECT_EQ(5, vantrel_str_list_count(names));
    EXPECT_STREQ("c.mxf", names[4]);
    vantrel_str_list_free(&names);

    stub.answer(standin::result_only(0));   // no list member
    CaptureStderr();
    EXPECT_EQ(-14, vantrel_filetransfer_list(url(), "a", "b", &names));
    GetCapturedStderr();
    ASSERT_NE(nullptr, names);
    EXPECT_EQ(0, vantrel_str_list_count(names));
    vantrel_str_list_free(&names);
}

TEST(ft_decode, missing_records_and_members_never_crash)
{
    xmlrpc_env_guard env;
    value answer = standin::with_list(0, standin::empty_array().get());
    EXPECT_EQ(0, vantrel_filetransfer_targets_list_decode(env.get(), answer.get(), 4, nullptr));
    CaptureStderr();
    value not_struct = standin::build("(i)", 1);
    EXPECT_EQ(-14, vantrel_filetransfer_requests_list_decode(env.get(), not_struct.get(), 1, nullptr));
    GetCapturedStderr();
}

}  // namespace
