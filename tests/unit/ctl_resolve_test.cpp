// Addressing an application by index or by handle.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "ctl.h"
#include "instance.h"

namespace {

class CtlResolve : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(instance_create(&inst_), 0);
        for (int i = 0; i < 3; i++) {
            app* a = app_new();
            ASSERT_NE(a, nullptr);
            ASSERT_EQ(instance_slot_append(inst_, a), 0);
        }
    }
    void TearDown() override { instance_destroy(&inst_); }

    int resolve(int idx, const char* ptr) { return ctl_app_resolve(inst_, "test", idx, ptr); }
    std::string hex(int slot, const char* fmt = "%lx")
    {
        char text[64];
        snprintf(text, sizeof text, fmt, static_cast<unsigned long>(inst_->apps[slot]->handle));
        return text;
    }

    instance* inst_ = nullptr;
};

TEST_F(CtlResolve, IndexInRangeIgnoresPtr)
{
    EXPECT_EQ(resolve(0, "garbage"), 0);
    EXPECT_EQ(resolve(2, hex(0).c_str()), 2);
    EXPECT_EQ(resolve(1, nullptr), 1);
}

TEST_F(CtlResolve, IndexAtOrPastCountAddressesNothingEvenWithValidHandle)
{
    EXPECT_EQ(resolve(3, hex(1).c_str()), -1);
    EXPECT_EQ(resolve(1024, ""), -1);
    EXPECT_EQ(resolve(0x7fffffff, hex(0).c_str()), -1);
}

TEST_F(CtlResolve, NegativeIndexFindsHandleInAnyNotation)
{
    EXPECT_EQ(resolve(-1, hex(2).c_str()), 2);
    EXPECT_EQ(resolve(-1, hex(2, "0x%lx").c_str()), 2);
    EXPECT_EQ(resolve(-1, hex(2, "%lX").c_str()), 2);
    EXPECT_EQ(resolve(-1, hex(2, "0X%lX").c_str()), 2);
    EXPECT_EQ(resolve(-1, hex(2, "  \t+%lx").c_str()), 2);
    EXPECT_EQ(resolve(-1, hex(2, "%016lx").c_str()), 2);
    // Conversion stops at the first non-digit: trailing text is ignored.
    EXPECT_EQ(resolve(-1, (hex(1) + "zz").c_str()), 1);
    EXPECT_EQ(resolve(-42, hex(0).c_str()), 0);
}

TEST_F(CtlResolve, NegativeIndexWithoutMatchingHandleAddressesNothing)
{
    EXPECT_EQ(resolve(-1, ""), -1);          // no record has handle 0
    EXPECT_EQ(resolve(-1, nullptr), -1);
    EXPECT_EQ(resolve(-1, "xyz"), -1);
    EXPECT_EQ(resolve(-1, "0x"), -1);
    uint64_t unused = inst_->apps[2]->handle + 1000;
    char text[32];
    snprintf(text, sizeof text, "%lx", static_cast<unsigned long>(unused));
    EXPECT_EQ(resolve(-1, text), -1);
}

TEST_F(CtlResolve, HandleFollowsTheRecordWhenSlotsMove)
{
    std::string h2 = hex(2);
    instance_slot_swap(inst_, 1, 2);
    EXPECT_EQ(resolve(-1, h2.c_str()), 1);
    app* removed = instance_slot_remove(inst_, 0);
    app_free(removed);
    EXPECT_EQ(resolve(-1, h2.c_str()), 0);
}

TEST(CtlResolveEmpty, NegativeIndexIsSearchedAlsoWithNoApplications)
{
    instance* inst = nullptr;
    ASSERT_EQ(instance_create(&inst), 0);
    EXPECT_EQ(ctl_app_resolve(inst, "test", -1, "1"), -1);
    EXPECT_EQ(ctl_app_resolve(inst, "test", 0, "1"), -1);
    instance_destroy(&inst);
}

TEST(CtlHandleParse, FollowsHexLeadingNumberRules)
{
    EXPECT_EQ(ctl_handle_parse("ff"), 0xffu);
    EXPECT_EQ(ctl_handle_parse("0xFF"), 0xffu);
    EXPECT_EQ(ctl_handle_parse(" 1aB"), 0x1abu);
    EXPECT_EQ(ctl_handle_parse("12g4"), 0x12u);
    EXPECT_EQ(ctl_handle_parse(""), 0u);
    EXPECT_EQ(ctl_handle_parse("g"), 0u);
    EXPECT_EQ(ctl_handle_parse(nullptr), 0u);
    EXPECT_EQ(ctl_handle_parse("ffffffffffffffff"), 0xffffffffffffffffu);
}

}  // namespace
