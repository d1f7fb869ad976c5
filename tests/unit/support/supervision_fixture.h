// A supervision thread over a fresh instance in a scratch directory, with the
// clocks in the test's hand. Executables are shell scripts in dir_/bin; every
// wait is a bounded poll on a condition.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "app_types.h"
#include "os_ops.h"
#include "respawner.h"
#include "unit_support.h"

namespace unit_support {

using namespace std::chrono_literals;

inline std::atomic<int64_t> fake_mono_ms{1'000'000};
inline std::atomic<int64_t> fake_wall_s{1'700'000'000};

class supervision_fixture : public ::testing::Test {
protected:
    explicit supervision_fixture(const std::string& prefix) : scratch_(prefix) {}
    template <typename F>
    auto with_lock(F&& read)
    {
        instance_lock_guard guard(inst_);
        return read();
    }
    void SetUp() override
    {
        fs::create_directories(dir_ / "bin");
        fs::create_directory(dir_ / "wd.log.sessions");
        ASSERT_EQ(instance_create(&inst_), 0);
        inst_->log_file_name.set((dir_ / "wd.log").string());
        inst_->p_sig_cnt = &sig_cnt_;
        watchdog_os.monotonic_ms = [] { return fake_mono_ms.load(); };
        watchdog_os.wall_s = [] { return fake_wall_s.load(); };
    }
    void TearDown() override
    {
        if (started_) {
            // Shutdown as the signal handler asks for it, children killed outright.
            with_lock([&] {
                sig_cnt_ = 1;
                for (int i = 0; i < inst_->cnt; i++)
                    if (int pid = inst_->apps[i]->pid) kill(-pid, SIGKILL), kill(pid, SIGKILL);
                return 0;
            });
            watchdog_respawner_wake(inst_);
            EXPECT_TRUE(wait_until(10s, [&] { return idle(); }));
            watchdog_respawner_join(inst_);
        }
        os_ops_reset();
        instance_destroy(&inst_);
    }
    // An app of `type` whose executable in bin/ is a shell script with `body`.
    app* add_app(const char* type, const std::string& body = "")
    {
        if (!body.empty()) write_script(dir_ / "bin" / app_types[instance_apps_lookup(type)].exe, body);
        app* r = app_new();
        r->type = instance_apps_lookup(type);
        r->bin_path.set((dir_ / "bin").string());
        r->envs.append("PATH=/usr/bin:/bin");
        with_lock([&] { return instance_slot_append(inst_, r); });
        return r;
    }
    void start()
    {
        watchdog_respawner_start(inst_);
        started_ = true;
    }
    // Moves the monotonic clock and lets the supervision thread look at once.
    void advance_ms(int64_t ms)
    {
        fake_mono_ms += ms;
        watchdog_respawner_wake(inst_);
    }
    bool idle()
    {
        for (int i = 0; i < inst_->cnt; i++)
            if (inst_->apps[i]->pid) return false;
        return true;
    }
    // Polls `pred` under the lock until it holds or `limit` passes.
    bool wait_until(std::chrono::milliseconds limit, const std::function<bool()>& pred)
    {
        auto deadline = std::chrono::steady_clock::now() + limit;
        for (int round = 0; round < 1'000'000; round++, std::this_thread::sleep_for(1ms))
            if (with_lock(pred)) return true;
            else if (std::chrono::steady_clock::now() >= deadline) return false;
        return false;
    }

    scratch_dir scratch_;
    fs::path dir_ = scratch_.path();
    instance* inst_ = nullptr;
    std::atomic<int> sig_cnt_{0};
    bool started_ = false;
};

// True once `pid` is gone or a zombie waiting for its parent.
inline bool process_gone(pid_t pid)
{
    std::string stat = file_text("/proc/" + std::to_string(pid) + "/stat");
    std::size_t paren = stat.rfind(')');
    return stat.empty() || (paren != std::string::npos && stat.compare(paren + 2, 1, "Z") == 0);
}

}  // namespace unit_support
