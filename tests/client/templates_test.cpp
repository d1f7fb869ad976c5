// Template and IO settings clients against the stand-in.
#include <cerrno>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "standin_server.h"
#include "vantrel.h"
#include "vantrel_decode.h"

using standin::value;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

class templates : public standin::standin_test {
protected:
    void SetUp() override
    {
        standin::standin_test::SetUp();
        stub.answer(standin::result_only(4));
    }
    void expect_last(const char* method, const char* params)
    {
        EXPECT_EQ(method, stub.last_method());
        EXPECT_EQ(params, stub.last_params()) << method;
    }
};

TEST_F(templates, simple_calls_send_their_tuples)
{
    EXPECT_EQ(4, vantrel_lib_tmpl_add(url(), "t"));
    expect_last("VantrelLib.LibTemplateAdd", R"(("t"))");
    EXPECT_EQ(4, vantrel_lib_tmpl_del(url(), "t"));
    expect_last("VantrelLib.LibTemplateDel", R"(("t"))");
    EXPECT_EQ(4, vantrel_lib_tmpl_rename(url(), "a", "b"));
    expect_last("VantrelLib.LibTemplateRename", R"(("a","b"))");
    EXPECT_EQ(4, vantrel_lib_tmpl_replace(url(), "a", "b"));
    expect_last("VantrelLib.LibTemplateReplace", R"(("a","b"))");
    EXPECT_EQ(4, vantrel_lib_tmpl_clone(url(), "a", "b"));
    expect_last("VantrelLib.LibTemplateClone", R"(("a","b"))");
    EXPECT_EQ(4, vantrel_io_settings_save(url()));
    expect_last("VantrelIO.SettingsSave", "()");
    EXPECT_EQ(4, vantrel_io_settings_set_mode(url(), 2, 3));
    expect_last("VantrelIO.SettingsSetMode", "(2,3)");
    EXPECT_EQ(4, vantrel_io_settings_set_mode2(url(), "hd", "50i"));
    expect_last("VantrelIO.SettingsSetMode", R"(("hd","50i"))");
    EXPECT_EQ(4, vantrel_io_settings_set_value(url(), "keyer", "1"));
    expect_last("VantrelIO.SettingsSetValue", R"(("keyer","1"))");
}

TEST_F(templates, name_lists_come_back_as_string_lists)
{
    value rows = standin::string_rows({"lower-third", "clock"});
    stub.answer(standin::with_list(0, rows.get()));
    char** names = nullptr;
    ASSERT_EQ(2, vantrel_lib_list_templates(url(), &names));
    expect_last("VantrelLib.LibListTemplates", "()");
    EXPECT_STREQ("clock", names[1]);
    EXPECT_EQ(nullptr, names[2]);
    vantrel_str_list_free(&names);

    ASSERT_EQ(2, vantrel_lib_list_template_vars(url(), "clock", &names));
    expect_last("VantrelLib.LibListTemplateVars", R"(("clock"))");
    vantrel_str_list_free(&names);

    stub.answer(standin::result_only(-2));
    CaptureStderr();
    EXPECT_EQ(-2, vantrel_lib_list_templates(url(), &names));
    EXPECT_EQ("vantrel_lib_list_templates/parse_simple_list_response: return -2 (" +
                  std::string(strerror(ENOENT)) + ")",
              GetCapturedStderr());
    EXPECT_EQ(nullptr, names);

    stub.answer_fault(-1, "down");
    CaptureStderr();
    EXPECT_EQ(-14, vantrel_lib_list_templates(url(), &names));
    EXPECT_EQ(0u, GetCapturedStderr().find(
                      "vantrel_lib_list_templates/parse_simple_list_response: xmlrpc_client_callX() failed: "));
}

TEST_F(templates, layers_keep_their_bytes_and_extend_the_callers_list)
{
    value one = standin::build("(6)", "<a/>", static_cast<size_t>(4));
    value two = standin::build("(6)", "x\0y", static_cast<size_t>(3));
    value list = standin::build("(VV)", one.get(), two.get());
    stub.answer(standin::with_list(0, list.get()));
    char** layers = nullptr;
    vantrel_str_list_append(&layers, strdup("kept"));
    EXPECT_EQ(2, vantrel_lib_tmpl_get(url(), "t", &layers));
    expect_last("VantrelLib.LibTemplateGet", R"(("t"))");
    ASSERT_EQ(3, vantrel_str_list_count(layers));
    EXPECT_STREQ("kept", layers[0]);
    EXPECT_STREQ("<a/>", layers[1]);
    EXPECT_EQ(0, memcmp("x\0y", layers[2], 4));   // bytes and the added NUL
    vantrel_str_list_free(&layers);

    stub.answer(standin::missing_result());
    CaptureStderr();
    EXPECT_EQ(-14, vantrel_lib_tmpl_get(url(), "t", &layers));
    GetCapturedStderr();
    ASSERT_NE(nullptr, layers);   // started even when the call fails
    vantrel_str_list_free(&layers);
}

TEST_F(templates, layers_are_written_as_one_byte_string_each)
{
    const char* layers[] = {"a", "bc", nullptr};
    EXPECT_EQ(4, vantrel_lib_tmpl_set(url(), "t", layers));
    expect_last("VantrelLib.LibTemplateSet", R"(("t",[[b"a"],[b"bc"]]))");
    const char* none[] = {nullptr};
    EXPECT_EQ(4, vantrel_lib_tmpl_set(url(), "t", none));
    expect_last("VantrelLib.LibTemplateSet", R"(("t",[]))");
}

TEST_F(templates, fonts_read_family_tab_style_and_skip_bad_entries)
{
    value sans = standin::build("{s:s,s:s}", "family", "Sans", "style", "Bold");
    value bad = standin::build("{s:s}", "family", "Serif");
    value list = standin::build("(VV)", sans.get(), bad.get());
    stub.answer(standin::with_list(0, list.get()));
    char** fonts = nullptr;
    CaptureStderr();
    EXPECT_EQ(1, vantrel_lib_tmpl_fonts(url(), &fonts));
    EXPECT_NE(std::string::npos,
              GetCapturedStderr().find("vantrel_lib_tmpl_fonts_x/parse_custom_list: xmlrpc_array_read_item failed"));
    expect_last("VantrelLib.LibTemplateFonts", "()");
    ASSERT_EQ(1, vantrel_str_list_count(fonts));
    EXPECT_STREQ("Sans\tBold", fonts[0]);
    EXPECT_EQ(9u, strlen(fonts[0]));
    vantrel_str_list_free(&fonts);

    CaptureStderr();
    EXPECT_EQ(1, vantrel_lib_tmpl_fonts2(url(), &fonts));
    GetCapturedStderr();
    expect_last("VantrelLib.LibTemplateFonts2", "()");
    vantrel_str_list_free(&fonts);
}

TEST_F(templates, build_sends_last_string_second_and_copies_value)
{
    stub.answer(standin::build("{s:i,s:s}", "result", 1, "value", "<built/>"));
    const char* names[] = {"a", nullptr};
    const char* values[] = {"1", nullptr};
    const char* list[] = {"x", nullptr};
    char out[VANTREL_STR_SIZE] = "old";
    EXPECT_EQ(1, vantrel_lib_build_template(url(), out, "t", 5, 6, -1, list, -1, names, values, nullptr));
    expect_last("VantrelLib.LibTemplateBuild", R"(("t","",5,6,["x"],{"a":"1"}))");
    EXPECT_STREQ("<built/>", out);
}

TEST_F(templates, build_reports_in_its_own_words)
{
    char out[VANTREL_STR_SIZE];
    stub.answer(standin::result_only(-2));
    CaptureStderr();
    EXPECT_EQ(-2, vantrel_lib_build_template(url(), out, "t", 0, 0, 0, nullptr, 0, nullptr, nullptr, "l"));
    std::string err = GetCapturedStderr();
    EXPECT_EQ(0u, err.find("vantrel_lib_build_template:")) << err;
    EXPECT_NE(std::string::npos,
              err.find(": VantrelLib.LibTemplateBuild return -2 (" + std::string(strerror(ENOENT)) + ")\n"));

    stub.answer(standin::result_only(0));   // no "value"
    CaptureStderr();
    EXPECT_EQ(-14, vantrel_lib_build_template(url(), out, "t", 0, 0, 0, nullptr, 0, nullptr, nullptr, nullptr));
    EXPECT_NE(std::string::npos, GetCapturedStderr().find(": xmlrpc_decompose_value failed: "));

    stub.answer_fault(-3, "gone");
    CaptureStderr();
    EXPECT_EQ(-14, vantrel_lib_build_template(url(), out, "t", 0, 0, 0, nullptr, 0, nullptr, nullptr, nullptr));
    err = GetCapturedStderr();
    EXPECT_NE(std::string::npos,
              err.find(": xmlrpc_client_call(" + std::string(url()) + ", VantrelLib.LibTemplateBuild) failed: "))
        << err;
    EXPECT_EQ('\n', err.back());
}

value setting(const char* name, const char* text)
{
    return standin::build("{s:s,s:s}", "name", name, "value", text);
}

class io_settings : public standin::standin_test {};

TEST_F(io_settings, only_fully_matching_names_fill_fields)
{
    value a = setting("keyer", "2"), b = setting("record_channels_conf", "3"),
          c = setting("playback_osd_x", "no"), d = setting("VantrelIO", "dev0"),
          e = setting("mode", "1080i50");
    value list = standin::build("(VVVVV)", a.get(), b.get(), c.get(), d.get(), e.get());
    stub.answer(standin::with_list(0, list.get()));
    vantrel_io_settings s{};
    strcpy(s.playback_osd, "mine");
    strcpy(s.enc, "untouched");
    EXPECT_EQ(0, vantrel_io_settings_get(url(), &s));
    EXPECT_EQ("VantrelIO.SettingsGet", stub.last_method());
    EXPECT_EQ(2, s.keyer);
    EXPECT_EQ(3, s.record_channels_conf);
    EXPECT_STREQ("mine", s.playback_osd);
    EXPECT_STREQ("untouched", s.enc);
    EXPECT_STREQ("dev0", s.io);
    EXPECT_STREQ("1080i50", s.mode);
}

TEST_F(io_settings, malformed_pair_stops_the_walk_with_the_servers_result)
{
    value a = setting("enc", "h264"), bad = standin::build("{s:s}", "name", "mode"),
          c = setting("keyer", "9");
    value list = standin::build("(VVV)", a.get(), bad.get(), c.get());
    stub.answer(standin::with_list(5, list.get()));
    vantrel_io_settings s{};
    CaptureStderr();
    EXPECT_EQ(5, vantrel_io_settings_get(url(), &s));
    EXPECT_EQ(0u, GetCapturedStderr().find("vantrel_io_settings_get: xmlrpc_decompose_value failed: "));
    EXPECT_STREQ("h264", s.enc);
    EXPECT_EQ(0, s.keyer);
}

TEST_F(io_settings, negative_result_and_missing_list)
{
    vantrel_io_settings s{};
    stub.answer(standin::result_only(-2));
    CaptureStderr();
    EXPECT_EQ(-2, vantrel_io_settings_get(url(), &s));
    EXPECT_EQ("vantrel_io_settings_get: VantrelIO.SettingsGet return -2 (" +
                  std::string(strerror(ENOENT)) + ")",
              GetCapturedStderr());
    stub.answer(standin::result_only(0));
    CaptureStderr();
    EXPECT_EQ(-14, vantrel_io_settings_get(url(), &s));
    EXPECT_EQ(0u, GetCapturedStderr().find("vantrel_io_settings_get: decompose value failed: "));
}

value mode(int idx, const char* name, xmlrpc_value* subs, xmlrpc_value* osds)
{
    return standin::build("{s:i,s:s,s:s,s:V,s:V}", "idx", idx, "name", name, "desc", "d", "list",
                          subs, "osds", osds);
}

TEST_F(io_settings, modes_with_submodes_and_osds_then_freed)
{
    value sub1 = standin::build("{s:i,s:s,s:s}", "idx", 0, "name", "50i", "desc", "interlaced");
    value sub2 = standin::build("{s:i,s:s,s:s}", "idx", 1, "name", "25p", "desc", "progressive");
    value subs = standin::build("(VV)", sub1.get(), sub2.get());
    value osds = standin::string_rows({"none", "tc"});
    value none = standin::empty_array();
    value m1 = mode(4, "HD", subs.get(), osds.get());
    value m2 = mode(5, "SD", none.get(), none.get());
    value list = standin::build("(VV)", m1.get(), m2.get());
    stub.answer(standin::with_list(0, list.get()));

    vantrel_io_mode** modes = nullptr;
    ASSERT_EQ(2, vantrel_io_settings_get_modes(url(), &modes));
    EXPECT_EQ("VantrelIO.SettingsGetModes", stub.last_method());
    ASSERT_NE(nullptr, modes);
    EXPECT_EQ(nullptr, modes[2]);
    EXPECT_EQ(4, modes[0]->idx);
    EXPECT_STREQ("HD", modes[0]->name);
    ASSERT_EQ(2, modes[0]->submodes_cnt);
    EXPECT_STREQ("25p", modes[0]->submodes[1]->name);
    EXPECT_STREQ("progressive", modes[0]->submodes[1]->desc);
    ASSERT_EQ(2, modes[0]->osds_cnt);
    EXPECT_STREQ("tc", modes[0]->osds[1]);
    EXPECT_EQ(nullptr, modes[0]->osds[2]);
    EXPECT_EQ(0, modes[1]->submodes_cnt);
    EXPECT_EQ(0, vantrel_io_settings_modes_free(&modes));
    EXPECT_EQ(nullptr, modes);
    EXPECT_EQ(-22, vantrel_io_settings_modes_free(&modes));
    EXPECT_EQ(-22, vantrel_io_settings_modes_free(nullptr));
}

TEST_F(io_settings, empty_mode_list_gives_terminator_only)
{
    value none = standin::empty_array();
    stub.answer(standin::with_list(0, none.get()));
    vantrel_io_mode** modes = nullptr;
    EXPECT_EQ(0, vantrel_io_settings_get_modes(url(), &modes));
    ASSERT_NE(nullptr, modes);
    EXPECT_EQ(nullptr, modes[0]);
    EXPECT_EQ(0, vantrel_io_settings_modes_free(&modes));
}

TEST_F(io_settings, one_malformed_mode_discards_all_of_them)
{
    value none = standin::empty_array();
    value good = mode(1, "A", none.get(), none.get());
    value bad_sub = standin::build("({s:i})", "idx", 0);
    value broken_sub = mode(2, "B", bad_sub.get(), none.get());
    value bad_osd = standin::build("(i)", 3);
    value broken_osd = mode(3, "C", none.get(), bad_osd.get());
    value no_osds = standin::build("{s:i,s:s,s:s,s:V}", "idx", 1, "name", "n", "desc", "d", "list",
                                   none.get());
    for (xmlrpc_value* broken : {broken_sub.get(), broken_osd.get(), no_osds.get()}) {
        value list = standin::build("(VV)", good.get(), broken);
        stub.answer(standin::with_list(0, list.get()));
        vantrel_io_mode** modes = nullptr;
        CaptureStderr();
        EXPECT_EQ(-14, vantrel_io_settings_get_modes(url(), &modes));
        std::string err = GetCapturedStderr();
        EXPECT_EQ(0u, err.find("vantrel_io_settings_get_modes: ")) << err;
        EXPECT_EQ(nullptr, modes);
    }
}

TEST(template_decoders, hostile_shapes_never_crash)
{
    value samples[] = {standin::build("i", 1), standin::build("{}"),
                       standin::build("{s:i,s:i}", "result", 0, "list", 1),
                       standin::build("{s:i,s:((i))}", "result", 0, "list", 1),
                       standin::build("{s:i,s:(s)}", "result", 0, "list", "x")};
    CaptureStderr();
    for (value& sample : samples) {
        {
            xmlrpc_env_guard env;
            char** layers = nullptr;
            EXPECT_LE(vantrel_lib_tmpl_get_decode(env.get(), sample.get(), &layers), 0);
            vantrel_str_list_free(&layers);
        }
        {
            xmlrpc_env_guard env;
            char** fonts = nullptr;
            EXPECT_LE(vantrel_lib_tmpl_fonts_decode(env.get(), "m", sample.get(), &fonts), 0);
            vantrel_str_list_free(&fonts);
        }
        {
            xmlrpc_env_guard env;
            char out[VANTREL_STR_SIZE];
            EXPECT_EQ(-14, vantrel_lib_build_template_decode(env.get(), sample.get(), out));
        }
        {
            xmlrpc_env_guard env;
            vantrel_io_settings s{};
            EXPECT_LE(vantrel_io_settings_get_decode(env.get(), sample.get(), &s), 0);
        }
        {
            xmlrpc_env_guard env;
            vantrel_io_mode** modes = nullptr;
            int n = vantrel_io_settings_get_modes_decode(env.get(), sample.get(), &modes);
            EXPECT_LE(n, 0);
            if (modes) vantrel_io_settings_modes_free(&modes);
        }
    }
    GetCapturedStderr();
}

}  // namespace
