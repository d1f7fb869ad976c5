// The instance and app records: the slot table and its counters, handles,
// clones, and the bounded text fields and lists.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <string>

#include "bounded.h"
#include "instance.h"

namespace {

std::string order(const instance* inst)
{
    std::string out;
    for (int i = 0; i < inst->cnt; i++) out += inst->apps[i]->config.str();
    return out;
}

app* named(const char* config)
{
    app* a = app_new();
    a->config.set(config);
    return a;
}

TEST(Slots, EveryChangeMovesTheCounterAndTheTableHolds1024)
{
    instance* inst = nullptr;
    EXPECT_EQ(instance_create(nullptr), -EINVAL);
    ASSERT_EQ(instance_create(&inst), 0);
    for (const char* c : {"a", "c", "d"}) ASSERT_EQ(instance_slot_append(inst, named(c)), 0);
    ASSERT_EQ(instance_slot_insert(inst, 1, named("b")), 0);
    EXPECT_EQ(order(inst), "abcd");
    app* z = named("z");
    EXPECT_EQ(instance_slot_insert(inst, 5, z), -EINVAL);
    EXPECT_EQ(instance_slot_insert(inst, -1, z), -EINVAL);
    app_free(instance_slot_remove(inst, 0));
    EXPECT_EQ(instance_slot_remove(inst, 3), nullptr);
    uint64_t handle = inst->apps[0]->handle;
    instance_slot_swap(inst, 0, 2);
    instance_slot_swap(inst, 2, 3);   // no slot 3: nothing moves
    EXPECT_EQ(order(inst), "dcb");
    EXPECT_EQ(inst->apps[2]->handle, handle);
    EXPECT_EQ(inst->amend, 5u);
    while (inst->cnt < APPS_MAX) ASSERT_EQ(instance_slot_append(inst, app_new()), 0);
    EXPECT_EQ(instance_slot_append(inst, z), -ENOMEM);
    EXPECT_EQ(instance_slot_insert(inst, 0, z), -ENOMEM);
    EXPECT_EQ(inst->amend, 5u + APPS_MAX - 3);
    app_free(z);
    EXPECT_EQ(instance_destroy(&inst), 0);
    EXPECT_EQ(inst, nullptr);
}

TEST(Records, HandlesAreDistinctAndAClonesCopiesConfigurationButNoRunState)
{
    std::set<uint64_t> seen{0};
    for (int i = 0; i < 50; i++) {
        app* a = app_new();
        EXPECT_TRUE(seen.insert(a->handle).second);
        app_free(a);
    }
    app* src = named("/cfg/m.xml");
    src->type = 21;
    src->alias.set("Mixer");
    src->envs.append("A=1"), src->raws.append("--r");
    src->err.set("Respawn too fast");
    src->t_run = src->f_respawn = src->f_autorun = 1;
    src->pid = 1234, src->started = 100, src->t_term = 200, src->fast_respawn_cnt = 3, src->amend = 9;
    src->std_bufs[1].buf.reset(new char[STD_BUF_SIZE]);
    memset(src->std_bufs[1].buf.get(), 'x', STD_BUF_SIZE);
    src->std_bufs[1].head = 10, src->std_bufs[1].tail = 50;
    app* copy = app_clone(*src);
    EXPECT_NE(copy->handle, src->handle);
    auto kept = [](const app* a) {
        return std::to_string(a->type) + a->config.str() + a->alias.str() + a->envs[0].str() + a->raws[0].str() +
               a->err.str() + std::to_string(a->t_run);
    };
    EXPECT_EQ(kept(copy), kept(src));
    int run_state[] = {copy->pid, int(copy->started), int(copy->t_term), copy->fast_respawn_cnt, int(copy->amend),
                       copy->f_respawn, copy->f_autorun, copy->std_pipes[1].rd, copy->std_pipes[2].wr};
    EXPECT_EQ(testing::PrintToString(run_state), "{ 0, 0, 0, 0, 0, 0, 0, -1, -1 }");
    EXPECT_EQ(copy->std_bufs[1].tail - copy->std_bufs[1].head, 40u);
    src->std_bufs[1].buf[0] = 'y';
    EXPECT_EQ(copy->std_bufs[1].buf[0], 'x') << "the ring is a copy of its own";
    app_free(src);
    app_free(copy);
}

// Stored text holds at most 4095 bytes, is cut on character boundaries and
// has invalid bytes repaired; lists hold their capacity.
TEST(Bounded, TextsAreCutOnCharacterBoundariesAndRepairedAndListsHoldTheirCapacity)
{
    const std::string a4094(4094, 'a'), a4090(4090, 'a');
    struct row { const char* name; std::string in, stored; } rows[] = {
        {"long text", std::string(5000, 'a'), std::string(4095, 'a')},
        {"two-byte character cut", a4094 + "\xc3\xa9", a4094},
        {"two-byte character fits", std::string(4093, 'a') + "\xc3\xa9", std::string(4093, 'a') + "\xc3\xa9"},
        {"four-byte character cut", std::string(4092, 'a') + "\xf0\x9f\x8e\xac", std::string(4092, 'a')},
        {"stray bytes", "a\xff" "b\xc3", "a?b?"},
        {"surrogate and overlong", "\xed\xa0\x80.\xc0\xaf", "???.??"},
        {"controls XML cannot carry", "a\x01\tb\x1f", "a?\tb?"},
    };
    for (const row& r : rows) EXPECT_EQ(bounded_str(r.in).str(), r.stored) << r.name;
    bounded_str s(a4090), grown(a4094);
    EXPECT_FALSE(str_cat(s, "0123456789"));
    EXPECT_EQ(s.str(), a4090 + "01234");
    EXPECT_FALSE(grown.cat("\xc3\xa9"));
    EXPECT_EQ(grown.str(), a4094);
    char buf[8], utf[5];
    str_copy(buf, "0123456789", sizeof buf);
    EXPECT_STREQ(buf, "0123456");
    str_copy(buf, "ab", sizeof buf);
    str_cat(buf, "cdefghij", sizeof buf);
    EXPECT_STREQ(buf, "abcdefg");
    str_copy(utf, "ab\xc3\xa9\xc3\xa9", sizeof utf);
    EXPECT_STREQ(utf, "ab\xc3\xa9");
    bounded_list<3> list;
    for (const char* v : {"", "a", "b", "c"}) EXPECT_TRUE(list.append(v));
    EXPECT_FALSE(list.append("d"));
    EXPECT_EQ(list.size(), 3u);
    EXPECT_EQ(list[0].str(), "a");
}

}  // namespace
