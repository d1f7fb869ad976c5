#pragma once
// Options shared by every command, and where a command leaves its exit
// status.
#include <string>
#include <vector>

// Exit statuses (documented in the manual page and the README).
constexpr int exit_ok = 0;
constexpr int exit_failed = 1;
constexpr int exit_usage = 2;
constexpr int exit_not_running = 3; // status: something that should run does not
constexpr int exit_unknown = 4;     // status: a supervisor could not be asked

struct ctl_context {
    std::vector<std::string> url_flags;
    std::string hosts_file;
    bool json = false;
    bool no_color = false;
    double connect_timeout = 2.0; // seconds, per connection attempt
    double timeout = 10.0;        // seconds, per request (connection included)

    std::vector<std::string> urls; // resolved before a command runs
    int exit_status = exit_ok;

    int connect_ms() const { return static_cast<int>(connect_timeout * 1000); }
    unsigned timeout_ms() const { return static_cast<unsigned>(timeout * 1000); }
    // The gravest status wins: usage, failure, unknown, not running.
    void fail(int status)
    {
        if (rank(status) > rank(exit_status)) exit_status = status;
    }
    static int rank(int status)
    {
        switch (status) {
        case exit_usage: return 4;
        case exit_failed: return 3;
        case exit_unknown: return 2;
        case exit_not_running: return 1;
        default: return 0;
        }
    }
};

// The one supervisor of a command that changes things, reachable; "" with
// the error printed otherwise.
std::string single_target(ctl_context& ctx);
