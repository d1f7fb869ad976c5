// Media library client against the stand-in service, and its decoders fed
// directly with hostile answers.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "standin_server.h"
#include "vantrel_decode_lib.h"
#include "vantrel_lib.h"

using standin::free_records;
using standin::value;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

class lib_call : public standin::standin_test {};

// An items-listing element with just a name and a duration.
value item_named(const char* name)
{
    return standin::build("{s:s,s:s}", "name", name, "duration", "1.5");
}

std::size_t count_of(const std::string& text, const std::string& needle)
{
    std::size_t n = 0;
    for (std::size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1))
        ++n;
    return n;
}

// ---- listings ----

TEST_F(lib_call, items_listing_sorts_ascending_case_blind_and_joins_paths)
{
    value b = item_named("b.mxf");
    value a = item_named("A.mov");
    value list = standin::build("(VV)", b.get(), a.get());
    stub.answer(standin::with_list(0, list.get()));

    vantrel_lib_meta** items = nullptr;
    CaptureStderr();   // the sparse items report their missing members
    ASSERT_EQ(2, vantrel_lib_list_items(url(), "media/", &items));
    EXPECT_EQ("VantrelLib.LibListItems", stub.last_method());
    EXPECT_EQ("(\"media/\")", stub.last_params());
    EXPECT_STREQ("A.mov", items[0]->name);
    EXPECT_STREQ("media/A.mov", items[0]->path);
    EXPECT_STREQ("b.mxf", items[1]->name);
    EXPECT_STREQ("media/b.mxf", items[1]->path);
    free_records(&items);

    // Only the pair -1, -1 drops the two integers from the request.
    ASSERT_EQ(2, vantrel_lib_list_items2(url(), "", &items, 5, -1));
    EXPECT_EQ("(\"\",5,-1)", stub.last_params());
    EXPECT_STREQ("A.mov", items[0]->path);   // no "/" after an empty directory
    free_records(&items);
    GetCapturedStderr();
}

TEST_F(lib_call, directory_listing_sorts_descending_and_adds_the_slash)
{
    value a = standin::build("{s:s}", "name", "A");
    value b = standin::build("{s:s}", "name", "b");
    value list = standin::build("(VV)", a.get(), b.get());
    stub.answer(standin::with_list(0, list.get()));

    vantrel_lib_dir** dirs = nullptr;
    ASSERT_EQ(2, vantrel_lib_list_dirs(url(), "media", &dirs));
    EXPECT_EQ("VantrelLib.LibListDirs", stub.last_method());
    EXPECT_STREQ("b", dirs[0]->name);
    EXPECT_STREQ("media/b", dirs[0]->path);
    EXPECT_STREQ("media/A", dirs[1]->path);
    free_records(&dirs);
}

TEST_F(lib_call, listings_of_nothing_and_refusals)
{
    stub.answer(standin::with_list(0, standin::empty_array().get()));
    vantrel_lib_dir** dirs = nullptr;
    ASSERT_EQ(0, vantrel_lib_list_dirs(url(), "x", &dirs));
    ASSERT_NE(nullptr, dirs);   // an empty array, not "no answer"
    free(dirs);

    stub.answer(standin::result_only(-2));
    CaptureStderr();
    vantrel_lib_meta** items = nullptr;
    EXPECT_EQ(-2, vantrel_lib_list_items(url(), "x", &items));
    EXPECT_EQ("vantrel_lib_list_items2: VantrelLib.LibListItems return -2 (" +
                  std::string(strerror(ENOENT)) + ")",
              GetCapturedStderr());
    EXPECT_EQ(nullptr, items);
}

TEST_F(lib_call, one_bad_element_discards_every_listing)
{
    CaptureStderr();
    {
        value a = standin::build("{s:s}", "name", "a");
        value list = standin::build("(V)", a.get());
        stub.answer(standin::with_list(0, standin::with_bad_element(list.get()).get()));
        vantrel_lib_dir** dirs = nullptr;
        EXPECT_EQ(-14, vantrel_lib_list_dirs(url(), "d", &dirs));
        EXPECT_EQ(nullptr, dirs);
        vantrel_lib_meta** items = nullptr;   // the metadata decoder never fails as a whole
        ASSERT_EQ(2, vantrel_lib_list_items(url(), "d", &items));
        EXPECT_STREQ("d/", items[0]->path);
        free(items[0]), free(items[1]), free(items);
    }
    {
        value clip = standin::build("{s:i,s:i,s:s}", "mark_in", 1, "duration", 2, "title", "t");
        value list = standin::build("(V)", clip.get());
        stub.answer(standin::with_list(0, standin::with_bad_element(list.get()).get()));
        vantrel_lib_subclip** clips = nullptr;
        EXPECT_EQ(-14, vantrel_lib_list_subclips(url(), "p", &clips, 0));
        EXPECT_EQ(nullptr, clips);
    }
    std::string err = GetCapturedStderr();
    EXPECT_NE(std::string::npos, err.find("vantrel_lib_list_dirs: xmlrpc_decompose_value failed: "));
    EXPECT_NE(std::string::npos, err.find("vantrel_lib_meta_item_decompose:"));
    EXPECT_NE(std::string::npos, err.find("vantrel_lib_list_subclips: xmlrpc_decompose_value failed: "));
    EXPECT_NE(std::string::npos, err.find("vantrel_lib_list_subclips: xmlrpc_array_size failed: "));
}

// ---- metadata ----

value full_meta(const char* duration_v)
{
    value meta = standin::build(
        "{s:s,s:I,s:I,s:I,s:I,s:I,s:s,s:s,s:s,s:s,s:s,s:s,s:s,s:s,s:s,s:s,s:s,s:s,s:s,s:i}",
        "name", "clip.mov", "st_ino", xmlrpc_int64{1} << 40, "st_size", xmlrpc_int64{123456789012},
        "st_mtime", xmlrpc_int64{1700000000}, "st_ctime", xmlrpc_int64{1700000001}, "st_atime",
        xmlrpc_int64{1700000002}, "format_name", "mov,mp4", "duration", "12.5", "duration_a",
        "12.4", "nb_frames", "375", "nb_streams", "2", "width", "1920", "height", "1080",
        "display_aspect_ratio", "16:9", "sample_aspect_ratio", "1:1", "r_frame_rate", "30000/1001",
        "sample_fmt", "fltp", "sample_rate", "48000", "channels", "2", "subclips", 3);
    if (duration_v) {
        value text = standin::build("s", duration_v);
        xmlrpc_env_guard env;
        xmlrpc_struct_set_value(env.get(), meta.get(), "duration_v", text.get());
    }
    return meta;
}

TEST_F(lib_call, meta_item_converts_texts_and_defaults_what_is_missing)
{
    stub.answer(standin::with_member(0, "item", full_meta(nullptr).get()));
    vantrel_lib_meta* m = nullptr;
    CaptureStderr();
    ASSERT_EQ(0, vantrel_lib_meta_item(url(), "media/clip.mov", &m));
    std::string err = GetCapturedStderr();
    EXPECT_EQ("(\"media/clip.mov\")", stub.last_params());
    // duration_v and timecode are missing: one report each, nothing else.
    EXPECT_EQ(2u, count_of(err, "vantrel_lib_meta_item_decompose:")) << err;
    EXPECT_STREQ("clip.mov", m->name);
    EXPECT_STREQ("media/clip.mov", m->path);
    EXPECT_EQ(xmlrpc_int64{1} << 40, m->st_ino);
    EXPECT_EQ(123456789012, m->st_size);
    EXPECT_EQ(1700000002, m->st_atime);
    EXPECT_STREQ("mov,mp4", m->format_name);
    EXPECT_DOUBLE_EQ(12.5, m->duration);
    EXPECT_DOUBLE_EQ(0.0, m->duration_v);
    EXPECT_DOUBLE_EQ(12.5, m->duration_eff);
    EXPECT_DOUBLE_EQ(12.4, m->duration_a);
    EXPECT_EQ(375, m->nb_frames);
    EXPECT_EQ(1080, m->height);
    EXPECT_EQ(16, m->dar_num);
    EXPECT_EQ(9, m->dar_den);
    EXPECT_EQ(30000, m->fps_num);
    EXPECT_EQ(1001, m->fps_den);
    EXPECT_STREQ("fltp", m->sample_fmt);
    EXPECT_EQ(48000, m->sample_rate);
    EXPECT_STREQ("00:00:00:00", m->timecode);
    EXPECT_EQ(3, m->subclips);
    free(m);
}

TEST(lib_meta, duration_eff_prefers_a_non_zero_video_duration)
{
    struct case_ {
        const char* duration_v;
        double expected;
    };
    for (const case_& c : {case_{"0", 12.5}, case_{"0.0", 12.5}, case_{"11.25", 11.25}}) {
        value meta = full_meta(c.duration_v);
        xmlrpc_env_guard env;
        vantrel_lib_meta* m = nullptr;
        CaptureStderr();
        ASSERT_EQ(0, vantrel_lib_meta_item_decompose(env.get(), meta.get(), &m));
        GetCapturedStderr();
        EXPECT_DOUBLE_EQ(c.expected, m->duration_eff) << c.duration_v;
        free(m);
    }
}

TEST(lib_meta, mistyped_and_short_texts_leave_fields_zero)
{
    // Every member of the wrong type, a ratio with no denominator, a timecode
    // longer than its field.
    value meta = standin::build("{s:i,s:s,s:s,s:s,s:s}", "name", 7, "st_ino", "1",
                                "display_aspect_ratio", "4", "r_frame_rate", "x/2", "timecode",
                                "01:02:03:04-and-a-very-long-tail-beyond-32");
    xmlrpc_env_guard env;
    vantrel_lib_meta* m = nullptr;
    CaptureStderr();
    ASSERT_EQ(0, vantrel_lib_meta_item_decompose(env.get(), meta.get(), &m));
    GetCapturedStderr();
    EXPECT_FALSE(env.failed());
    EXPECT_STREQ("", m->name);
    EXPECT_EQ(0, m->st_ino);
    EXPECT_EQ(4, m->dar_num);
    EXPECT_EQ(0, m->dar_den);
    EXPECT_EQ(0, m->fps_num);
    EXPECT_EQ(31u, strlen(m->timecode));
    free(m);
}

TEST_F(lib_call, meta_item_passes_non_zero_results_and_reports_its_own_lines)
{
    stub.answer(standin::result_only(-2));
    vantrel_lib_meta* m = reinterpret_cast<vantrel_lib_meta*>(this);
    EXPECT_EQ(-2, vantrel_lib_meta_item(url(), "p", &m));
    EXPECT_EQ(nullptr, m);

    stub.answer(standin::result_only(0));   // no "item"
    CaptureStderr();
    EXPECT_EQ(-14, vantrel_lib_meta_item(url(), "p", &m));
    EXPECT_EQ(0u, GetCapturedStderr().find("vantrel_lib_meta_item: decompose value failed: "));

    stub.answer_fault(-9, "gone");
    CaptureStderr();
    EXPECT_EQ(-14, vantrel_lib_meta_item(url(), "media/x", &m));
    std::string err = GetCapturedStderr();
    EXPECT_EQ(0u, err.find("vantrel_lib_meta_item: xmlrpc_client_callX(" + std::string(url()) +
                           ",media/x) failed: "))
        << err;
    EXPECT_EQ(nullptr, m);
}

// ---- searches, names, simple calls ----

TEST_F(lib_call, search_reports_only_unexpected_refusals)
{
    char item[VANTREL_STR_SIZE] = "stale";
    stub.answer(standin::result_only(-2));
    CaptureStderr();
    EXPECT_EQ(-2, vantrel_lib_search_item(url(), 1, nullptr, "n", item));
    EXPECT_EQ("", GetCapturedStderr());
    EXPECT_STREQ("", item);
    EXPECT_EQ("(1,\"\",\"n\")", stub.last_params());

    stub.answer(standin::result_only(-5));
    CaptureStderr();
    EXPECT_EQ(-5, vantrel_lib_search_item_dur_range(url(), 2, "f", item, 1.5, 9.0));
    EXPECT_EQ("vantrel_lib_search_item_dur_range: VantrelLib.LibSearchItemDurRange return -5\n",
              GetCapturedStderr());
    EXPECT_EQ("(2,\"f\",1.5,9.0)", stub.last_params());

    value found = standin::build("{s:i,s:s}", "result", 1, "item", "media/a.mov");
    stub.answer(std::move(found));
    EXPECT_EQ(1, vantrel_lib_search_item(url(), 0, "", "a", item));
    EXPECT_STREQ("media/a.mov", item);
}

TEST_F(lib_call, basename_sends_the_option_only_when_given_and_keeps_the_id_in_32_bits)
{
    value answer = standin::build("{s:i,s:s,s:s,s:I}", "result", 0, "value", "v", "object", "o",
                                  "cache_shm_id", xmlrpc_int64{0x100000007});
    stub.answer(std::move(answer));
    char v[VANTREL_STR_SIZE], o[VANTREL_STR_SIZE];
    int32_t shm = 0;
    EXPECT_EQ(0, vantrel_lib_basename_item(url(), "p", "", v, o, &shm));
    EXPECT_EQ("(\"p\")", stub.last_params());
    EXPECT_STREQ("v", v);
    EXPECT_STREQ("o", o);
    EXPECT_EQ(7, shm);
    EXPECT_EQ(0, vantrel_lib_basename_item(url(), "p", "opt", v, o, nullptr));
    EXPECT_EQ("(\"p\",\"opt\")", stub.last_params());
    EXPECT_EQ(0, vantrel_io_basename_item(url(), "q", v, o, &shm));
    EXPECT_EQ("VantrelIO.LibBasenameItem", stub.last_method());

    stub.answer(standin::result_only(0));   // no value, object or id
    CaptureStderr();
    EXPECT_EQ(-14, vantrel_io_basename_item(url(), "q", v, o, &shm));
    EXPECT_EQ(0u, GetCapturedStderr().find("vantrel_lib_basename_item: decompose value failed: "));
    EXPECT_STREQ("", v);
    EXPECT_STREQ("", o);
    EXPECT_EQ(-1, shm);
}

TEST_F(lib_call, simple_calls_send_their_tuples)
{
    stub.answer(standin::result_only(0));
    EXPECT_EQ(0, vantrel_lib_register_item(url(), "a"));
    EXPECT_EQ("VantrelLib.LibRegisterItem", stub.last_method());
    EXPECT_EQ(0, vantrel_lib_rename_item(url(), "a", "b"));
    EXPECT_EQ("(\"a\",\"b\")", stub.last_params());
    EXPECT_EQ(0, vantrel_lib_register_subclip(url(), "a", 10, 20, "t"));
    EXPECT_EQ("VantrelLib.LibRegisterSubclip", stub.last_method());
    EXPECT_EQ("(\"a\",10,20,\"t\")", stub.last_params());
    EXPECT_EQ(0, vantrel_lib_delete_subclip(url(), "a", 4));
    EXPECT_EQ("(\"a\",4)", stub.last_params());

    // Both delete calls report under the item's name, the directory one too.
    stub.answer(standin::missing_result());
    CaptureStderr();
    EXPECT_EQ(-14, vantrel_lib_delete_dir(url(), "d/e"));
    std::string err = GetCapturedStderr();
    EXPECT_EQ("VantrelLib.LibDeleteDir", stub.last_method());
    EXPECT_EQ(0u, err.find("vantrel_lib_delete_item: decompose value failed: ")) << err;

    stub.answer_fault(-3, "no");
    CaptureStderr();
    EXPECT_EQ(-14, vantrel_lib_delete_dir(url(), "d/e"));
    err = GetCapturedStderr();
    EXPECT_EQ(0u, err.find("vantrel_lib_delete_item: xmlrpc_client_callX(" + std::string(url()) +
                           ",d/e) failed: "))
        << err;
    EXPECT_NE('\n', err.back());
}

TEST_F(lib_call, cue_registration_reads_only_the_outputs_asked_for)
{
    stub.answer(standin::build("{s:i,s:I}", "result", 0, "cue_cnt", xmlrpc_int64{5}));
    int64_t cnt = 0;
    EXPECT_EQ(0, vantrel_lib_register_cue(url(), "p", 3, &cnt, nullptr));
    EXPECT_EQ(5, cnt);
    EXPECT_EQ("(\"p\",3)", stub.last_params());
    int64_t date = 0;
    CaptureStderr();
    EXPECT_EQ(-14, vantrel_lib_register_cue(url(), "p", 3, &cnt, &date));
    EXPECT_EQ(0u, GetCapturedStderr().find("vantrel_lib_register_cue: decompose 'cue_date' failed: "));
}

// ---- subclips, thumbnails, overlays, usage ----

TEST_F(lib_call, subclips_carry_position_and_tag_and_free_resets_the_pointer)
{
    value a = standin::build("{s:i,s:i,s:s}", "mark_in", 100, "duration", 50, "title", "intro");
    value b = standin::build("{s:i,s:i,s:s}", "mark_in", 300, "duration", 25, "title", "outro");
    stub.answer(standin::with_list(0, standin::build("(VV)", a.get(), b.get()).get()));
    vantrel_lib_subclip** clips = nullptr;
    ASSERT_EQ(2, vantrel_lib_list_subclips(url(), "m.mov", &clips, 0xfeedbeefcafeULL));
    EXPECT_EQ(1, clips[1]->idx);
    EXPECT_EQ(300, clips[1]->mark_in);
    EXPECT_STREQ("outro", clips[1]->title);
    EXPECT_EQ(0xfeedbeefcafeULL, clips[0]->user);
    EXPECT_EQ(nullptr, clips[2]);
    EXPECT_EQ(0, vantrel_lib_subclips_free(&clips));
    EXPECT_EQ(nullptr, clips);
    EXPECT_EQ(0, vantrel_lib_subclips_free(&clips));
    EXPECT_EQ(-22, vantrel_lib_subclips_free(nullptr));
}

TEST_F(lib_call, thumbnails_hand_over_the_bytes_unchanged)
{
    const unsigned char png[] = {0x89, 'P', 'N', 'G', 0, 0xff};
    stub.answer(standin::build("{s:i,s:6}", "result", 0, "thumb", png, sizeof png));
    unsigned char* data = nullptr;
    uint32_t size = 0;
    ASSERT_EQ(0, vantrel_lib_thumb_item(url(), "m.mov", "small", 160, 90, &data, &size));
    EXPECT_EQ("(\"m.mov\",\"small\",160,90)", stub.last_params());
    ASSERT_EQ(sizeof png, size);
    EXPECT_EQ(0, memcmp(png, data, size));
    free(data);

    // The overlay picture is under another member name.
    CaptureStderr();
    EXPECT_EQ(-14, vantrel_lib_thumb_overlay(url(), "o", &data, &size));
    std::string err = GetCapturedStderr();
    EXPECT_EQ(0u, err.find("vantrel_lib_thumb_overlay: xmlrpc_client_callX(" + std::string(url()) +
                           ", VantrelLib.LibThumbOverlay) failed: "))
        << err;
    EXPECT_EQ(nullptr, data);
    EXPECT_EQ(0u, size);
}

value overlay_group(const char* path, std::initializer_list<const char*> leaves)
{
    value list = standin::empty_array();
    xmlrpc_int64 size = 1000;
    for (const char* leaf : leaves) {
        std::string leaf_path = std::string(path) + "/" + leaf;
        value entry = standin::build("{s:s,s:s,s:I}", "name", leaf, "path", leaf_path.c_str(),
                                     "size", size++);
        standin::push(list.get(), entry.get());
    }
    return standin::build("{s:s,s:V}", "path", path, "list", list.get());
}

TEST_F(lib_call, overlays_form_a_two_level_tree)
{
    value g1 = overlay_group("logos", {"a.png", "b.png"});
    value g2 = overlay_group("empty", {});
    stub.answer(standin::with_list(0, standin::build("(VV)", g1.get(), g2.get()).get()));
    vantrel_lib_overlay** groups = nullptr;
    ASSERT_EQ(2, vantrel_lib_list_overlays(url(), &groups));
    EXPECT_EQ("()", stub.last_params());
    EXPECT_STREQ("logos", groups[0]->path);
    EXPECT_STREQ("", groups[0]->name);
    EXPECT_EQ(2, groups[0]->count);
    vantrel_lib_overlay* leaf = groups[0]->children[1];
    EXPECT_STREQ("b.png", leaf->name);
    EXPECT_STREQ("logos/b.png", leaf->path);
    EXPECT_EQ(1001, leaf->count);
    EXPECT_EQ(nullptr, leaf->children);
    EXPECT_EQ(nullptr, groups[0]->children[2]);
    EXPECT_EQ(0, groups[1]->count);
    EXPECT_EQ(nullptr, groups[2]);
    EXPECT_EQ(0, vantrel_lib_overlays_free(&groups));
    EXPECT_EQ(nullptr, groups);
    EXPECT_EQ(-22, vantrel_lib_overlays_free(nullptr));
}

TEST(lib_overlays, a_bad_leaf_or_group_discards_the_whole_tree)
{
    value good = overlay_group("g", {"x"});
    value bad_leaf_list = standin::with_bad_element(standin::string_array({}).get());
    value bad_group = standin::build("{s:s,s:V}", "path", "h", "list", bad_leaf_list.get());
    value with_bad_leaf = standin::with_list(0, standin::build("(VV)", good.get(), bad_group.get()).get());
    value with_bad_group = standin::with_list(
        0, standin::with_bad_element(standin::build("(V)", good.get()).get()).get());
    for (xmlrpc_value* answer : {with_bad_leaf.get(), with_bad_group.get()}) {
        xmlrpc_env_guard env;
        vantrel_lib_overlay** groups = nullptr;
        CaptureStderr();
        EXPECT_EQ(-14, vantrel_lib_list_overlays_decode(env.get(), answer, &groups));
        std::string err = GetCapturedStderr();
        EXPECT_EQ(nullptr, groups);
        EXPECT_NE(std::string::npos, err.find("vantrel_lib_list_overlays_level: xmlrpc_decompose_value failed: "));
        EXPECT_NE(std::string::npos, err.find("vantrel_lib_list_overlays: xmlrpc_array_size failed: "));
    }
}

TEST_F(lib_call, state_collects_amendments_into_one_block)
{
    value amends = standin::string_rows({"a.mov", "b.mov", "c.mov"});
    stub.answer(standin::build("{s:i,s:I,s:i,s:I,s:I,s:V}", "result", 0, "amend_idx",
                               xmlrpc_int64{77}, "total_items", 12, "free_space",
                               xmlrpc_int64{1} << 41, "total_space", xmlrpc_int64{1} << 42,
                               "amend_list", amends.get()));
    vantrel_lib_usage* usage = nullptr;
    ASSERT_EQ(3, vantrel_lib_state(url(), 70, &usage));
    EXPECT_EQ("(70)", stub.last_params());
    EXPECT_EQ(77, usage->amend_idx);
    EXPECT_EQ(12, usage->total_items);
    EXPECT_EQ(xmlrpc_int64{1} << 41, usage->free_space);
    EXPECT_EQ(3, usage->amend_cnt);
    EXPECT_STREQ("c.mov", usage->amend_list[2]);
    free(usage);
}

TEST(lib_state, empty_list_gives_a_bare_record_and_a_bad_entry_gives_none)
{
    auto answer_with = [](xmlrpc_value* amends) {
        return standin::build("{s:i,s:I,s:i,s:I,s:I,s:V}", "result", 0, "amend_idx",
                              xmlrpc_int64{1}, "total_items", 2, "free_space", xmlrpc_int64{3},
                              "total_space", xmlrpc_int64{4}, "amend_list", amends);
    };
    {
        value answer = answer_with(standin::empty_array().get());
        xmlrpc_env_guard env;
        vantrel_lib_usage* usage = nullptr;
        ASSERT_EQ(0, vantrel_lib_state_decode(env.get(), answer.get(), &usage));
        EXPECT_EQ(4, usage->total_space);
        EXPECT_EQ(0, usage->amend_cnt);
        free(usage);
    }
    {
        value rows = standin::string_rows({"a", "b"});
        value answer = answer_with(standin::with_bad_element(rows.get()).get());
        xmlrpc_env_guard env;
        vantrel_lib_usage* usage = nullptr;
        CaptureStderr();
        EXPECT_EQ(2, vantrel_lib_state_decode(env.get(), answer.get(), &usage));
        GetCapturedStderr();
        ASSERT_NE(nullptr, usage);
        EXPECT_STREQ("b", usage->amend_list[1]);
        free(usage);
    }
}

TEST_F(lib_call, disk_usage_fills_a_fresh_record)
{
    stub.answer(standin::build("{s:i,s:i,s:I,s:I,s:I}", "result", 1, "total_items", 9,
                               "free_space", xmlrpc_int64{10}, "total_space", xmlrpc_int64{30},
                               "used_space", xmlrpc_int64{20}));
    vantrel_lib_usage* usage = nullptr;
    ASSERT_EQ(1, vantrel_lib_disk_usage(url(), &usage));
    EXPECT_EQ(9, usage->total_items);
    EXPECT_EQ(20, usage->used_space);
    EXPECT_EQ(0, usage->amend_cnt);
    free(usage);
}

// ---- audio layouts ----

TEST(audio_layouts, names_and_formats_cover_eight_layouts_only)
{
    EXPECT_EQ(8, vantrel_audio_layouts_count());
    EXPECT_STREQ("Mono (1)", vantrel_audio_layout_name(0));
    EXPECT_STREQ("Octa (8)", vantrel_audio_layout_name(7));
    EXPECT_STREQ("<unknown>", vantrel_audio_layout_name(8));
    EXPECT_STREQ("<unknown>", vantrel_audio_layout_name(-1));
    EXPECT_STREQ("<unknown>", vantrel_audio_layout_format(8));
}

TEST(audio_layouts, map_digits_are_base_36_and_anything_else_is_zero)
{
    EXPECT_EQ(9, vantrel_audio_map_digit(0, "9"));
    EXPECT_EQ(10, vantrel_audio_map_digit(1, "0A"));
    EXPECT_EQ(35, vantrel_audio_map_digit(0, "Z"));
    EXPECT_EQ(0, vantrel_audio_map_digit(0, "a"));
    EXPECT_EQ(0, vantrel_audio_map_digit(2, "01"));
    EXPECT_EQ(0, vantrel_audio_map_digit(-1, "01"));
    EXPECT_EQ(0, vantrel_audio_map_digit(0, nullptr));
}

TEST(audio_layouts, map_format_shows_channels_from_one)
{
    char buf[64];
    EXPECT_STREQ("[8,7,6,5,4,3,2,1]", vantrel_audio_map_format(buf, sizeof buf, 7, "76543210"));
    EXPECT_STREQ("[1,2][3,4]", vantrel_audio_map_format(buf, sizeof buf, 3, "0123"));
    // Missing positions read as channel 0, shown as 1.
    EXPECT_STREQ("[3][1][1][1]", vantrel_audio_map_format(buf, sizeof buf, 4, "2"));
    EXPECT_STREQ("<unknown>", vantrel_audio_map_format(buf, sizeof buf, 9, "01"));
    EXPECT_STREQ("[1,", vantrel_audio_map_format(buf, 4, 1, "0"));
}

}  // namespace
