#include "service_notify.h"

#include <systemd/sd-daemon.h>

#include <atomic>
#include <cstdint>
#include <ctime>

namespace {

uint64_t monotonic_usec()
{
    struct timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000u + static_cast<uint64_t>(now.tv_nsec) / 1000u;
}

// Half the manager's watchdog interval, or 0 when it watches nothing. Read
// once: the environment does not change for this process.
uint64_t keep_alive_period_usec()
{
    static const uint64_t period = [] {
        uint64_t interval = 0;
        return sd_watchdog_enabled(0, &interval) > 0 ? interval / 2 : 0;
    }();
    return period;
}

std::atomic<uint64_t> last_keep_alive_usec{0};

}  // namespace

void service_notify_ready() { sd_notify(0, "READY=1\nSTATUS=Supervising"); }

void service_notify_stopping() { sd_notify(0, "STOPPING=1\nSTATUS=Stopping the applications"); }

void service_notify_alive()
{
    const uint64_t period = keep_alive_period_usec();
    if (period == 0) return;
    const uint64_t now = monotonic_usec();
    uint64_t last = last_keep_alive_usec.load();
    if (last != 0 && now - last < period) return;
    // One caller wins a given interval; the others find it already taken.
    if (last_keep_alive_usec.compare_exchange_strong(last, now)) sd_notify(0, "WATCHDOG=1");
}
