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
        for (int i = 0; i < 3; i++) ASSERT_EQ(instance_slot_append(inst_, app_new()), 0);
    }
    void TearDown() override { instance_destroy(&inst_); }

    int resolve(int idx, const char* ptr) { return ctl_app_resolve(inst_, "test", idx, ptr); }
    int resolve(int idx, const std::string& ptr) { return resolve(idx, ptr.c_str()); }
    std::string hex(int slot, const char* fmt = "%lx")
    {
        char text[64];
        snprintf(text, sizeof text, fmt, static_cast<unsigned long>(inst_->apps[slot]->handle));
        return text;
    }

    instance* inst_ = nullptr;
};

TEST_F(CtlResolve, IndexInRangeWinsAndIndexPastCountAddressesNothing)
{
    EXPECT_EQ(resolve(0, "garbage"), 0);
    EXPECT_EQ(resolve(2, hex(0)), 2);
    EXPECT_EQ(resolve(1, nullptr), 1);
    // Out of range is checked first, even when ptr names a record.
    EXPECT_EQ(resolve(3, hex(1)), -1);
    EXPECT_EQ(resolve(0x7fffffff, hex(0)), -1);
}

TEST_F(CtlResolve, NegativeIndexFindsTheHandleInAnyNotation)
{
    for (const char* fmt : {"%lx", "0x%lx", "%lX", "0X%lX", "  \t+%lx", "%016lx", "%lxzz"})
        EXPECT_EQ(resolve(-1, hex(2, fmt)), 2) << fmt;
    EXPECT_EQ(resolve(-42, hex(0)), 0);
}

TEST_F(CtlResolve, NegativeIndexWithoutAMatchingHandleAddressesNothing)
{
    // Text without hexadecimal digits reads as 0, which no record has.
    for (const char* ptr : {"", "xyz", "0x", "-"}) EXPECT_EQ(resolve(-1, ptr), -1) << ptr;
    EXPECT_EQ(resolve(-1, nullptr), -1);
    char unused[32];
    snprintf(unused, sizeof unused, "%lx", static_cast<unsigned long>(inst_->apps[2]->handle + 1000));
    EXPECT_EQ(resolve(-1, unused), -1);
}

TEST_F(CtlResolve, HandleFollowsTheRecordWhenSlotsMove)
{
    std::string h2 = hex(2);
    instance_slot_swap(inst_, 1, 2);
    EXPECT_EQ(resolve(-1, h2), 1);
    app_free(instance_slot_remove(inst_, 0));
    EXPECT_EQ(resolve(-1, h2), 0);
}

TEST_F(CtlResolve, SaysWhyNothingWasAddressed)
{
    char unused[32], shown[48];
    snprintf(unused, sizeof unused, "0x%lxg", static_cast<unsigned long>(inst_->apps[2]->handle + 1));
    snprintf(shown, sizeof shown, "p=%p not", reinterpret_cast<void*>(inst_->apps[2]->handle + 1));
    testing::internal::CaptureStderr();
    resolve(3, "");
    resolve(-1, unused);
    std::string logged = testing::internal::GetCapturedStderr();
    EXPECT_NE(logged.find("test: idx=3 out of apps range (3)"), std::string::npos) << logged;
    EXPECT_NE(logged.find(std::string("test: ptr=[") + unused + "], " + shown + " found"), std::string::npos)
        << logged;
}

TEST(CtlResolveEmpty, NothingIsAddressedWithoutApplications)
{
    instance* inst = nullptr;
    ASSERT_EQ(instance_create(&inst), 0);
    EXPECT_EQ(ctl_app_resolve(inst, "test", -1, "1"), -1);
    EXPECT_EQ(ctl_app_resolve(inst, "test", 0, "1"), -1);
    instance_destroy(&inst);
}

}  // namespace
