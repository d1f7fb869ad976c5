// The option reader and writer: one table row per command line (what the
// reader returns, writes to standard error and leaves configured), the exact
// text written back, that it reads back the same, backups and rotated logs.
// "@" in a row stands for the row's scratch directory, where its files are.
#include <gtest/gtest.h>
#include <sys/time.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "app_types.h"
#include "banner.h"
#include "conf_backup.h"
#include "conf_writer.h"
#include "log/log_hooks.h"
#include "unit_support.h"

namespace {

using namespace unit_support;
using names = std::vector<std::string>;

const std::string DEF = "port=9000 log=VantrelWatchdog.log rot=86400", NONE = DEF + " apps=0";
const std::string PORT_REQUIRED = "ERROR: argument '--port' required\n", NO_PORT = "port=0 log=VantrelWatchdog.log rot=86400 apps=0";

std::string usage()
{
    return std::string(watchdog_banner()) +
           "\nUsage:\n    VantrelWatchdog [args]\nWhere args:\n"
           "    --port=<NUM>                           XMLRPC service port\n"
           "    --demonize                         Become daemon on executing\n\n"
           "                                       Log file operation\n"
           "    --log-file-name=<STR>\n    --log-rotate-interval=<INT>\n\n"
           "    -h, --help                         Show this help and usage\n";
}
std::string incorrect(const std::string& arg) { return "ERROR: Incorrect argument! [" + arg + "]\n" + usage(); }

std::string repeat(const std::string& line, int n)
{
    std::string out;
    while (n-- > 0) out += line + "\n";
    return out;
}

std::string at(std::string text, const std::string& dir)
{
    for (std::size_t p = text.find('@'); p != std::string::npos; p = text.find('@', p + dir.size())) text.replace(p, 1, dir);
    return text;
}

// files: name and text of each option file the row writes first.
struct row { names args; std::vector<std::pair<std::string, std::string>> files; int ret; std::string err, state; };

TEST(Options, EveryRowLeavesItsConfigurationAndMessages)
{
    const std::string big(5000, 'v'), cut(4095, 'v');
    const row rows[] = {
        {{}, {}, 0, "", NONE}, {{"--l=q"}, {}, -1, incorrect("--l=q"), NONE}, {{"--re"}, {}, -1, incorrect("--re"), NONE},
        {{"--port=9100", "--instance-name=studio 1", "--web-auth-secret=s3", "--log-file-name", "/var/w.log",
          "--log-rotate-interval=60", "--demonize", "--nodemonize", "--realtime-io", "--cpu-affinity=3",
          "--realtime-cpu=-2", "--debug", "--debug"}, {}, 0, "",
         "port=9100 log=/var/w.log rot=60 name=studio 1 secret=s3 demonize=1 nodemonize=1 debug=2 cpu=3 rtio=1 "
         "rtcpu=-2 apps=0"},
        {{"--port=  +9123abc", "--log-rotate-interval=12.5"}, {}, 0, "", "port=9123 log=VantrelWatchdog.log rot=12 apps=0"},
        {{"--port=abc"}, {}, -EINVAL, PORT_REQUIRED, NO_PORT}, {{"--port", "w.conf"}, {}, -EINVAL, PORT_REQUIRED, NO_PORT},
        {{"--help"}, {}, -1, usage(), NONE}, {{"-h"}, {}, -1, usage(), NONE}, {{"--he"}, {}, -1, usage(), NONE},
        {{"--bogus"}, {}, -1, incorrect("--bogus"), NONE}, {{"--demonize=1"}, {}, -1, incorrect("--demonize=1"), NONE},
        {{"--lib=x", "--port"}, {}, -1, incorrect("--port"), DEF + " apps=1 [6:x]"}, {{"--port 9000"}, {}, -1, incorrect("--port 9000"), NONE},
        {{"--instance-name", "-x", "-xh"}, {}, -1, incorrect("-xh"), DEF + " name=-x apps=0"},
        // A prefix takes the first option of the table that it starts, or the one it names exactly.
        {{"--lib=exact", "--elem_m=first", "--libc=u", "--por=9200", "--deb"}, {}, 0, "",
         "port=9200 log=VantrelWatchdog.log rot=86400 debug=1 apps=3 [6:exact] [20:first] [13:u]"},
        {{"--elem_mo=m", "--elem_co=c"}, {}, 0, "", DEF + " apps=2 [41:m] [42:c]"},
        {{"--elem_mixer=/cfg/m.xml", "--alias=first", "--alias=Mixer", "--thumb=t.png", "--bin-path=/opt/b",
          "--numa-bind=0,1", "--respawn=5", "--autorun=1", "--env=A=1", "--env=", "--env=B=2", "--raw=--x=1",
          "--io=/cfg/io.xml", "--env=C=3"}, {}, 0, "",
         DEF + " apps=2 [21:/cfg/m.xml alias=Mixer thumb=t.png bin=/opt/b numa=0,1 respawn=5 autorun=1 env=A=1,B=2 "
               "raw=--x=1] [4:/cfg/io.xml env=C=3]"},
        {{"--script=" + big, "--env=" + big, "--instance-name=" + big}, {}, 0, "",
         DEF + " name=" + cut + " apps=1 [" + std::to_string(APP_TYPE_SCRIPT) + ":" + cut + " env=" + cut + "]"},
        {{"--port=9100", "--log-file-name=cmd.log", "@w.conf"}, {{"w.conf", "--elem_mixer=/m.xml\n"}}, 0, "", DEF + " conf=@w.conf apps=1 [21:/m.xml]"},
        {{"@a.conf"}, {{"a.conf", "--elem_mixer=/m\n  --alias=Mixer 1  \n#--respawn=1\n\t # --autorun=1\r\n\r\n   \n"
                                  "--respawn=1\r\n--thumb\n  pic one.png\t\n--numa-bind=1"}}, 0, "",
         DEF + " conf=@a.conf apps=1 [21:/m alias=Mixer 1 thumb=pic one.png numa=1 respawn=1]"},
        {{"@l.conf"}, {{"l.conf", "--lib=x\n--alias=" + std::string(4087, 'a') + "--debug\n"}}, 0, "",
         DEF + " conf=@l.conf apps=1 [6:x alias=" + std::string(4087, 'a') + "--debug]"},
        {{"@b.conf"}, {{"b.conf", "--lib=x\n--port 9000\n--io=y\n"}}, 0, incorrect("--port 9000"), DEF + " apps=1 [6:x]"},
        {{"@o.conf"}, {{"i.conf", "--thumb=in\n--io=b\n--alias=Inner\n"}, {"o.conf", "--lib=a\n@i.conf\n--alias=Outer\n"}},
         0, "", DEF + " conf=@o.conf apps=2 [6:a alias=Outer thumb=in] [4:b alias=Inner]"},
        // Host options: a file's pass does not reset them; an option after a file still counts.
        {{"--conf-backups=3", "--log-keep=-4", "--umask=027", "@h.conf", "--conf-backups=5"}, {{"h.conf", "--lib=x\n"}}, 0, "",
         DEF + " conf=@h.conf host=5,0,23 apps=1 [6:x]"},
        {{"@n.conf", "--instance-name=cmd"}, {{"n.conf", "--instance-name=file\n"}}, 0, "", DEF + " name=file conf=@n.conf apps=0"},
        {{"@1.conf", "@2.conf"}, {{"1.conf", "--lib=1\n"}, {"2.conf", "--io=2\n"}}, 0, "", DEF + " conf=@2.conf apps=2 [6:1] [4:2]"},
        {{"--", "--lib=x"}, {}, 0, "opts_from_file: failed to open [--lib=x]\n", NONE},
        {{"@g.conf", "@missing.conf"}, {{"g.conf", "--lib=x\n"}}, 0, "opts_from_file: failed to open [@missing.conf]\n", DEF + " conf=@g.conf apps=1 [6:x]"},
        {{"@e.conf"}, {{"e.conf", "# nothing\n\n"}}, 0, "", DEF + " conf=@e.conf apps=0"},
        {{"--alias=x", "--env=A=1"}, {}, 0, "Error! No app defined\nError! No app defined\n", NONE},
        {{"@s.conf"}, {{"s.conf", "--lib=x\n@s.conf\n"}}, 0, "opts_from_file: [@s.conf] is already being read, skipped\n",
         DEF + " conf=@s.conf apps=1 [6:x]"},
        {{"@c1.conf"}, {{"c2.conf", "--io=b\n@c1.conf\n"}, {"c1.conf", "--lib=a\n@c2.conf\n"}}, 0,
         "opts_from_file: [@c1.conf] is already being read, skipped\n", DEF + " conf=@c1.conf apps=2 [6:a] [4:b]"},
        {{"@o2.conf"}, {{"i2.conf", "--io=y\n--bogus\n--ltc=z\n"}, {"o2.conf", "--lib=x\n@i2.conf\n"}}, 0,
         incorrect("--bogus"), DEF + " conf=@o2.conf apps=2 [6:x] [4:y]"},
        {{"@p.conf"}, {{"p.conf", "--port=0\n"}}, -EINVAL, PORT_REQUIRED + PORT_REQUIRED, NO_PORT},
        // Room for everything the writer can produce: 1024 applications of 199 lines, plus 4095.
        {{"@big.conf"}, {{"big.conf", repeat("--debug", 207876)}}, 0,
         "opts_from_file: [@big.conf] is longer than 207871 argument lines or 831484 lines, the rest is ignored\n",
         DEF + " debug=207871 conf=@big.conf apps=0"},
        {{"@m.conf"}, {{"m.conf", repeat("--lib=x", 1025) + "--alias=last\n"}}, 0,
         "instance_opts: instance->apps.cnt=1024 is maximal\n", DEF + " conf=@m.conf apps=1024"},
    };
    // Under POSIXLY_CORRECT the reader still takes options after a file name.
    for (const row& r : rows) for (const char* posix : {"", "1"}) {
        *posix ? setenv("POSIXLY_CORRECT", posix, 1) : unsetenv("POSIXLY_CORRECT");
        scratch_dir dir("opts-test");
        std::string d = dir.path.string() + "/", err;
        for (auto& [name, text] : r.files) write_file(d + name, at(text, d));
        names args;
        for (const std::string& a : r.args) args.push_back(at(a, d));
        owned_instance inst;
        SCOPED_TRACE(testing::PrintToString(args).substr(0, 200) + (*posix ? " POSIXLY_CORRECT" : ""));
        EXPECT_EQ(read_options(inst, args, err), r.ret);
        EXPECT_EQ(err, at(r.err, d));
        EXPECT_EQ(describe(inst), at(r.state, d));
    }
}

// Types follow the type table, whatever order the option table lists them in.
TEST(Options, EveryTypeIsAnOptionAndPassesAddApplications)
{
    owned_instance inst;
    std::string err;
    for (int i = 1; i < APP_TYPES_CNT; i++) {
        EXPECT_EQ(read_options(inst, {"--" + std::string(app_types[i].name) + "=cfg"}, err), 0);
        ASSERT_EQ(inst->cnt == i ? inst->apps[i - 1]->type : -1, i) << app_types[i].name;
    }
    // Every pass adds to the applications; the per-pass globals are set afresh.
    EXPECT_EQ(read_options(inst, {"--bogus"}, err), -1);
    EXPECT_EQ(read_options(inst, {"--port=9300"}, err), 0);
    EXPECT_EQ(describe(inst), "port=9300 log=VantrelWatchdog.log rot=86400 apps=" + std::to_string(APP_TYPES_CNT - 1));
}

// Files naming others 16 times over, four levels deep, stop at 4096 reads.
TEST(Options, FileReadsStopAtTheBudget)
{
    scratch_dir dir("opts-budget");
    std::string below = (dir.path / "leaf.conf").string(), err;
    write_file(below, "--lib=x\n");
    for (int level = 0; level < 4; level++) {
        std::string text = repeat(below, 16);
        write_file(below = (dir.path / ("l" + std::to_string(level))).string(), text);
    }
    owned_instance inst;
    EXPECT_EQ(read_options(inst, {below}, err), 0);
    EXPECT_EQ(inst->cnt, APPS_MAX);
    EXPECT_NE(err.find("skipped, more than 4096 option files read"), std::string::npos);
}

struct ConfWriter : ::testing::Test {
    void configure(names args)
    {
        std::string err;
        ASSERT_EQ(std::to_string(read_options(inst, std::move(args), err)) + err, "0");
        inst->conf_file.set(path);
    }
    int save()
    {
        testing::internal::CaptureStderr();
        int r = watchdog_save_conf(inst);
        logged = testing::internal::GetCapturedStderr();
        return r;
    }
    std::string read_back()
    {
        owned_instance back;
        std::string err;
        int r = read_options(back, {path}, err);
        return std::to_string(r) + err + describe(back);   // "0" and no message, then the configuration
    }
    owned_instance inst;
    scratch_dir dir{"conf-writer"};
    std::string path = (dir.path / "watchdog.conf").string(), logged;
};

TEST_F(ConfWriter, WritesGlobalsThenOneBlockPerApplicationInFieldOrder)
{
    configure({"--debug", "--debug", "--nodemonize", "--web-auth-secret=s", "--cpu-affinity=2", "--realtime-io",
               "--port=9100", "--log-rotate-interval=5", "--demonize", "--instance-name=studio1",
               "--elem_mixer=/cfg/mixer.xml", "--raw=b", "--env=E=1", "--numa-bind=0", "--bin-path=/b", "--thumb=t",
               "--alias=Mixer 1", "--respawn=5", "--autorun=1", "--script=", "--lib=x", "--conf-backups=0", "--umask=7"});
    inst->apps[2]->type = 0;   // a slot whose type was refused is not written
    ASSERT_EQ(save(), 0);
    EXPECT_EQ(file_text(path),
              "--demonize\n--debug\n--instance-name=studio1\n--port=9100\n--log-file-name=VantrelWatchdog.log\n"
              "--log-rotate-interval=5\n--conf-backups=0\n--umask=007\n\n--elem_mixer=/cfg/mixer.xml\n--alias=Mixer 1\n--thumb=t\n--bin-path=/b\n"
              "--numa-bind=0\n--respawn=1\n--autorun=1\n--env=E=1\n--raw=b\n\n--script=\n");
    EXPECT_NE(logged.find("watchdog_save_conf: updating config file [" + path + "]"), std::string::npos) << logged;
}

TEST_F(ConfWriter, ReadsBackToTheSameConfigurationAndValuesCannotAddLines)
{
    names args{"--demonize", "--instance-name=  studio 2 ", "--port=9123", "--log-file-name=/w.log",
               "--log-rotate-interval=3600", "--elem_flash=/f.xml", "--alias=Flash", "--respawn=1"};
    for (int i = 0; i < 64; i++) args.push_back("--env=V" + std::to_string(i) + "=" + std::to_string(i));
    for (int i = 0; i < 128; i++) args.push_back("--raw=--o" + std::to_string(i));
    for (const char* more : {"--lib=", "--autorun=1", "--elem_color=/c.xml"}) args.push_back(more);
    configure(args);
    ASSERT_EQ(save(), 0);
    std::string want = describe(inst);
    EXPECT_EQ(read_back(), "0" + want.replace(want.find("studio 2 "), 9, "studio 2"));
    inst->apps[1]->alias.set("Studio\n--port=1");
    inst->apps[2]->config.set(std::string(4088, 'c') + "--debug");
    inst->instance_name.set("a\n/etc/other.conf");
    ASSERT_EQ(save(), 0);
    std::string back = read_back();
    EXPECT_TRUE(!regex_groups(back, "^0port=9123 .* name=a /etc/other.conf .*alias=Studio --port=1").empty() &&
                back.find(" debug=") == std::string::npos) << back;
}

TEST_F(ConfWriter, PreviousFileStaysUnderATimestampedNameAndAFailedOpenIsReported)
{
    configure({"--lib=x"});
    ASSERT_EQ(save(), 0);
    write_file(path, "old contents\n");
    timeval before{}, after{};
    gettimeofday(&before, nullptr);
    ASSERT_EQ(save(), 0);
    gettimeofday(&after, nullptr);
    std::vector<fs::path> backups;
    for (auto& e : fs::directory_iterator(dir.path))
        if (e.path() != path) backups.push_back(e.path());
    ASSERT_EQ(backups.size(), 1u) << "no backup when there was no file before";
    std::string name = backups[0].filename().string();
    auto m = regex_groups(name, "^watchdog\\.conf-([0-9]+)\\.(0|[1-9][0-9]{0,5})$");
    ASSERT_EQ(m.size(), 3u) << name;
    long long at = std::stoll(m[1]) * 1000000 + std::stoll(m[2]);
    EXPECT_GE(at, before.tv_sec * 1000000LL + before.tv_usec);
    EXPECT_LE(at, after.tv_sec * 1000000LL + after.tv_usec);
    EXPECT_EQ(file_text(backups[0]), "old contents\n");

    std::string missing = (dir.path / "nope" / "w.conf").string();
    inst->conf_file.set(missing);
    EXPECT_EQ(save(), -ENOENT);
    EXPECT_NE(logged.find("watchdog_save_conf: failed to open [" + missing + "], r=2 (No such file or directory)"),
              std::string::npos) << logged;
    inst->conf_file.clear();
    EXPECT_EQ(save(), -ENOENT);
}

TEST(HostSafety, OnlyTheOldestBackupsAndRotatedLogsBeyondTheLimitGo)
{
    const names backups_dir{"w.conf", "w.conf-100.5", "w.conf-99.999999", "w.conf-100.40", "w.conf-100.",
                            "w.conf-x.1", "ww.conf-1.1", "w.conf.writing", "w.conf-101.0"};
    const names logs_dir{"w.log", "w.log-20240101_000000", "w.log-20231231_235959", "w.log-2024010_0000000",
                         "w.log-20240102_000000", "w.log.sessions", "xw.log-20200101_000000"};
    EXPECT_EQ(conf_backups_beyond(backups_dir, "w.conf", 2), names({"w.conf-99.999999", "w.conf-100.5"}));
    EXPECT_EQ(conf_backups_beyond(backups_dir, "w.conf", 0),
              names({"w.conf-99.999999", "w.conf-100.5", "w.conf-100.40", "w.conf-101.0"}));
    EXPECT_EQ(log_rotated_beyond(logs_dir, "w.log", 1), names({"w.log-20231231_235959", "w.log-20240101_000000"}));
    EXPECT_EQ(conf_backups_beyond(backups_dir, "w.conf", 4).size() + log_rotated_beyond(logs_dir, "w.log", 3).size(), 0u);
}

}  // namespace
