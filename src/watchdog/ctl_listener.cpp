#include "ctl_listener.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <set>

#include "log/log.h"

namespace {

using steady = std::chrono::steady_clock;

constexpr int ACCEPTS_PER_ROUND = 64;   // the rest wait in the backlog for the next round
constexpr int POLL_MAX_MS = 1000;
constexpr auto DRAIN_GRACE = std::chrono::seconds(1);

struct waiting_conn {
    int fd;
    steady::time_point since;
};

}   // namespace

struct ctl_listener {
    int listen_fd = -1;
    int wake[2] = {-1, -1};
    std::vector<netmask> allow;
    ctl_conn_handler handler = nullptr;
    void* arg = nullptr;
    std::atomic<bool> stopping{false};

    std::mutex mutex;             // guards `active`
    std::condition_variable ended;
    // Sockets being served by a thread, with the time by which their request
    // must be in (max once it is).
    std::map<int, steady::time_point> active;
};

namespace {

struct worker_job {
    ctl_listener* listener;
    int fd;
};

thread_local worker_job t_serving{nullptr, -1};

void wake_up(ctl_listener* l)
{
    char byte = 1;
    ssize_t n = write(l->wake[1], &byte, 1);   // a full pipe already wakes the loop
    (void)n;
}

void drain_wake(ctl_listener* l)
{
    char buf[64];
    while (read(l->wake[0], buf, sizeof buf) > 0) {
    }
}

void* worker_main(void* p)
{
    worker_job job = *static_cast<worker_job*>(p);
    delete static_cast<worker_job*>(p);
    ctl_listener* l = job.listener;
    t_serving = job;
    l->handler(job.fd, l->arg);
    std::lock_guard<std::mutex> hold(l->mutex);
    // Under the lock: nobody shuts down a descriptor number that is reused.
    l->active.erase(job.fd);
    close(job.fd);
    l->ended.notify_all();
    wake_up(l);   // a place is free again
    return nullptr;
}

std::size_t active_count(ctl_listener* l)
{
    std::lock_guard<std::mutex> hold(l->mutex);
    return l->active.size();
}

void hand_off(ctl_listener* l, int fd)
{
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    struct timeval send_timeout {CTL_SEND_TIMEOUT_S, 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &send_timeout, sizeof send_timeout);
    {
        std::lock_guard<std::mutex> hold(l->mutex);
        l->active[fd] = steady::now() + std::chrono::seconds(CTL_READ_TIMEOUT_S);
    }
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t thread;
    worker_job* job = new worker_job{l, fd};
    int r = pthread_create(&thread, &attr, worker_main, job);
    pthread_attr_destroy(&attr);
    if (r == 0) return;
    delete job;
    log_printf(LOG_ERROR, "%s: no thread for a connection (%s)", "ctl_listener", strerror(r));
    std::lock_guard<std::mutex> hold(l->mutex);
    l->active.erase(fd);
    close(fd);
}

// A socket that polled readable either has request bytes or was closed by
// its client; the latter needs no thread.
bool peer_closed(int fd)
{
    char byte;
    return recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
}

void drop_oldest(std::vector<waiting_conn>& waiting)
{
    close(waiting.front().fd);
    waiting.erase(waiting.begin());
}

void accept_new(ctl_listener* l, std::vector<waiting_conn>& waiting)
{
    for (int n = 0; n < ACCEPTS_PER_ROUND; n++) {
        sockaddr_storage peer{};
        socklen_t len = sizeof peer;
        int fd = accept4(l->listen_fd, reinterpret_cast<sockaddr*>(&peer), &len, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if ((errno == EMFILE || errno == ENFILE) && !waiting.empty()) {
                drop_oldest(waiting);   // a descriptor for the newer one
                continue;
            }
            if (errno == EMFILE || errno == ENFILE) poll(nullptr, 0, 100);   // no busy loop on the backlog
            return;
        }
        if (!netmask_match(l->allow, reinterpret_cast<sockaddr*>(&peer))) {
            close(fd);
            continue;
        }
        if (static_cast<int>(waiting.size()) >= CTL_CONN_WAITING_MAX) drop_oldest(waiting);
        waiting.push_back({fd, steady::now()});
    }
}

// Hands every waiting connection with bytes to a thread while places are free.
void dispatch_ready(ctl_listener* l, std::vector<waiting_conn>& waiting, const std::vector<pollfd>& polled)
{
    std::set<int> ready;
    for (std::size_t i = 2; i < polled.size(); i++)
        if (polled[i].revents) ready.insert(polled[i].fd);
    std::erase_if(waiting, [&](const waiting_conn& w) {
        if (!ready.count(w.fd)) return false;
        if (peer_closed(w.fd)) {
            close(w.fd);
            return true;
        }
        if (active_count(l) >= CTL_CONN_ACTIVE_MAX) return false;
        hand_off(l, w.fd);
        return true;
    });
}

void expire_silent(std::vector<waiting_conn>& waiting)
{
    auto limit = steady::now() - std::chrono::milliseconds(CTL_FIRST_BYTE_MS);
    std::erase_if(waiting, [&](const waiting_conn& w) {
        if (w.since > limit) return false;
        close(w.fd);
        return true;
    });
}

// Until the nearest deadline: a silent new connection's first byte, or a
// request still being read. With neither, only the wake pipe or a new
// connection brings work, so an idle listener sleeps without a timeout.
int poll_timeout_ms(ctl_listener* l, const std::vector<waiting_conn>& waiting)
{
    auto nearest = steady::time_point::max();
    if (!waiting.empty()) nearest = waiting.front().since + std::chrono::milliseconds(CTL_FIRST_BYTE_MS);
    {
        std::lock_guard<std::mutex> hold(l->mutex);
        for (const auto& [fd, deadline] : l->active) nearest = std::min(nearest, deadline);
    }
    if (nearest == steady::time_point::max()) return -1;
    long ms = std::chrono::duration_cast<std::chrono::milliseconds>(nearest - steady::now()).count() + 1;
    return static_cast<int>(std::clamp(ms, 0L, static_cast<long>(POLL_MAX_MS)));
}

int bind_address(const char* addr, int port, sockaddr_storage& sa, socklen_t& len)
{
    sa = {};
    if (!addr || !*addr) addr = "0.0.0.0";
    auto* v4 = reinterpret_cast<sockaddr_in*>(&sa);
    auto* v6 = reinterpret_cast<sockaddr_in6*>(&sa);
    if (inet_pton(AF_INET, addr, &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(static_cast<uint16_t>(port));
        len = sizeof *v4;
    } else if (inet_pton(AF_INET6, addr, &v6->sin6_addr) == 1) {
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(static_cast<uint16_t>(port));
        len = sizeof *v6;
    } else {
        return -EINVAL;
    }
    return 0;
}

int open_socket(const char* addr, int port)
{
    sockaddr_storage sa;
    socklen_t len = 0;
    if (port <= 0 || port > 65535 || bind_address(addr, port, sa, len) != 0) return -EINVAL;
    int fd = socket(sa.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return -errno;
    int on = 1, off = 0;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    // "::" takes IPv4 clients too.
    if (sa.ss_family == AF_INET6) setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
    if (bind(fd, reinterpret_cast<sockaddr*>(&sa), len) != 0 || listen(fd, CTL_LISTEN_BACKLOG) != 0) {
        int err = errno;
        close(fd);
        return -err;
    }
    return fd;
}

void shutdown_active(ctl_listener* l, int how)
{
    std::lock_guard<std::mutex> hold(l->mutex);
    for (const auto& [fd, deadline] : l->active) shutdown(fd, how);
}

// The library bounds each read, not the whole request: a body trickled a byte
// at a time would hold its thread for good.
void cut_overdue(ctl_listener* l)
{
    auto now = steady::now();
    std::lock_guard<std::mutex> hold(l->mutex);
    for (auto& [fd, deadline] : l->active) {
        if (deadline > now) continue;
        shutdown(fd, SHUT_RDWR);
        deadline = steady::time_point::max();
    }
}

}   // namespace

int ctl_listener_open(ctl_listener** out, const char* addr, int port, const std::vector<netmask>& allow,
                      ctl_conn_handler handler, void* arg)
{
    int fd = open_socket(addr, port);
    if (fd < 0) return fd;
    ctl_listener* l = new ctl_listener;
    if (pipe2(l->wake, O_NONBLOCK | O_CLOEXEC) != 0) {
        int err = errno;
        close(fd);
        delete l;
        return -err;
    }
    l->listen_fd = fd;
    l->allow = allow;
    l->handler = handler;
    l->arg = arg;
    *out = l;
    return 0;
}

void ctl_listener_run(ctl_listener* l)
{
    std::vector<waiting_conn> waiting;
    std::vector<pollfd> polled;
    while (!l->stopping.load()) {
        bool room = active_count(l) < CTL_CONN_ACTIVE_MAX;
        polled.assign({{l->wake[0], POLLIN, 0}, {l->listen_fd, POLLIN, 0}});
        // Without a free place, ready connections would only spin the loop.
        if (room)
            for (const waiting_conn& w : waiting) polled.push_back({w.fd, POLLIN, 0});
        if (poll(polled.data(), polled.size(), poll_timeout_ms(l, waiting)) < 0 && errno != EINTR) {
            log_printf(LOG_ERROR, "%s: poll failed (%s)", "ctl_listener", strerror(errno));
            poll(nullptr, 0, 100);
            continue;
        }
        if (polled[0].revents) drain_wake(l);
        if (l->stopping.load()) break;
        if (room) dispatch_ready(l, waiting, polled);
        if (polled[1].revents) accept_new(l, waiting);
        expire_silent(waiting);
        cut_overdue(l);
    }
    // From here on a new client is refused at once, and one that is waiting
    // for its answer gets it, but nobody is kept waiting for more.
    close(l->listen_fd);
    l->listen_fd = -1;
    for (const waiting_conn& w : waiting) close(w.fd);
    shutdown_active(l, SHUT_RD);
}

void ctl_listener_stop(ctl_listener* l)
{
    l->stopping.store(true);
    wake_up(l);
}

void ctl_listener_request_read()
{
    ctl_listener* l = t_serving.listener;
    if (!l) return;
    std::lock_guard<std::mutex> hold(l->mutex);
    l->active[t_serving.fd] = steady::time_point::max();
}

void ctl_listener_close(ctl_listener* l)
{
    if (!l) return;
    if (l->listen_fd >= 0) close(l->listen_fd);
    {
        std::unique_lock<std::mutex> hold(l->mutex);
        if (!l->ended.wait_for(hold, DRAIN_GRACE, [&] { return l->active.empty(); })) {
            for (const auto& [fd, deadline] : l->active) shutdown(fd, SHUT_RDWR);
            l->ended.wait(hold, [&] { return l->active.empty(); });
        }
    }
    close(l->wake[0]);
    close(l->wake[1]);
    delete l;
}
