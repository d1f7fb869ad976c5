// The option reader: defaults, the getopt_long rules, option files and their
// nesting, the messages on standard error and the capacities of the records.
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "app_types.h"
#include "banner.h"
#include "instance.h"
#include "options.h"
#include "unit_support.h"

namespace fs = std::filesystem;

namespace {

using namespace unit_support;

const std::string usage_tail =
    "Usage:\n"
    "    VantrelWatchdog [args]\n"
    "Where args:\n"
    "    --port=<NUM>                           XMLRPC service port\n"
    "    --demonize                         Become daemon on executing\n"
    "\n"
    "                                       Log file operation\n"
    "    --log-file-name=<STR>\n"
    "    --log-rotate-interval=<INT>\n"
    "\n"
    "    -h, --help                         Show this help and usage\n";

std::string usage() { return std::string(watchdog_banner()) + "\n" + usage_tail; }

std::string incorrect(const std::string& arg)
{
    return "ERROR: Incorrect argument! [" + arg + "]\n" + usage();
}

class OptionsTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(instance_create(&inst_), 0); }
    void TearDown() override { instance_destroy(&inst_); }

    std::string file(const std::string& name, const std::string& text)
    {
        std::string path = (dir_ / name).string();
        write_file(path, text);
        return path;
    }

    // Runs one command-line pass; err_ receives what it wrote to stderr.
    int run(std::vector<std::string> args) { return read_options(inst_, std::move(args), err_); }

    const app& at(int i) { return *inst_->apps[i]; }

    instance* inst_ = nullptr;
    scratch_dir scratch_{"opts-test"};
    fs::path dir_ = scratch_.path();
    std::string err_;
};

// ---- defaults and global options ----

TEST_F(OptionsTest, NoArgumentsLeaveTheDefaults)
{
    EXPECT_EQ(run({}), 0);
    EXPECT_EQ(inst_->port, 9000);
    EXPECT_EQ(inst_->log_file_name.str(), "VantrelWatchdog.log");
    EXPECT_EQ(inst_->log_rotate_interval, 86400);
    EXPECT_EQ(inst_->cnt, 0);
    EXPECT_EQ(inst_->amend, 0u);
    EXPECT_TRUE(inst_->conf_file.empty());
    EXPECT_EQ(err_, "");
}

TEST_F(OptionsTest, EveryGlobalOptionIsStored)
{
    EXPECT_EQ(run({"--port=9100", "--instance-name=studio 1", "--web-auth-secret=s3", "--log-file-name", "/var/w.log",
                   "--log-rotate-interval=60", "--demonize", "--nodemonize", "--realtime-io", "--cpu-affinity=3",
                   "--realtime-cpu=-2", "--debug", "--debug"}),
              0);
    EXPECT_EQ(inst_->port, 9100);
    EXPECT_EQ(inst_->instance_name.str(), "studio 1");
    EXPECT_EQ(inst_->web_auth_secret.str(), "s3");
    EXPECT_EQ(inst_->log_file_name.str(), "/var/w.log");
    EXPECT_EQ(inst_->log_rotate_interval, 60);
    EXPECT_EQ(inst_->demonize, 1);
    EXPECT_EQ(inst_->nodemonize, 1);
    EXPECT_EQ(inst_->realtime_io, 1);
    EXPECT_EQ(inst_->cpu_affinity, 3);
    EXPECT_EQ(inst_->realtime_cpu, -2);
    EXPECT_EQ(inst_->debug, 2);
    EXPECT_EQ(err_, "");
}

TEST_F(OptionsTest, NumbersUseTheLeadingNumber)
{
    EXPECT_EQ(run({"--port=  +9123abc", "--log-rotate-interval=12.5"}), 0);
    EXPECT_EQ(inst_->port, 9123);
    EXPECT_EQ(inst_->log_rotate_interval, 12);
}

TEST_F(OptionsTest, PortWithoutDigitsIsRequiredAgain)
{
    EXPECT_EQ(run({"--port=abc"}), -EINVAL);
    EXPECT_EQ(inst_->port, 0);
    EXPECT_EQ(err_, "ERROR: argument '--port' required\n");
}

TEST_F(OptionsTest, ValueTakenFromTheNextArgumentEvenWhenItLooksLikeAFile)
{
    // getopt_long takes the next element as the value, so no file is read.
    EXPECT_EQ(run({"--port", "watchdog.conf"}), -EINVAL);
    EXPECT_EQ(err_, "ERROR: argument '--port' required\n");
}

// ---- errors and usage ----

TEST_F(OptionsTest, HelpPrintsTheUsageAndFails)
{
    for (const char* arg : {"--help", "-h", "--he"}) {
        EXPECT_EQ(run({arg}), -1) << arg;
        EXPECT_EQ(err_, usage()) << arg;
    }
}

TEST_F(OptionsTest, IncorrectArgumentsNameTheElementAsGiven)
{
    struct {
        std::vector<std::string> args;
        std::string shown;
    } cases[] = {
        {{"--bogus"}, "--bogus"},
        {{"--demonize=1"}, "--demonize=1"},            // value for an option without one
        {{"--lib=x", "--port"}, "--port"},             // missing value at the end
        {{"--port 9000"}, "--port 9000"},              // one element holding a blank
        {{"-x"}, "-x"},
        {{"-xh"}, "-xh"},                              // error inside a cluster
        {{"--instance-name", "-x", "-xh"}, "-xh"},     // an equal-looking value before it
        {{"--l=q"}, "--l=q"},                          // lcd, lib, ... and log-*: ambiguous
        {{"--re"}, "--re"},                            // respawn, realtime-io, realtime-cpu
        {{"--elem_m=1", "--d"}, "--d"},                // demonize or debug
    };
    for (auto& c : cases) {
        instance_destroy(&inst_);
        ASSERT_EQ(instance_create(&inst_), 0);
        EXPECT_EQ(run(c.args), -1) << c.shown;
        EXPECT_EQ(err_, incorrect(c.shown)) << c.shown;
    }
}

TEST_F(OptionsTest, OptionsBeforeAnErrorStay)
{
    EXPECT_EQ(run({"--lib=a", "--instance-name=n", "--bogus", "--io=b"}), -1);
    ASSERT_EQ(inst_->cnt, 1);
    EXPECT_EQ(inst_->instance_name.str(), "n");
}

// ---- abbreviations ----

TEST_F(OptionsTest, PrefixesFollowTheTableOrder)
{
    EXPECT_EQ(run({"--lib=exact", "--elem_m=first", "--libc=unique", "--elem_mo=mosaic", "--elem_co=color",
                   "--por=9200", "--deb", "--inst=x"}),
              0);
    ASSERT_EQ(inst_->cnt, 5);
    EXPECT_EQ(at(0).type, instance_apps_lookup("lib"));
    EXPECT_EQ(at(0).config.str(), "exact");
    EXPECT_EQ(at(1).type, instance_apps_lookup("elem_matrix"));
    EXPECT_EQ(at(2).type, instance_apps_lookup("libcleaner"));
    // The option table lists color before mosaic; the row index follows the type table.
    EXPECT_EQ(at(3).type, 41);
    EXPECT_EQ(at(4).type, 42);
    EXPECT_EQ(inst_->port, 9200);
    EXPECT_EQ(inst_->debug, 1);
    EXPECT_EQ(inst_->instance_name.str(), "x");
}

// ---- applications ----

TEST_F(OptionsTest, PerApplicationOptionsFillTheLastApplication)
{
    EXPECT_EQ(run({"--elem_mixer=/cfg/m.xml", "--alias=first", "--alias=Mixer", "--thumb=t.png", "--bin-path=/opt/b",
                   "--numa-bind=0,1", "--respawn=5", "--autorun=1", "--env=A=1", "--env=B=2", "--raw=--x=1",
                   "--io=/cfg/io.xml", "--env=C=3"}),
              0);
    ASSERT_EQ(inst_->cnt, 2);
    EXPECT_EQ(inst_->amend, 2u);
    EXPECT_EQ(inst_->last_app, inst_->apps[1]);
    const app& m = at(0);
    EXPECT_EQ(m.type, 21);
    EXPECT_EQ(m.config.str(), "/cfg/m.xml");
    EXPECT_EQ(m.alias.str(), "Mixer");
    EXPECT_EQ(m.thumb.str(), "t.png");
    EXPECT_EQ(m.bin_path.str(), "/opt/b");
    EXPECT_EQ(m.numa_bind.str(), "0,1");
    EXPECT_EQ(m.f_respawn, 5);
    EXPECT_EQ(m.f_autorun, 1);
    ASSERT_EQ(m.envs.size(), 2u);
    EXPECT_EQ(m.envs[1].str(), "B=2");
    ASSERT_EQ(m.raws.size(), 1u);
    ASSERT_EQ(at(1).envs.size(), 1u);
    EXPECT_EQ(at(1).envs[0].str(), "C=3");
    EXPECT_NE(m.handle, 0u);
}

TEST_F(OptionsTest, PerApplicationOptionWithoutApplicationIsReported)
{
    EXPECT_EQ(run({"--alias=x", "--env=A=1"}), 0);
    EXPECT_EQ(err_, "Error! No app defined\nError! No app defined\n");
    EXPECT_EQ(inst_->cnt, 0);
}

TEST_F(OptionsTest, ListsDropWhatDoesNotFitAndStoreNoEmptyValue)
{
    std::vector<std::string> args{"--lib=x", "--env=", "--raw="};
    for (int i = 0; i < 65; i++) args.push_back("--env=E" + std::to_string(i) + "=1");
    for (int i = 0; i < 129; i++) args.push_back("--raw=--r" + std::to_string(i));
    EXPECT_EQ(run(args), 0);
    EXPECT_EQ(err_, "");
    ASSERT_EQ(at(0).envs.size(), 64u);
    EXPECT_EQ(at(0).envs[0].str(), "E0=1");
    EXPECT_EQ(at(0).envs[63].str(), "E63=1");
    ASSERT_EQ(at(0).raws.size(), 128u);
    EXPECT_EQ(at(0).raws[127].str(), "--r127");
}

TEST_F(OptionsTest, LongValuesAreCut)
{
    std::string big(5000, 'v');
    EXPECT_EQ(run({"--script=" + big, "--env=" + big, "--instance-name=" + big}), 0);
    EXPECT_EQ(at(0).config.size(), 4095u);
    EXPECT_EQ(at(0).envs[0].size(), 4095u);
    EXPECT_EQ(inst_->instance_name.size(), 4095u);
}

TEST_F(OptionsTest, TheTableRefusesThe1025thApplication)
{
    std::string text;
    for (int i = 0; i < 1025; i++) text += "--lib=" + std::to_string(i) + "\n";
    std::string path = file("many.conf", text + "--alias=last\n");
    EXPECT_EQ(run({path}), 0);
    EXPECT_EQ(err_, "instance_opts: instance->apps.cnt=1024 is maximal\n");
    EXPECT_EQ(inst_->cnt, 1024);
    EXPECT_EQ(inst_->amend, 1024u);
    EXPECT_EQ(at(1023).config.str(), "1023");
    // The refused option made no new last application.
    EXPECT_EQ(at(1023).alias.str(), "last");
}

// ---- option files ----

TEST_F(OptionsTest, FilePassStartsAgainFromTheDefaults)
{
    std::string path = file("watchdog.conf", "--elem_mixer=/cfg/mixer.xml\n");
    EXPECT_EQ(run({"--port=9100", "--log-file-name=cmd.log", path}), 0);
    EXPECT_EQ(inst_->port, 9000);
    EXPECT_EQ(inst_->log_file_name.str(), "VantrelWatchdog.log");
    EXPECT_EQ(inst_->cnt, 1);
    EXPECT_EQ(inst_->conf_file.str(), path);
}

TEST_F(OptionsTest, FileLinesAreTrimmedAndCommentsSkipped)
{
    std::string path = file("a.conf",
                            "--elem_mixer=/cfg/mixer.xml\n"
                            "  --alias=Mixer 1  \n"
                            "#--respawn=1\n"
                            "\t # --autorun=1\r\n"
                            "\r\n"
                            "   \n"
                            "--respawn=1\r\n"
                            "--thumb\n"
                            "  pic one.png\t\n"
                            "--numa-bind=1");   // a last line without newline counts
    EXPECT_EQ(run({path}), 0);
    EXPECT_EQ(err_, "");
    ASSERT_EQ(inst_->cnt, 1);
    EXPECT_EQ(at(0).alias.str(), "Mixer 1");
    EXPECT_EQ(at(0).f_respawn, 1);
    EXPECT_EQ(at(0).f_autorun, 0);
    EXPECT_EQ(at(0).thumb.str(), "pic one.png");
    EXPECT_EQ(at(0).numa_bind.str(), "1");
}

TEST_F(OptionsTest, LongLinesArriveInPiecesOf4095Bytes)
{
    // The first piece ends exactly at the option's last value byte; the rest of
    // the line is an argument of its own.
    std::string value(8191 - 8, 'a');
    std::string path = file("long.conf", "--lib=x\n--alias=" + value + "--debug\n");
    EXPECT_EQ(run({path}), 0);
    EXPECT_EQ(at(0).alias.str(), value.substr(0, 4095));
    EXPECT_EQ(inst_->debug, 1);
}

TEST_F(OptionsTest, BlankInsteadOfEqualsFailsOnlyTheFile)
{
    std::string path = file("bad.conf", "--lib=x\n--port 9000\n--io=y\n");
    EXPECT_EQ(run({path}), 0);
    EXPECT_EQ(err_, incorrect("--port 9000"));
    EXPECT_EQ(inst_->cnt, 1);   // what came before the error stays
    EXPECT_TRUE(inst_->conf_file.empty());
}

TEST_F(OptionsTest, NestedFileIsReadAfterItsFilesOptions)
{
    std::string inner = file("inner.conf", "--thumb=from-inner\n--io=b\n--alias=Inner\n");
    std::string outer = file("outer.conf", "--lib=a\n" + inner + "\n--alias=Outer\n");
    EXPECT_EQ(run({outer}), 0);
    ASSERT_EQ(inst_->cnt, 2);
    EXPECT_EQ(at(0).alias.str(), "Outer");
    // last_app carries into the nested file until it adds its own.
    EXPECT_EQ(at(0).thumb.str(), "from-inner");
    EXPECT_EQ(at(1).alias.str(), "Inner");
    EXPECT_EQ(inst_->conf_file.str(), outer);
}

TEST_F(OptionsTest, OptionsAfterAFileArePassedBeforeItIsRead)
{
    std::string path = file("n.conf", "--instance-name=from-file\n");
    EXPECT_EQ(run({path, "--instance-name=from-cmd"}), 0);
    EXPECT_EQ(inst_->instance_name.str(), "from-file");
}

TEST_F(OptionsTest, TwoFilesAreReadInOrder)
{
    std::string one = file("one.conf", "--lib=1\n");
    std::string two = file("two.conf", "--io=2\n");
    EXPECT_EQ(run({one, two}), 0);
    ASSERT_EQ(inst_->cnt, 2);
    EXPECT_EQ(at(0).config.str(), "1");
    EXPECT_EQ(inst_->conf_file.str(), two);
}

TEST_F(OptionsTest, DoubleDashEndsTheOptions)
{
    EXPECT_EQ(run({"--", "--lib=x"}), 0);
    EXPECT_EQ(err_, "opts_from_file: failed to open [--lib=x]\n");
    EXPECT_EQ(inst_->cnt, 0);
}

TEST_F(OptionsTest, MissingFileIsReportedAndSkipped)
{
    std::string good = file("good.conf", "--lib=x\n");
    std::string missing = (dir_ / "missing.conf").string();
    EXPECT_EQ(run({good, missing}), 0);
    EXPECT_EQ(err_, "opts_from_file: failed to open [" + missing + "]\n");
    EXPECT_EQ(inst_->conf_file.str(), good);
}

TEST_F(OptionsTest, FileWithoutArgumentsCountsAsRead)
{
    std::string path = file("empty.conf", "# nothing\n\n");
    EXPECT_EQ(run({path}), 0);
    EXPECT_EQ(inst_->conf_file.str(), path);
}

TEST_F(OptionsTest, UnreadableFileIsNotRecorded)
{
    // A directory opens for reading but every read fails.
    EXPECT_EQ(run({dir_.string()}), 0);
    EXPECT_NE(err_.find("opts_from_file: failed to read [" + dir_.string() + "]"), std::string::npos) << err_;
    EXPECT_TRUE(inst_->conf_file.empty());
}

TEST_F(OptionsTest, FileNamingItselfIsReadOnce)
{
    std::string path = (dir_ / "self.conf").string();
    file("self.conf", "--lib=x\n" + path + "\n");
    EXPECT_EQ(run({path}), 0);
    EXPECT_EQ(inst_->cnt, 1);
    EXPECT_NE(err_.find("[" + path + "] is already being read"), std::string::npos) << err_;
    EXPECT_EQ(inst_->conf_file.str(), path);
}

TEST_F(OptionsTest, CycleThroughTwoFilesIsStopped)
{
    std::string a = (dir_ / "a.conf").string();
    std::string b = file("b.conf", "--io=b\n" + a + "\n");
    file("a.conf", "--lib=a\n" + b + "\n");
    // Through a symbolic link the file is still the same one.
    fs::create_symlink(a, dir_ / "link.conf");
    file("b.conf", "--io=b\n" + (dir_ / "link.conf").string() + "\n");
    EXPECT_EQ(run({a}), 0);
    EXPECT_EQ(inst_->cnt, 2);
    EXPECT_EQ(inst_->conf_file.str(), a);
}

TEST_F(OptionsTest, FilesNamingOthersManyTimesStopAtTheReadBudget)
{
    // Four levels of 16 references each would be 16^4 reads; the budget of
    // 4096 file reads ends it, with a message, and the configuration stands.
    std::string leaf = file("leaf.conf", "--lib=x\n");
    std::string below = leaf;
    for (int level = 0; level < 4; level++) {
        std::string text;
        for (int i = 0; i < 16; i++) text += below + "\n";
        below = file("level" + std::to_string(level) + ".conf", text);
    }
    EXPECT_EQ(run({below}), 0);
    EXPECT_EQ(inst_->cnt, APPS_MAX);
    EXPECT_NE(err_.find("skipped, more than 4096 option files read"), std::string::npos);
}

TEST_F(OptionsTest, FailingNestedPassKeepsItsEarlierOptions)
{
    std::string inner = file("inner.conf", "--io=y\n--bogus\n--ltc=z\n");
    std::string outer = file("outer.conf", "--lib=x\n" + inner + "\n");
    EXPECT_EQ(run({outer}), 0);
    EXPECT_EQ(err_, incorrect("--bogus"));
    EXPECT_EQ(inst_->cnt, 2);
    EXPECT_EQ(inst_->conf_file.str(), outer);
}

TEST_F(OptionsTest, PortZeroInAFileFailsBothPasses)
{
    std::string path = file("p.conf", "--port=0\n");
    EXPECT_EQ(run({path}), -EINVAL);
    EXPECT_EQ(err_, "ERROR: argument '--port' required\nERROR: argument '--port' required\n");
    EXPECT_TRUE(inst_->conf_file.empty());
}

TEST_F(OptionsTest, ArgumentLinesBeyond4095AreIgnored)
{
    std::string text;
    for (int i = 0; i < 1024 * 199 + 4100; i++) text += "--debug\n";
    std::string path = file("big.conf", text);
    EXPECT_EQ(run({path}), 0);
    EXPECT_EQ(inst_->debug, 1024 * 199 + 4095);
    EXPECT_NE(err_.find("the rest is ignored"), std::string::npos) << err_;
}

// ---- repeated use in one process ----

TEST_F(OptionsTest, RepeatedPassesLeaveTheCallersVectorAndStartClean)
{
    std::string path = file("r.conf", "--io=y\n");
    std::vector<std::string> args{"VantrelWatchdog", path, "--lib=x"};
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    std::vector<char*> before = argv;
    for (int i = 0; i < 3; i++) {
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(instance_opts(inst_, 3, argv.data()), 0);
        EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
        EXPECT_EQ(argv, before);
    }
    ASSERT_EQ(inst_->cnt, 6);
    EXPECT_EQ(at(4).config.str(), "x");
    EXPECT_EQ(at(5).config.str(), "y");
    // An error in one pass does not disturb the next one.
    EXPECT_EQ(run({"--bogus"}), -1);
    EXPECT_EQ(run({"--port=9300"}), 0);
    EXPECT_EQ(inst_->port, 9300);
}

}   // namespace
