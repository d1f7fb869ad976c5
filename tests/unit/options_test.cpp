// The option reader, one table row per command line: what it returns, what it
// writes to standard error and the configuration it leaves. "@" in a row
// stands for the row's scratch directory, where its option files are written.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <utility>
#include <vector>

#include "app_types.h"
#include "banner.h"
#include "unit_support.h"

namespace {

using namespace unit_support;

const std::string DEF = "port=9000 log=VantrelWatchdog.log rot=86400";

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

std::string repeat(const std::string& line, int n, bool numbered = false)
{
    std::string out;
    for (int i = 0; i < n; i++) out += line + (numbered ? std::to_string(i) : "") + "\n";
    return out;
}

struct row {
    std::vector<std::string> args;
    std::vector<std::pair<std::string, std::string>> files;   // name, text
    int ret;
    std::string err;
    std::string state;
};

std::string at(std::string text, const std::string& dir)
{
    for (std::size_t p = text.find('@'); p != std::string::npos; p = text.find('@', p + dir.size()))
        text.replace(p, 1, dir);
    return text;
}

TEST(Options, EveryRowLeavesItsConfigurationAndMessages)
{
    const std::string big(5000, 'v'), cut(4095, 'v');
    const row rows[] = {
        {{}, {}, 0, "", DEF + " apps=0"},
        {{"--port=9100", "--instance-name=studio 1", "--web-auth-secret=s3", "--log-file-name", "/var/w.log",
          "--log-rotate-interval=60", "--demonize", "--nodemonize", "--realtime-io", "--cpu-affinity=3",
          "--realtime-cpu=-2", "--debug", "--debug"}, {}, 0, "",
         "port=9100 log=/var/w.log rot=60 name=studio 1 secret=s3 demonize=1 nodemonize=1 debug=2 cpu=3 rtio=1 "
         "rtcpu=-2 apps=0"},
        {{"--port=  +9123abc", "--log-rotate-interval=12.5"}, {}, 0, "", "port=9123 log=VantrelWatchdog.log rot=12 apps=0"},
        {{"--port=abc"}, {}, -EINVAL, "ERROR: argument '--port' required\n", "port=0 log=VantrelWatchdog.log rot=86400 apps=0"},
        {{"--port", "w.conf"}, {}, -EINVAL, "ERROR: argument '--port' required\n", "port=0 log=VantrelWatchdog.log rot=86400 apps=0"},
        {{"--help"}, {}, -1, usage(), DEF + " apps=0"},
        {{"-h"}, {}, -1, usage(), DEF + " apps=0"},
        {{"--he"}, {}, -1, usage(), DEF + " apps=0"},
        {{"--bogus"}, {}, -1, incorrect("--bogus"), DEF + " apps=0"},
        {{"--demonize=1"}, {}, -1, incorrect("--demonize=1"), DEF + " apps=0"},
        {{"--lib=x", "--port"}, {}, -1, incorrect("--port"), DEF + " apps=1 [6:x]"},
        {{"--port 9000"}, {}, -1, incorrect("--port 9000"), DEF + " apps=0"},
        {{"--instance-name", "-x", "-xh"}, {}, -1, incorrect("-xh"), DEF + " name=-x apps=0"},
        {{"--l=q"}, {}, -1, incorrect("--l=q"), DEF + " apps=0"},
        {{"--re"}, {}, -1, incorrect("--re"), DEF + " apps=0"},
        {{"--lib=exact", "--elem_m=first", "--libc=u", "--elem_mo=m", "--elem_co=c", "--por=9200", "--deb"}, {}, 0, "",
         "port=9200 log=VantrelWatchdog.log rot=86400 debug=1 apps=5"},
        {{"--elem_mixer=/cfg/m.xml", "--alias=first", "--alias=Mixer", "--thumb=t.png", "--bin-path=/opt/b",
          "--numa-bind=0,1", "--respawn=5", "--autorun=1", "--env=A=1", "--env=", "--env=B=2", "--raw=--x=1",
          "--io=/cfg/io.xml", "--env=C=3"}, {}, 0, "",
         DEF + " apps=2 [21:/cfg/m.xml alias=Mixer thumb=t.png bin=/opt/b numa=0,1 respawn=5 autorun=1 env=A=1,B=2 "
               "raw=--x=1] [4:/cfg/io.xml env=C=3]"},
        {{"--alias=x", "--env=A=1"}, {}, 0, "Error! No app defined\nError! No app defined\n", DEF + " apps=0"},
        {{"--script=" + big, "--env=" + big, "--instance-name=" + big}, {}, 0, "",
         DEF + " name=" + cut + " apps=1 [" + std::to_string(APP_TYPE_SCRIPT) + ":" + cut + " env=" + cut + "]"},
        {{"--port=9100", "--log-file-name=cmd.log", "@w.conf"}, {{"w.conf", "--elem_mixer=/m.xml\n"}}, 0, "",
         DEF + " conf=@w.conf apps=1 [21:/m.xml]"},
        {{"@a.conf"}, {{"a.conf", "--elem_mixer=/m\n  --alias=Mixer 1  \n#--respawn=1\n\t # --autorun=1\r\n\r\n   \n"
                                  "--respawn=1\r\n--thumb\n  pic one.png\t\n--numa-bind=1"}}, 0, "",
         DEF + " conf=@a.conf apps=1 [21:/m alias=Mixer 1 thumb=pic one.png numa=1 respawn=1]"},
        {{"@l.conf"}, {{"l.conf", "--lib=x\n--alias=" + std::string(4087, 'a') + "--debug\n"}}, 0, "",
         DEF + " conf=@l.conf apps=1 [6:x alias=" + std::string(4087, 'a') + "--debug]"},
        {{"@b.conf"}, {{"b.conf", "--lib=x\n--port 9000\n--io=y\n"}}, 0, incorrect("--port 9000"), DEF + " apps=1 [6:x]"},
        {{"@o.conf"}, {{"i.conf", "--thumb=in\n--io=b\n--alias=Inner\n"}, {"o.conf", "--lib=a\n@i.conf\n--alias=Outer\n"}},
         0, "", DEF + " conf=@o.conf apps=2 [6:a alias=Outer thumb=in] [4:b alias=Inner]"},
        {{"@n.conf", "--instance-name=cmd"}, {{"n.conf", "--instance-name=file\n"}}, 0, "",
         DEF + " name=file conf=@n.conf apps=0"},
        {{"@1.conf", "@2.conf"}, {{"1.conf", "--lib=1\n"}, {"2.conf", "--io=2\n"}}, 0, "",
         DEF + " conf=@2.conf apps=2 [6:1] [4:2]"},
        {{"--", "--lib=x"}, {}, 0, "opts_from_file: failed to open [--lib=x]\n", DEF + " apps=0"},
        {{"@g.conf", "@missing.conf"}, {{"g.conf", "--lib=x\n"}}, 0, "opts_from_file: failed to open [@missing.conf]\n",
         DEF + " conf=@g.conf apps=1 [6:x]"},
        {{"@e.conf"}, {{"e.conf", "# nothing\n\n"}}, 0, "", DEF + " conf=@e.conf apps=0"},
        {{"@s.conf"}, {{"s.conf", "--lib=x\n@s.conf\n"}}, 0, "opts_from_file: [@s.conf] is already being read, skipped\n",
         DEF + " conf=@s.conf apps=1 [6:x]"},
        {{"@c1.conf"}, {{"c2.conf", "--io=b\n@c1.conf\n"}, {"c1.conf", "--lib=a\n@c2.conf\n"}}, 0,
         "opts_from_file: [@c1.conf] is already being read, skipped\n", DEF + " conf=@c1.conf apps=2 [6:a] [4:b]"},
        {{"@o2.conf"}, {{"i2.conf", "--io=y\n--bogus\n--ltc=z\n"}, {"o2.conf", "--lib=x\n@i2.conf\n"}}, 0,
         incorrect("--bogus"), DEF + " conf=@o2.conf apps=2 [6:x] [4:y]"},
        {{"@p.conf"}, {{"p.conf", "--port=0\n"}}, -EINVAL,
         "ERROR: argument '--port' required\nERROR: argument '--port' required\n",
         "port=0 log=VantrelWatchdog.log rot=86400 apps=0"},
        // Room for everything the writer can produce: 1024 applications of 199 lines, plus 4095.
        {{"@big.conf"}, {{"big.conf", repeat("--debug", 207876)}}, 0,
         "opts_from_file: [@big.conf] is longer than 207871 argument lines or 831484 lines, the rest is ignored\n",
         DEF + " debug=207871 conf=@big.conf apps=0"},
        {{"@m.conf"}, {{"m.conf", repeat("--lib=", 1025, true) + "--alias=last\n"}}, 0,
         "instance_opts: instance->apps.cnt=1024 is maximal\n", DEF + " conf=@m.conf apps=1024"},
        {{"--lib=x"}, {}, 0, "", DEF + " apps=1 [6:x]"},
    };
    for (const row& r : rows) {
        scratch_dir dir("opts-test");
        std::string d = dir.path().string() + "/";
        for (auto& [name, text] : r.files) write_file(d + name, at(text, d));
        std::vector<std::string> args;
        for (const std::string& a : r.args) args.push_back(at(a, d));
        instance* inst = nullptr;
        ASSERT_EQ(instance_create(&inst), 0);
        std::string err;
        SCOPED_TRACE(testing::PrintToString(args).substr(0, 200));
        EXPECT_EQ(read_options(inst, args, err), r.ret);
        EXPECT_EQ(err, at(r.err, d));
        EXPECT_EQ(describe(inst), at(r.state, d));
        instance_destroy(&inst);
    }
}

// Types follow the type table, whatever order the option table lists them in.
TEST(Options, EveryTypeIsAnOptionAndPrefixesFollowTheTable)
{
    for (int i = 1; i < APP_TYPES_CNT; i++) {
        instance* inst = nullptr;
        ASSERT_EQ(instance_create(&inst), 0);
        std::string err, name = app_types[i].name;
        EXPECT_EQ(read_options(inst, {"--" + name + "=cfg"}, err), 0) << name;
        EXPECT_EQ(inst->cnt == 1 ? inst->apps[0]->type : -1, i) << name;
        EXPECT_EQ(instance_apps_lookup(name.c_str()), i);
        instance_destroy(&inst);
    }
    for (const char* miss : {"ELEM_MIXER", "elem", "elem_mixer ", ""}) EXPECT_LT(instance_apps_lookup(miss), 0);
    instance* inst = nullptr;
    ASSERT_EQ(instance_create(&inst), 0);
    std::string err;
    EXPECT_EQ(read_options(inst, {"--lib=a", "--elem_m=b", "--libc=c", "--elem_mo=d", "--elem_co=e"}, err), 0);
    std::string types;
    for (int i = 0; i < inst->cnt; i++) types += std::to_string(inst->apps[i]->type) + " ";
    EXPECT_EQ(types, "6 20 13 41 42 ");
    instance_destroy(&inst);
}

// Files naming others 16 times over, four levels deep, stop at 4096 reads.
TEST(Options, FileReadsStopAtTheBudgetAndRepeatedPassesStartClean)
{
    scratch_dir dir("opts-budget");
    std::string below = (dir.path() / "leaf.conf").string();
    write_file(below, "--lib=x\n");
    for (int level = 0; level < 4; level++) {
        std::string text = repeat(below, 16), path = (dir.path() / ("l" + std::to_string(level))).string();
        write_file(path, text);
        below = path;
    }
    instance* inst = nullptr;
    ASSERT_EQ(instance_create(&inst), 0);
    std::string err;
    EXPECT_EQ(read_options(inst, {below}, err), 0);
    EXPECT_EQ(inst->cnt, APPS_MAX);
    EXPECT_NE(err.find("skipped, more than 4096 option files read"), std::string::npos);
    instance_destroy(&inst);
    ASSERT_EQ(instance_create(&inst), 0);
    for (int i = 0; i < 3; i++) EXPECT_EQ(read_options(inst, {"--lib=x"}, err), 0);
    EXPECT_EQ(read_options(inst, {"--bogus"}, err), -1);
    EXPECT_EQ(read_options(inst, {"--port=9300"}, err), 0);
    EXPECT_EQ(describe(inst), "port=9300 log=VantrelWatchdog.log rot=86400 apps=3 [6:x] [6:x] [6:x]");
    instance_destroy(&inst);
}

}  // namespace
