// Every decoder that takes several members in one decomposition, fed the
// element it expects with one member missing or of the wrong type. The
// decomposition then fails after strings and values of the earlier members
// were extracted and already released by xmlrpc-c: a decoder that frees them
// again aborts (glibc) or is reported by the address sanitizer. The complete
// element must still decode, and its texts must arrive.
#include <cstdlib>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "standin_server.h"
#include "vantrel_decode.h"
#include "vantrel_decode_ft.h"
#include "vantrel_decode_lib.h"
#include "vantrel_decode_sched.h"

using standin::build;
using standin::value;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

// The decoder's result and one text it delivered (empty when none).
using outcome = std::pair<int, std::string>;

struct decoder_case {
    const char* name;
    std::function<value()> element;
    std::function<outcome(xmlrpc_env*, xmlrpc_value*)> decode;
    outcome complete;    // what the whole element gives
    int broken_result;   // what a missing or mistyped required member gives
    std::set<std::string> optional = {};
};

std::vector<std::string> keys_of(xmlrpc_value* structure)
{
    xmlrpc_env_guard env;
    std::vector<std::string> keys;
    int size = xmlrpc_struct_size(env.get(), structure);
    for (int i = 0; i < size; ++i) {
        xmlrpc_value* key = nullptr;
        xmlrpc_value* member = nullptr;
        xmlrpc_struct_read_member(env.get(), structure, static_cast<unsigned>(i), &key, &member);
        const char* text = nullptr;
        xmlrpc_read_string(env.get(), key, &text);
        keys.emplace_back(text);
        free(const_cast<char*>(text));
        xmlrpc_DECREF(key);
        xmlrpc_DECREF(member);
    }
    return keys;
}

// A copy of the struct with `key` dropped, or set to `replacement` when given.
value edited(xmlrpc_value* structure, const std::string& key, xmlrpc_value* replacement)
{
    xmlrpc_env_guard env;
    value copy = build("{}");
    for (const std::string& k : keys_of(structure)) {
        xmlrpc_value* member = nullptr;
        xmlrpc_struct_find_value(env.get(), structure, k.c_str(), &member);
        if (k != key) xmlrpc_struct_set_value(env.get(), copy.get(), k.c_str(), member);
        else if (replacement)
            xmlrpc_struct_set_value(env.get(), copy.get(), k.c_str(), replacement);
        xmlrpc_DECREF(member);
    }
    return copy;
}

// Something no decoder takes in place of the member: an array for scalars,
// an integer for arrays.
value mistyped(xmlrpc_value* structure, const std::string& key)
{
    xmlrpc_env_guard env;
    xmlrpc_value* member = nullptr;
    xmlrpc_struct_find_value(env.get(), structure, key.c_str(), &member);
    bool is_array = xmlrpc_value_type(member) == XMLRPC_TYPE_ARRAY;
    xmlrpc_DECREF(member);
    return is_array ? build("i", 1) : build("(s)", "x");
}

outcome run(const decoder_case& c, xmlrpc_value* element)
{
    xmlrpc_env_guard env;
    CaptureStderr();
    outcome got = c.decode(env.get(), element);
    GetCapturedStderr();
    return got;
}

std::vector<decoder_case> cases()
{
    std::vector<decoder_case> all;

    all.push_back({"ft target",
                   [] {
                       return build("{s:s,s:s,s:s,s:s,s:s,s:s,s:s,s:s}", "id", "1", "type", "ftp",
                                    "title", "T", "host", "h", "port", "21", "path", "/p",
                                    "login", "l", "passw", "pw");
                   },
                   [](xmlrpc_env* env, xmlrpc_value* el) {
                       vantrel_ft_target t{};
                       int rc = vantrel_ft_target_decompose(env, el, &t);
                       return outcome{rc, std::string(t.id) + t.passw};
                   },
                   {0, "1pw"}, -14});

    all.push_back({"ft request",
                   [] {
                       return build("{s:i,s:s,s:i,s:i,s:s,s:s,s:i,s:i,s:s,s:I,s:I}", "id", 1,
                                    "target", "t", "f_delete", 1, "f_import", 0, "object_local",
                                    "l", "object_remote", "r", "progress", 5, "state", 2, "error",
                                    "e", "updated", xmlrpc_int64{7}, "created", xmlrpc_int64{6});
                   },
                   [](xmlrpc_env* env, xmlrpc_value* el) {
                       vantrel_ft_request r{};
                       int rc = vantrel_ft_request_decompose(env, el, &r);
                       return outcome{rc, std::string(r.target) + r.error};
                   },
                   {0, "te"}, -14});

    all.push_back({"transcode request",
                   [] {
                       value req = build(
                           "{s:i,s:I,s:I,s:i,s:s,s:s,s:s,s:s,s:s,s:s,s:s,s:s,s:i,s:i,s:s}", "id",
                           1, "updated", xmlrpc_int64{5}, "created", xmlrpc_int64{4},
                           "f_delete", 0, "src_object", "s", "src_local", "sl", "dst_object",
                           "d", "dst_local", "dl", "in", "i", "dur", "u", "factory", "f",
                           "profile", "p", "progress", 5, "state", 1, "error", "e");
                       xmlrpc_env_guard env;
                       value map = build("s", "0123");
                       value conf = build("i", 3);
                       value tc = build("s", "10:00:00:00");
                       value osd = build("s", "logo");
                       xmlrpc_struct_set_value(env.get(), req.get(), "audio_map", map.get());
                       xmlrpc_struct_set_value(env.get(), req.get(), "audio_conf", conf.get());
                       xmlrpc_struct_set_value(env.get(), req.get(), "timecode", tc.get());
                       xmlrpc_struct_set_value(env.get(), req.get(), "osd", osd.get());
                       return req;
                   },
                   [](xmlrpc_env* env, xmlrpc_value* el) {
                       vantrel_ftc_request r{};
                       int rc = vantrel_ftc_request_decompose(env, el, &r);
                       return outcome{rc, std::string(r.src_object) + r.error + r.osd};
                   },
                   {0, "selogo"}, -14});

    all.push_back({"schedule item",
                   [] {
                       value item = build(
                           "{s:i,s:i,s:i,s:i,s:s,s:s,s:I,s:I,s:I,s:I,s:I,s:I,s:I,s:s,s:s}",
                           "duration", 1, "tc", 1, "id", 2, "enabled", 1, "path", "p", "title",
                           "t", "min", xmlrpc_int64{1}, "hour", xmlrpc_int64{2}, "day",
                           xmlrpc_int64{3}, "weekday", xmlrpc_int64{4}, "month", xmlrpc_int64{5},
                           "year", xmlrpc_int64{6}, "calc", xmlrpc_int64{7}, "mode", "m", "enc",
                           "e");
                       xmlrpc_env_guard env;
                       value start = build("i", 15);
                       value transfer = build("s", "ftp1");
                       value prefix = build("s", "n_");
                       xmlrpc_struct_set_value(env.get(), item.get(), "start_time", start.get());
                       xmlrpc_struct_set_value(env.get(), item.get(), "transfer", transfer.get());
                       xmlrpc_struct_set_value(env.get(), item.get(), "prefix", prefix.get());
                       return item;
                   },
                   [](xmlrpc_env* env, xmlrpc_value* el) {
                       vantrel_sched_item* item = nullptr;
                       int rc = vantrel_sched_item_decompose(env, el, &item);
                       std::string text = item ? std::string(item->path) + item->enc : "";
                       free(item);
                       return outcome{rc, text};
                   },
                   {0, "pe"}, -14, {"start_time", "transfer", "prefix"}});

    all.push_back({"schedule log",
                   [] {
                       return build("{s:i,s:i,s:i,s:s,s:I,s:I,s:s,s:s,s:i,s:s,s:s}", "duration",
                                    60, "tc", 0, "status", 2, "origin", "o", "start",
                                    xmlrpc_int64{9}, "calc", xmlrpc_int64{4}, "mode", "m", "enc",
                                    "e", "start_time", 3, "transfer", "t", "prefix", "p");
                   },
                   [](xmlrpc_env* env, xmlrpc_value* el) {
                       vantrel_sched_log* log = nullptr;
                       int rc = vantrel_sched_log_decompose(env, el, &log);
                       std::string text = log ? std::string(log->origin) + log->prefix : "";
                       free(log);
                       return outcome{rc, text};
                   },
                   {0, "op"}, -14});

    auto state_decode = [](int result) {
        return [result](xmlrpc_env* env, xmlrpc_value* el) {
            value answer = build("{s:i,s:V}", "result", result, "state", el);
            vantrel_sched_state st{};
            int rc = vantrel_sched_get_state_decode(env, answer.get(), &st);
            return outcome{rc, std::string(st.s_now) + (result ? st.s_end : st.s_next)};
        };
    };
    all.push_back({"scheduler state, running",
                   [] {
                       return build("{s:i,s:i,s:s,s:I,s:s,s:I,s:s,s:I}", "status", 4, "duration",
                                    600, "s_now", "12:00", "t_now", xmlrpc_int64{1000}, "s_start",
                                    "11:55", "t_start", xmlrpc_int64{700}, "s_end", "12:05",
                                    "t_end", xmlrpc_int64{1300});
                   },
                   state_decode(1), {1, "12:0012:05"}, -14});
    all.push_back({"scheduler state, idle",
                   [] {
                       return build("{s:s,s:I,s:s,s:I}", "s_now", "13:00", "t_now",
                                    xmlrpc_int64{2000}, "s_next", "14:00", "t_next",
                                    xmlrpc_int64{5600});
                   },
                   state_decode(0), {0, "13:0014:00"}, -14});

    all.push_back({"name resolution",
                   [] {
                       return build("{s:i,s:s,s:s,s:I}", "result", 0, "value", "v", "object", "o",
                                    "cache_shm_id", xmlrpc_int64{7});
                   },
                   [](xmlrpc_env* env, xmlrpc_value* answer) {
                       char v[VANTREL_STR_SIZE] = "stale", o[VANTREL_STR_SIZE] = "stale";
                       int32_t shm = 0;
                       int rc = vantrel_basename_item_decode(env, answer, v, o, &shm);
                       return outcome{rc, std::string(v) + o};
                   },
                   {0, "vo"}, -14});

    all.push_back({"overlay name resolution",
                   [] { return build("{s:i,s:s}", "result", 0, "value", "v"); },
                   [](xmlrpc_env* env, xmlrpc_value* answer) {
                       char v[VANTREL_STR_SIZE] = "";
                       int rc = vantrel_lib_basename_overlay_decode(env, answer, v);
                       return outcome{rc, v};
                   },
                   {0, "v"}, -14});

    auto overlay_level = [](int level) {
        return [level](xmlrpc_env* env, xmlrpc_value* el) {
            value array = build("(V)", el);
            vantrel_lib_overlay** entries = nullptr;
            int rc = vantrel_lib_list_overlays_level(env, array.get(), level, &entries);
            std::string text;
            if (entries && entries[0]) text = std::string(entries[0]->path) + entries[0]->name;
            vantrel_lib_overlays_free(&entries);
            return outcome{rc, text};
        };
    };
    all.push_back({"overlay leaf",
                   [] {
                       return build("{s:s,s:s,s:I}", "name", "a.png", "path", "g/a.png", "size",
                                    xmlrpc_int64{12});
                   },
                   overlay_level(1), {1, "g/a.pnga.png"}, -14});
    all.push_back({"overlay group",
                   [] { return build("{s:s,s:()}", "path", "g", "list"); },
                   overlay_level(0), {1, "g"}, -14});

    all.push_back({"subclip",
                   [] { return build("{s:i,s:i,s:s}", "mark_in", 1, "duration", 2, "title", "t"); },
                   [](xmlrpc_env* env, xmlrpc_value* el) {
                       value answer = standin::with_list(0, build("(V)", el).get());
                       vantrel_lib_subclip** clips = nullptr;
                       int rc = vantrel_lib_list_subclips_decode(env, answer.get(), &clips, 0);
                       std::string text = clips && clips[0] ? clips[0]->title : "";
                       vantrel_lib_subclips_free(&clips);
                       return outcome{rc, text};
                   },
                   {1, "t"}, -14});

    all.push_back({"playout status",
                   [] {
                       value st = build("{s:i,s:i,s:s,s:s,s:i,s:i,s:i,s:i,s:i,s:i,s:i}", "result",
                                        0, "status", 1, "name", "clip", "cookie", "c", "loop", 0,
                                        "clip_length", 1, "clip_in", 2, "clip_dur", 3, "clip_pos",
                                        4, "clip_start", 5, "clip_idx", 6);
                       value rest = build("{s:i,s:i,s:i,s:i,s:d,s:i,s:i,s:i}", "playlist_gen", 1,
                                          "playlist_dur", 2, "playlist_pos", 3, "playlist_count",
                                          4, "playlist_speed", 1.0, "rec_paused", 0, "tc_frames",
                                          5, "tc_src", 6);
                       xmlrpc_env_guard env;
                       for (const std::string& k : keys_of(rest.get())) {
                           xmlrpc_value* member = nullptr;
                           xmlrpc_struct_find_value(env.get(), rest.get(), k.c_str(), &member);
                           xmlrpc_struct_set_value(env.get(), st.get(), k.c_str(), member);
                           xmlrpc_DECREF(member);
                       }
                       return st;
                   },
                   [](xmlrpc_env* env, xmlrpc_value* answer) {
                       vantrel_status st{};
                       int rc = vantrel_getstatus_decode(env, answer, &st);
                       return outcome{rc, std::string(st.name) + st.cookie};
                   },
                   {0, "clipc"}, -14});

    // The walker skips an element that fails: the list just comes out empty.
    all.push_back({"playlist item",
                   [] {
                       return build("{s:s,s:s,s:i,s:i,s:i,s:i,s:i,s:i,s:i}", "name", "n", "cookie",
                                    "c", "length", 1, "in", 2, "dur", 3, "pos", 4, "start", 5,
                                    "idx", 6, "repeat", 7);
                   },
                   [](xmlrpc_env* env, xmlrpc_value* el) {
                       value answer = build("{s:i,s:i,s:i,s:i,s:(V)}", "result", 0, "gen", 1,
                                            "pos", 2, "idx", 3, "list", el);
                       vantrel_playlist_item* items = nullptr;
                       int g = 0, p = 0, i = 0;
                       int rc =
                           vantrel_playlist_items_decode(env, answer.get(), &g, &p, &i, &items);
                       std::string text;
                       if (rc > 0) text = std::string(items[0].name) + items[0].cookie;
                       free(items);
                       return outcome{rc, text};
                   },
                   {1, "nc"}, 0});

    all.push_back({"font",
                   [] { return build("{s:s,s:s}", "family", "Sans", "style", "Bold"); },
                   [](xmlrpc_env* env, xmlrpc_value* el) {
                       value answer = standin::with_list(0, build("(V)", el).get());
                       char** fonts = nullptr;
                       int rc = vantrel_lib_tmpl_fonts_decode(env, "m", answer.get(), &fonts);
                       std::string text = fonts && fonts[0] ? fonts[0] : "";
                       vantrel_str_list_free(&fonts);
                       return outcome{rc, text};
                   },
                   {1, "Sans\tBold"}, 0});

    // A pair that does not decode ends the walk with the answer's result.
    all.push_back({"setting",
                   [] { return build("{s:s,s:s}", "name", "mode", "value", "HD"); },
                   [](xmlrpc_env* env, xmlrpc_value* el) {
                       value answer = standin::with_list(0, build("(V)", el).get());
                       vantrel_io_settings settings{};
                       int rc = vantrel_io_settings_get_decode(env, answer.get(), &settings);
                       return outcome{rc, settings.mode};
                   },
                   {0, "HD"}, 0});

    auto modes_decode = [](xmlrpc_env* env, xmlrpc_value* mode, bool sub) {
        value answer = standin::with_list(0, build("(V)", mode).get());
        vantrel_io_mode** modes = nullptr;
        int rc = vantrel_io_settings_get_modes_decode(env, answer.get(), &modes);
        std::string text;
        if (rc > 0) {
            text = modes[0]->name;
            if (sub && modes[0]->submodes_cnt > 0) text += modes[0]->submodes[0]->desc;
        }
        if (modes) vantrel_io_settings_modes_free(&modes);
        return outcome{rc, text};
    };
    all.push_back({"io mode",
                   [] {
                       return build("{s:i,s:s,s:s,s:(),s:((s))}", "idx", 1, "desc", "d", "name",
                                    "HD", "list", "osds", "osd1");
                   },
                   [modes_decode](xmlrpc_env* env, xmlrpc_value* el) {
                       return modes_decode(env, el, false);
                   },
                   {1, "HD"}, -14});
    all.push_back({"io sub-mode",
                   [] { return build("{s:i,s:s,s:s}", "idx", 2, "desc", "sd", "name", "sub"); },
                   [modes_decode](xmlrpc_env* env, xmlrpc_value* el) {
                       value mode = build("{s:i,s:s,s:s,s:(V),s:()}", "idx", 1, "desc", "d",
                                          "name", "HD", "list", el, "osds");
                       return modes_decode(env, mode.get(), true);
                   },
                   {1, "HDsd"}, -14});
    return all;
}

TEST(decoder_ownership, complete_elements_deliver_their_texts)
{
    for (const decoder_case& c : cases()) {
        value element = c.element();
        ASSERT_TRUE(element) << c.name;
        EXPECT_EQ(c.complete, run(c, element.get())) << c.name;
    }
}

TEST(decoder_ownership, a_missing_member_fails_without_freeing_twice)
{
    for (const decoder_case& c : cases()) {
        value element = c.element();
        for (const std::string& key : keys_of(element.get())) {
            value broken = edited(element.get(), key, nullptr);
            outcome got = run(c, broken.get());
            int expected = c.optional.count(key) ? c.complete.first : c.broken_result;
            EXPECT_EQ(expected, got.first) << c.name << " without " << key;
        }
    }
}

TEST(decoder_ownership, a_mistyped_member_fails_without_freeing_twice)
{
    for (const decoder_case& c : cases()) {
        value element = c.element();
        for (const std::string& key : keys_of(element.get())) {
            value wrong = mistyped(element.get(), key);
            value broken = edited(element.get(), key, wrong.get());
            outcome got = run(c, broken.get());
            int expected = c.optional.count(key) ? c.complete.first : c.broken_result;
            EXPECT_EQ(expected, got.first) << c.name << " with a mistyped " << key;
        }
    }
}

}  // namespace
