// GetItem and SetItem called directly with built parameter arrays.
#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdio>
#include <string>
#include <vector>

#include "app_types.h"
#include "common/xmlrpc_raii.h"
#include "ctl_methods.h"
#include "instance.h"
#include "unit_support.h"

namespace {

using namespace unit_support;
using strings = std::vector<std::string>;

struct item_request {
    int idx = -1;
    std::string ptr;
    std::string type = "elem_mixer";
    std::string alias = "Mixer 1";
    std::string thumb = "mixer.png";
    std::string config = "/cfg/mixer.xml";
    std::string bin_path = "/opt/bin";
    std::string numa_bind = "0,1";
    strings raws;
    strings envs;
};

// The decoded GetItem reply.
struct item_reply {
    int ret = 0;
    std::string ptr, id_name, alias, thumb, config, bin_path, numa_bind;
    int id = 0;
    strings raws, envs;
};

class ItemsTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(instance_create(&inst), 0); }
    void TearDown() override { instance_destroy(&inst); }

    // Calls SetItem with `params`; the reply's "ret", or INT32_MIN for a fault
    // (whose code lands in last_fault).
    int call_set(xmlrpc_value* params) { return call_ret(ctl_method_SetItem, params, inst, &last_fault); }

    int set_item(const item_request& r)
    {
        xmlrpc_env_guard env;
        xmlrpc_value_ref raws(string_array(env.get(), r.raws));
        xmlrpc_value_ref envs(string_array(env.get(), r.envs));
        xmlrpc_value* params = xmlrpc_build_value(
            env.get(), "(isssssssAA)", r.idx, r.ptr.c_str(), r.type.c_str(), r.alias.c_str(), r.thumb.c_str(),
            r.config.c_str(), r.bin_path.c_str(), r.numa_bind.c_str(), raws.get(), envs.get());
        EXPECT_FALSE(env.failed());
        return call_set(params);
    }

    // Adds an application of `type` with `alias`; its new slot index.
    int add(const std::string& alias, const std::string& type = "elem_mixer")
    {
        item_request r;
        r.alias = alias;
        r.type = type;
        EXPECT_EQ(set_item(r), 0);
        return inst->cnt - 1;
    }

    // GetItem; `found` false when the reply was {"ret": -34}.
    item_reply get_item(int idx, const std::string& ptr, bool* found = nullptr)
    {
        xmlrpc_env_guard env;
        xmlrpc_value_ref params(xmlrpc_build_value(env.get(), "(is)", idx, ptr.c_str()));
        xmlrpc_value_ref reply(ctl_method_GetItem(env.get(), params.get(), inst, nullptr));
        item_reply out;
        EXPECT_FALSE(env.failed()) << env.fault_string();
        if (env.failed()) return out;
        xmlrpc_decompose_value(env.get(), reply.get(), "{s:i,*}", "ret", &out.ret);
        int members = xmlrpc_struct_size(env.get(), reply.get());
        if (found) *found = members > 1;
        if (members == 1) return out;
        decoded_text p, id_name, alias, thumb, config, bin_path, numa_bind;
        decoded_value raws, envs;
        xmlrpc_decompose_value(env.get(), reply.get(), "{s:s,s:i,s:s,s:s,s:s,s:s,s:s,s:s,s:A,s:A,*}", "ptr", p.out(),
                               "id", &out.id, "id_name", id_name.out(), "alias", alias.out(), "thumb", thumb.out(),
                               "config", config.out(), "bin_path", bin_path.out(), "numa_bind", numa_bind.out(),
                               "raws", raws.out(), "envs", envs.out());
        EXPECT_FALSE(env.failed()) << env.fault_string();
        if (!env.failed()) decoded_adopt(p, id_name, alias, thumb, config, bin_path, numa_bind, raws, envs);
        out.ptr = p.get();
        out.id_name = id_name.get();
        out.alias = alias.get();
        out.thumb = thumb.get();
        out.config = config.get();
        out.bin_path = bin_path.get();
        out.numa_bind = numa_bind.get();
        out.raws = read_strings(env.get(), raws.get());
        out.envs = read_strings(env.get(), envs.get());
        return out;
    }

    static strings read_strings(xmlrpc_env* env, xmlrpc_value* array)
    {
        strings out;
        if (!array) return out;
        int size = xmlrpc_array_size(env, array);
        for (int i = 0; i < size; i++) {
            xmlrpc_value_ref item;
            xmlrpc_array_read_item(env, array, i, item.out());
            decoded_text text;
            xmlrpc_read_string(env, item.get(), text.out());
            if (!env->fault_occurred) decoded_adopt(text);
            out.emplace_back(text.get());
        }
        return out;
    }

    instance* inst = nullptr;
    int last_fault = 0;
};

// --- adding -----------------------------------------------------------------

TEST_F(ItemsTest, AddingWithNegativeIdxAndEmptyPtrAppendsAndCountsTwice)
{
    add("first");
    uint32_t before = inst->amend;
    item_request r;
    r.raws = {"--xmlrpc-port=9101"};
    r.envs = {"MIXER_MODE=2", "A=1", "B=2"};
    ASSERT_EQ(set_item(r), 0);

    ASSERT_EQ(inst->cnt, 2);
    EXPECT_EQ(inst->amend, before + 2);
    EXPECT_EQ(inst->apps[1]->amend, 1u);
    EXPECT_EQ(inst->last_app, inst->apps[1]);

    item_reply got = get_item(1, "");
    EXPECT_EQ(got.ret, 1);
    EXPECT_EQ(got.ptr, "");
    EXPECT_EQ(got.id, 21);
    EXPECT_EQ(got.id_name, "elem_mixer");
    EXPECT_EQ(got.alias, "Mixer 1");
    EXPECT_EQ(got.thumb, "mixer.png");
    EXPECT_EQ(got.config, "/cfg/mixer.xml");
    EXPECT_EQ(got.bin_path, "/opt/bin");
    EXPECT_EQ(got.numa_bind, "0,1");
    EXPECT_EQ(got.raws, strings{"--xmlrpc-port=9101"});
    EXPECT_EQ(got.envs, (strings{"MIXER_MODE=2", "A=1", "B=2"}));
}

TEST_F(ItemsTest, FullTableRefusesOneMoreWithoutChange)
{
    for (int i = 0; i < APPS_MAX; i++) ASSERT_EQ(set_item(item_request{}), 0) << i;
    ASSERT_EQ(inst->cnt, APPS_MAX);
    uint32_t before = inst->amend;
    EXPECT_EQ(set_item(item_request{}), -ENOMEM);
    EXPECT_EQ(inst->cnt, APPS_MAX);
    EXPECT_EQ(inst->amend, before);
    // Updating still works at the limit.
    item_request r;
    r.idx = APPS_MAX - 1;
    r.alias = "last";
    EXPECT_EQ(set_item(r), 0);
    EXPECT_EQ(inst->apps[APPS_MAX - 1]->alias.str(), "last");
}

// --- refused types ----------------------------------------------------------

TEST_F(ItemsTest, RefusedTypeOnAddLeavesAnEmptyNoneSlot)
{
    add("keep");
    for (const char* type : {"Elem_Mixer", "none", ""}) {
        uint32_t before = inst->amend;
        int cnt = inst->cnt;
        item_request r;
        r.type = type;
        r.envs = {"X=1"};
        EXPECT_EQ(set_item(r), -ENOENT) << type;
        ASSERT_EQ(inst->cnt, cnt + 1);
        const app& added = *inst->apps[cnt];
        EXPECT_EQ(added.type, 0);
        EXPECT_TRUE(added.alias.empty());
        EXPECT_TRUE(added.config.empty());
        EXPECT_TRUE(added.envs.empty());
        EXPECT_EQ(added.amend, 0u);
        EXPECT_EQ(inst->amend, before + 1);
        EXPECT_EQ(get_item(cnt, "").id_name, "none");
    }
}

TEST_F(ItemsTest, RefusedTypeOnUpdateChangesNothing)
{
    item_request r;
    r.envs = {"A=1"};
    ASSERT_EQ(set_item(r), 0);
    uint32_t before = inst->amend;
    item_request update;
    update.idx = 0;
    update.type = "ELEM_MIXER";
    update.alias = "changed";
    EXPECT_EQ(set_item(update), -ENOENT);
    EXPECT_EQ(inst->cnt, 1);
    EXPECT_EQ(inst->amend, before);
    EXPECT_EQ(inst->apps[0]->amend, 1u);
    EXPECT_EQ(inst->apps[0]->alias.str(), "Mixer 1");
    EXPECT_EQ(inst->apps[0]->envs.size(), 1u);
}

// --- updating ---------------------------------------------------------------

TEST_F(ItemsTest, UpdateByHandleInAnySpellingAndByIndex)
{
    add("a");
    add("b");
    add("c");
    uint64_t handle = inst->apps[1]->handle;
    char upper[40];
    snprintf(upper, sizeof upper, "  0X%" PRIX64, handle);
    int n = 0;
    for (const std::string& ptr : {hex(handle), std::string(upper), "0x" + hex(handle)}) {
        uint32_t before = inst->amend;
        item_request r;
        r.ptr = ptr;
        r.type = "lib";
        r.alias = "renamed " + std::to_string(++n);
        ASSERT_EQ(set_item(r), 0) << ptr;
        EXPECT_EQ(inst->cnt, 3);
        EXPECT_EQ(inst->amend, before + 1);
        EXPECT_EQ(inst->apps[1]->alias.str(), r.alias);
        EXPECT_EQ(inst->apps[1]->type, 6);
    }
    EXPECT_EQ(inst->apps[1]->amend, 4u);

    // By index the ptr is not looked at, even when it names another record.
    item_request r;
    r.idx = 2;
    r.ptr = hex(inst->apps[0]->handle);
    r.alias = "by index";
    ASSERT_EQ(set_item(r), 0);
    EXPECT_EQ(inst->apps[2]->alias.str(), "by index");
    EXPECT_EQ(inst->apps[0]->alias.str(), "a");
}

TEST_F(ItemsTest, UpdateLeavesRunStateAlone)
{
    add("running");
    app& record = *inst->apps[0];
    record.pid = 4242;
    record.f_respawn = 1;
    record.t_term = 77;
    item_request r;
    r.idx = 0;
    r.alias = "new";
    ASSERT_EQ(set_item(r), 0);
    EXPECT_EQ(record.pid, 4242);
    EXPECT_EQ(record.f_respawn, 1);
    EXPECT_EQ(record.t_term, 77);
    record.pid = 0;
}

TEST_F(ItemsTest, OutOfRangeAndUnknownHandleAreRefused)
{
    add("only");
    uint32_t before = inst->amend;
    item_request r;
    r.idx = 1;   // == cnt
    EXPECT_EQ(set_item(r), -ERANGE);
    r.idx = -1;
    r.ptr = hex(inst->apps[0]->handle + 1000);
    EXPECT_EQ(set_item(r), -ERANGE);
    EXPECT_EQ(inst->cnt, 1);
    EXPECT_EQ(inst->amend, before);

    bool found = true;
    item_reply got = get_item(1, "", &found);
    EXPECT_FALSE(found);
    EXPECT_EQ(got.ret, -ERANGE);
    get_item(-1, "", &found);
    EXPECT_FALSE(found);
}

TEST_F(ItemsTest, EmptyArraysClearBothLists)
{
    item_request r;
    r.raws = {"--a=1", "--b=2"};
    r.envs = {"X=1"};
    ASSERT_EQ(set_item(r), 0);
    item_request clear;
    clear.idx = 0;
    ASSERT_EQ(set_item(clear), 0);
    item_reply got = get_item(0, "");
    EXPECT_TRUE(got.raws.empty());
    EXPECT_TRUE(got.envs.empty());
}

TEST_F(ItemsTest, AnEmptyListEntryEndsTheList)
{
    item_request r;
    r.raws = {"--a=1", "", "--b=2"};
    r.envs = {"", "X=1"};
    ASSERT_EQ(set_item(r), 0);
    item_reply got = get_item(0, "");
    EXPECT_EQ(got.raws, strings{"--a=1"});
    EXPECT_TRUE(got.envs.empty());
}

TEST_F(ItemsTest, SurplusListEntriesAreDroppedAndLongValuesCut)
{
    item_request r;
    for (int i = 0; i < 70; i++) r.envs.push_back("E" + std::to_string(i) + "=1");
    for (int i = 0; i < 130; i++) r.raws.push_back("--r" + std::to_string(i));
    r.config = std::string(5000, 'c');
    r.envs[1] = std::string(4100, 'e');
    ASSERT_EQ(set_item(r), 0);
    item_reply got = get_item(0, "");
    ASSERT_EQ(got.envs.size(), APP_ENVS_MAX);
    ASSERT_EQ(got.raws.size(), APP_RAWS_MAX);
    EXPECT_EQ(got.envs.back(), "E63=1");
    EXPECT_EQ(got.raws.back(), "--r127");
    EXPECT_EQ(got.envs[1].size(), TEXT_FIELD_MAX);
    EXPECT_EQ(got.config.size(), TEXT_FIELD_MAX);
}

// --- GetItem addressing -----------------------------------------------------

TEST_F(ItemsTest, GetItemByHandleEchoesPtrAndReportsCurrentIndex)
{
    add("a");
    add("b");
    std::string ptr = "0x" + hex(inst->apps[1]->handle);
    item_reply got = get_item(-1, ptr);
    EXPECT_EQ(got.ret, 1);
    EXPECT_EQ(got.ptr, ptr);
    EXPECT_EQ(got.alias, "b");

    // The record moves; its handle follows it.
    instance_slot_swap(inst, 0, 1);
    EXPECT_EQ(get_item(-1, ptr).ret, 0);
    // By index with a ptr naming another record: the index wins, the text is echoed.
    got = get_item(1, ptr);
    EXPECT_EQ(got.alias, "a");
    EXPECT_EQ(got.ptr, ptr);
}

// --- faults -----------------------------------------------------------------

TEST_F(ItemsTest, UndecodableRequestsGetTheLibraryFaultAndTouchNothing)
{
    add("a");
    uint32_t before = inst->amend;
    xmlrpc_env_guard build;
    // Too few parameters, a string for idx, and a string for a list.
    std::vector<xmlrpc_value*> bad = {
        xmlrpc_build_value(build.get(), "(is)", -1, ""),
        xmlrpc_build_value(build.get(), "(ssssssssss)", "0", "", "lib", "", "", "", "", "", "", ""),
        xmlrpc_build_value(build.get(), "(isssssssss)", -1, "", "lib", "", "", "", "", "", "x", "y"),
    };
    ASSERT_FALSE(build.failed());
    for (xmlrpc_value* params : bad) EXPECT_EQ(call_set(params), INT32_MIN);
    EXPECT_NE(last_fault, 0);
    EXPECT_EQ(inst->cnt, 1);
    EXPECT_EQ(inst->amend, before);

    xmlrpc_env_guard env;
    xmlrpc_value_ref params(xmlrpc_build_value(env.get(), "(ss)", "0", ""));
    xmlrpc_value_ref reply(ctl_method_GetItem(env.get(), params.get(), inst, nullptr));
    EXPECT_TRUE(env.failed());
    EXPECT_FALSE(reply);
}

TEST_F(ItemsTest, ExtraParametersAreIgnored)
{
    xmlrpc_env_guard env;
    xmlrpc_value_ref raws(string_array(env.get(), {"--r"}));
    xmlrpc_value_ref envs(string_array(env.get(), {"E=1"}));
    xmlrpc_value* params = xmlrpc_build_value(env.get(), "(isssssssAAis)", -1, "", "io", "", "", "", "", "",
                                              raws.get(), envs.get(), 5, "extra");
    EXPECT_EQ(call_set(params), 0);
    EXPECT_EQ(inst->cnt, 1);
    EXPECT_EQ(inst->apps[0]->type, 4);
}

// A bad list element ends reading: what was stored before it stays, both
// counters move, and the caller gets a fault instead of "ret".
TEST_F(ItemsTest, ListFailureKeepsStoredFieldsAndRaisesCounters)
{
    item_request first;
    first.raws = {"--old"};
    first.envs = {"OLD=1"};
    ASSERT_EQ(set_item(first), 0);
    uint32_t before = inst->amend;

    xmlrpc_env_guard env;
    xmlrpc_value_ref raws(string_array(env.get(), {"--new"}));
    xmlrpc_value_ref envs(xmlrpc_build_value(env.get(), "(ssis)", "A=1", "B=2", 7, "C=3"));
    xmlrpc_value* params = xmlrpc_build_value(env.get(), "(isssssssAA)", 0, "", "io", "new alias", "", "cfg", "",
                                              "", raws.get(), envs.get());
    EXPECT_EQ(call_set(params), INT32_MIN);
    EXPECT_NE(last_fault, 0);

    const app& record = *inst->apps[0];
    EXPECT_EQ(record.type, 4);
    EXPECT_EQ(record.alias.str(), "new alias");
    EXPECT_EQ(record.config.str(), "cfg");
    ASSERT_EQ(record.envs.size(), 2u);
    EXPECT_EQ(record.envs[1].str(), "B=2");
    EXPECT_TRUE(record.raws.empty()) << "raws are not read after an envs failure";
    EXPECT_EQ(record.amend, 2u);
    EXPECT_EQ(inst->amend, before + 1);
}

TEST_F(ItemsTest, RawsFailureAfterGoodEnvsKeepsEnvs)
{
    xmlrpc_env_guard env;
    xmlrpc_value_ref raws(xmlrpc_build_value(env.get(), "(si)", "--ok", 1));
    xmlrpc_value_ref envs(string_array(env.get(), {"A=1", "B=2"}));
    xmlrpc_value* params = xmlrpc_build_value(env.get(), "(isssssssAA)", -1, "", "io", "", "", "", "", "",
                                              raws.get(), envs.get());
    EXPECT_EQ(call_set(params), INT32_MIN);
    ASSERT_EQ(inst->cnt, 1);
    EXPECT_EQ(inst->apps[0]->envs.size(), 2u);
    ASSERT_EQ(inst->apps[0]->raws.size(), 1u);
    EXPECT_EQ(inst->apps[0]->raws[0].str(), "--ok");
    EXPECT_EQ(inst->amend, 2u);
}

}  // namespace
