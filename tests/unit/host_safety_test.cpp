// Pure rules of what the supervisor keeps on the host: which backups and rotated
// logs go, and how the host options are read, kept across passes and written back.
#include <gtest/gtest.h>

#include <cstdlib>
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

// Defaults, an option file's pass not resetting them, options after a file
// (POSIXLY_CORRECT too), and only changed values written back.
TEST(HostOptions, ReadKeptAcrossPassesAndOnlyChangedValuesWrittenBack)
{
    scratch_dir scratch("host-safety-test");
    std::string path = (scratch.path() / "w.conf").string(), err;
    write_file(path, "--lib=x\n");
    instance* inst = nullptr;
    ASSERT_EQ(instance_create(&inst), 0);
    EXPECT_EQ(std::to_string(inst->host.conf_backups) + " " + std::to_string(inst->host.log_keep) + " " +
                  std::to_string(inst->host.child_umask), "20 30 0");
    ASSERT_EQ(read_options(inst, {"--conf-backups=3", "--log-keep=-4", "--umask=027", path}, err), 0) << err;
    EXPECT_EQ(std::to_string(inst->host.conf_backups) + " " + std::to_string(inst->host.log_keep) + " " +
                  std::to_string(inst->host.child_umask), "3 0 23");
    setenv("POSIXLY_CORRECT", "1", 1);
    ASSERT_EQ(read_options(inst, {path, "--log-keep=5", "--debug"}, err), 0) << err;
    unsetenv("POSIXLY_CORRECT");
    EXPECT_EQ(std::to_string(inst->host.log_keep) + " " + std::to_string(inst->debug) + " " + inst->conf_file.str(),
              "5 1 " + path);
    instance_destroy(&inst);

    write_file(path, "--conf-backups=0\n--umask=7\n--lib=x\n");
    ASSERT_EQ(instance_create(&inst), 0);
    ASSERT_EQ(read_options(inst, {path}, err), 0) << err;
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(watchdog_save_conf(inst), 0);
    ::testing::internal::GetCapturedStderr();
    instance_destroy(&inst);
    std::string text = file_text(path);
    EXPECT_NE(text.find("--log-rotate-interval=86400\n--conf-backups=0\n--umask=007\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("--log-keep"), std::string::npos) << text;
    for (const auto& e : fs::directory_iterator(scratch.path()))
        EXPECT_EQ(e.path().filename(), "w.conf") << "conf-backups=0 keeps no backup";
}

}  // namespace
