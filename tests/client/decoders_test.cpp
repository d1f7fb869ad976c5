// Every answer decoder, driven over every member: the complete element must
// decode and deliver its texts; without any one required member, or with it
// of the wrong type, it must fail (after xmlrpc-c already released what it
// extracted, so a decoder freeing twice aborts or shows under the sanitizer).
// Then the orders the listings promise.
#include <cstdarg>
#include <cstdlib>
#include <functional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "standin.h"
#include "vantrel_decode.h"
#include "vantrel_decode_ft.h"
#include "vantrel_decode_lib.h"
#include "vantrel_decode_sched.h"

namespace {

using outcome = std::pair<int, std::string>;   // result, texts delivered
using value = xmlrpc_value_ref;

// {"result": 0, "list": [element]}
value listed(xmlrpc_value* el) { return build("{s:i,s:(V)}", "result", 0, "list", el); }

struct decoder_case {
    const char* name;
    std::function<value()> element;
    std::function<outcome(xmlrpc_env*, xmlrpc_value*)> decode;
    outcome complete;
    int broken = -14;                    // result without a required member
    std::set<std::string> optional = {};
};

// The texts and numbers side by side, as one string.
template <typename... T>
std::string cat(const T&... parts)
{
    std::ostringstream out;
    (out << ... << parts);
    return out.str();
}

#define ELEMENT(...) [] { return build(__VA_ARGS__); }
#define DECODE(...) [](xmlrpc_env* env, xmlrpc_value* el) -> outcome { __VA_ARGS__; }

outcome state(int result, xmlrpc_env* env, xmlrpc_value* el)
{
    vantrel_sched_state st{};
    int rc = vantrel_sched_get_state_decode(env, build("{s:i,s:V}", "result", result, "state", el).get(), &st);
    return {rc, cat(st.s_now, result ? st.s_end : st.s_next, st.t_now)};
}

outcome overlays(int level, xmlrpc_env* env, xmlrpc_value* el)
{
    vantrel_lib_overlay** l = nullptr;
    int rc = vantrel_lib_list_overlays_level(env, build("(V)", el).get(), level, &l);
    std::string text = l && l[0] ? cat(l[0]->path, l[0]->name, l[0]->count) : "";
    vantrel_lib_overlays_free(&l);
    return {rc, text};
}

outcome modes(xmlrpc_env* env, xmlrpc_value* mode)
{
    vantrel_io_mode** m = nullptr;
    int rc = vantrel_io_settings_get_modes_decode(env, listed(mode).get(), &m);
    std::string text = rc > 0 ? cat(m[0]->name, m[0]->desc, m[0]->idx) : "";
    if (rc > 0 && m[0]->submodes_cnt > 0) text += cat("/", m[0]->submodes[0]->desc);
    if (m) vantrel_io_settings_modes_free(&m);
    return {rc, text};
}

std::vector<decoder_case> cases()
{
    return {
        {"ft target", ELEMENT("{s:s,s:s,s:s,s:s,s:s,s:s,s:s,s:s}", "id", "1", "type", "ftp", "title", "T", "host", "h", "port", "21",
                              "path", "/p", "login", "l", "passw", "pw"),
         DECODE(vantrel_ft_target t{}; int rc = vantrel_ft_target_decompose(env, el, &t);
                return {rc, cat(t.id, t.type, t.title, t.host, t.port, t.path, t.login, t.passw)}), {0, "1ftpTh21/plpw"}},
        {"ft request", ELEMENT("{s:i,s:s,s:i,s:i,s:s,s:s,s:i,s:i,s:s,s:I,s:I}", "id", 1, "target", "t", "f_delete", 1, "f_import", 0,
                               "object_local", "l", "object_remote", "r", "progress", 5, "state", 2, "error", "e", "updated",
                               xmlrpc_int64{7}, "created", xmlrpc_int64{6}),
         DECODE(vantrel_ft_request r{}; int rc = vantrel_ft_request_decompose(env, el, &r);
                return {rc, cat(r.target, r.object_local, r.object_remote, r.error, r.id, r.f_delete, r.f_import, r.progress, r.state,
                                r.updated, r.created)}), {0, "tlre1105276"}},
        {"transcode request",
         ELEMENT("{s:i,s:I,s:I,s:i,s:s,s:s,s:s,s:s,s:s,s:s,s:s,s:s,s:i,s:i,s:s,s:s,s:i,s:s,s:s}", "id", 1, "updated", xmlrpc_int64{5},
                 "created", xmlrpc_int64{4}, "f_delete", 0, "src_object", "s", "src_local", "sl", "dst_object", "d", "dst_local", "dl",
                 "in", "i", "dur", "u", "factory", "f", "profile", "p", "progress", 5, "state", 1, "error", "e", "audio_map", "0123",
                 "audio_conf", 3, "timecode", "10:00", "osd", "logo"),
         DECODE(vantrel_ftc_request r{}; int rc = vantrel_ftc_request_decompose(env, el, &r);
                return {rc, cat(r.src_object, r.src_local, r.dst_object, r.dst_local, r.in, r.dur, r.factory, r.profile, r.error,
                                r.audio_map, r.timecode, r.osd, r.audio_conf, r.id, r.updated, r.created, r.f_delete, r.progress, r.state)}),
         {0, "sslddliufpe012310:00logo3154051"}},
        {"schedule item",
         ELEMENT("{s:i,s:i,s:i,s:i,s:s,s:s,s:I,s:I,s:I,s:I,s:I,s:I,s:I,s:s,s:s,s:i,s:s,s:s}", "duration", 1, "tc", 1, "id", 2, "enabled", 1,
                 "path", "p", "title", "t", "min", xmlrpc_int64{1}, "hour", xmlrpc_int64{2}, "day", xmlrpc_int64{3}, "weekday",
                 xmlrpc_int64{4}, "month", xmlrpc_int64{5}, "year", xmlrpc_int64{6}, "calc", xmlrpc_int64{7}, "mode", "m", "enc", "e",
                 "start_time", 15, "transfer", "ftp1", "prefix", "n_"),
         DECODE(vantrel_sched_item* i = nullptr; int rc = vantrel_sched_item_decompose(env, el, &i);
                std::string text = i ? cat(i->path, i->title, i->mode, i->enc, i->transfer, i->prefix, i->min, i->hour, i->day,
                                           i->weekday, i->month, i->year, i->calc) : "";
                free(i); return {rc, text}), {0, "ptmeftp1n_1234567"}, -14, {"start_time", "transfer", "prefix"}},
        {"schedule log", ELEMENT("{s:i,s:i,s:i,s:s,s:I,s:I,s:s,s:s,s:i,s:s,s:s}", "duration", 60, "tc", 0, "status", 2, "origin", "o",
                                 "start", xmlrpc_int64{9}, "calc", xmlrpc_int64{4}, "mode", "m", "enc", "e", "start_time", 3, "transfer",
                                 "t", "prefix", "p"),
         DECODE(vantrel_sched_log* l = nullptr; int rc = vantrel_sched_log_decompose(env, el, &l);
                std::string text = l ? std::string(l->origin) + l->mode + l->enc + l->transfer + l->prefix : "";
                free(l); return {rc, text}), {0, "ometp"}},
        {"scheduler state, running",
         ELEMENT("{s:i,s:i,s:s,s:I,s:s,s:I,s:s,s:I}", "status", 4, "duration", 600, "s_now", "12:00", "t_now", xmlrpc_int64{1000},
                 "s_start", "11:55", "t_start", xmlrpc_int64{700}, "s_end", "12:05", "t_end", xmlrpc_int64{1300}),
         DECODE(return state(1, env, el)), {1, "12:0012:051000"}},
        {"scheduler state, idle",
         ELEMENT("{s:s,s:I,s:s,s:I}", "s_now", "13:00", "t_now", xmlrpc_int64{2000}, "s_next", "14:00", "t_next", xmlrpc_int64{5600}),
         DECODE(return state(0, env, el)), {0, "13:0014:002000"}},
        {"name resolution", ELEMENT("{s:i,s:s,s:s,s:I}", "result", 0, "value", "v", "object", "o", "cache_shm_id", xmlrpc_int64{7}),
         DECODE(char v[VANTREL_STR_SIZE] = "stale", o[VANTREL_STR_SIZE] = "stale"; int32_t shm = 0;
                int rc = vantrel_basename_item_decode(env, el, v, o, &shm); return {rc, cat(v, o, shm)}), {0, "vo7"}},
        {"overlay name resolution", ELEMENT("{s:i,s:s}", "result", 0, "value", "v"),
         DECODE(char v[VANTREL_STR_SIZE] = ""; int rc = vantrel_lib_basename_overlay_decode(env, el, v); return {rc, v}), {0, "v"}},
        {"overlay leaf", ELEMENT("{s:s,s:s,s:I}", "name", "a.png", "path", "g/a.png", "size", xmlrpc_int64{12}),
         DECODE(return overlays(1, env, el)), {1, "g/a.pnga.png12"}},
        {"overlay group", ELEMENT("{s:s,s:()}", "path", "g", "list"), DECODE(return overlays(0, env, el)), {1, "g0"}},
        {"subclip", ELEMENT("{s:i,s:i,s:s}", "mark_in", 1, "duration", 2, "title", "t"),
         DECODE(vantrel_lib_subclip** c = nullptr; int rc = vantrel_lib_list_subclips_decode(env, listed(el).get(), &c, 0);
                std::string text = c && c[0] ? cat(c[0]->title, c[0]->mark_in, c[0]->duration) : "";
                vantrel_lib_subclips_free(&c); return {rc, text}), {1, "t12"}},
        {"playout status",
         ELEMENT("{s:i,s:i,s:s,s:s,s:i,s:i,s:i,s:i,s:i,s:i,s:i,s:i,s:i,s:i,s:i,s:d,s:i,s:i,s:i}", "result", 0, "status", 1, "name", "clip",
                 "cookie", "c", "loop", 0, "clip_length", 1, "clip_in", 2, "clip_dur", 3, "clip_pos", 4, "clip_start", 5, "clip_idx", 6,
                 "playlist_gen", 1, "playlist_dur", 2, "playlist_pos", 3, "playlist_count", 4, "playlist_speed", 1.0, "rec_paused", 0,
                 "tc_frames", 5, "tc_src", 6),
         DECODE(vantrel_status s{}; int rc = vantrel_getstatus_decode(env, el, &s);
                return {rc, cat(s.name, s.cookie, s.clip_length, s.clip_in, s.clip_dur, s.clip_pos, s.clip_start, s.clip_idx)}),
         {0, "clipc123456"}},
        {"playlist item", ELEMENT("{s:s,s:s,s:i,s:i,s:i,s:i,s:i,s:i,s:i}", "name", "n", "cookie", "c", "length", 1, "in", 2, "dur", 3,
                                  "pos", 4, "start", 5, "idx", 6, "repeat", 7),
         DECODE(vantrel_playlist_item* items = nullptr; int g = 0, p = 0, i = 0;
                value answer = build("{s:i,s:i,s:i,s:i,s:(V)}", "result", 0, "gen", 1, "pos", 2, "idx", 3, "list", el);
                int rc = vantrel_playlist_items_decode(env, answer.get(), &g, &p, &i, &items);
                std::string text = rc > 0 ? cat(items[0].name, items[0].cookie, items[0].in, items[0].dur) : "";
                free(items); return {rc, text + cat(g, p, i)}), {1, "nc23123"}, 0},
        {"font", ELEMENT("{s:s,s:s}", "family", "Sans", "style", "Bold"),
         DECODE(char** fonts = nullptr; int rc = vantrel_lib_tmpl_fonts_decode(env, "m", listed(el).get(), &fonts);
                std::string text = fonts && fonts[0] ? fonts[0] : ""; vantrel_str_list_free(&fonts); return {rc, text}),
         {1, "Sans\tBold"}, 0},
        {"setting", ELEMENT("{s:s,s:s}", "name", "mode", "value", "HD"),
         DECODE(vantrel_io_settings s{}; int rc = vantrel_io_settings_get_decode(env, listed(el).get(), &s); return {rc, s.mode}),
         {0, "HD"}, 0},
        {"io mode", ELEMENT("{s:i,s:s,s:s,s:(),s:((s))}", "idx", 1, "desc", "d", "name", "HD", "list", "osds", "osd1"),
         modes, {1, "HDd1"}},
        {"io sub-mode", ELEMENT("{s:i,s:s,s:s}", "idx", 2, "desc", "sd", "name", "sub"),
         DECODE(return modes(env, build("{s:i,s:s,s:s,s:(V),s:()}", "idx", 1, "desc", "d", "name", "HD", "list", el, "osds").get())),
         {1, "HDd1/sd"}},
    };
}

// The struct without its member `skip`, or with `replacement` in its place.
value edited(xmlrpc_value* structure, int skip, xmlrpc_value* replacement)
{
    xmlrpc_env_guard env;
    value copy = build("{}");
    for (int i = 0; i < xmlrpc_struct_size(env.get(), structure); ++i) {
        value key, member;
        xmlrpc_struct_read_member(env.get(), structure, i, key.out(), member.out());
        if (i != skip || replacement)
            xmlrpc_struct_set_value_v(env.get(), copy.get(), key.get(), i == skip ? replacement : member.get());
    }
    return copy;
}

outcome run(const decoder_case& c, xmlrpc_value* element)
{
    xmlrpc_env_guard env;
    testing::internal::CaptureStderr();
    outcome got = c.decode(env.get(), element);
    testing::internal::GetCapturedStderr();
    return got;
}

TEST(Decoders, EveryMemberIsReadAndNoneMayBeMissingOrMistyped)
{
    for (const decoder_case& c : cases()) {
        value element = c.element();
        ASSERT_TRUE(element) << c.name;
        EXPECT_EQ(run(c, element.get()), c.complete) << c.name;
        xmlrpc_env_guard env;
        for (int i = 0; i < xmlrpc_struct_size(env.get(), element.get()); ++i) {
            value key, member;
            xmlrpc_struct_read_member(env.get(), element.get(), i, key.out(), member.out());
            std::string name = render(key.get());
            value wrong = xmlrpc_value_type(member.get()) == XMLRPC_TYPE_ARRAY ? build("i", 1) : build("(s)", "x");
            int want = c.optional.count(name.substr(1, name.size() - 2)) ? c.complete.first : c.broken;
            EXPECT_EQ(run(c, edited(element.get(), i, nullptr).get()).first, want) << c.name << " without " << name;
            EXPECT_EQ(run(c, edited(element.get(), i, wrong.get()).get()).first, want) << c.name << " mistyped " << name;
        }
    }
}

TEST(Decoders, ListingsComeInTheirPromisedOrder)
{
    xmlrpc_env_guard env;
    // (the sparse items report their missing members)
    auto named = [](const char* name) { return build("{s:s,s:s}", "name", name, "duration", "1.5"); };
    value items = build("{s:i,s:(VVV)}", "result", 0, "list", named("b").get(), named("C").get(), named("a").get());
    vantrel_lib_meta** meta = nullptr;
    ASSERT_EQ(vantrel_lib_list_items_decode(env.get(), items.get(), "media/", &meta), 3);
    EXPECT_EQ(std::string(meta[0]->path) + meta[1]->path + meta[2]->path, "media/amedia/bmedia/C");
    vantrel_lib_dir** d = nullptr;
    ASSERT_EQ(vantrel_lib_list_dirs_decode(env.get(), items.get(), "m", &d), 3);
    EXPECT_EQ(std::string(d[0]->name) + d[1]->name + d[2]->name + " " + d[0]->path, "Cba m/C");
    auto sched = [&env](int id, int calc) {
        value e = cases()[3].element();
        xmlrpc_struct_set_value(env.get(), e.get(), "id", build("i", id).get());
        xmlrpc_struct_set_value(env.get(), e.get(), "calc", build("I", xmlrpc_int64{calc}).get());
        return e;
    };
    value list = build("{s:i,s:(VVV)}", "result", 0, "list", sched(1, 300).get(), sched(2, 100).get(), sched(3, 100).get());
    vantrel_sched_item** s = nullptr;
    ASSERT_EQ(vantrel_sched_item_list_decode(env.get(), list.get(), &s), 3);
    EXPECT_EQ(cat(s[0]->id, s[1]->id, s[2]->id), "231");
    for (int i = 0; i < 3; i++) free(meta[i]), free(d[i]), free(s[i]);
    free(meta), free(d), free(s);
}

}  // namespace

TEST(Decoders, ListingWalkersSkipABadElementAndCountTheRest)
{
    xmlrpc_env_guard env;
    value names = build("{s:i,s:(sis)}", "result", 0, "list", "a.mxf", 7, "c.mxf");
    char** list = nullptr;
    EXPECT_EQ(vantrel_filetransfer_list_decode(env.get(), names.get(), &list), 2);
    ASSERT_EQ(vantrel_str_list_count(list), 2);
    EXPECT_EQ(std::string(list[0]) + list[1], "a.mxfc.mxf");
    vantrel_str_list_free(&list);
    value state = build("{s:i,s:I,s:i,s:I,s:I,s:((s)i(s))}", "result", 0, "amend_idx", xmlrpc_int64{4}, "total_items", 3,
                        "free_space", xmlrpc_int64{1}, "total_space", xmlrpc_int64{2}, "amend_list", "a", 5, "b");
    vantrel_lib_usage* usage = nullptr;
    EXPECT_EQ(vantrel_lib_state_decode(env.get(), state.get(), &usage), 2);
    ASSERT_NE(usage, nullptr);
    EXPECT_STREQ(usage->amend_list[1], "b");
    free(usage);
    // The metadata decoder never fails as a whole: a non-struct element is an empty record.
    value items = build("{s:i,s:(i)}", "result", 0, "list", 1);
    vantrel_lib_meta** meta = nullptr;
    ASSERT_EQ(vantrel_lib_list_items_decode(env.get(), items.get(), "media/", &meta), 1);
    EXPECT_STREQ(meta[0]->path, "media/");
    free(meta[0]), free(meta);
}
