// The option-file writer: the exact text, that it reads back to the same
// configuration (hostile values included), the backup and a failed write.
#include <gtest/gtest.h>
#include <sys/time.h>

#include <cerrno>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "conf_writer.h"
#include "unit_support.h"

namespace fs = std::filesystem;

namespace {

using namespace unit_support;

struct ConfWriter : ::testing::Test {
    void SetUp() override { ASSERT_EQ(instance_create(&inst), 0); }
    void TearDown() override { instance_destroy(&inst); }
    void configure(std::vector<std::string> args)
    {
        std::string err;
        ASSERT_EQ(read_options(inst, std::move(args), err), 0);
        ASSERT_EQ(err, "");
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
        instance* back = nullptr;
        instance_create(&back);
        std::string err;
        EXPECT_EQ(read_options(back, {path}, err), 0);
        EXPECT_EQ(err, "");
        std::string text = describe(back);
        instance_destroy(&back);
        return text;
    }
    instance* inst = nullptr;
    scratch_dir dir{"conf-writer"};
    std::string path = (dir.path() / "watchdog.conf").string();
    std::string logged;
};

TEST_F(ConfWriter, WritesGlobalsThenOneBlockPerApplicationInFieldOrder)
{
    configure({"--debug", "--debug", "--nodemonize", "--web-auth-secret=s", "--cpu-affinity=2", "--realtime-io",
               "--port=9100", "--log-rotate-interval=5", "--demonize", "--instance-name=studio1",
               "--elem_mixer=/cfg/mixer.xml", "--raw=b", "--env=E=1", "--numa-bind=0", "--bin-path=/b", "--thumb=t",
               "--alias=Mixer 1", "--respawn=5", "--autorun=1", "--script=", "--lib=x"});
    inst->apps[2]->type = 0;   // a slot whose type was refused is not written
    ASSERT_EQ(save(), 0);
    EXPECT_EQ(file_text(path),
              "--demonize\n--debug\n--instance-name=studio1\n--port=9100\n--log-file-name=VantrelWatchdog.log\n"
              "--log-rotate-interval=5\n\n--elem_mixer=/cfg/mixer.xml\n--alias=Mixer 1\n--thumb=t\n--bin-path=/b\n"
              "--numa-bind=0\n--respawn=1\n--autorun=1\n--env=E=1\n--raw=b\n\n--script=\n");
    EXPECT_NE(logged.find("watchdog_save_conf: updating config file [" + path + "]"), std::string::npos) << logged;
}

TEST_F(ConfWriter, ReadsBackToTheSameConfigurationAndValuesCannotAddLines)
{
    std::vector<std::string> args{"--demonize", "--instance-name=  studio 2 ", "--port=9123", "--log-file-name=/w.log",
                                  "--log-rotate-interval=3600", "--elem_flash=/f.xml", "--alias=Flash", "--respawn=1"};
    for (int i = 0; i < 64; i++) args.push_back("--env=V" + std::to_string(i) + "=" + std::to_string(i));
    for (int i = 0; i < 128; i++) args.push_back("--raw=--o" + std::to_string(i));
    for (const char* more : {"--lib=", "--autorun=1", "--elem_color=/c.xml"}) args.push_back(more);
    configure(args);
    ASSERT_EQ(save(), 0);
    std::string want = describe(inst);
    EXPECT_EQ(read_back(), want.replace(want.find("studio 2 "), 9, "studio 2"));

    inst->apps[1]->alias.set("Studio\n--port=1");
    inst->apps[2]->config.set(std::string(4088, 'c') + "--debug");
    inst->instance_name.set("a\n/etc/other.conf");
    ASSERT_EQ(save(), 0);
    std::string back = read_back();
    EXPECT_NE(back.find("port=9123 "), std::string::npos) << back;
    EXPECT_NE(back.find("name=a /etc/other.conf "), std::string::npos) << back;
    EXPECT_NE(back.find("alias=Studio --port=1"), std::string::npos) << back;
    EXPECT_EQ(back.find(" debug="), std::string::npos) << back;
}

TEST_F(ConfWriter, PreviousFileStaysUnderATimestampedName)
{
    configure({"--lib=x"});
    ASSERT_EQ(save(), 0);
    write_file(path, "old contents\n");
    timeval before{}, after{};
    gettimeofday(&before, nullptr);
    ASSERT_EQ(save(), 0);
    gettimeofday(&after, nullptr);
    std::vector<fs::path> backups;
    for (auto& e : fs::directory_iterator(dir.path()))
        if (e.path() != path) backups.push_back(e.path());
    ASSERT_EQ(backups.size(), 1u) << "no backup when there was no file before";
    std::smatch m;
    std::string name = backups[0].filename().string();
    ASSERT_TRUE(std::regex_match(name, m, std::regex(R"(watchdog\.conf-(\d+)\.(0|[1-9]\d{0,5}))"))) << name;
    long long at = std::stoll(m[1]) * 1000000 + std::stoll(m[2]);
    EXPECT_GE(at, before.tv_sec * 1000000LL + before.tv_usec);
    EXPECT_LE(at, after.tv_sec * 1000000LL + after.tv_usec);
    EXPECT_EQ(file_text(backups[0]), "old contents\n");
}

TEST_F(ConfWriter, FileThatCannotBeCreatedIsLoggedAndReported)
{
    configure({"--lib=x"});
    std::string missing = (dir.path() / "nope" / "w.conf").string();
    inst->conf_file.set(missing);
    EXPECT_EQ(save(), -ENOENT);
    EXPECT_NE(logged.find("watchdog_save_conf: failed to open [" + missing + "], r=2 (No such file or directory)"),
              std::string::npos) << logged;
    inst->conf_file.clear();
    EXPECT_EQ(save(), -ENOENT);
}

}  // namespace
