// The process-wide log: line shape, rotation, file handling, the queue bound
// and the stop path. Tests share the one log, so each starts and stops it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "log/log.h"
#include "log/log_hooks.h"
#include "unit_support.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

using namespace unit_support;

const std::regex LINE_SHAPE(R"(^[ !?] \[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\] .*$)");

std::vector<std::string> read_lines(const fs::path& path) { return lines_of(file_text(path)); }

// Polls (bounded) until the file holds at least `n` lines.
bool wait_lines(const fs::path& path, std::size_t n, std::chrono::milliseconds limit = 5s)
{
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < deadline) {
        if (read_lines(path).size() >= n) return true;
        std::this_thread::sleep_for(5ms);
    }
    return false;
}

std::vector<fs::path> rotated_files(const fs::path& path)
{
    std::vector<fs::path> found;
    std::regex suffix(std::regex_replace(path.filename().string(), std::regex(R"([.])"), R"(\.)") +
                      R"(-\d{8}_\d{6})");
    for (const auto& entry : fs::directory_iterator(path.parent_path()))
        if (std::regex_match(entry.path().filename().string(), suffix)) found.push_back(entry.path());
    return found;
}

class LogFileTest : public ::testing::Test {
protected:
    void SetUp() override { log_set_stderr(0); }
    void TearDown() override
    {
        log_stop();
        log_set_stderr(1);
    }
    scratch_dir scratch_{"log_test"};
    fs::path dir_ = scratch_.path();
    fs::path file_ = dir_ / "w.log";
};

}  // namespace

TEST(LogLineShape, PrefixHasLocalDateAndZeroPaddedMilliseconds)
{
    setenv("TZ", "UTC", 1);
    tzset();
    // 2018-06-01 12:00:05 UTC, 42 ms and some microseconds.
    EXPECT_EQ(log_line_prefix(LOG_ERROR, 1527854405, 42999), "! [2018-06-01 12:00:05.042] ");
    EXPECT_EQ(log_line_prefix(LOG_INFO, 1527854405, 999999), "  [2018-06-01 12:00:05.999] ");
    EXPECT_EQ(log_line_prefix(LOG_TRACE, 1527854405, 0), "? [2018-06-01 12:00:05.000] ");
}

TEST(LogRotationPolicy, DueOnlyWhenMoreThanTheIntervalHasPassed)
{
    // The first line of a run rotates, because the last rotation starts at 0.
    EXPECT_TRUE(log_rotation_due(0, 86400, 1527854405));
    EXPECT_FALSE(log_rotation_due(1000, 86400, 1000 + 86400));
    EXPECT_TRUE(log_rotation_due(1000, 86400, 1000 + 86401));
    // Interval 0: once per new second; negative: at every line.
    EXPECT_FALSE(log_rotation_due(1000, 0, 1000));
    EXPECT_TRUE(log_rotation_due(1000, 0, 1001));
    EXPECT_TRUE(log_rotation_due(1000, -1, 1000));
}

TEST(LogRotationPolicy, RotatedNameCarriesTheLocalTimeAndIsCut)
{
    setenv("TZ", "UTC", 1);
    tzset();
    EXPECT_EQ(log_rotated_name("/var/log/w.log", 1527854405), "/var/log/w.log-20180601_120005");
    std::string long_path(5000, 'a');
    EXPECT_EQ(log_rotated_name(long_path, 1527854405).size(), 4095u);
}

TEST_F(LogFileTest, LinesReachTheFileInOrderWithTheirMarks)
{
    ASSERT_EQ(log_start(file_.c_str(), 86400), 0);
    log_printf(LOG_INFO, "%s: first %d", "tester", 1);
    log_printf(LOG_ERROR, "second");
    log_printf(LOG_TRACE, "third");
    log_printf(5, "fourth");
    ASSERT_EQ(log_stop(), 0);

    auto lines = read_lines(file_);
    ASSERT_EQ(lines.size(), 4u);
    for (const auto& line : lines) EXPECT_TRUE(std::regex_match(line, LINE_SHAPE)) << line;
    EXPECT_EQ(lines[0].substr(0, 2), "  ");
    EXPECT_EQ(lines[0].substr(28), "tester: first 1");
    EXPECT_EQ(lines[1].substr(0, 2), "! ");
    EXPECT_EQ(lines[1].substr(28), "second");
    EXPECT_EQ(lines[2].substr(0, 2), "? ");
    EXPECT_EQ(lines[3].substr(0, 2), "  ");
}

TEST_F(LogFileTest, OverlongMessageIsCutBeforeTheNewline)
{
    ASSERT_EQ(log_start(file_.c_str(), 86400), 0);
    std::string big(200000, 'x');
    log_printf(LOG_INFO, "%s", big.c_str());
    log_printf(LOG_INFO, "after");
    ASSERT_EQ(log_stop(), 0);
    auto lines = read_lines(file_);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].size(), LOG_LINE_MAX);
    EXPECT_EQ(lines[1].substr(28), "after");
}

TEST_F(LogFileTest, FileOfAnEarlierRunIsRotatedAtTheFirstLine)
{
    { std::ofstream(file_) << "old run\n"; }
    ASSERT_EQ(log_start(file_.c_str(), 86400), 0);
    log_printf(LOG_INFO, "new run");
    log_printf(LOG_INFO, "still new run");
    ASSERT_EQ(log_stop(), 0);

    auto rotated = rotated_files(file_);
    ASSERT_EQ(rotated.size(), 1u);
    EXPECT_EQ(read_lines(rotated[0]), std::vector<std::string>{"old run"});
    auto lines = read_lines(file_);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].substr(28), "new run");
}

TEST_F(LogFileTest, NegativeIntervalRotatesAtEveryLine)
{
    ASSERT_EQ(log_start(file_.c_str(), -1), 0);
    log_printf(LOG_INFO, "one");
    log_printf(LOG_INFO, "two");
    log_printf(LOG_INFO, "three");
    ASSERT_EQ(log_stop(), 0);
    // Each line moved its predecessor away (onto the same per-second name).
    auto lines = read_lines(file_);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].substr(28), "three");
    EXPECT_FALSE(rotated_files(file_).empty());
}

TEST_F(LogFileTest, ZeroIntervalRotatesAtTheFirstLineOfANewSecond)
{
    ASSERT_EQ(log_start(file_.c_str(), 0), 0);
    log_printf(LOG_INFO, "before");
    ASSERT_TRUE(wait_lines(file_, 1));
    std::this_thread::sleep_for(1100ms);
    log_printf(LOG_INFO, "after");
    ASSERT_EQ(log_stop(), 0);

    auto lines = read_lines(file_);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].substr(28), "after");
    auto rotated = rotated_files(file_);
    ASSERT_EQ(rotated.size(), 1u);
    auto old_lines = read_lines(rotated[0]);
    ASSERT_EQ(old_lines.size(), 1u);
    EXPECT_EQ(old_lines[0].substr(28), "before");
}

TEST_F(LogFileTest, MissingDirectoriesAreCreated)
{
    fs::path nested = dir_ / "logs" / "sub" / "w.log";
    ASSERT_EQ(log_start(nested.c_str(), 86400), 0);
    log_printf(LOG_INFO, "deep");
    ASSERT_EQ(log_stop(), 0);
    EXPECT_TRUE(fs::is_directory(dir_ / "logs" / "sub"));
    EXPECT_EQ(read_lines(nested).size(), 1u);
}

TEST_F(LogFileTest, DeletedFileIsCreatedAgainAtTheNextLine)
{
    ASSERT_EQ(log_start(file_.c_str(), 86400), 0);
    log_printf(LOG_INFO, "one");
    ASSERT_TRUE(wait_lines(file_, 1));
    fs::remove(file_);
    log_printf(LOG_INFO, "two");
    ASSERT_EQ(log_stop(), 0);
    auto lines = read_lines(file_);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].substr(28), "two");
}

TEST_F(LogFileTest, EchoGoesToStandardErrorOnlyWhileEnabled)
{
    testing::internal::CaptureStderr();
    ASSERT_EQ(log_start("", 86400), 0);
    log_set_stderr(1);
    log_printf(LOG_ERROR, "echoed");
    ASSERT_EQ(log_stop(), 0);
    ASSERT_EQ(log_start("", 86400), 0);
    EXPECT_EQ(log_set_stderr(0), 0);
    log_printf(LOG_ERROR, "silent");
    ASSERT_EQ(log_stop(), 0);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("] echoed\n"), std::string::npos) << err;
    EXPECT_EQ(err.find("silent"), std::string::npos) << err;
    EXPECT_TRUE(fs::is_empty(dir_));
}

TEST_F(LogFileTest, QueueOverflowDropsTheLineWithAMessage)
{
    ASSERT_EQ(log_start(file_.c_str(), 86400), 0);
    log_test_hold_writer(1);
    for (int i = 0; i < LOG_QUEUE_MAX; i++) log_printf(LOG_INFO, "line %d", i);
    ASSERT_EQ(log_test_queued(), LOG_QUEUE_MAX);

    testing::internal::CaptureStderr();
    log_printf(LOG_INFO, "one too many");
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err, "ERROR! message queue OVERFLOW!!!\n");
    EXPECT_EQ(log_test_queued(), LOG_QUEUE_MAX);

    // log_stop releases the parked writer and writes every queued line.
    ASSERT_EQ(log_stop(), 0);
    auto lines = read_lines(file_);
    ASSERT_EQ(lines.size(), static_cast<std::size_t>(LOG_QUEUE_MAX));
    EXPECT_EQ(lines.front().substr(28), "line 0");
    EXPECT_EQ(lines.back().substr(28), "line 127999");
}

TEST_F(LogFileTest, StopWritesEverythingQueuedBeforeIt)
{
    ASSERT_EQ(log_start(file_.c_str(), 86400), 0);
    log_test_hold_writer(1);
    for (int i = 0; i < 500; i++) log_printf(LOG_INFO, "queued %d", i);
    ASSERT_EQ(log_stop(), 0);
    auto lines = read_lines(file_);
    ASSERT_EQ(lines.size(), 500u);
    EXPECT_EQ(lines[499].substr(28), "queued 499");
}

TEST_F(LogFileTest, PrintfAfterStopIsHarmless)
{
    ASSERT_EQ(log_start(file_.c_str(), 86400), 0);
    log_printf(LOG_INFO, "before stop");
    ASSERT_EQ(log_stop(), 0);
    auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 1000; i++) EXPECT_EQ(log_printf(LOG_INFO, "after stop"), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
    EXPECT_EQ(log_test_queued(), 0);
    EXPECT_EQ(read_lines(file_).size(), 1u);
    EXPECT_EQ(log_stop(), -1);
}

TEST_F(LogFileTest, LinesFromManyThreadsNeverMix)
{
    ASSERT_EQ(log_start(file_.c_str(), 86400), 0);
    constexpr int THREADS = 4;
    constexpr int PER_THREAD = 1500;
    std::vector<std::thread> workers;
    for (int t = 0; t < THREADS; t++)
        workers.emplace_back([t] {
            for (int i = 0; i < PER_THREAD; i++) log_printf(LOG_INFO, "t%d n%d %s", t, i, "payload-payload");
        });
    for (auto& w : workers) w.join();
    ASSERT_EQ(log_stop(), 0);

    auto lines = read_lines(file_);
    ASSERT_EQ(lines.size(), static_cast<std::size_t>(THREADS * PER_THREAD));
    std::vector<int> next(THREADS, 0);
    std::regex body(R"(t(\d) n(\d+) payload-payload)");
    for (const auto& line : lines) {
        ASSERT_TRUE(std::regex_match(line, LINE_SHAPE)) << line;
        std::smatch m;
        std::string msg = line.substr(28);
        ASSERT_TRUE(std::regex_match(msg, m, body)) << line;
        int t = std::stoi(m[1]);
        EXPECT_EQ(std::stoi(m[2]), next[t]++);   // each thread's lines keep their order
    }
}

// A writer stuck on a blocked terminal must not hold up callers: the lock is
// only held to queue, never while writing.
TEST_F(LogFileTest, BlockedStandardErrorDoesNotBlockCallers)
{
    int pipefd[2];
    ASSERT_EQ(pipe(pipefd), 0);
    fcntl(pipefd[1], F_SETFL, O_NONBLOCK);
    char fill[4096] = {};
    for (int i = 0; i < 1024 && write(pipefd[1], fill, sizeof fill) > 0; i++) {}
    fcntl(pipefd[1], F_SETFL, 0);
    int saved_err = dup(STDERR_FILENO);
    dup2(pipefd[1], STDERR_FILENO);
    close(pipefd[1]);

    ASSERT_EQ(log_start(file_.c_str(), 86400), 0);
    log_set_stderr(1);
    log_printf(LOG_INFO, "this one blocks the writer");
    std::this_thread::sleep_for(50ms);
    auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 200; i++) log_printf(LOG_INFO, "caller %d", i);
    auto spent = std::chrono::steady_clock::now() - start;

    // Unblock: restore the terminal and drain the pipe until the writer lets go.
    log_set_stderr(0);
    dup2(saved_err, STDERR_FILENO);
    close(saved_err);
    std::thread drain([fd = pipefd[0]] {
        char buf[65536];
        for (int i = 0; i < 100000 && read(fd, buf, sizeof buf) > 0; i++) {}
    });
    ASSERT_EQ(log_stop(), 0);
    drain.join();
    close(pipefd[0]);

    EXPECT_LT(spent, 500ms);
    EXPECT_EQ(read_lines(file_).size(), 201u);
}
