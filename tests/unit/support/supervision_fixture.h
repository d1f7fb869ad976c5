// A supervision thread over a fresh instance in a scratch directory. The
// applications' executables are shell scripts in dir_/bin; shutdown is asked
// for as the signal handler does it, and every wait is bounded.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <string>
#include <thread>

#include "app_types.h"
#include "instance.h"
#include "os_ops.h"
#include "respawner.h"
#include "unit_support.h"

namespace unit_support {

class supervision_fixture : public ::testing::Test {
protected:
    explicit supervision_fixture(const std::string& prefix) : scratch_(prefix) {}

    void SetUp() override
    {
        fs::create_directory(bin());
        fs::create_directory(dir_ / "wd.log.sessions");
        ASSERT_EQ(instance_create(&inst_), 0);
        inst_->log_file_name.set((dir_ / "wd.log").string());
        inst_->p_sig_cnt = &sig_cnt_;
    }
    void TearDown() override
    {
        EXPECT_TRUE(stop());
        os_ops_reset();
        if (inst_) {
            for (int i = 0; i < inst_->cnt; i++)
                if (!inst_->apps[i]->child_conf_file.empty()) unlink(inst_->apps[i]->child_conf_file.c_str());
        }
        instance_destroy(&inst_);
    }

    fs::path bin() const { return dir_ / "bin"; }

    app* add_app(const char* type)
    {
        app* r = app_new();
        r->type = instance_apps_lookup(type);
        r->bin_path.set(bin().string());
        r->envs.append("PATH=/usr/bin:/bin");
        instance_lock_guard guard(inst_);
        EXPECT_EQ(instance_slot_append(inst_, r), 0);
        return r;
    }
    // An app of `type` whose executable in bin/ is a shell script with `body`.
    app* add_script_app(const char* type, const std::string& body)
    {
        write_script(bin() / app_types[instance_apps_lookup(type)].exe, body);
        return add_app(type);
    }

    void start()
    {
        watchdog_respawner_start(inst_);
        started_ = true;
    }
    // Asks for shutdown, kills what still runs; false if the thread outlived `limit`.
    bool stop(std::chrono::seconds limit = std::chrono::seconds(10))
    {
        if (!started_) return true;
        {
            instance_lock_guard guard(inst_);
            sig_cnt_ = 1;
            kill_children();
        }
        return join_within(limit);
    }
    bool join_within(std::chrono::seconds limit)
    {
        if (!started_) return true;
        auto joined = std::async(std::launch::async, [this] { watchdog_respawner_join(inst_); });
        bool in_time = joined.wait_for(limit) == std::future_status::ready;
        if (!in_time) {
            // Unblock a hung thread rather than hang the test program.
            instance_lock_guard guard(inst_);
            kill_children();
        }
        joined.wait();
        started_ = false;
        return in_time;
    }
    // Polls `pred` under the lock until it holds or `limit` passes.
    bool wait_until(std::chrono::milliseconds limit, const std::function<bool()>& pred)
    {
        auto deadline = std::chrono::steady_clock::now() + limit;
        for (int round = 0; round < 100000; round++) {
            {
                instance_lock_guard guard(inst_);
                if (pred()) return true;
            }
            if (std::chrono::steady_clock::now() >= deadline) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return false;
    }
    bool wait_file(const fs::path& path, std::chrono::milliseconds limit)
    {
        return wait_until(limit, [&] { return fs::exists(path); });
    }
    template <typename T>
    T locked(const std::function<T()>& read)
    {
        instance_lock_guard guard(inst_);
        return read();
    }

    scratch_dir scratch_;
    fs::path dir_ = scratch_.path();
    instance* inst_ = nullptr;
    std::atomic<int> sig_cnt_{0};
    bool started_ = false;

private:
    void kill_children()
    {
        for (int i = 0; i < inst_->cnt; i++)
            if (inst_->apps[i]->pid) kill(inst_->apps[i]->pid, SIGKILL);
    }
};

}  // namespace unit_support
