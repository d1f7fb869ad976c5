// Output capture: ring arithmetic, and collection from real pipes into the ring
// and the session files with their mode, size bound and number bound.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <random>

#include "std_capture.h"
#include "unit_support.h"

namespace {

using namespace unit_support;

// Stream position p holds this byte: never periodic within a ring.
std::string stream_bytes(uint64_t from, uint64_t to)
{
    std::string out;
    for (uint64_t p = from; p < to; p++) out.push_back(static_cast<char>((p * 7 + p / 251) & 0xff));
    return out;
}

std::string ring_bytes(const std_ring& ring)
{
    return ring.buf ? std::string(ring.buf.get(), static_cast<size_t>(ring.tail - ring.head)) : "";
}

TEST(StdRing, ExactlyFullDropsNothingOneMoreDropsOneAndChunksKeepTheNewest)
{
    std_ring ring;
    std::mt19937 rng(12345);
    for (int i = 0; i < 100; i++) {   // exactly full, one byte more, then small and large chunks
        uint64_t from = ring.tail, n = i < 2 ? (i ? 1 : STD_BUF_SIZE) : rng() % (i % 3 ? 700 : 2 * STD_BUF_SIZE) + 1;
        std::string chunk = stream_bytes(from, from + n);
        std_ring_append(ring, chunk.data(), n);
        uint64_t kept_from = from + n > STD_BUF_SIZE ? from + n - STD_BUF_SIZE : 0;
        ASSERT_EQ(ring.head, kept_from) << "after chunk " << i;
        ASSERT_EQ(ring_bytes(ring), stream_bytes(kept_from, from + n)) << "after chunk " << i;
    }
}

// An app whose stdout and stderr are pipes the test feeds.
class StdDrain : public ::testing::Test {
protected:
    void SetUp() override
    {
        setenv("TZ", "UTC", 1);
        tzset();
        ASSERT_EQ(instance_create(&inst_), 0);
        inst_->log_file_name.set((dir_ / "wd.log").string());
        fs::create_directory(dir_ / "wd.log.sessions");
        record_->pid = 4711;
        record_->started = 1525439229;   // 2018-05-04 13:07:09 UTC
        for (int fd_no = 1; fd_no <= 2; fd_no++) {
            int fds[2];
            ASSERT_EQ(pipe2(fds, O_NONBLOCK), 0);
            fcntl(fds[1], F_SETPIPE_SZ, 1 << 20);   // room for the big writes below
            record_->std_pipes[fd_no] = {fds[0], fds[1]};
        }
    }
    void TearDown() override
    {
        for (auto& p : record_->std_pipes)
            for (int fd : {p.rd, p.wr})
                if (fd >= 0) close(fd);
        app_free(record_);
        instance_destroy(&inst_);
    }
    void feed_and_drain(int fd_no, const std::string& data)
    {
        ASSERT_EQ(write(record_->std_pipes[fd_no].wr, data.data(), data.size()), static_cast<ssize_t>(data.size()));
        EXPECT_EQ(watchdog_std_drain(inst_, record_, scratch_, fd_no), 0);
    }
    // What a child's end and the next launch do to the capture state.
    void next_child(int pid, int64_t later)
    {
        watchdog_std_close(record_);
        record_->session_name.clear();
        record_->pid = pid;
        record_->started += later;
    }
    std::string session(const char* name) { return file_text(dir_ / "wd.log.sessions" / name); }
    bool exists(const char* name) { return fs::exists(dir_ / "wd.log.sessions" / name); }

    scratch_dir tmp_{"std_capture_test"};
    fs::path dir_ = tmp_.path;
    instance* inst_ = nullptr;
    app* record_ = app_new();
    char scratch_[STD_BUF_SIZE];
};

TEST_F(StdDrain, FilesRingPositionsOverChildrenRotationAndRetention)
{
    mode_t old = umask(0);   // as under --demonize
    for (int fd_no : {1, 2}) feed_and_drain(fd_no, "");
    umask(old);
    for (const char* name : {"20180504_130709-4711-1", "20180504_130709-4711-2"}) {
        struct stat st {};
        ASSERT_EQ(stat((dir_ / "wd.log.sessions" / name).c_str(), &st), 0) << name;
        EXPECT_EQ(st.st_size, 0);
        EXPECT_EQ(st.st_mode & 0777, 0640u);   // a silent child gets its files, never world-readable
    }
    feed_and_drain(1, stream_bytes(0, 40000));
    feed_and_drain(2, "err-1;");
    record_->pid = 99;   // a later pid must not rename the session being collected
    feed_and_drain(1, stream_bytes(40000, 40006));
    EXPECT_EQ(session("20180504_130709-4711-1"), stream_bytes(0, 40006));
    EXPECT_EQ(session("20180504_130709-4711-2"), "err-1;");
    fs::resize_file(dir_ / "wd.log.sessions" / "20180504_130709-4711-2", 0);   // copytruncate
    feed_and_drain(2, "err-2;");
    EXPECT_EQ(session("20180504_130709-4711-2"), "err-2;") << "appended at the new end, no hole";

    // Positions run on over children; a full file rotates; the newest two sessions stay.
    inst_->session_max_bytes = 4096;
    inst_->sessions_keep = 2;
    next_child(4712, 60);
    feed_and_drain(1, stream_bytes(40006, 43006));
    feed_and_drain(1, stream_bytes(43006, 46006));
    EXPECT_EQ(record_->std_bufs[1].tail, 46006u);
    EXPECT_EQ(ring_bytes(record_->std_bufs[1]), stream_bytes(46006 - STD_BUF_SIZE, 46006));
    EXPECT_EQ(session("20180504_130809-4712-1.1"), stream_bytes(40006, 44102));
    EXPECT_EQ(session("20180504_130809-4712-1"), stream_bytes(44102, 46006));
    next_child(4713, 60);
    feed_and_drain(2, "");
    EXPECT_FALSE(exists("20180504_130709-4711-1") || exists("20180504_130709-4711-2"));
    EXPECT_TRUE(exists("20180504_130809-4712-1") && exists("20180504_130809-4712-1.1") && exists("20180504_130909-4713-2"));

    // Without the directory the ring still fills.
    next_child(4714, 1);
    fs::remove_all(dir_ / "wd.log.sessions");
    feed_and_drain(2, "only in memory");
    EXPECT_EQ(ring_bytes(record_->std_bufs[2]), "err-1;err-2;only in memory");
    EXPECT_FALSE(fs::exists(dir_ / "wd.log.sessions"));
}

}  // namespace
