// The instance and app records: creation and destruction results, the slot
// table rules, handles, clones, and the bounded text fields and lists.
#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <string>

#include "bounded.h"
#include "instance.h"

namespace {

// ---- creation and destruction ----

TEST(InstanceLifecycle, CreateRejectsANullHolder)
{
    EXPECT_EQ(instance_create(nullptr), -EINVAL);
}

TEST(InstanceLifecycle, DestroyTwiceIsHarmless)
{
    instance* inst = nullptr;
    ASSERT_EQ(instance_create(&inst), 0);
    ASSERT_EQ(instance_slot_append(inst, app_new()), 0);
    ASSERT_EQ(instance_slot_append(inst, app_new()), 0);
    EXPECT_EQ(instance_destroy(&inst), 0);
    EXPECT_EQ(inst, nullptr);
    EXPECT_EQ(instance_destroy(&inst), -ENOMEM);
    EXPECT_EQ(instance_destroy(nullptr), -EINVAL);
}

void* try_lock_elsewhere(void* arg)
{
    auto* inst = static_cast<instance*>(arg);
    int r = pthread_mutex_trylock(&inst->lock);
    if (r == 0) pthread_mutex_unlock(&inst->lock);
    return reinterpret_cast<void*>(static_cast<intptr_t>(r));
}

TEST(InstanceLifecycle, LockIsRecursiveAndExclusive)
{
    instance* inst = nullptr;
    ASSERT_EQ(instance_create(&inst), 0);
    {
        instance_lock_guard outer(inst);
        ASSERT_EQ(pthread_mutex_trylock(&inst->lock), 0);   // the same thread again
        pthread_mutex_unlock(&inst->lock);
        pthread_t t;
        ASSERT_EQ(pthread_create(&t, nullptr, try_lock_elsewhere, inst), 0);
        void* r = nullptr;
        pthread_join(t, &r);
        EXPECT_EQ(reinterpret_cast<intptr_t>(r), EBUSY);
    }
    pthread_t t;
    ASSERT_EQ(pthread_create(&t, nullptr, try_lock_elsewhere, inst), 0);
    void* r = nullptr;
    pthread_join(t, &r);
    EXPECT_EQ(reinterpret_cast<intptr_t>(r), 0);   // released by the guard
    instance_destroy(&inst);
}

// ---- slot table ----

class SlotTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(instance_create(&inst_), 0); }
    void TearDown() override { instance_destroy(&inst_); }

    app* add(const char* config)
    {
        app* a = app_new();
        a->type = 6;
        a->config.set(config);
        EXPECT_EQ(instance_slot_append(inst_, a), 0);
        return a;
    }
    std::string order()
    {
        std::string out;
        for (int i = 0; i < inst_->cnt; i++) out += inst_->apps[i]->config.str();
        return out;
    }

    instance* inst_ = nullptr;
};

TEST_F(SlotTest, AppendRaisesCountAndAmend)
{
    add("a");
    add("b");
    EXPECT_EQ(inst_->cnt, 2);
    EXPECT_EQ(inst_->amend, 2u);
    EXPECT_EQ(order(), "ab");
}

TEST_F(SlotTest, The1025thRecordIsRefusedWithoutChange)
{
    for (int i = 0; i < APPS_MAX; i++) ASSERT_EQ(instance_slot_append(inst_, app_new()), 0);
    uint32_t amend = inst_->amend;
    app* extra = app_new();
    EXPECT_EQ(instance_slot_append(inst_, extra), -ENOMEM);
    EXPECT_EQ(instance_slot_insert(inst_, 3, extra), -ENOMEM);
    EXPECT_EQ(inst_->cnt, APPS_MAX);
    EXPECT_EQ(inst_->amend, amend);
    app_free(extra);
}

TEST_F(SlotTest, InsertMovesLaterSlotsUp)
{
    add("a");
    add("c");
    add("d");
    app* b = app_new();
    b->config.set("b");
    ASSERT_EQ(instance_slot_insert(inst_, 1, b), 0);
    EXPECT_EQ(order(), "abcd");
    EXPECT_EQ(inst_->amend, 4u);
    app* z = app_new();
    EXPECT_EQ(instance_slot_insert(inst_, 6, z), -EINVAL);
    EXPECT_EQ(instance_slot_insert(inst_, -1, z), -EINVAL);
    EXPECT_EQ(inst_->cnt, 4);
    app_free(z);
}

TEST_F(SlotTest, RemovingSlotZeroMovesTheOthersDown)
{
    app* a = add("a");
    add("b");
    add("c");
    EXPECT_EQ(instance_slot_remove(inst_, 0), a);
    app_free(a);
    EXPECT_EQ(order(), "bc");
    EXPECT_EQ(inst_->cnt, 2);
    EXPECT_EQ(inst_->amend, 4u);
    EXPECT_EQ(inst_->apps[2], nullptr);
    EXPECT_EQ(instance_slot_remove(inst_, 2), nullptr);
    EXPECT_EQ(instance_slot_remove(inst_, -1), nullptr);
    EXPECT_EQ(inst_->amend, 4u);
}

TEST_F(SlotTest, SwapKeepsHandlesWithTheirRecords)
{
    app* a = add("a");
    app* b = add("b");
    uint64_t ha = a->handle;
    instance_slot_swap(inst_, 0, 1);
    EXPECT_EQ(order(), "ba");
    EXPECT_EQ(inst_->apps[1]->handle, ha);
    EXPECT_EQ(inst_->apps[0], b);
    instance_slot_swap(inst_, 1, 2);   // no slot 2: nothing moves
    EXPECT_EQ(order(), "ba");
}

TEST(AppRecord, HandlesAreNonZeroAndDistinct)
{
    std::set<uint64_t> seen;
    app* live[50];
    for (auto& a : live) {
        a = app_new();
        ASSERT_NE(a->handle, 0u);
        EXPECT_TRUE(seen.insert(a->handle).second);
    }
    for (auto* a : live) app_free(a);
}

TEST(AppRecord, CloneCopiesConfigurationAndRingsButNoRunState)
{
    app* src = app_new();
    src->type = 21;
    src->config.set("/cfg/m.xml");
    src->alias.set("Mixer");
    src->thumb.set("t");
    src->bin_path.set("/b");
    src->numa_bind.set("1");
    src->envs.append("A=1");
    src->raws.append("--r");
    src->err.set("Respawn too fast");
    src->session_name.set("sess");
    src->t_run = 1;
    src->f_respawn = 1;
    src->f_autorun = 1;
    src->pid = 1234;
    src->started = 100;
    src->t_term = 200;
    src->fast_respawn_cnt = 3;
    src->amend = 9;
    src->std_bufs[1].buf.reset(new char[STD_BUF_SIZE]);
    memset(src->std_bufs[1].buf.get(), 'x', STD_BUF_SIZE);
    src->std_bufs[1].head = 10;
    src->std_bufs[1].tail = 50;

    app* copy = app_clone(*src);
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy->handle, src->handle);
    EXPECT_EQ(copy->type, 21);
    EXPECT_EQ(copy->config, src->config);
    EXPECT_EQ(copy->alias, src->alias);
    EXPECT_EQ(copy->thumb, src->thumb);
    EXPECT_EQ(copy->bin_path, src->bin_path);
    EXPECT_EQ(copy->numa_bind, src->numa_bind);
    EXPECT_EQ(copy->envs, src->envs);
    EXPECT_EQ(copy->raws, src->raws);
    EXPECT_EQ(copy->err, src->err);
    EXPECT_EQ(copy->session_name, src->session_name);
    EXPECT_EQ(copy->t_run, 1);
    EXPECT_EQ(copy->pid, 0);
    EXPECT_EQ(copy->started, 0);
    EXPECT_EQ(copy->t_term, 0);
    EXPECT_EQ(copy->fast_respawn_cnt, 0);
    EXPECT_EQ(copy->amend, 0u);
    EXPECT_EQ(copy->forker_cnt, 0);
    EXPECT_EQ(copy->f_respawn, 0);
    EXPECT_EQ(copy->f_autorun, 0);
    for (const auto& p : copy->std_pipes) {
        EXPECT_EQ(p.rd, -1);   // the source's descriptors are its own
        EXPECT_EQ(p.wr, -1);
    }
    // The ring is a copy of its own, with the stream positions.
    EXPECT_EQ(copy->std_bufs[1].head, 10u);
    EXPECT_EQ(copy->std_bufs[1].tail, 50u);
    ASSERT_TRUE(copy->std_bufs[1].buf);
    EXPECT_NE(copy->std_bufs[1].buf.get(), src->std_bufs[1].buf.get());
    src->std_bufs[1].buf[0] = 'y';
    EXPECT_EQ(copy->std_bufs[1].buf[0], 'x');
    EXPECT_FALSE(copy->std_bufs[2].buf);
    app_free(src);
    app_free(copy);
}

// ---- bounded text ----

TEST(BoundedText, FieldsHoldAtMost4095Characters)
{
    bounded_str s(std::string(5000, 'a'));
    EXPECT_EQ(s.size(), TEXT_FIELD_MAX);
    s.set("abc");
    EXPECT_TRUE(str_cat(s, "def"));
    EXPECT_EQ(s.str(), "abcdef");
    s.set(std::string(4090, 'a'));
    EXPECT_FALSE(str_cat(s, "0123456789"));
    EXPECT_EQ(s.size(), TEXT_FIELD_MAX);
    EXPECT_EQ(s.str().substr(4090), "01234");
    s.set(static_cast<const char*>(nullptr));
    EXPECT_TRUE(s.empty());
}

TEST(BoundedText, CharBuffersAreAlwaysTerminated)
{
    char buf[8];
    memset(buf, 'z', sizeof buf);
    str_copy(buf, "0123456789", sizeof buf);
    EXPECT_STREQ(buf, "0123456");
    str_copy(buf, "ab", sizeof buf);
    str_cat(buf, "cdefghij", sizeof buf);
    EXPECT_STREQ(buf, "abcdefg");
    str_cat(buf, "x", sizeof buf);
    EXPECT_STREQ(buf, "abcdefg");
    str_copy(buf, nullptr, sizeof buf);
    EXPECT_STREQ(buf, "");
}

TEST(BoundedText, ListsFillFromTheFrontAndIgnoreEmptyValues)
{
    bounded_list<3> list;
    EXPECT_TRUE(list.append(""));
    EXPECT_TRUE(list.empty());
    EXPECT_TRUE(list.append("a"));
    EXPECT_TRUE(list.append("b"));
    EXPECT_TRUE(list.append(std::string(5000, 'c')));
    EXPECT_TRUE(list.full());
    EXPECT_FALSE(list.append("d"));
    ASSERT_EQ(list.size(), 3u);
    EXPECT_EQ(list[0].str(), "a");
    EXPECT_EQ(list[2].size(), TEXT_FIELD_MAX);
}

}   // namespace
