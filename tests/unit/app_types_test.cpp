// The application type table: lookup by name, the properties every row must
// have, and agreement with the option reader.
#include <gtest/gtest.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <set>
#include <string>

#include "app_types.h"
#include "instance.h"
#include "options.h"
#include "unit_support.h"

namespace {

using namespace unit_support;

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

TEST(AppTypeTable, RunnableRowsNamePlainFiles)
{
    EXPECT_EQ(app_types[APP_TYPE_GPI].exe, nullptr);
    // The launcher appends exe to a directory: any other row must name a plain file.
    for (int i = 1; i < APP_TYPES_CNT; i++) {
        if (i == APP_TYPE_GPI || i == APP_TYPE_SCRIPT) continue;
        ASSERT_NE(app_types[i].exe, nullptr) << i;
        EXPECT_NE(app_types[i].exe[0], '\0') << i;
        EXPECT_EQ(strchr(app_types[i].exe, '/'), nullptr) << app_types[i].exe;
    }
}

// Every configurable row is reachable as an option, and the option adds an
// application of exactly that row (the option table orders two rows differently);
// the empty row is no option.
TEST(AppTypeTable, EveryConfigurableTypeIsAnOption)
{
    for (int i = 0; i < APP_TYPES_CNT; i++) {
        instance* inst = nullptr;
        ASSERT_EQ(instance_create(&inst), 0);
        std::string opt = std::string("--") + app_types[i].name + "=cfg";
        std::string err;
        if (i == APP_TYPE_NONE) {
            EXPECT_EQ(read_options(inst, {opt}, err), -1) << "none is no option";
            EXPECT_EQ(inst->cnt, 0);
        } else {
            EXPECT_EQ(read_options(inst, {opt}, err), 0) << opt;
            EXPECT_EQ(err, "") << opt;
            EXPECT_EQ(inst->cnt, 1) << opt;
            if (inst->cnt == 1) {
                EXPECT_EQ(inst->apps[0]->type, i) << opt;
            }
        }
        instance_destroy(&inst);
    }
}

}   // namespace
