// Output capture: ring arithmetic and collection from a real pipe into the ring
// and the session files, with their mode, size bound and number bound.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <random>
#include <string>

#include "instance.h"
#include "std_capture.h"
#include "unit_support.h"

namespace fs = std::filesystem;

namespace {

using namespace unit_support;

// Byte at stream position p of the test streams: never periodic within a ring.
char stream_byte(uint64_t p) { return static_cast<char>((p * 7 + p / 251) & 0xff); }

std::string stream_bytes(uint64_t from, uint64_t to)
{
    std::string out;
    for (uint64_t p = from; p < to; p++) out.push_back(stream_byte(p));
    return out;
}

std::string ring_bytes(const std_ring& ring)
{
    if (!ring.buf) return {};
    return std::string(ring.buf.get(), static_cast<size_t>(ring.tail - ring.head));
}

TEST(StdRing, ExactlyFullDropsNothingAndOneMoreDropsOne)
{
    std_ring ring;
    std_ring_append(ring, "", 0);
    EXPECT_FALSE(ring.buf);   // storage comes with the first byte
    std::string data = stream_bytes(0, STD_BUF_SIZE + 1);
    std_ring_append(ring, data.data(), STD_BUF_SIZE);
    EXPECT_EQ(ring.head, 0u);
    EXPECT_EQ(ring.tail, 32768u);
    std_ring_append(ring, data.data() + STD_BUF_SIZE, 1);
    EXPECT_EQ(ring.head, 1u);
    EXPECT_EQ(ring.tail, 32769u);
    EXPECT_EQ(ring_bytes(ring), stream_bytes(1, STD_BUF_SIZE + 1));
}

TEST(StdRing, RandomChunksMatchAReferenceOfTheNewestBytes)
{
    std_ring ring;
    std::mt19937 rng(12345);
    std::uniform_int_distribution<size_t> chunk(1, STD_BUF_SIZE);
    uint64_t pos = 0;
    for (int i = 0; i < 200; i++) {
        size_t n = i % 3 == 0 ? chunk(rng) : chunk(rng) % 700 + 1;
        std::string data = stream_bytes(pos, pos + n);
        std_ring_append(ring, data.data(), n);
        pos += n;
        ASSERT_EQ(ring.tail, pos);
        ASSERT_LE(ring.tail - ring.head, STD_BUF_SIZE);
        uint64_t expect_head = pos > STD_BUF_SIZE ? pos - STD_BUF_SIZE : 0;
        ASSERT_EQ(ring.head, expect_head) << "after chunk " << i;
        ASSERT_EQ(ring_bytes(ring), stream_bytes(expect_head, pos)) << "after chunk " << i;
    }
}

// An app whose stdout and stderr are pipes this fixture feeds.
class StdDrain : public ::testing::Test {
protected:
    void SetUp() override
    {
        setenv("TZ", "UTC", 1);
        tzset();
        ASSERT_EQ(instance_create(&inst_), 0);
        inst_->log_file_name.set((dir_ / "wd.log").string());
        fs::create_directory(dir_ / "wd.log.sessions");
        record_ = app_new();
        record_->pid = 4711;
        record_->started = 1525439229;   // 2018-05-04 13:07:09 UTC
        for (int fd_no = 1; fd_no <= 2; fd_no++) {
            int fds[2];
            ASSERT_EQ(pipe(fds), 0);
            fcntl(fds[0], F_SETFL, O_NONBLOCK);
            fcntl(fds[1], F_SETPIPE_SZ, 1 << 20);   // room for the big writes below
            record_->std_pipes[fd_no] = {fds[0], fds[1]};
        }
    }
    void TearDown() override
    {
        for (auto& p : record_->std_pipes) {
            if (p.rd >= 0) close(p.rd);
            if (p.wr >= 0) close(p.wr);
        }
        app_free(record_);
        instance_destroy(&inst_);
    }
    void feed(int fd_no, const std::string& data)
    {
        ASSERT_EQ(write(record_->std_pipes[fd_no].wr, data.data(), data.size()), static_cast<ssize_t>(data.size()));
    }
    fs::path session_file(int fd_no) { return dir_ / ("wd.log.sessions/20180504_130709-4711-" + std::to_string(fd_no)); }

    scratch_dir tmp_{"std_capture_test"};
    fs::path dir_ = tmp_.path();
    instance* inst_ = nullptr;
    app* record_ = nullptr;
    char scratch_[STD_BUF_SIZE];
};

TEST_F(StdDrain, FortyThousandBytesReachTheRingAndAllReachTheSessionFile)
{
    feed(1, stream_bytes(0, 40000));
    EXPECT_EQ(watchdog_std_drain(inst_, record_, scratch_, 1), 0);
    EXPECT_EQ(record_->session_name.str(), "20180504_130709-4711");
    const std_ring& ring = record_->std_bufs[1];
    EXPECT_EQ(ring.head, 7232u);
    EXPECT_EQ(ring.tail, 40000u);
    EXPECT_EQ(ring_bytes(ring), stream_bytes(7232, 40000));
    EXPECT_EQ(file_text(session_file(1)), stream_bytes(0, 40000));
    EXPECT_EQ(record_->std_bufs[2].tail, 0u);
}

TEST_F(StdDrain, StreamsStayApartAndFilesGrowAcrossCollections)
{
    feed(1, "out-1;");
    feed(2, "err-1;");
    watchdog_std_drain(inst_, record_, scratch_, 1);
    watchdog_std_drain(inst_, record_, scratch_, 2);
    // A later pid must not rename the session of the child being collected.
    record_->pid = 99;
    feed(1, "out-2;");
    watchdog_std_drain(inst_, record_, scratch_, 1);
    watchdog_std_drain(inst_, record_, scratch_, 2);
    EXPECT_EQ(file_text(session_file(1)), "out-1;out-2;");
    EXPECT_EQ(file_text(session_file(2)), "err-1;");
    EXPECT_EQ(ring_bytes(record_->std_bufs[1]), "out-1;out-2;");
    EXPECT_EQ(ring_bytes(record_->std_bufs[2]), "err-1;");
}

TEST_F(StdDrain, SilentChildStillGetsEmptySessionFilesNeverWorldReadable)
{
    mode_t old = umask(0);   // as under --demonize
    watchdog_std_drain(inst_, record_, scratch_, 1);
    watchdog_std_drain(inst_, record_, scratch_, 2);
    umask(old);
    for (int fd_no : {1, 2}) {
        struct stat st {};
        ASSERT_EQ(stat(session_file(fd_no).c_str(), &st), 0);
        EXPECT_EQ(st.st_size, 0);
        EXPECT_EQ(st.st_mode & 0777, 0640u);
    }
    EXPECT_FALSE(record_->std_bufs[1].buf);
}

TEST_F(StdDrain, AFullFileRotatesOnceAndOnlyTheNewestSessionsKeepFiles)
{
    inst_->session_max_bytes = 4096;
    inst_->sessions_keep = 2;
    feed(1, stream_bytes(0, 3000));
    watchdog_std_drain(inst_, record_, scratch_, 1);
    feed(1, stream_bytes(3000, 6000));
    watchdog_std_drain(inst_, record_, scratch_, 1);
    EXPECT_EQ(file_text(session_file(1).string() + ".1"), stream_bytes(0, 3000));
    EXPECT_EQ(file_text(session_file(1)), stream_bytes(3000, 6000));
    EXPECT_EQ(record_->std_bufs[1].tail, 6000u);
    for (int pid : {4712, 4713}) {   // two later children of the same application
        watchdog_std_close(record_);
        record_->session_name.clear();
        record_->pid = pid;
        watchdog_std_drain(inst_, record_, scratch_, 2);
    }
    EXPECT_FALSE(fs::exists(session_file(1)));
    EXPECT_FALSE(fs::exists(session_file(1).string() + ".1"));
    EXPECT_TRUE(fs::exists(dir_ / "wd.log.sessions/20180504_130709-4712-2"));
    EXPECT_TRUE(fs::exists(dir_ / "wd.log.sessions/20180504_130709-4713-2"));
}

TEST_F(StdDrain, MissingSessionDirectoryStillFillsTheRing)
{
    fs::remove_all(dir_ / "wd.log.sessions");
    feed(2, "only in memory");
    EXPECT_EQ(watchdog_std_drain(inst_, record_, scratch_, 2), 0);
    EXPECT_EQ(ring_bytes(record_->std_bufs[2]), "only in memory");
    EXPECT_FALSE(fs::exists(dir_ / "wd.log.sessions"));
}

TEST_F(StdDrain, PositionsRunOnOverANewChildAndItsNewFiles)
{
    feed(1, stream_bytes(0, 30000));
    watchdog_std_drain(inst_, record_, scratch_, 1);
    // What a child's end and a new launch do to the capture state: new session, same ring.
    watchdog_std_close(record_);
    record_->session_name.clear();
    record_->pid = 4712;
    record_->started += 60;
    feed(1, stream_bytes(30000, 36000));
    watchdog_std_drain(inst_, record_, scratch_, 1);
    EXPECT_EQ(record_->std_bufs[1].head, 36000u - STD_BUF_SIZE);
    EXPECT_EQ(record_->std_bufs[1].tail, 36000u);
    EXPECT_EQ(ring_bytes(record_->std_bufs[1]), stream_bytes(36000 - STD_BUF_SIZE, 36000));
    EXPECT_EQ(file_text(dir_ / "wd.log.sessions/20180504_130809-4712-1"), stream_bytes(30000, 36000));
    EXPECT_EQ(fs::file_size(session_file(1)), 30000u);
}

}  // namespace
