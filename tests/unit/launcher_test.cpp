// Launch preparation without forking: executable path, argument and environment
// vectors, the per-child option file, and the classification of a child's end.
#include <gtest/gtest.h>
#include <signal.h>

#include "app_life.h"
#include "app_types.h"
#include "child_conf.h"
#include "launcher.h"
#include "unit_support.h"

namespace {

using namespace unit_support;
using strings = std::vector<std::string>;

strings vec(const char* const v[LAUNCH_VEC_SLOTS])
{
    strings out;
    for (int i = 0; i < LAUNCH_VEC_SLOTS && v[i]; i++) out.emplace_back(v[i]);
    return out;
}

int exit_status(int code) { return (code & 0xff) << 8; }

// An app that frees itself and the option file it made.
struct launch_app {
    explicit launch_app(const char* type, const char* alias = "", const strings& raws = {})
    {
        r->type = instance_apps_lookup(type);
        r->alias.set(alias);
        for (const std::string& raw : raws) r->raws.append(raw);
    }
    ~launch_app()
    {
        if (!r->child_conf_file.empty()) unlink(r->child_conf_file.c_str());
        app_free(r);
    }
    strings argv(const char* path = "/opt/x/Exe")
    {
        const char* v[LAUNCH_VEC_SLOTS];
        int n = launch_build_argv(*r, path, v);
        EXPECT_EQ(v[n], nullptr);
        return vec(v);
    }
    app* r = app_new();
};

TEST(Launch, ExecutablePathFromBinPathOwnDirectoryOrScriptProgram)
{
    char path[TEXT_FIELD_SIZE];
    launch_app io("io"), script("script");
    io.r->bin_path.set("/opt/vantrel/bin");
    launch_exec_path(*io.r, path, sizeof(path));
    EXPECT_STREQ(path, "/opt/vantrel/bin/VantrelIO");
    io.r->bin_path.clear();
    launch_exec_path(*io.r, path, sizeof(path));
    EXPECT_EQ(std::string(path), fs::read_symlink("/proc/self/exe").parent_path().string() + "/VantrelIO");
    script.r->bin_path.set("/opt/tools/run.sh");
    launch_exec_path(*script.r, path, sizeof(path));
    EXPECT_STREQ(path, "/opt/tools/run.sh");
}

TEST(Launch, ArgumentsAndTheOptionFileWithItsDefaults)
{
    struct row {
        const char* type;
        const char* alias;
        const char* config;
        strings raws;
        strings argv_head;   // before the option file's path, when there is one
        const char* conf;    // nullptr: no option file
    } rows[] = {
        {"elem_mixer", "mixer1", "/cfg/m.xml", {}, {"mixer1", "--nodemonize", "/cfg/m.xml"}, nullptr},
        {"io", "", "", {}, {"/opt/x/Exe", "--nodemonize"}, nullptr},
        {"io", "", "c.xml", {"--xmlrpc-port=9101"}, {"/opt/x/Exe", "--nodemonize", "c.xml"}, "--xmlrpc-port=9101\n"},
        {"elem_mixer", "mixer1", "", {"--matrix=/data/m1"}, {"mixer1", "--nodemonize"},
         "--matrix=/data/m1\n--log-file-name=/Vantrel/logs/mixer1/log\n--state-save=/Vantrel/runtime/mixer1\n"},
        {"filetranscoder", "ft", "", {"--db=/data/my.db"}, {"ft", "--nodemonize"},
         "--db=/data/my.db\n--log-file-name=/Vantrel/logs/ft/log\n"},
        // A commented raw line suppresses nothing; a prefix counts only at the start.
        {"filetranscoder", "ft", "", {"#--db=x"}, {"ft", "--nodemonize"},
         "#--db=x\n--log-file-name=/Vantrel/logs/ft/log\n--db=/Vantrel/runtime/ft.db\n"},
        {"io", "io1", "", {"-x --settings=/a"}, {"io1", "--nodemonize"},
         "-x --settings=/a\n--log-file-name=/Vantrel/logs/io1/log\n--settings=/Vantrel/runtime/io1\n"},
        {"script", "", "ignored", {"-v", "#old", "input"}, {"/opt/x/Exe", "-v", "input"}, nullptr},
    };
    for (const row& w : rows) {
        launch_app a(w.type, w.alias, w.raws);
        a.r->config.set(w.config);
        unsigned seq = launch_conf_seq();
        strings argv = a.argv();
        strings expected = w.argv_head;
        if (w.conf) {
            char path[64];
            snprintf(path, sizeof(path), "%s/watchdog-%d-%03u.conf", child_conf_dir().c_str(), static_cast<int>(getpid()), seq);
            expected.push_back(path);
            EXPECT_EQ(file_text(path), w.conf) << w.type << " " << w.alias;
        }
        EXPECT_EQ(argv, expected) << w.type << " " << w.alias;
        EXPECT_EQ(launch_conf_seq(), seq + (w.conf ? 1 : 0)) << w.type << " " << w.alias;
    }
}

TEST(Launch, AScriptTakesAtMost62Arguments)
{
    strings raws;
    for (int i = 0; i < 70; i++) raws.push_back(i % 10 == 5 ? "#c" + std::to_string(i) : "a" + std::to_string(i));
    launch_app many("script", "tool", raws);
    strings argv = many.argv();
    ASSERT_EQ(argv.size(), 63u);
    EXPECT_EQ(argv[62], "a68");   // 62 non-comment raws: a0..a68 less a5..a65 step 10
}

TEST(Launch, EnvironmentIsAppEntriesThenInheritedAndOverflowDropsAppEntries)
{
    instance inst;
    launch_app r("io"), many("io");
    for (const char* e : {"PATH=/usr/bin:/bin", "#OFF=1", "MODE=2"}) r.r->envs.append(e);
    for (int i = 0; i < 64; i++) many.r->envs.append("E" + std::to_string(i) + "=v");
    for (const char* e : {"VANTREL_ELEMENTS_DEVICE=1", "CUDA_MPS_LOG_DIRECTORY=/l", "CUDA_VISIBLE_DEVICES=0"})
        inst.inherited_envs.append(e);
    const char* envp[LAUNCH_VEC_SLOTS];
    EXPECT_EQ(launch_build_envp(*r.r, inst, envp), 5);
    EXPECT_EQ(vec(envp), (strings{"PATH=/usr/bin:/bin", "MODE=2", "VANTREL_ELEMENTS_DEVICE=1",
                                  "CUDA_MPS_LOG_DIRECTORY=/l", "CUDA_VISIBLE_DEVICES=0"}));
    EXPECT_EQ(launch_build_envp(*many.r, inst, envp), 63);
    EXPECT_EQ(envp[63], nullptr);
    EXPECT_STREQ(envp[59], "E59=v");
    EXPECT_STREQ(envp[62], "CUDA_VISIBLE_DEVICES=0");
}

// The brakes, by whole seconds of the monotonic clock (a start at 1000 s).
TEST(Launch, SixthFastEndInARowStopsRespawningUntilALongRun)
{
    launch_app a("io");
    app& r = *a.r;
    r.f_respawn = 1;
    r.started_ms = 1'000'000;
    for (int i = 1; i <= 5; i++) app_life_classify_end(r, 1'004'999, exit_status(0));
    EXPECT_EQ(r.fast_respawn_cnt, 5);
    EXPECT_EQ(r.f_respawn, 1);
    app_life_classify_end(r, 1'000'000, exit_status(1));
    EXPECT_EQ(r.f_respawn, 0);
    EXPECT_EQ(r.err.str(), "Respawn too fast");
    r.f_respawn = 1;   // not reset by the message: the next fast end repeats it
    app_life_classify_end(r, 1'002'000, exit_status(0));
    EXPECT_EQ(r.fast_respawn_cnt, 7);
    EXPECT_EQ(r.f_respawn, 0);
    app_life_classify_end(r, 1'005'000, exit_status(0));
    EXPECT_EQ(r.fast_respawn_cnt, 0);
}

TEST(Launch, ExitStatus128IsAStartErrorAndWinsOverTooFast)
{
    struct row {
        int64_t ended_ms;
        int fast_before, status, fast_after, respawn_after;
        const char* err;
    } rows[] = {
        {1'010'000, 0, exit_status(128), 0, 0, "Start error"},
        {1'001'000, 5, exit_status(128), 6, 0, "Start error"},
        {1'010'000, 3, SIGKILL, 0, 1, ""},   // killed by a signal is no start error
        {1'010'000, 0, exit_status(127), 0, 1, ""},
    };
    for (const row& w : rows) {
        launch_app a("io");
        a.r->f_respawn = 1;
        a.r->started_ms = 1'000'000;
        a.r->fast_respawn_cnt = w.fast_before;
        app_life_classify_end(*a.r, w.ended_ms, w.status);
        EXPECT_EQ(a.r->fast_respawn_cnt, w.fast_after) << "status " << w.status;
        EXPECT_EQ(a.r->f_respawn, w.respawn_after) << "status " << w.status;
        EXPECT_EQ(a.r->err.str(), w.err) << "status " << w.status;
    }
}

}  // namespace
