// The application type table: lookup by name, the properties every row must
// have, agreement with the option reader, and the default option values.
#include <gtest/gtest.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "app_types.h"
#include "instance.h"
#include "options.h"

namespace {

TEST(AppTypeLookup, ExactNamesResolveToTheirRows)
{
    EXPECT_EQ(instance_apps_lookup("none"), 0);
    EXPECT_EQ(instance_apps_lookup("filetranscoder"), 1);
    EXPECT_EQ(instance_apps_lookup("elem_mixer"), 21);
    EXPECT_EQ(instance_apps_lookup("elem_mosaic"), 41);
    EXPECT_EQ(instance_apps_lookup("elem_color"), 42);
    EXPECT_EQ(instance_apps_lookup("script"), APP_TYPE_SCRIPT);
    EXPECT_EQ(instance_apps_lookup("elem_clock"), 45);
}

TEST(AppTypeLookup, NearMissesAreNotFound)
{
    for (const char* name : {"ELEM_MIXER", "Elem_mixer", "elem", "elem_mixer ", " lib", "li", "libx", ""})
        EXPECT_EQ(instance_apps_lookup(name), -ENOENT) << "[" << name << "]";
    EXPECT_EQ(instance_apps_lookup(nullptr), -ENOENT);
}

TEST(AppTypeTable, RowsAreUniqueLowerCaseAndFindThemselves)
{
    std::set<std::string> names;
    for (int i = 0; i < APP_TYPES_CNT; i++) {
        const char* name = app_types[i].name;
        ASSERT_NE(name, nullptr);
        ASSERT_NE(name[0], '\0') << i;
        for (const char* p = name; *p; p++) EXPECT_FALSE(isupper(static_cast<unsigned char>(*p))) << name;
        EXPECT_TRUE(names.insert(name).second) << name;
        EXPECT_EQ(instance_apps_lookup(name), i) << name;
        EXPECT_EQ(app_types[i].flags & ~uint64_t{0xff}, 0u) << name;
    }
}

TEST(AppTypeTable, RowsWithoutARunnableExecutable)
{
    EXPECT_STREQ(app_types[APP_TYPE_NONE].exe, "");
    EXPECT_EQ(app_types[APP_TYPE_NONE].flags, 0u);
    EXPECT_STREQ(app_types[APP_TYPE_SCRIPT].exe, "");
    EXPECT_EQ(app_types[APP_TYPE_SCRIPT].flags, 0u);
    EXPECT_EQ(app_types[APP_TYPE_GPI].exe, nullptr);
    EXPECT_STREQ(app_types[APP_TYPE_GPI].name, "gpi");
    EXPECT_STREQ(app_types[APP_TYPE_ELEM_FLASH].name, "elem_flash");
    for (int i = 1; i < APP_TYPES_CNT; i++) {
        if (i == APP_TYPE_GPI || i == APP_TYPE_SCRIPT) continue;
        ASSERT_NE(app_types[i].exe, nullptr) << i;
        EXPECT_EQ(std::string(app_types[i].exe).rfind("Vantrel", 0), 0u) << app_types[i].exe;
        EXPECT_EQ(strchr(app_types[i].exe, '/'), nullptr) << app_types[i].exe;
    }
}

TEST(AppTypeTable, FlagsOfTheRowsThatDifferFromTheCommonCase)
{
    EXPECT_EQ(app_types[1].flags, 0x81u);    // filetranscoder: log file and database
    EXPECT_EQ(app_types[4].flags, 0x41u);    // io: log file and settings
    EXPECT_EQ(app_types[8].flags, 0x05u);    // sched: log file and state-save
    EXPECT_EQ(app_types[19].flags, 0x00u);   // bridge
    EXPECT_EQ(app_types[APP_TYPE_ELEM_FLASH].flags,
              uint64_t{AF_LOG_FILE_NAME | AF_MATRIX | AF_LOCAL | AF_ROOT | AF_CROSSDOMAIN});
}

// Every configurable row is reachable as an option, and the option adds an
// application of exactly that row (the option table orders two rows differently).
TEST(AppTypeTable, EveryConfigurableTypeIsAnOption)
{
    for (int i = 1; i < APP_TYPES_CNT; i++) {
        instance* inst = nullptr;
        ASSERT_EQ(instance_create(&inst), 0);
        std::string prog = "VantrelWatchdog";
        std::string opt = std::string("--") + app_types[i].name + "=cfg";
        char* argv[] = {prog.data(), opt.data(), nullptr};
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(instance_opts(inst, 2, argv), 0) << opt;
        EXPECT_EQ(::testing::internal::GetCapturedStderr(), "") << opt;
        ASSERT_EQ(inst->cnt, 1) << opt;
        EXPECT_EQ(inst->apps[0]->type, i) << opt;
        instance_destroy(&inst);
    }
}

TEST(AppTypeTable, NoneIsNotAnOption)
{
    instance* inst = nullptr;
    ASSERT_EQ(instance_create(&inst), 0);
    std::string prog = "VantrelWatchdog";
    std::string opt = "--none=x";
    char* argv[] = {prog.data(), opt.data(), nullptr};
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(instance_opts(inst, 2, argv), -1);
    ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(inst->cnt, 0);
    instance_destroy(&inst);
}

TEST(AppDefaultOpts, ValuesFollowTheAlias)
{
    ASSERT_EQ(APP_DEFAULT_OPTS_CNT, 8);
    std::vector<std::string> lines;
    for (int bit = 0; bit < APP_DEFAULT_OPTS_CNT; bit++)
        lines.push_back(std::string(app_default_opts[bit]) + app_default_opt_value(bit, "Mix 1"));
    EXPECT_EQ(lines[0], "--log-file-name=/Vantrel/logs/Mix 1/log");
    EXPECT_EQ(lines[1], "--matrix=/Vantrel/runtime/matrix0");
    EXPECT_EQ(lines[2], "--state-save=/Vantrel/runtime/Mix 1");
    EXPECT_EQ(lines[3], "--Local=/Vantrel/runtime/Mix 1");
    EXPECT_EQ(lines[4], "--Root=file:///Vantrel/flash");
    EXPECT_EQ(lines[5], "--crossdomain=http://127.0.0.1/crossdomain.xml");
    EXPECT_EQ(lines[6], "--settings=/Vantrel/runtime/Mix 1");
    EXPECT_EQ(lines[7], "--db=/Vantrel/runtime/Mix 1.db");
    EXPECT_EQ(app_default_opt_value(8, "x"), "");
}

}   // namespace
