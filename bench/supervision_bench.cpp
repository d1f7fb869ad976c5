// Measures the supervision thread in this process with real children:
//  - restart latency: from a child's end (we SIGKILL it) to the fork of its
//    replacement (noted by the fork itself), median and p95 over RESTARTS restarts;
//  - supervisor CPU time per second of wall time with QUIET_CHILDREN quiet
//    children running (getrusage of this process over CPU_SECONDS);
//  - GetStatus with STATUS_APPS applications: how long another thread waits
//    for the instance lock while calls run back to back (an upper bound of
//    the lock hold), and the CPU of one call, answer serialised as the server does.
// Children are /bin/sleep under the "lib" executable name in a temporary
// directory. Only pids this program started are signalled.
#include <signal.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <xmlrpc-c/base.h>

#include "app_types.h"
#include "child_registry.h"
#include "ctl_methods.h"
#include "ctl_status.h"
#include "instance.h"
#include "os_ops.h"
#include "respawner.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using steady = std::chrono::steady_clock;

namespace {

constexpr int RESTARTS = 20;
constexpr int QUIET_CHILDREN = 50;
constexpr int CPU_SECONDS = 10;
constexpr int STATUS_APPS = 1024;
constexpr int STATUS_CALLS = 300;

std::atomic<int> sig_cnt{0};
std::atomic<int64_t> last_fork_ns{0};

int64_t steady_ns()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(steady::now().time_since_epoch()).count();
}

pid_t noting_fork()
{
    last_fork_ns = steady_ns();
    return child_registry_fork();
}

double thread_cpu_seconds()
{
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

app* add_app(instance* inst, const fs::path& bin)
{
    app* r = app_new();
    r->type = instance_apps_lookup("lib");
    r->bin_path.set(bin.string());
    r->envs.append("PATH=/usr/bin:/bin");
    r->f_respawn = 1;
    instance_lock_guard guard(inst);
    instance_slot_append(inst, r);
    return r;
}

// Polls until `pred` holds (under the lock) or the limit passes; 1 ms steps.
template <typename Pred>
bool wait_until(instance* inst, std::chrono::milliseconds limit, Pred pred)
{
    auto deadline = steady::now() + limit;
    for (int round = 0; round < 1000000 && steady::now() < deadline; round++) {
        {
            instance_lock_guard guard(inst);
            if (pred()) return true;
        }
        std::this_thread::sleep_for(1ms);
    }
    return false;
}

double percentile(std::vector<double> values, double p)
{
    std::sort(values.begin(), values.end());
    size_t idx = static_cast<size_t>(p * static_cast<double>(values.size() - 1) + 0.5);
    return values[std::min(idx, values.size() - 1)];
}

// One GetStatus as the control port answers it: ready bytes while nothing
// listed changes within the second, else built and serialised once.
size_t status_served(instance* inst)
{
    xmlrpc_env env;
    xmlrpc_env_init(&env);
    xmlrpc_mem_block* out = nullptr;
    size_t size = 0;
    if (ctl_status_respond(&env, inst, &out)) {
        size = XMLRPC_MEMBLOCK_SIZE(char, out);
        XMLRPC_MEMBLOCK_FREE(char, out);
    }
    xmlrpc_env_clean(&env);
    return size;
}

// One GetStatus built and serialised from scratch.
size_t status_call(instance* inst)
{
    xmlrpc_env env;
    xmlrpc_env_init(&env);
    xmlrpc_value* answer = ctl_method_GetStatus(&env, nullptr, inst, nullptr);
    size_t size = 0;
    if (answer) {
        xmlrpc_mem_block* out = XMLRPC_MEMBLOCK_NEW(char, &env, 0);
        xmlrpc_serialize_response(&env, out, answer);
        size = XMLRPC_MEMBLOCK_SIZE(char, out);
        XMLRPC_MEMBLOCK_FREE(char, out);
        xmlrpc_DECREF(answer);
    }
    xmlrpc_env_clean(&env);
    return size;
}

void bench_status(instance* inst, const fs::path& bin)
{
    for (int i = 0; i < STATUS_APPS; i++) {
        app* r = add_app(inst, bin);
        r->f_respawn = 0;
        r->alias.set("application " + std::to_string(i));
        r->thumb.set("/Vantrel/thumbs/" + std::to_string(i) + ".png");
    }
    std::atomic<bool> done{false};
    std::vector<double> waits_ms;
    std::thread contender([&] {
        while (!done) {
            auto t0 = steady::now();
            pthread_mutex_lock(&inst->lock);
            auto t1 = steady::now();
            pthread_mutex_unlock(&inst->lock);
            waits_ms.push_back(std::chrono::duration<double, std::milli>(t1 - t0).count());
            std::this_thread::sleep_for(50us);
        }
    });
    size_t size = 0;
    double cpu0 = thread_cpu_seconds();
    for (int i = 0; i < STATUS_CALLS; i++) size = status_call(inst);
    double built = thread_cpu_seconds() - cpu0;
    cpu0 = thread_cpu_seconds();
    for (int i = 0; i < STATUS_CALLS; i++) size = status_served(inst);
    double served = thread_cpu_seconds() - cpu0;
    done = true;
    contender.join();
    printf("GetStatus with %d apps (%zu KiB answer): %.2f ms CPU per call built and serialised, %.2f ms as "
           "served; lock wait of another thread p99 %.3f ms, max %.3f ms over %zu tries\n",
           STATUS_APPS, size / 1024, 1000.0 * built / STATUS_CALLS, 1000.0 * served / STATUS_CALLS,
           percentile(waits_ms, 0.99), *std::max_element(waits_ms.begin(), waits_ms.end()), waits_ms.size());
}

// CPU of a thread that does nothing but wait 100 ms in epoll, as the
// supervision thread does between passes: this machine's floor for that wait.
double wake_floor_ms_per_second(int seconds)
{
    int ep = epoll_create1(EPOLL_CLOEXEC);
    epoll_event ev{};
    double cpu0 = thread_cpu_seconds();
    for (int i = 0; i < seconds * 10; i++) epoll_wait(ep, &ev, 1, 100);
    double cpu = thread_cpu_seconds() - cpu0;
    close(ep);
    return 1000.0 * cpu / seconds;
}

double cpu_seconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    auto secs = [](const timeval& tv) { return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1e6; };
    return secs(usage.ru_utime) + secs(usage.ru_stime);
}

void shutdown(instance* inst)
{
    {
        instance_lock_guard guard(inst);
        sig_cnt = 1;
        for (int i = 0; i < inst->cnt; i++)
            if (inst->apps[i]->pid) kill(-inst->apps[i]->pid, SIGKILL);
    }
    watchdog_respawner_join(inst);
}

}  // namespace

int main(int argc, char** argv)
{
    char tmpl[] = "/tmp/supervision_bench-XXXXXX";
    if (!mkdtemp(tmpl)) return 1;
    fs::path dir = tmpl;
    fs::create_directory(dir / "bin");
    fs::create_directory(dir / "wd.log.sessions");
    {
        std::ofstream script(dir / "bin" / "VantrelLib");
        script << "#!/bin/sh\nexec sleep 1000\n";
    }
    fs::permissions(dir / "bin" / "VantrelLib", fs::perms::owner_all);

    instance* inst = nullptr;
    instance_create(&inst);
    inst->log_file_name.set((dir / "wd.log").string());
    inst->p_sig_cnt = &sig_cnt;

    if (argc > 1 && std::string(argv[1]) == "status") {
        bench_status(inst, dir / "bin");
        instance_destroy(&inst);
        fs::remove_all(dir);
        return 0;
    }

    // Restart latency.
    watchdog_os.fork = noting_fork;
    app* one = add_app(inst, dir / "bin");
    watchdog_respawner_start(inst);
    std::vector<double> latencies_ms;
    for (int i = 0; i < RESTARTS; i++) {
        int old_pid = 0;
        if (!wait_until(inst, 5000ms, [&] { return (old_pid = one->pid) != 0; })) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(37 * i % 100));   // spread over the pass phase
        steady::time_point ended;
        {
            instance_lock_guard guard(inst);
            one->fast_respawn_cnt = 0;   // a benchmark, not a crash loop
            kill(old_pid, SIGKILL);
            ended = steady::now();
        }
        if (!wait_until(inst, 5000ms, [&] { return one->pid != 0 && one->pid != old_pid; })) break;
        int64_t ended_ns = std::chrono::duration_cast<std::chrono::nanoseconds>(ended.time_since_epoch()).count();
        latencies_ms.push_back(static_cast<double>(last_fork_ns - ended_ns) / 1e6);
    }
    shutdown(inst);

    // CPU time with quiet children.
    sig_cnt = 0;
    {
        instance_lock_guard guard(inst);
        one->f_respawn = 0;
    }
    std::vector<app*> quiet;
    for (int i = 0; i < QUIET_CHILDREN; i++) quiet.push_back(add_app(inst, dir / "bin"));
    watchdog_respawner_start(inst);
    bool all_up = wait_until(inst, 20000ms, [&] {
        return std::all_of(quiet.begin(), quiet.end(), [](app* r) { return r->pid != 0; });
    });
    std::this_thread::sleep_for(500ms);
    double cpu0 = cpu_seconds();
    auto wall0 = steady::now();
    std::this_thread::sleep_for(std::chrono::seconds(CPU_SECONDS));
    double cpu = cpu_seconds() - cpu0;
    double wall = std::chrono::duration<double>(steady::now() - wall0).count();
    shutdown(inst);

    if (latencies_ms.size() == RESTARTS) {
        printf("restart latency over %d restarts: median %.1f ms, p95 %.1f ms, max %.1f ms\n", RESTARTS,
               percentile(latencies_ms, 0.5), percentile(latencies_ms, 0.95),
               *std::max_element(latencies_ms.begin(), latencies_ms.end()));
    } else {
        printf("restart latency: only %zu of %d restarts observed\n", latencies_ms.size(), RESTARTS);
    }
    printf("supervisor CPU with %d quiet children%s: %.2f ms per second (%.3f s over %.1f s)\n", QUIET_CHILDREN,
           all_up ? "" : " (not all started)", 1000.0 * cpu / wall, cpu, wall);
    printf("floor: a bare thread waking every 100 ms: %.2f ms per second\n", wake_floor_ms_per_second(CPU_SECONDS));

    for (int i = 0; i < inst->cnt; i++)
        if (!inst->apps[i]->child_conf_file.empty()) unlink(inst->apps[i]->child_conf_file.c_str());
    instance_destroy(&inst);
    fs::remove_all(dir);
    return latencies_ms.size() == RESTARTS && all_up ? 0 : 1;
}
