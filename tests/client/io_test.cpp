// Playout control against the stand-in: request tuples, status and playlist
// decoding, and the UDP transport datagram.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "standin_server.h"
#include "vantrel.h"
#include "vantrel_decode.h"

using standin::value;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

class io_requests : public standin::standin_test {
protected:
    void SetUp() override
    {
        standin::standin_test::SetUp();
        stub.answer(standin::result_only(3));
    }

    // Runs one client call and checks what reached the service.
    void expect_request(const std::function<int()>& run, const char* method, const char* params)
    {
        std::size_t before = stub.call_count();
        EXPECT_EQ(3, run()) << method;
        EXPECT_EQ(before + 1, stub.call_count()) << method;
        EXPECT_EQ(method, stub.last_method());
        EXPECT_EQ(params, stub.last_params()) << method;
    }
};

TEST_F(io_requests, transport_commands_send_empty_tuples)
{
    expect_request([&] { return vantrel_play(url()); }, "VantrelIO.Play", "()");
    expect_request([&] { return vantrel_pause(url()); }, "VantrelIO.Pause", "()");
    expect_request([&] { return vantrel_stop(url()); }, "VantrelIO.Stop", "()");
    expect_request([&] { return vantrel_cue_play(url()); }, "VantrelIO.CuePlay", "()");
    expect_request([&] { return vantrel_playlist_clear(url()); }, "VantrelIO.PlaylistClear", "()");
    expect_request([&] { return vantrel_record(url()); }, "VantrelIO.Record", "()");
}

TEST_F(io_requests, playlist_commands_send_parameters_in_order)
{
    expect_request([&] { return vantrel_play_vari(url(), 1.5); }, "VantrelIO.Play", "(1.5)");
    expect_request([&] { return vantrel_cue_play_with_data(url(), 9); },
                   "VantrelIO.CuePlayWithData", "(9)");
    expect_request([&] { return vantrel_playlist_append(url(), "clip", 1, 2, nullptr, nullptr, nullptr); },
                   "VantrelIO.PlaylistAppend", R"(("clip",1,2,"","",""))");
    expect_request([&] { return vantrel_playlist_insert(url(), 4, "clip", 1, 2, "o", "p", "c"); },
                   "VantrelIO.PlaylistInsert", R"((4,"clip",1,2,"o","p","c"))");
    expect_request([&] { return vantrel_playlist_remove(url(), 5); }, "VantrelIO.PlaylistRemove", "(5)");
    expect_request([&] { return vantrel_playlist_repeat_clip(url(), 1, 2); },
                   "VantrelIO.PlaylistRepeatClip", "(1,2)");
    expect_request([&] { return vantrel_playlist_resize_clip(url(), 1, 2, 3); },
                   "VantrelIO.PlaylistResizeClip", "(1,2,3)");
    expect_request([&] { return vantrel_playlist_move(url(), 6, 7); }, "VantrelIO.PlaylistMove", "(6,7)");
    expect_request([&] { return vantrel_playlist_loop(url(), 1); }, "VantrelIO.PlaylistLoop", "(1)");
    expect_request([&] { return vantrel_playlist_seek_to(url(), 2, 50); },
                   "VantrelIO.PlaylistSeekTo", "(2,50)");
    expect_request([&] { return vantrel_playlist_seek(url(), -25); }, "VantrelIO.PlaylistSeek", "(-25)");
    expect_request([&] { return vantrel_playlist_step(url(), -1); }, "VantrelIO.PlaylistStep", "(-1)");
    expect_request([&] { return vantrel_record_pause(url(), 1); }, "VantrelIO.RecordPause", "(1)");
}

TEST_F(io_requests, optional_last_string_changes_the_tuple_length)
{
    expect_request([&] { return vantrel_cue_record(url(), "a", nullptr); }, "VantrelIO.CueRecord", R"(("a"))");
    expect_request([&] { return vantrel_cue_record(url(), "a", "b"); }, "VantrelIO.CueRecord", R"(("a","b"))");
    expect_request([&] { return vantrel_record_next(url(), "a", nullptr); }, "VantrelIO.RecordNext", R"(("a"))");
    expect_request([&] { return vantrel_record_next(url(), "a", ""); }, "VantrelIO.RecordNext", R"(("a",""))");
    expect_request([&] { return vantrel_cue_record_with_data(url(), "a", 1, 2, nullptr); },
                   "VantrelIO.CueRecordWithData", R"(("a",1,2))");
    expect_request([&] { return vantrel_cue_record_with_data(url(), "a", 1, 2, "d"); },
                   "VantrelIO.CueRecordWithData", R"(("a",1,2,"d"))");
}

TEST_F(io_requests, playlist_item_sends_seven_members_only)
{
    vantrel_playlist_item item{};
    strcpy(item.name, "n");
    item.in = 1;
    item.dur = 2;
    strcpy(item.cookie, "c");
    item.length = item.pos = item.start = item.idx = item.repeat = 99;
    const char* record =
        R"({"name":"n","in":1,"dur":2,"overlay_name":"","overlay_pos":"","cookie":"c","amap":""})";
    expect_request([&] { return vantrel_playlist_insert2(url(), 3, &item); },
                   "VantrelIO.PlaylistInsert2", ("(3," + std::string(record) + ")").c_str());
    expect_request([&] { return vantrel_playlist_append2(url(), &item); },
                   "VantrelIO.PlaylistAppend2", ("(" + std::string(record) + ")").c_str());
}

TEST_F(io_requests, template_variables_stop_or_skip_at_null_entries)
{
    const char* names[] = {"a", "b", nullptr};
    const char* values[] = {"1", nullptr, nullptr};
    const char* list[] = {"x", nullptr, "z", nullptr};
    // Counted up to the first null name or value: only a.
    expect_request([&] { return vantrel_playlist_insert_template(url(), 0, "t", 1, 2, -1, list, -1, names, values, nullptr); },
                   "VantrelIO.PlaylistInsertTemplate", R"((0,"t",1,2,["x"],{"a":"1"},""))");
    // Counted by the caller: null entries are skipped, later ones still sent.
    expect_request([&] { return vantrel_playlist_insert_template(url(), 0, "t", 1, 2, 3, list, 2, names, values, "l"); },
                   "VantrelIO.PlaylistInsertTemplate", R"((0,"t",1,2,["x","z"],{"a":"1"},"l"))");
    expect_request([&] { return vantrel_playlist_insert_template(url(), 0, "t", 1, 2, 0, nullptr, 0, nullptr, nullptr, nullptr); },
                   "VantrelIO.PlaylistInsertTemplate", R"((0,"t",1,2,[],{},""))");
}

TEST_F(io_requests, missing_required_strings_are_refused_before_sending)
{
    EXPECT_EQ(-22, vantrel_playlist_append(url(), nullptr, 1, 2, "", "", ""));
    EXPECT_EQ(-22, vantrel_cue_record(url(), nullptr, "b"));
    EXPECT_EQ(-22, vantrel_playlist_append2(url(), nullptr));
    EXPECT_EQ(0u, stub.call_count());
}

TEST_F(io_requests, server_result_and_failures_come_back_unchanged)
{
    stub.answer(standin::result_only(-2));
    EXPECT_EQ(-2, vantrel_playlist_seek(url(), 1));
    stub.answer(standin::missing_result());
    CaptureStderr();
    EXPECT_EQ(-14, vantrel_playlist_seek(url(), 1));
    EXPECT_EQ(0u, GetCapturedStderr().find("vantrel_playlist_seek: VantrelIO.PlaylistSeek, decompose value failed: "));
}

value status_answer(int result, const char* name, bool with_tc_src = true)
{
    value first = standin::build(
        "{s:i,s:i,s:s,s:s,s:i,s:i,s:i,s:i,s:i,s:i,s:i,s:i,s:i,s:i,s:i,s:d,s:i,s:i}", "result",
        result, "status", 2, "name", name, "cookie", "ck", "loop", 1, "clip_length", 100,
        "clip_in", 10, "clip_dur", 80, "clip_pos", 40, "clip_start", 5, "clip_idx", 3,
        "playlist_gen", 7, "playlist_dur", 900, "playlist_pos", 450, "playlist_count", 4,
        "playlist_speed", 0.5, "rec_paused", 1, "tc_frames", 25);
    if (with_tc_src) {
        xmlrpc_env_guard env;
        value tc = standin::build("i", 2);
        xmlrpc_struct_set_value(env.get(), first.get(), "tc_src", tc.get());
    }
    return first;
}

class io_status : public standin::standin_test {};

TEST_F(io_status, every_member_lands_in_its_field)
{
    stub.answer(status_answer(-5, "clip.mov"));
    vantrel_status st;
    memset(&st, 0xff, sizeof st);
    EXPECT_EQ(-5, vantrel_getstatus(url(), &st));   // result does not stop decoding
    EXPECT_EQ("VantrelIO.GetStatus", stub.last_method());
    EXPECT_EQ(0, st.reserved);
    EXPECT_EQ(2, st.status);
    EXPECT_STREQ("clip.mov", st.name);
    EXPECT_STREQ("ck", st.cookie);
    EXPECT_EQ(1, st.loop);
    EXPECT_EQ(100, st.clip_length);
    EXPECT_EQ(3, st.clip_idx);
    EXPECT_EQ(7, st.playlist_gen);
    EXPECT_EQ(4, st.playlist_count);
    EXPECT_DOUBLE_EQ(0.5, st.playlist_speed);
    EXPECT_EQ(1, st.rec_paused);
    EXPECT_EQ(25, st.tc_frames);
    EXPECT_EQ(2, st.tc_src);
}

TEST_F(io_status, a_missing_member_of_either_half_fails_the_whole_call)
{
    stub.answer(status_answer(0, "x", false));
    vantrel_status st;
    CaptureStderr();
    EXPECT_EQ(-14, vantrel_getstatus(url(), &st));
    std::string err = GetCapturedStderr();
    EXPECT_EQ(0u, err.find("vantrel_getstatus: decompose value failed: ")) << err;
    EXPECT_NE(std::string::npos, err.find("[src/client/vantrel:"));
    EXPECT_STREQ("", st.name);   // strings are copied only when both halves decode
}

TEST_F(io_status, long_name_is_cut_to_the_field)
{
    std::string long_name(5000, 'n');
    stub.answer(status_answer(0, long_name.c_str()));
    vantrel_status st;
    EXPECT_EQ(0, vantrel_getstatus(url(), &st));
    EXPECT_EQ(4095u, strlen(st.name));
}

value playlist_answer(xmlrpc_value* list)
{
    return standin::build("{s:i,s:i,s:i,s:i,s:V}", "result", 0, "gen", 11, "pos", 22, "idx", 1,
                          "list", list);
}

value playlist_entry(const char* name, int in)
{
    return standin::build("{s:s,s:s,s:i,s:i,s:i,s:i,s:i,s:i,s:i}", "name", name, "cookie", "k",
                          "length", 100, "in", in, "dur", 50, "pos", 3, "start", 4, "idx", 5,
                          "repeat", 6);
}

class io_playlist : public standin::standin_test {};

TEST_F(io_playlist, items_arrive_in_one_block_with_positions)
{
    value a = playlist_entry("a", 1), b = playlist_entry("b", 2);
    value list = standin::build("(VV)", a.get(), b.get());
    stub.answer(playlist_answer(list.get()));
    int gen = 0, pos = 0, idx = 0;
    vantrel_playlist_item* items = nullptr;
    ASSERT_EQ(2, vantrel_playlist_items(url(), &gen, &pos, &idx, &items));
    EXPECT_EQ(11, gen);
    EXPECT_EQ(22, pos);
    EXPECT_EQ(1, idx);
    ASSERT_NE(nullptr, items);
    EXPECT_STREQ("a", items[0].name);
    EXPECT_STREQ("b", items[1].name);
    EXPECT_EQ(2, items[1].in);
    EXPECT_EQ(6, items[1].repeat);
    EXPECT_STREQ("k", items[1].cookie);
    EXPECT_STREQ("", items[1].overlay_name);
    free(items);
}

TEST_F(io_playlist, empty_list_returns_zero_and_no_block)
{
    value list = standin::empty_array();
    stub.answer(playlist_answer(list.get()));
    int gen = 0, pos = 0, idx = 0;
    vantrel_playlist_item* items = reinterpret_cast<vantrel_playlist_item*>(&gen);
    EXPECT_EQ(0, vantrel_playlist_items(url(), &gen, &pos, &idx, &items));
    EXPECT_EQ(nullptr, items);
}

TEST_F(io_playlist, bad_entry_is_skipped_and_the_rest_packed)
{
    value a = playlist_entry("a", 1), c = playlist_entry("c", 3);
    value bad = standin::build("{s:s}", "name", "only");
    value list = standin::build("(VVV)", a.get(), bad.get(), c.get());
    stub.answer(playlist_answer(list.get()));
    int gen, pos, idx;
    vantrel_playlist_item* items = nullptr;
    CaptureStderr();
    EXPECT_EQ(2, vantrel_playlist_items(url(), &gen, &pos, &idx, &items));
    std::string err = GetCapturedStderr();
    EXPECT_NE(std::string::npos, err.find("vantrel_playlist_items_iters: xmlrpc_array_read_item failed: "));
    ASSERT_NE(nullptr, items);
    EXPECT_STREQ("c", items[1].name);
    free(items);
}

TEST_F(io_playlist, missing_header_member_gives_efault)
{
    value list = standin::empty_array();
    stub.answer(standin::with_list(0, list.get()));   // no gen/pos/idx
    int gen, pos, idx;
    vantrel_playlist_item* items = nullptr;
    CaptureStderr();
    EXPECT_EQ(-14, vantrel_playlist_items(url(), &gen, &pos, &idx, &items));
    EXPECT_EQ(0u, GetCapturedStderr().find("vantrel_playlist_items: decompose value failed: "));
    EXPECT_EQ(nullptr, items);
}

TEST(io_decoders, hostile_shapes_never_crash_and_give_efault)
{
    // Whatever the service sends, the decoders answer -14 or a count.
    value samples[] = {standin::build("i", 1), standin::build("()"), standin::build("{}"),
                       standin::build("{s:i,s:s}", "result", 0, "list", "x"),
                       standin::build("{s:i,s:i,s:i,s:i,s:(i)}", "result", 0, "gen", 0, "pos", 0,
                                      "idx", 0, "list", 4)};
    CaptureStderr();
    for (value& sample : samples) {
        xmlrpc_env_guard env1, env2;
        vantrel_status st{};
        EXPECT_EQ(-14, vantrel_getstatus_decode(env1.get(), sample.get(), &st));
        vantrel_playlist_item* items = nullptr;
        int g, p, i;
        EXPECT_LE(vantrel_playlist_items_decode(env2.get(), sample.get(), &g, &p, &i, &items), 0);
        free(items);
    }
    xmlrpc_env_guard env;
    vantrel_status st{};
    EXPECT_EQ(-14, vantrel_getstatus_decode(env.get(), nullptr, &st));
    GetCapturedStderr();
}

// A loopback datagram socket to receive what the client sends.
class udp_sink {
public:
    udp_sink()
    {
        fd_ = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof addr;
        if (fd_ >= 0 && bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
            getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len) == 0)
            port_ = ntohs(addr.sin_port);
    }
    ~udp_sink()
    {
        if (fd_ >= 0) close(fd_);
    }
    int port() const { return port_; }
    // One datagram, or an empty string after two seconds.
    std::string receive()
    {
        pollfd p{fd_, POLLIN, 0};
        if (poll(&p, 1, 2000) != 1) return std::string();
        char buf[256];
        ssize_t n = recv(fd_, buf, sizeof buf, 0);
        return n > 0 ? std::string(buf, static_cast<std::size_t>(n)) : std::string();
    }

private:
    int fd_ = -1;
    int port_ = 0;
};

TEST(udp_transport, play_sends_the_method_name_and_its_nul)
{
    udp_sink sink;
    ASSERT_NE(0, sink.port());
    std::string dest = "127.0.0.1:" + std::to_string(sink.port());
    EXPECT_EQ(15, vantrel_udp_play(dest.c_str()));
    EXPECT_EQ(std::string("VantrelIO.Play\0", 15), sink.receive());
    EXPECT_EQ(17, vantrel_udp_record(dest.c_str()));
    EXPECT_EQ(std::string("VantrelIO.Record\0", 17), sink.receive());
}

TEST(udp_transport, port_is_truncated_to_sixteen_bits)
{
    udp_sink sink;
    std::string dest = "localhost:" + std::to_string(sink.port() + 65536);
    EXPECT_EQ(2, vantrel_udp_send(dest.c_str(), "x"));
    EXPECT_EQ(std::string("x\0", 2), sink.receive());
}

TEST(udp_transport, bad_destinations_are_refused)
{
    EXPECT_EQ(-22, vantrel_udp_stop("127.0.0.1"));
    EXPECT_EQ(-22, vantrel_udp_pause("no-such-host.invalid:5000"));
    std::string long_host(136, 'h');
    EXPECT_EQ(-22, vantrel_udp_send((long_host + ":5000").c_str(), "x"));
    EXPECT_EQ(-22, vantrel_udp_send(nullptr, "x"));
}

}  // namespace
