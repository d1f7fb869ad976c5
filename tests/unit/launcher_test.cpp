// Launch preparation without forking: executable path, argument and environment
// vectors, the per-child option file and the classification of a child's end.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "app_life.h"
#include "app_types.h"
#include "instance.h"
#include "launcher.h"
#include "unit_support.h"

namespace fs = std::filesystem;

namespace {

using namespace unit_support;

std::vector<std::string> vec(const char* const v[LAUNCH_VEC_SLOTS])
{
    std::vector<std::string> out;
    for (int i = 0; i < LAUNCH_VEC_SLOTS && v[i]; i++) out.emplace_back(v[i]);
    return out;
}

int exit_status(int code) { return (code & 0xff) << 8; }

// Owns an app and removes any option file a test made it write.
class Launch : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(instance_create(&inst_), 0); }
    void TearDown() override
    {
        for (const std::string& f : conf_files_) unlink(f.c_str());
        for (app* r : apps_) app_free(r);
        instance_destroy(&inst_);
    }
    app* make(const char* type_name, const char* alias = "", std::vector<std::string> raws = {})
    {
        app* r = app_new();
        r->type = instance_apps_lookup(type_name);
        r->alias.set(alias);
        for (const std::string& raw : raws) r->raws.append(raw);
        apps_.push_back(r);
        return r;
    }
    std::vector<std::string> argv_of(app* r, const char* path = "/opt/x/Exe")
    {
        const char* argv[LAUNCH_VEC_SLOTS];
        unsigned seq = launch_conf_seq();
        int n = launch_build_argv(*r, path, argv);
        if (launch_conf_seq() != seq) conf_files_.push_back(r->child_conf_file.str());
        EXPECT_EQ(argv[n], nullptr);
        EXPECT_EQ(argv[LAUNCH_VEC_SLOTS - 1], nullptr);
        return vec(argv);
    }
    std::string child_conf(app* r)
    {
        EXPECT_EQ(launch_write_child_conf(*r), 0);
        conf_files_.push_back(r->child_conf_file.str());
        return file_text(r->child_conf_file.str());
    }

    instance* inst_ = nullptr;
    std::vector<app*> apps_;
    std::vector<std::string> conf_files_;
};

TEST_F(Launch, ExecutablePathFromBinPathOwnDirectoryOrScriptProgram)
{
    char path[TEXT_FIELD_SIZE];
    app* io = make("io");
    io->bin_path.set("/opt/vantrel/bin");
    launch_exec_path(*io, path, sizeof(path));
    EXPECT_STREQ(path, "/opt/vantrel/bin/VantrelIO");

    io->bin_path.clear();
    launch_exec_path(*io, path, sizeof(path));
    fs::path self = fs::read_symlink("/proc/self/exe");
    EXPECT_EQ(std::string(path), self.parent_path().string() + "/VantrelIO");

    app* script = make("script");
    script->bin_path.set("/opt/tools/run.sh");
    launch_exec_path(*script, path, sizeof(path));
    EXPECT_STREQ(path, "/opt/tools/run.sh");
}

TEST_F(Launch, ArgumentsWithoutRawsNeedNoOptionFile)
{
    app* r = make("elem_mixer", "mixer1");
    r->config.set("/cfg/mixer.xml");
    unsigned seq = launch_conf_seq();
    EXPECT_EQ(argv_of(r), (std::vector<std::string>{"mixer1", "--nodemonize", "/cfg/mixer.xml"}));
    EXPECT_EQ(launch_conf_seq(), seq);
    EXPECT_TRUE(r->child_conf_file.empty());

    app* bare = make("io");
    EXPECT_EQ(argv_of(bare, "/opt/x/VantrelIO"), (std::vector<std::string>{"/opt/x/VantrelIO", "--nodemonize"}));
}

TEST_F(Launch, RawsAddTheOptionFileAsLastArgumentWithRisingSequence)
{
    app* r = make("io", "", {"--xmlrpc-port=9101"});
    r->config.set("cfg.xml");
    unsigned seq = launch_conf_seq();
    std::vector<std::string> argv = argv_of(r, "/opt/x/VantrelIO");
    char expect[64];
    snprintf(expect, sizeof(expect), "/tmp/watchdog-%d-%03u.conf", static_cast<int>(getpid()), seq);
    EXPECT_EQ(argv, (std::vector<std::string>{"/opt/x/VantrelIO", "--nodemonize", "cfg.xml", expect}));
    EXPECT_EQ(r->child_conf_file.str(), expect);
    EXPECT_EQ(launch_conf_seq(), seq + 1);
    EXPECT_EQ(file_text(expect), "--xmlrpc-port=9101\n");

    argv_of(r);
    snprintf(expect, sizeof(expect), "/tmp/watchdog-%d-%03u.conf", static_cast<int>(getpid()), seq + 1);
    EXPECT_EQ(r->child_conf_file.str(), expect);
}

TEST_F(Launch, OptionFileRawsFirstThenDefaultsNotGivenByARaw)
{
    app* mixer = make("elem_mixer", "mixer1", {"--matrix=/data/m1"});
    EXPECT_EQ(child_conf(mixer),
              "--matrix=/data/m1\n"
              "--log-file-name=/Vantrel/logs/mixer1/log\n"
              "--state-save=/Vantrel/runtime/mixer1\n");

    app* ft = make("filetranscoder", "ft", {"--db=/data/my.db"});
    EXPECT_EQ(child_conf(ft), "--db=/data/my.db\n--log-file-name=/Vantrel/logs/ft/log\n");

    // A commented raw line is copied but suppresses nothing.
    app* commented = make("filetranscoder", "ft", {"#--db=x"});
    EXPECT_EQ(child_conf(commented),
              "#--db=x\n--log-file-name=/Vantrel/logs/ft/log\n--db=/Vantrel/runtime/ft.db\n");

    // A prefix counts only at the start of a raw line.
    app* inner = make("io", "io1", {"-x --settings=/a"});
    EXPECT_EQ(child_conf(inner),
              "-x --settings=/a\n--log-file-name=/Vantrel/logs/io1/log\n--settings=/Vantrel/runtime/io1\n");
}

TEST_F(Launch, ScriptRawsBecomeArgumentsWithoutCommentsAndAtMost62)
{
    app* s = make("script", "", {"-v", "#old", "input"});
    s->config.set("ignored");
    EXPECT_EQ(argv_of(s, "/opt/tools/run.sh"), (std::vector<std::string>{"/opt/tools/run.sh", "-v", "input"}));
    EXPECT_TRUE(s->child_conf_file.empty());

    std::vector<std::string> raws;
    for (int i = 0; i < 70; i++) raws.push_back(i % 10 == 5 ? "#c" + std::to_string(i) : "a" + std::to_string(i));
    app* many = make("script", "tool", raws);
    std::vector<std::string> argv = argv_of(many);
    ASSERT_EQ(argv.size(), 63u);
    EXPECT_EQ(argv[0], "tool");
    EXPECT_EQ(argv[1], "a0");
    EXPECT_EQ(argv[62], "a68");   // 62 non-comment raws: a0..a68 less a5..a65 step 10
}

TEST_F(Launch, EnvironmentIsAppEntriesThenInheritedWithoutComments)
{
    app* r = make("io");
    r->envs.append("PATH=/usr/bin:/bin");
    r->envs.append("#OFF=1");
    r->envs.append("MODE=2");
    inst_->inherited_envs.append("CUDA_VISIBLE_DEVICES=0");
    const char* envp[LAUNCH_VEC_SLOTS];
    EXPECT_EQ(launch_build_envp(*r, *inst_, envp), 3);
    EXPECT_EQ(vec(envp), (std::vector<std::string>{"PATH=/usr/bin:/bin", "MODE=2", "CUDA_VISIBLE_DEVICES=0"}));
}

TEST_F(Launch, EnvironmentOverflowDropsAppEntriesAndKeepsInherited)
{
    app* r = make("io");
    for (int i = 0; i < 64; i++) r->envs.append("E" + std::to_string(i) + "=v");
    inst_->inherited_envs.append("VANTREL_ELEMENTS_DEVICE=1");
    inst_->inherited_envs.append("CUDA_MPS_LOG_DIRECTORY=/l");
    inst_->inherited_envs.append("CUDA_VISIBLE_DEVICES=0");
    const char* envp[LAUNCH_VEC_SLOTS];
    EXPECT_EQ(launch_build_envp(*r, *inst_, envp), 63);
    EXPECT_EQ(envp[63], nullptr);
    std::vector<std::string> env = vec(envp);
    EXPECT_EQ(env[59], "E59=v");
    EXPECT_EQ(env[60], "VANTREL_ELEMENTS_DEVICE=1");
    EXPECT_EQ(env[62], "CUDA_VISIBLE_DEVICES=0");

    // Comment entries take no room, so 63 real ones all fit.
    app* exact = make("io");
    exact->envs.append("#x");
    for (int i = 0; i < 63; i++) exact->envs.append("E" + std::to_string(i) + "=v");
    instance* bare = nullptr;
    ASSERT_EQ(instance_create(&bare), 0);
    EXPECT_EQ(launch_build_envp(*exact, *bare, envp), 63);
    EXPECT_EQ(envp[62], std::string("E62=v"));
    instance_destroy(&bare);
}

// The brakes, by whole seconds of the monotonic clock (a start at 1000 s).
TEST_F(Launch, SixthFastEndInARowStopsRespawning)
{
    app* r = make("io");
    r->f_respawn = 1;
    r->started_ms = 1'000'000;
    for (int i = 1; i <= 5; i++) {
        app_life_classify_end(*r, 1'004'999, exit_status(0));
        EXPECT_EQ(r->fast_respawn_cnt, i);
        EXPECT_EQ(r->f_respawn, 1);
    }
    app_life_classify_end(*r, 1'000'000, exit_status(1));
    EXPECT_EQ(r->f_respawn, 0);
    EXPECT_EQ(r->err.str(), "Respawn too fast");
    // Not reset by the message: the next fast end repeats it at once.
    r->f_respawn = 1;
    r->err.clear();
    app_life_classify_end(*r, 1'002'000, exit_status(0));
    EXPECT_EQ(r->fast_respawn_cnt, 7);
    EXPECT_EQ(r->err.str(), "Respawn too fast");
    // Only an end in the fifth second after the start or later resets the count.
    app_life_classify_end(*r, 1'005'000, exit_status(0));
    EXPECT_EQ(r->fast_respawn_cnt, 0);
}

TEST_F(Launch, ExitStatus128IsAStartErrorAndWinsOverTooFast)
{
    struct row {
        int64_t ended_ms;
        int fast_before, status;
        int fast_after, respawn_after;
        const char* err;
    } rows[] = {
        {1'010'000, 0, exit_status(128), 0, 0, "Start error"},
        {1'001'000, 5, exit_status(128), 6, 0, "Start error"},
        {1'010'000, 3, SIGKILL, 0, 1, ""},   // killed by a signal is no start error
        {1'010'000, 0, exit_status(127), 0, 1, ""},
    };
    for (const row& w : rows) {
        app* r = make("io");
        r->f_respawn = 1;
        r->started_ms = 1'000'000;
        r->fast_respawn_cnt = w.fast_before;
        app_life_classify_end(*r, w.ended_ms, w.status);
        EXPECT_EQ(r->fast_respawn_cnt, w.fast_after) << "status " << w.status;
        EXPECT_EQ(r->f_respawn, w.respawn_after) << "status " << w.status;
        EXPECT_EQ(r->err.str(), w.err) << "status " << w.status;
    }
}

}  // namespace
