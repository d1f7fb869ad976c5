// The process-wide log: line shape, rotation, the queue bound and that lines
// of many threads never mix. Tests share the one log, so each starts and stops it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "log/log.h"
#include "log/log_hooks.h"
#include "unit_support.h"

namespace {

using namespace unit_support;

// A line without its timestamp: the mark and the text.
std::string bare(const std::string& line) { return line.substr(0, 2) + (line.size() > 28 ? line.substr(28) : ""); }

struct LogFile : ::testing::Test {
    void SetUp() override { log_set_stderr(0); }
    void TearDown() override { log_stop(), log_set_stderr(1); }
    std::vector<std::string> lines() { return lines_of(file_text(file)); }
    scratch_dir dir{"log-test"};
    fs::path file = dir.path / "w.log";
};

TEST(LogPolicy, PrefixMarksAndRotationDates)
{
    setenv("TZ", "UTC", 1);
    tzset();
    EXPECT_EQ(log_line_prefix(LOG_ERROR, 1527854405, 42999) + log_line_prefix(LOG_INFO, 1527854405, 999999) +
                  log_line_prefix(LOG_TRACE, 1527854405, 0), "! [2018-06-01 12:00:05.042]   [2018-06-01 12:00:05.999] ? [2018-06-01 12:00:05.000] ");
    EXPECT_EQ(log_rotated_name("/var/log/w.log", 1527854405), "/var/log/w.log-20180601_120005");
    EXPECT_EQ(log_rotated_name(std::string(5000, 'a'), 1).size(), 4095u);
    // {last rotation, interval, now, due}: more than the interval; 0 once per second; negative always.
    const long cases[][4] = {{0, 86400, 1527854405, 1}, {1000, 86400, 87400, 0}, {1000, 86400, 87401, 1},
                             {1000, 0, 1000, 0},         {1000, 0, 1001, 1},     {1000, -1, 1000, 1}};
    for (auto& c : cases) EXPECT_EQ(log_rotation_due(c[0], int(c[1]), c[2]), bool(c[3])) << c[0] << " " << c[1] << " " << c[2];
}

TEST_F(LogFile, EarlierRunIsRotatedLinesArriveInOrderWithTheirMarksAndOverflowIsDropped)
{
    write_file(file, "old run\n");
    ASSERT_EQ(log_start(file.c_str(), 86400), 0);
    log_printf(LOG_INFO, "%s: first %d", "tester", 1);
    log_printf(LOG_ERROR, "second");
    log_printf(LOG_TRACE, "%s", std::string(200000, 'x').c_str());
    ASSERT_EQ(log_stop(), 0);
    auto got = lines();
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(bare(got[0]) + "|" + bare(got[1]) + "|" + got[2].substr(0, 2), "  tester: first 1|! second|? ");
    EXPECT_EQ(got[2].size(), LOG_LINE_MAX);
    std::vector<fs::path> rotated;
    for (auto& e : fs::directory_iterator(dir.path))
        if (!regex_groups(e.path().filename().string(), "^w\\.log-[0-9]{8}_[0-9]{6}$").empty()) rotated.push_back(e);
    ASSERT_EQ(rotated.size(), 1u);
    EXPECT_EQ(file_text(rotated[0]), "old run\n");
    file = dir.path / "sub" / "x.log";
    ASSERT_EQ(log_start(file.c_str(), -1), 0);   // missing directories are made; rotation at every line
    log_printf(LOG_INFO, "one");
    log_printf(LOG_INFO, "two");
    ASSERT_EQ(log_stop(), 0);
    ASSERT_EQ(lines().size(), 1u);
    EXPECT_EQ(bare(lines()[0]), "  two");
    EXPECT_EQ(log_printf(LOG_INFO, "after stop"), 0);
    EXPECT_EQ(log_stop(), -1);
    // A full queue drops the line with a message; stop writes the rest.
    ASSERT_EQ(log_start(file.c_str(), 86400), 0);
    log_test_hold_writer(1);
    for (int i = 0; i < LOG_QUEUE_MAX; i++) log_printf(LOG_INFO, "line %d", i);
    testing::internal::CaptureStderr();
    log_printf(LOG_INFO, "one too many");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "ERROR! message queue OVERFLOW!!!\n");
    EXPECT_EQ(log_test_queued(), LOG_QUEUE_MAX);
    ASSERT_EQ(log_stop(), 0);
    got = lines();
    ASSERT_EQ(got.size(), static_cast<std::size_t>(LOG_QUEUE_MAX));
    EXPECT_EQ(bare(got.back()), "  line " + std::to_string(LOG_QUEUE_MAX - 1));
}

TEST_F(LogFile, LinesFromManyThreadsNeverMixAndKeepTheirOrder)
{
    ASSERT_EQ(log_start(file.c_str(), 86400), 0);
    std::vector<std::thread> workers;
    for (int t = 0; t < 4; t++) workers.emplace_back([t] { for (int i = 0; i < 1000; i++) log_printf(LOG_INFO, "t%d n%d payload", t, i); });
    for (auto& w : workers) w.join();
    ASSERT_EQ(log_stop(), 0);
    auto got = lines();
    ASSERT_EQ(got.size(), 4000u);
    int next[4] = {};
    for (const auto& line : got) {
        auto m = regex_groups(bare(line), "^  t([0-3]) n([0-9]+) payload$");
        ASSERT_EQ(m.size(), 3u) << line;
        EXPECT_EQ(std::stoi(m[2]), next[std::stoi(m[1])]++);
    }
}

}  // namespace
