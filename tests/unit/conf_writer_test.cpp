// The option-file writer: exact file text, backups, failures, and that what it
// writes reads back through the option reader to the same configuration.
#include <gtest/gtest.h>
#include <sys/time.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "app_types.h"
#include "conf_writer.h"
#include "instance.h"
#include "options.h"
#include "unit_support.h"

namespace fs = std::filesystem;

namespace {

using namespace unit_support;

int count_lines(const std::string& text, const std::string& prefix)
{
    int n = 0;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        if (line.rfind(prefix, 0) == 0) n++;
    return n;
}

class ConfWriterTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(instance_create(&inst_), 0);
    }
    void TearDown() override
    {
        instance_destroy(&inst_);
        instance_destroy(&back_);
    }

    // Fills inst_ through the reader, as at start-up.
    void configure(std::vector<std::string> args)
    {
        std::string err;
        ASSERT_EQ(read_options(inst_, std::move(args), err), 0);
        ASSERT_EQ(err, "");
        inst_->conf_file.set(path_);
    }

    int save()
    {
        ::testing::internal::CaptureStderr();
        int r = watchdog_save_conf(inst_);
        log_ = ::testing::internal::GetCapturedStderr();
        return r;
    }

    // Reads the written file into a fresh instance back_.
    void read_back()
    {
        ASSERT_EQ(instance_create(&back_), 0);
        std::string err;
        ASSERT_EQ(read_options(back_, {path_}, err), 0);
        ASSERT_EQ(err, "");
    }

    std::vector<fs::path> backups()
    {
        std::vector<fs::path> out;
        for (auto& e : fs::directory_iterator(dir_))
            if (e.path().filename() != "watchdog.conf") out.push_back(e.path());
        return out;
    }

    instance* inst_ = nullptr;
    instance* back_ = nullptr;
    scratch_dir scratch_{"conf-writer-test"};
    fs::path dir_ = scratch_.path();
    std::string path_ = (dir_ / "watchdog.conf").string();
    std::string log_;
};

TEST_F(ConfWriterTest, WritesGlobalsThenOneBlockPerApplication)
{
    configure({"--demonize", "--instance-name=studio1", "--elem_mixer=/cfg/mixer.xml", "--alias=Mixer 1",
               "--respawn=1", "--autorun=1", "--env=MIXER_MODE=2", "--raw=--xmlrpc-port=9101"});
    ASSERT_EQ(save(), 0);
    EXPECT_EQ(file_text(path_),
              "--demonize\n"
              "--instance-name=studio1\n"
              "--port=9000\n"
              "--log-file-name=VantrelWatchdog.log\n"
              "--log-rotate-interval=86400\n"
              "\n"
              "--elem_mixer=/cfg/mixer.xml\n"
              "--alias=Mixer 1\n"
              "--respawn=1\n"
              "--autorun=1\n"
              "--env=MIXER_MODE=2\n"
              "--raw=--xmlrpc-port=9101\n");
    EXPECT_NE(log_.find("watchdog_save_conf: updating config file [" + path_ + "]"), std::string::npos) << log_;
}

TEST_F(ConfWriterTest, FieldOrderEmptyValuesAndUnwrittenSettings)
{
    configure({"--debug", "--debug", "--debug", "--nodemonize", "--web-auth-secret=s", "--cpu-affinity=2",
               "--realtime-io", "--realtime-cpu=1", "--port=9100", "--log-rotate-interval=5", "--script=",
               "--raw=b", "--env=E=1", "--numa-bind=0", "--bin-path=/b", "--thumb=t", "--alias=a",
               "--respawn=5"});
    ASSERT_EQ(save(), 0);
    EXPECT_EQ(file_text(path_),
              "--debug\n"
              "--instance-name=\n"
              "--port=9100\n"
              "--log-file-name=VantrelWatchdog.log\n"
              "--log-rotate-interval=5\n"
              "\n"
              "--script=\n"
              "--alias=a\n"
              "--thumb=t\n"
              "--bin-path=/b\n"
              "--numa-bind=0\n"
              "--respawn=1\n"
              "--env=E=1\n"
              "--raw=b\n");
}

TEST_F(ConfWriterTest, RecordsWithoutTypeAreSkipped)
{
    configure({"--lib=a", "--io=b"});
    inst_->apps[0]->type = APP_TYPE_NONE;
    ASSERT_EQ(save(), 0);
    std::string text = file_text(path_);
    EXPECT_EQ(text.find("--none="), std::string::npos);
    EXPECT_EQ(count_lines(text, "--io=b"), 1);
}

TEST_F(ConfWriterTest, ReadsBackToTheSameConfiguration)
{
    std::vector<std::string> args{"--demonize", "--debug", "--instance-name=  studio 2 ", "--port=9123",
                                  "--log-file-name=/var/log/w.log", "--log-rotate-interval=3600",
                                  "--elem_flash=/cfg/flash.xml", "--alias=Flash", "--thumb=f.png",
                                  "--bin-path=/opt/vantrel", "--numa-bind=0,1", "--respawn=5"};
    for (int i = 0; i < 64; i++) args.push_back("--env=VAR" + std::to_string(i) + "=" + std::to_string(i));
    for (int i = 0; i < 128; i++) args.push_back("--raw=--opt" + std::to_string(i) + "=on");
    for (const char* more : {"--lib=", "--autorun=1", "--elem_color=/c.xml", "--elem_mosaic=/m.xml", "--gpi=g"})
        args.push_back(more);
    configure(args);
    ASSERT_EQ(save(), 0);
    std::string text = file_text(path_);
    EXPECT_EQ(count_lines(text, "--env="), 64);
    EXPECT_EQ(count_lines(text, "--respawn=1"), 1);
    read_back();

    EXPECT_EQ(back_->demonize, 1);
    EXPECT_EQ(back_->debug, 1);
    // Line trimming takes the trailing blank; the leading ones sit after "=".
    EXPECT_EQ(back_->instance_name.str(), "  studio 2");
    EXPECT_EQ(back_->port, 9123);
    EXPECT_EQ(back_->log_file_name.str(), "/var/log/w.log");
    EXPECT_EQ(back_->log_rotate_interval, 3600);
    EXPECT_EQ(back_->conf_file.str(), path_);
    ASSERT_EQ(back_->cnt, inst_->cnt);
    for (int i = 0; i < inst_->cnt; i++) {
        const app& a = *inst_->apps[i];
        const app& b = *back_->apps[i];
        SCOPED_TRACE(i);
        EXPECT_EQ(b.type, a.type);
        EXPECT_EQ(b.config, a.config);
        EXPECT_EQ(b.alias, a.alias);
        EXPECT_EQ(b.thumb, a.thumb);
        EXPECT_EQ(b.bin_path, a.bin_path);
        EXPECT_EQ(b.numa_bind, a.numa_bind);
        EXPECT_EQ(b.f_respawn, a.f_respawn ? 1 : 0);
        EXPECT_EQ(b.f_autorun, a.f_autorun ? 1 : 0);
        EXPECT_EQ(b.envs, a.envs);
        EXPECT_EQ(b.raws, a.raws);
    }
    EXPECT_EQ(back_->apps[0]->f_respawn, 1);
    EXPECT_EQ(back_->apps[0]->raws.size(), 128u);
}

TEST_F(ConfWriterTest, NewlinesInValuesCannotAddOptionLines)
{
    configure({"--lib=x"});
    inst_->apps[0]->alias.set("Studio\n--port=1");
    inst_->apps[0]->config.set("/cfg/x.xml\n");
    inst_->instance_name.set("a\n/etc/other.conf");
    ASSERT_EQ(save(), 0);
    read_back();
    EXPECT_EQ(back_->port, 9000);
    EXPECT_EQ(back_->instance_name.str(), "a /etc/other.conf");
    ASSERT_EQ(back_->cnt, 1);
    EXPECT_EQ(back_->apps[0]->alias.str(), "Studio --port=1");
    EXPECT_EQ(back_->apps[0]->config.str(), "/cfg/x.xml");
}

TEST_F(ConfWriterTest, OverlongLineStaysOneArgument)
{
    // "--elem_io_decklink_out=" and 4095 characters do not fit one read piece;
    // a tail read as an argument of its own would be taken for a file or option.
    configure({"--elem_io_decklink_out=x"});
    inst_->apps[0]->config.set(std::string(4072, 'c') + "--debug");
    ASSERT_EQ(save(), 0);
    read_back();
    ASSERT_EQ(back_->cnt, 1);
    EXPECT_EQ(back_->debug, 0);
    EXPECT_EQ(back_->apps[0]->config.str(), inst_->apps[0]->config.str());
}

TEST_F(ConfWriterTest, PreviousFileIsKeptUnderATimestampedName)
{
    configure({"--lib=x"});
    { std::ofstream(path_) << "old contents\n"; }
    struct timeval before {}, after {};
    gettimeofday(&before, nullptr);
    ASSERT_EQ(save(), 0);
    gettimeofday(&after, nullptr);

    auto found = backups();
    ASSERT_EQ(found.size(), 1u);
    std::string name = found[0].filename().string();
    std::smatch m;
    ASSERT_TRUE(std::regex_match(name, m, std::regex(R"(watchdog\.conf-(\d+)\.(0|[1-9]\d{0,5}))"))) << name;
    long sec = std::stol(m[1]);
    long usec = std::stol(m[2]);
    EXPECT_GE(sec * 1000000 + usec, before.tv_sec * 1000000L + before.tv_usec);
    EXPECT_LE(sec * 1000000 + usec, after.tv_sec * 1000000L + after.tv_usec);
    EXPECT_EQ(file_text(found[0]), "old contents\n");
    EXPECT_NE(file_text(path_).find("--lib=x\n"), std::string::npos);

    // Backups accumulate: a second rewrite keeps both.
    ASSERT_EQ(save(), 0);
    EXPECT_EQ(backups().size(), 2u);
}

TEST_F(ConfWriterTest, NoPreviousFileMeansNoBackup)
{
    configure({"--lib=x"});
    ASSERT_EQ(save(), 0);
    EXPECT_TRUE(backups().empty());
    EXPECT_TRUE(fs::exists(path_));
}

TEST_F(ConfWriterTest, FileThatCannotBeCreatedIsLoggedAndReported)
{
    configure({"--lib=x"});
    std::string missing_dir = (dir_ / "nope" / "w.conf").string();
    inst_->conf_file.set(missing_dir);
    EXPECT_EQ(save(), -ENOENT);
    EXPECT_NE(log_.find("watchdog_save_conf: failed to open [" + missing_dir + "], r=2 (No such file or directory)"),
              std::string::npos)
        << log_;
    EXPECT_EQ(log_.find("updating config file"), std::string::npos);

    inst_->conf_file.clear();   // no option file was read
    EXPECT_EQ(save(), -ENOENT);
}

}   // namespace
