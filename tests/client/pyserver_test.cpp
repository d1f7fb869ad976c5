// The client library against Python's standard XML-RPC server: an encoder and
// decoder that share nothing with ours (ints, strings with markup and
// non-ASCII text, doubles, structs, arrays, byte strings).
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "vantrel.h"

extern char** environ;

namespace {

std::string script_path()
{
    std::string here = __FILE__;
    return here.substr(0, here.rfind('/') + 1) + "py_standin.py";
}

class python_server : public ::testing::Test {
protected:
    void SetUp() override
    {
        const char* python = getenv("PYTHON3");
        if (!python || !*python) python = "python3";
        char dir_template[] = "/tmp/vantrel-pyserver-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(dir_template));
        dir_ = dir_template;
        port_file_ = dir_ + "/port";
        std::string script = script_path();
        char* argv[] = {const_cast<char*>(python), script.data(), port_file_.data(), nullptr};
        if (posix_spawnp(&pid_, python, nullptr, nullptr, argv, environ) != 0) {
            pid_ = -1;
            GTEST_SKIP() << "no python3 to run the reference server";
        }
        // Bounded wait for the port: 200 polls of 50 ms.
        for (int i = 0; i < 200 && port_ == 0; ++i) {
            std::ifstream in(port_file_);
            if (!(in >> port_)) port_ = 0;
            if (port_ == 0) {
                int status = 0;
                if (waitpid(pid_, &status, WNOHANG) == pid_) {
                    pid_ = -1;
                    FAIL() << "reference server ended before it listened";
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
            }
        }
        ASSERT_NE(0, port_) << "reference server did not report its port";
        url_ = "http://127.0.0.1:" + std::to_string(port_) + "/RPC2";
        ASSERT_EQ(0, vantrel_init("pyserver-test", "1.0"));
        initialised_ = true;
    }

    void TearDown() override
    {
        if (initialised_) vantrel_cleanup();
        if (pid_ > 0) stop_server();
        if (!port_file_.empty()) unlink(port_file_.c_str());
        if (!dir_.empty()) rmdir(dir_.c_str());
    }

    // SIGTERM, up to 3 s for a clean end, then SIGKILL: only our own child.
    void stop_server()
    {
        kill(pid_, SIGTERM);
        for (int i = 0; i < 60; ++i) {
            if (waitpid(pid_, nullptr, WNOHANG) == pid_) return;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }

    const char* url() const { return url_.c_str(); }

private:
    pid_t pid_ = -1;
    int port_ = 0;
    bool initialised_ = false;
    std::string dir_, port_file_, url_;
};

TEST_F(python_server, status_struct_with_ints_strings_and_a_double)
{
    vantrel_status st;
    EXPECT_EQ(1, vantrel_getstatus(url(), &st));
    EXPECT_STREQ("clip \xc3\xa9", st.name);   // UTF-8 on our side
    EXPECT_STREQ("<&>", st.cookie);
    EXPECT_EQ(100, st.clip_length);
    EXPECT_EQ(4, st.playlist_count);
    EXPECT_DOUBLE_EQ(-2.5, st.playlist_speed);
    EXPECT_EQ(1, st.tc_src);
}

TEST_F(python_server, request_tuples_arrive_with_their_types)
{
    // The server checks the types and answers in+dur, or -22.
    EXPECT_EQ(30, vantrel_playlist_append(url(), "clip", 10, 20, nullptr, nullptr, nullptr));
    const char* names[] = {"a", "b", nullptr};
    const char* values[] = {"1", "2", nullptr};
    const char* list[] = {"x", nullptr};
    EXPECT_EQ(21, vantrel_playlist_insert_template(url(), 0, "t", 1, 2, -1, list, -1, names, values, nullptr));
}

TEST_F(python_server, arrays_of_strings_and_byte_strings)
{
    char** names = nullptr;
    ASSERT_EQ(2, vantrel_lib_list_templates(url(), &names));
    EXPECT_STREQ("second", names[1]);
    vantrel_str_list_free(&names);

    char** layers = nullptr;
    ASSERT_EQ(1, vantrel_lib_tmpl_get(url(), "lt", &layers));
    EXPECT_STREQ("<layer name='lt'/>", layers[0]);
    vantrel_str_list_free(&layers);

    const char* out[] = {"abc", "de", nullptr};
    EXPECT_EQ(5, vantrel_lib_tmpl_set(url(), "lt", out));
}

TEST_F(python_server, settings_pairs_and_unknown_methods)
{
    vantrel_io_settings s{};
    EXPECT_EQ(0, vantrel_io_settings_get(url(), &s));
    EXPECT_EQ(2, s.keyer);
    EXPECT_STREQ("h264", s.enc);

    testing::internal::CaptureStderr();
    EXPECT_EQ(-14, vantrel_play(url()));   // not served: a fault
    EXPECT_NE(std::string::npos,
              testing::internal::GetCapturedStderr().find("xmlrpc_client_callX("));
}

}  // namespace
