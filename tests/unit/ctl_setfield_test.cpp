// SetField called directly with built parameter arrays. The machine commands
// and signals go to recording fakes installed before any test runs.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/xmlrpc_raii.h"
#include "ctl_methods.h"
#include "instance.h"
#include "os_ops.h"
#include "system_runner.h"
#include "unit_support.h"

namespace {

using namespace unit_support;

std::vector<std::string> g_commands;                  // what the fake runner was asked to run
std::vector<std::pair<pid_t, int>> g_signals;         // what the fake kill was asked to send

int record_command(const char* command)
{
    g_commands.emplace_back(command);
    return 0;
}

int record_kill(pid_t pid, int sig)
{
    g_signals.emplace_back(pid, sig);
    return 0;
}

// Installed during static initialisation, before main and before any handler
// can reach the real runner.
const bool g_fake_runner_installed = (system_runner_set(record_command), true);

struct log_line {
    char mark;
    std::string text;
};

class SetFieldTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(g_fake_runner_installed);
        ASSERT_EQ(instance_create(&inst), 0);
        watchdog_os.kill = record_kill;
        g_commands.clear();
        g_signals.clear();
    }
    void TearDown() override
    {
        for (int i = 0; i < inst->cnt; i++) inst->apps[i]->pid = 0;
        instance_destroy(&inst);
        os_ops_reset();
    }

    // Appends `n` stopped applications whose aliases are "a0", "a1", ...
    void add_apps(int n)
    {
        for (int i = 0; i < n; i++) {
            app* record = app_new();
            record->type = 21;
            record->alias.set("a" + std::to_string(inst->cnt));
            ASSERT_EQ(instance_slot_append(inst, record), 0);
        }
    }

    std::vector<std::string> aliases() const
    {
        std::vector<std::string> out;
        for (int i = 0; i < inst->cnt; i++) out.push_back(inst->apps[i]->alias.str());
        return out;
    }

    // The reply's "ret"; INT32_MIN for a fault.
    int call(xmlrpc_value* params)
    {
        int members = 1;
        int ret = call_ret(ctl_method_SetField, params, inst, nullptr, &members);
        EXPECT_EQ(members, 1) << "the reply holds only ret";
        return ret;
    }

    int set_field(int idx, const std::string& ptr, const std::string& field, const std::string& val = "")
    {
        xmlrpc_env_guard env;
        return call(xmlrpc_build_value(env.get(), "(isss)", idx, ptr.c_str(), field.c_str(), val.c_str()));
    }

    // Runs set_field with standard error captured; the lines logged meanwhile.
    int set_field_logged(std::vector<log_line>& lines, int idx, const std::string& ptr, const std::string& field,
                         const std::string& val = "")
    {
        testing::internal::CaptureStderr();
        int ret = set_field(idx, ptr, field, val);
        std::istringstream text(testing::internal::GetCapturedStderr());
        lines.clear();
        for (std::string line; std::getline(text, line);) {
            std::size_t end = line.find("] ");
            if (line.empty() || end == std::string::npos) continue;
            lines.push_back({line[0], line.substr(end + 2)});
        }
        return ret;
    }

    static bool has_line(const std::vector<log_line>& lines, char mark, const std::string& text)
    {
        for (const log_line& line : lines)
            if (line.mark == mark && line.text == text) return true;
        return false;
    }

    instance* inst = nullptr;
};

// --- flags ------------------------------------------------------------------

TEST_F(SetFieldTest, FlagValuesAreLeadingNumbers)
{
    add_apps(1);
    const std::pair<const char*, int> cases[] = {{"1", 1}, {"abc", 0}, {"2", 2}, {"  -3x", -3}, {"", 0}, {"7 8", 7}};
    for (auto [val, want] : cases) {
        EXPECT_EQ(set_field(0, "", "f_respawn", val), 0);
        EXPECT_EQ(inst->apps[0]->f_respawn, want) << val;
        EXPECT_EQ(set_field(0, "", "f_autorun", val), 0);
        EXPECT_EQ(inst->apps[0]->f_autorun, want) << val;
    }
}

TEST_F(SetFieldTest, FlagsRaiseBothCounters)
{
    add_apps(2);
    uint32_t before = inst->amend;
    set_field(1, "", "f_respawn", "1");
    set_field(-1, hex(inst->apps[1]->handle), "F_AUTORUN", "1");
    EXPECT_EQ(inst->amend, before + 2);
    EXPECT_EQ(inst->apps[1]->amend, 2u);
    EXPECT_EQ(inst->apps[0]->amend, 0u);
    EXPECT_EQ(inst->apps[1]->f_autorun, 1);
}

TEST_F(SetFieldTest, CommandNamesIgnoreLetterCase)
{
    add_apps(3);
    EXPECT_EQ(set_field(2, "", "T_Up"), 0);
    EXPECT_EQ(aliases(), (std::vector<std::string>{"a0", "a2", "a1"}));
    EXPECT_EQ(set_field(0, "", "F_RESPAWN", "1"), 0);
    EXPECT_EQ(inst->apps[0]->f_respawn, 1);
    EXPECT_EQ(set_field(0, "", "T_RUN"), 0);
    EXPECT_EQ(inst->apps[0]->t_run, 1);
}

// --- start and terminate ----------------------------------------------------

TEST_F(SetFieldTest, RunMarksOnlyStoppedApplicationsAndCountsNothing)
{
    add_apps(2);
    inst->apps[1]->pid = 4321;
    uint32_t before = inst->amend;
    std::vector<log_line> lines;

    EXPECT_EQ(set_field_logged(lines, 0, "", "t_run"), 0);
    EXPECT_EQ(inst->apps[0]->t_run, 1);
    EXPECT_TRUE(has_line(lines, '!', "ctl_method_SetField: marking to start"));

    EXPECT_EQ(set_field_logged(lines, 1, "", "t_run"), 0);
    EXPECT_EQ(inst->apps[1]->t_run, 0);
    EXPECT_TRUE(has_line(lines, '!', "ctl_method_SetField: already running"));

    EXPECT_EQ(inst->amend, before);
    EXPECT_EQ(inst->apps[0]->amend, 0u);
    EXPECT_EQ(inst->apps[1]->amend, 0u);
    EXPECT_TRUE(g_signals.empty());
}

TEST_F(SetFieldTest, TermSignalsOnceAndAlwaysCountsTheApplication)
{
    add_apps(2);
    inst->apps[0]->pid = 4321;
    uint32_t before = inst->amend;
    std::vector<log_line> lines;

    time_t now = time(nullptr);
    EXPECT_EQ(set_field_logged(lines, 0, "", "t_term"), 0);
    ASSERT_EQ(g_signals.size(), 1u);
    EXPECT_EQ(g_signals[0], std::make_pair(pid_t{-4321}, SIGINT));   // the whole process group
    EXPECT_GE(inst->apps[0]->t_term, now);
    EXPECT_LE(inst->apps[0]->t_term, time(nullptr));

    EXPECT_EQ(set_field_logged(lines, 0, "", "t_term"), 0);
    EXPECT_EQ(g_signals.size(), 1u) << "a second t_term sends no second signal";
    EXPECT_TRUE(has_line(lines, '!', "ctl_method_SetField: already terminating"));

    EXPECT_EQ(set_field_logged(lines, 1, "", "t_term"), 0);
    EXPECT_TRUE(has_line(lines, '!', "ctl_method_SetField: not running"));
    EXPECT_EQ(inst->apps[1]->t_term, 0);

    EXPECT_EQ(inst->apps[0]->amend, 2u);
    EXPECT_EQ(inst->apps[1]->amend, 1u);
    EXPECT_EQ(inst->amend, before);
    EXPECT_EQ(inst->apps[0]->f_respawn, 0);
}

// --- moving -----------------------------------------------------------------

TEST_F(SetFieldTest, MovesSwapNeighboursAndHandlesFollow)
{
    add_apps(4);
    uint64_t handle = inst->apps[3]->handle;
    uint32_t before = inst->amend;
    EXPECT_EQ(set_field(3, "", "t_up"), 0);
    EXPECT_EQ(inst->apps[2]->handle, handle);
    EXPECT_EQ(set_field(-1, hex(handle), "t_up"), 0);
    EXPECT_EQ(aliases(), (std::vector<std::string>{"a0", "a3", "a1", "a2"}));
    EXPECT_EQ(set_field(-1, "0X" + hex(handle), "t_down"), 0);
    EXPECT_EQ(aliases(), (std::vector<std::string>{"a0", "a1", "a3", "a2"}));
    EXPECT_EQ(inst->amend, before + 3);
    EXPECT_EQ(inst->apps[2]->amend, 0u);
}

// --- deleting ---------------------------------------------------------------

TEST_F(SetFieldTest, DeleteRemovesStoppedApplicationAndShiftsLaterSlots)
{
    add_apps(3);
    uint64_t second = inst->apps[1]->handle;
    inst->last_app = inst->apps[0];
    uint32_t before = inst->amend;
    EXPECT_EQ(set_field(0, "", "t_del"), 0);
    EXPECT_EQ(inst->last_app, nullptr);
    ASSERT_EQ(inst->cnt, 2);
    EXPECT_EQ(aliases(), (std::vector<std::string>{"a1", "a2"}));
    EXPECT_EQ(inst->apps[0]->handle, second);
    EXPECT_EQ(inst->amend, before + 1);
}

TEST_F(SetFieldTest, DeleteOfRunningApplicationRemovesNothingButCounts)
{
    add_apps(2);
    inst->apps[1]->pid = 999;
    uint32_t before = inst->amend;
    EXPECT_EQ(set_field(1, "", "t_del"), 0);
    EXPECT_EQ(inst->cnt, 2);
    EXPECT_EQ(inst->amend, before + 1);
    EXPECT_TRUE(g_signals.empty());
}

// The record of a launched application still has its forker thread; deleting
// must wait for that thread before the record is freed.
TEST_F(SetFieldTest, DeleteJoinsTheFinishedForker)
{
    add_apps(1);
    app& record = *inst->apps[0];
    static std::atomic<bool> forker_done;
    forker_done = false;
    pthread_barrier_init(&record.forker_barrier, nullptr, 2);
    record.forker_cnt = 1;
    ASSERT_EQ(pthread_create(
                  &record.forker, nullptr,
                  [](void*) -> void* {
                      std::this_thread::sleep_for(std::chrono::milliseconds(200));
                      forker_done = true;
                      return nullptr;
                  },
                  nullptr),
              0);
    EXPECT_EQ(set_field(0, "", "t_del"), 0);
    EXPECT_TRUE(forker_done) << "t_del returned before the forker thread ended";
    EXPECT_EQ(inst->cnt, 0);
}

// --- cloning ----------------------------------------------------------------

TEST_F(SetFieldTest, CloneInsertsBehindItsSourceWithRunStateReset)
{
    add_apps(5);
    app& source = *inst->apps[2];
    source.config.set("/cfg/two.xml");
    source.envs.append("A=1");
    source.raws.append("--r=1");
    source.pid = 1234;
    source.started = 100;
    source.t_term = 200;
    source.t_run = 1;
    source.f_respawn = 1;
    source.f_autorun = 1;
    source.fast_respawn_cnt = 3;
    source.amend = 9;
    source.err.set("Start error");
    source.session_name.set("sess");
    uint32_t before = inst->amend;

    EXPECT_EQ(set_field(2, "", "t_clone"), 0);
    ASSERT_EQ(inst->cnt, 6);
    EXPECT_EQ(aliases(), (std::vector<std::string>{"a0", "a1", "a2", "a2(clone)", "a3", "a4"}));
    EXPECT_EQ(inst->amend, before + 1);

    const app& copy = *inst->apps[3];
    EXPECT_NE(copy.handle, source.handle);
    EXPECT_NE(copy.handle, 0u);
    EXPECT_EQ(copy.type, source.type);
    EXPECT_EQ(copy.config, source.config);
    EXPECT_EQ(copy.envs, source.envs);
    EXPECT_EQ(copy.raws, source.raws);
    EXPECT_EQ(copy.err, source.err);
    EXPECT_EQ(copy.session_name, source.session_name);
    EXPECT_EQ(copy.t_run, 1);
    EXPECT_EQ(copy.pid, 0);
    EXPECT_EQ(copy.started, 0);
    EXPECT_EQ(copy.t_term, 0);
    EXPECT_EQ(copy.f_respawn, 0);
    EXPECT_EQ(copy.f_autorun, 0);
    EXPECT_EQ(copy.fast_respawn_cnt, 0);
    EXPECT_EQ(copy.amend, 0u);
    EXPECT_EQ(copy.forker_cnt, 0);
    EXPECT_EQ(source.amend, 9u);
    EXPECT_EQ(source.pid, 1234);
}

TEST_F(SetFieldTest, CloneAliasStaysWithinTheFieldCapacity)
{
    add_apps(1);
    inst->apps[0]->alias.set(std::string(TEXT_FIELD_MAX - 3, 'x'));
    EXPECT_EQ(set_field(0, "", "t_clone"), 0);
    EXPECT_EQ(inst->apps[1]->alias.str(), std::string(TEXT_FIELD_MAX - 3, 'x') + "(cl");
}

TEST_F(SetFieldTest, CloneIntoAFullTableIsRefused)
{
    add_apps(APPS_MAX);
    uint32_t before = inst->amend;
    std::vector<log_line> lines;
    EXPECT_EQ(set_field_logged(lines, 5, "", "t_clone"), -ENOMEM);
    EXPECT_TRUE(has_line(lines, '!', "ctl_method_SetField: instance->apps.cnt=1024 is maximal"));
    EXPECT_EQ(inst->cnt, APPS_MAX);
    EXPECT_EQ(inst->amend, before);
    EXPECT_EQ(inst->apps[6]->alias.str(), "a6");
}

// --- unknown commands and the machine commands ------------------------------

TEST_F(SetFieldTest, UnknownCommandIsMinus2ForAnApplicationAndMinus34Without)
{
    add_apps(1);
    uint32_t before = inst->amend;
    std::vector<log_line> lines;
    EXPECT_EQ(set_field_logged(lines, 0, "", "t_bogus"), -ENOENT);
    EXPECT_TRUE(has_line(lines, '!', "ctl_method_SetField: field=[t_bogus] not known"));
    EXPECT_EQ(set_field(1, "", "t_bogus"), -ERANGE);
    EXPECT_EQ(set_field(-1, "", "f_respawn", "1"), -ERANGE);
    EXPECT_EQ(inst->amend, before);
    EXPECT_EQ(inst->apps[0]->amend, 0u);
    EXPECT_EQ(inst->apps[0]->f_respawn, 0);
}

TEST_F(SetFieldTest, MachineCommandsAreUnknownForAnAddressedApplication)
{
    add_apps(1);
    EXPECT_EQ(set_field(0, "", "t_reboot"), -ENOENT);
    EXPECT_EQ(set_field(-1, hex(inst->apps[0]->handle), "t_shutdown"), -ENOENT);
    EXPECT_TRUE(g_commands.empty());
}

TEST_F(SetFieldTest, RebootAndShutdownRunOnlyWithoutAnApplication)
{
    add_apps(1);
    std::vector<log_line> lines;
    EXPECT_EQ(set_field_logged(lines, -1, "", "t_reboot"), 0);
    EXPECT_TRUE(has_line(lines, '!', "ctl_method_SetField: ptr=[], p=(nil) not found"));
    EXPECT_TRUE(has_line(lines, ' ', "ctl_method_SetField: will reboot"));
    EXPECT_TRUE(has_line(lines, '?', "ctl_method_SetField: idx=-1, ptr=[], field=[t_reboot], val=[]"));

    EXPECT_EQ(set_field_logged(lines, 7, "", "T_SHUTDOWN"), 0);
    EXPECT_TRUE(has_line(lines, ' ', "ctl_method_SetField: will shutdown"));
    EXPECT_EQ(g_commands, (std::vector<std::string>{"/usr/sbin/reboot", "/usr/sbin/halt -f -p"}));
    EXPECT_EQ(inst->cnt, 1);
}

// --- decoding and locking ---------------------------------------------------

TEST_F(SetFieldTest, UndecodableRequestGetsAFaultAndChangesNothing)
{
    add_apps(1);
    uint32_t before = inst->amend;
    xmlrpc_env_guard env;
    testing::internal::CaptureStderr();
    EXPECT_EQ(call(xmlrpc_build_value(env.get(), "(iss)", 0, "", "t_del")), INT32_MIN);
    EXPECT_EQ(call(xmlrpc_build_value(env.get(), "(issi)", -1, "", "t_reboot", 1)), INT32_MIN);
    EXPECT_EQ(call(xmlrpc_build_value(env.get(), "(sss)", "0", "t_del", "")), INT32_MIN);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("ctl_method_SetField: xmlrpc_decompose_value('idx', 'ptr', 'field', 'val') failed"),
              std::string::npos);
    EXPECT_EQ(inst->cnt, 1);
    EXPECT_EQ(inst->amend, before);
    EXPECT_TRUE(g_commands.empty());
}

TEST_F(SetFieldTest, CommandWaitsForTheInstanceLock)
{
    add_apps(1);
    std::atomic<bool> done{false};
    pthread_mutex_lock(&inst->lock);
    std::thread caller([&] {
        set_field(0, "", "f_respawn", "1");
        done = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(done) << "the command ran while another thread held the lock";
    pthread_mutex_unlock(&inst->lock);
    caller.join();
    EXPECT_TRUE(done);
    EXPECT_EQ(inst->apps[0]->f_respawn, 1);
}

}  // namespace
