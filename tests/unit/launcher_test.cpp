// Launch preparation without forking (executable path, argument and environment
// vectors, the per-child option file), the classification of a child's end
// and the element ports the listings show.
#include <gtest/gtest.h>
#include <signal.h>

#include "app_life.h"
#include "app_types.h"
#include "child_conf.h"
#include "ctl_status.h"
#include "launcher.h"
#include "unit_support.h"

namespace {

using namespace unit_support;
using strings = std::vector<std::string>;

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
    strings argv()
    {
        const char* v[LAUNCH_VEC_SLOTS];
        int n = launch_build_argv(*r, "/opt/x/Exe", v);
        EXPECT_EQ(v[n], nullptr);
        return strings(v, v + n);
    }
    app* r = app_new();
};

TEST(Launch, ExecutablePathArgumentsAndTheOptionFileWithItsDefaults)
{
    char path[TEXT_FIELD_SIZE];
    auto exec_path = [&](const char* type, const char* bin_path) {
        launch_app a(type);
        a.r->bin_path.set(bin_path);
        return launch_exec_path(*a.r, path, sizeof(path)), std::string(path);
    };
    EXPECT_EQ(exec_path("io", "/opt/vantrel/bin"), "/opt/vantrel/bin/VantrelIO");
    EXPECT_EQ(exec_path("io", ""), fs::read_symlink("/proc/self/exe").parent_path().string() + "/VantrelIO");
    EXPECT_EQ(exec_path("script", "/opt/tools/run.sh"), "/opt/tools/run.sh");
    // argv_head: before the option file's path, when there is one; conf nullptr: no option file
    struct row { const char *type, *alias, *config; strings raws, argv_head; const char* conf; } rows[] = {
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
        unsigned seq = child_conf_seq();
        strings argv = a.argv(), expected = w.argv_head;
        if (w.conf) {
            char path[64];
            snprintf(path, sizeof(path), "%s/watchdog-%d-%03u.conf", child_conf_dir().c_str(), static_cast<int>(getpid()), seq);
            expected.push_back(path);
            EXPECT_EQ(file_text(path), w.conf) << w.type << " " << w.alias;
        }
        EXPECT_EQ(argv, expected) << w.type << " " << w.alias;
        EXPECT_EQ(child_conf_seq(), seq + (w.conf ? 1 : 0)) << w.type << " " << w.alias;
    }
    strings raws;   // a script takes at most 62 arguments, comments left out
    for (int i = 0; i < 70; i++) raws.push_back(i % 10 == 5 ? "#c" + std::to_string(i) : "a" + std::to_string(i));
    strings many = launch_app("script", "tool", raws).argv();
    ASSERT_EQ(many.size(), 63u);
    EXPECT_EQ(many[62], "a68");   // 62 non-comment raws: a0..a68 less a5..a65 step 10
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
    ASSERT_EQ(launch_build_envp(*r.r, inst, envp), 5);
    EXPECT_EQ(strings(envp, envp + 5), (strings{"PATH=/usr/bin:/bin", "MODE=2", "VANTREL_ELEMENTS_DEVICE=1",
                                  "CUDA_MPS_LOG_DIRECTORY=/l", "CUDA_VISIBLE_DEVICES=0"}));
    EXPECT_EQ(launch_build_envp(*many.r, inst, envp), 63);
    EXPECT_EQ(envp[63], nullptr);
    EXPECT_STREQ(envp[59], "E59=v");
    EXPECT_STREQ(envp[62], "CUDA_VISIBLE_DEVICES=0");
}

// The brakes by whole seconds of the monotonic clock (a start at 1000 s), and
// exit status 128 as a start error that wins over too fast.
TEST(Launch, EndClassification)
{
    auto exited = [](int code) { return (code & 0xff) << 8; };
    struct row { int64_t ended_ms; int fast_before, status, fast_after, respawn_after; const char* err; } rows[] = {
        {1'004'999, 4, exited(0), 5, 1, ""},                    // within the window: fast
        {1'004'999, 5, exited(0), 6, 0, "Respawn too fast"},    // the sixth in a row
        {1'000'000, 6, exited(1), 7, 0, "Respawn too fast"},    // not reset by the message
        {1'005'000, 5, exited(0), 0, 1, ""},                    // a long run resets the count
        {1'010'000, 0, exited(128), 0, 0, "Start error"}, {1'001'000, 5, exited(128), 6, 0, "Start error"},
        {1'010'000, 3, SIGKILL, 0, 1, ""},   // killed by a signal is no start error
        {1'010'000, 0, exited(127), 0, 1, ""},
    };
    for (const row& w : rows) {
        launch_app a("io");
        a.r->f_respawn = 1;
        a.r->started_ms = 1'000'000;
        a.r->fast_respawn_cnt = w.fast_before;
        app_life_classify_end(*a.r, w.ended_ms, w.status);
        std::string at = std::to_string(w.ended_ms) + " status " + std::to_string(w.status);
        EXPECT_EQ(a.r->fast_respawn_cnt, w.fast_after) << at;
        EXPECT_EQ(a.r->f_respawn, w.respawn_after) << at;
        EXPECT_EQ(a.r->err.str(), w.err) << at;
    }
}

TEST(ElementPort, ValuesThatDoNotFitAPositiveIntAreListedWithTheirLow32Bits)
{
    struct row { int type; const char* raw; bool listed; int port; } rows[] = {
        {21, "--port=-1", true, -1}, {21, "--port=3000000000", true, -1294967296}, {21, "--port=0", true, 36001},
        {23, "--xmlrpc-port=-5", true, -5}, {24, "--port=7000", false, 0}};
    for (const row& w : rows) {
        app record;
        record.type = w.type;
        record.raws.append(w.raw);
        int port = 0;
        EXPECT_EQ(ctl_element_port(record, &port), w.listed) << w.raw;
        EXPECT_EQ(w.listed ? port : 0, w.port) << w.raw;
    }
}

}  // namespace
