// Pure rules of what the supervisor keeps on the host: which backups and rotated
// logs go, and how the host options are read, kept across passes and written back.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "conf_backup.h"
#include "conf_writer.h"
#include "instance.h"
#include "log/log_hooks.h"
#include "unit_support.h"

namespace {

using namespace unit_support;
using names = std::vector<std::string>;

TEST(HostSafety, OnlyTheOldestBackupsAndRotatedLogsBeyondTheLimitGo)
{
    const names backups_dir{"w.conf", "w.conf-100.5", "w.conf-99.999999", "w.conf-100.40", "w.conf-100.",
                            "w.conf-x.1", "ww.conf-1.1", "w.conf.writing", "w.conf-101.0"};
    const names logs_dir{"w.log", "w.log-20240101_000000", "w.log-20231231_235959", "w.log-2024010_0000000",
                         "w.log-20240102_000000", "w.log.sessions", "xw.log-20200101_000000"};
    struct row {
        const char* name;
        names got;
        names expected;
    } rows[] = {
        {"backups keep 2", conf_backups_beyond(backups_dir, "w.conf", 2), {"w.conf-99.999999", "w.conf-100.5"}},
        {"backups keep 0", conf_backups_beyond(backups_dir, "w.conf", 0),
         {"w.conf-99.999999", "w.conf-100.5", "w.conf-100.40", "w.conf-101.0"}},
        {"backups keep more", conf_backups_beyond(backups_dir, "w.conf", 4), {}},
        {"logs keep 1", log_rotated_beyond(logs_dir, "w.log", 1), {"w.log-20231231_235959", "w.log-20240101_000000"}},
        {"logs keep 3", log_rotated_beyond(logs_dir, "w.log", 3), {}},
    };
    for (const row& r : rows) EXPECT_EQ(r.got, r.expected) << r.name;
}

class HostOptions : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(instance_create(&inst_), 0); }
    void TearDown() override
    {
        unsetenv("POSIXLY_CORRECT");
        instance_destroy(&inst_);
    }
    std::string conf(const std::string& name, const std::string& text)
    {
        std::string path = (scratch_.path() / name).string();
        std::ofstream(path) << text;
        return path;
    }

    instance* inst_ = nullptr;
    scratch_dir scratch_{"host-safety-test"};
    std::string err_;
};

TEST_F(HostOptions, DefaultsStandAndAnOptionFilesPassDoesNotResetThem)
{
    EXPECT_EQ(inst_->host.conf_backups, 20);
    EXPECT_EQ(inst_->host.log_keep, 30);
    EXPECT_EQ(inst_->host.child_umask, 0);
    std::string path = conf("w.conf", "--lib=x\n");
    ASSERT_EQ(read_options(inst_, {"--conf-backups=3", "--log-keep=-4", "--umask=027", path}, err_), 0) << err_;
    EXPECT_EQ(inst_->host.conf_backups, 3);
    EXPECT_EQ(inst_->host.log_keep, 0);
    EXPECT_EQ(inst_->host.child_umask, 027);
}

TEST_F(HostOptions, OptionsAfterAFileCountAlsoWithPosixlyCorrect)
{
    setenv("POSIXLY_CORRECT", "1", 1);
    std::string path = conf("w.conf", "--lib=x\n");
    ASSERT_EQ(read_options(inst_, {path, "--log-keep=5", "--debug"}, err_), 0) << err_;
    EXPECT_EQ(inst_->host.log_keep, 5);
    EXPECT_EQ(inst_->debug, 1);
    EXPECT_EQ(inst_->conf_file.str(), path);
}

TEST_F(HostOptions, ChangedValuesAreWrittenBackDefaultsAreNot)
{
    std::string path = conf("w.conf", "--conf-backups=0\n--umask=7\n--lib=x\n");
    ASSERT_EQ(read_options(inst_, {path}, err_), 0) << err_;
    ::testing::internal::CaptureStderr();
    ASSERT_EQ(watchdog_save_conf(inst_), 0);
    ::testing::internal::GetCapturedStderr();
    std::string text = file_text(path);
    EXPECT_NE(text.find("--log-rotate-interval=86400\n--conf-backups=0\n--umask=007\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("--log-keep"), std::string::npos) << text;
    for (const auto& e : fs::directory_iterator(scratch_.path()))
        EXPECT_EQ(e.path().filename(), "w.conf") << "conf-backups=0 keeps no backup";
}

}  // namespace
