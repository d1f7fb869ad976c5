// Process-wide log. Callers format into a buffer of their own and only queue
// under the log lock; the writer thread does every piece of file and terminal
// output, so a caller holding the instance lock never waits for the disk.
#include "log.h"

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <algorithm>
#include <deque>
#include <string>
#include <vector>

#include "log_hooks.h"

namespace {

constexpr std::size_t LOG_PATH_MAX = 4095;
constexpr char OVERFLOW_MESSAGE[] = "ERROR! message queue OVERFLOW!!!\n";
// Whatever the process umask (a daemon's is 0): nobody else writes the log.
constexpr mode_t LOG_FILE_MODE = 0640;
constexpr mode_t LOG_DIR_MODE = 0755;
constexpr int LOG_KEEP_DEFAULT = 30;
constexpr std::size_t ROTATED_STAMP_LEN = 16;   // "-%Y%m%d_%H%M%S"

enum class log_state { idle, running, stopped };

// Everything below `lock` is guarded by it; the file settings are written by
// log_start before the writer exists and read only by the writer afterwards.
struct log_shared {
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t wake = PTHREAD_COND_INITIALIZER;
    std::deque<std::string> queue;
    int count = 0;
    log_state state = log_state::idle;
    int stop = 0;
    int hold = 0;
    pthread_t writer{};

    std::string path;
    int64_t rotate_interval = 0;
    int64_t last_rotation = 0;
    std::atomic<int> keep{LOG_KEEP_DEFAULT};
};

log_shared g_log;
std::atomic<int> g_echo{1};

void write_all(int fd, const char* data, std::size_t len)
{
    // Bounded: every round either writes something or gives up.
    for (int round = 0; len > 0 && round < 1000; round++) {
        ssize_t n = write(fd, data, len);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        data += n;
        len -= static_cast<std::size_t>(n);
    }
}

// Creates every directory named by the path up to each '/', failures ignored.
void make_parent_dirs(const std::string& path)
{
    for (std::size_t pos = path.find('/'); pos != std::string::npos; pos = path.find('/', pos + 1)) {
        if (pos == 0) continue;
        mkdir(path.substr(0, pos).c_str(), LOG_DIR_MODE);
    }
}

bool is_rotated_stamp(const std::string& text)
{
    if (text.size() != ROTATED_STAMP_LEN || text[0] != '-' || text[9] != '_') return false;
    for (std::size_t i = 1; i < text.size(); i++)
        if (i != 9 && (text[i] < '0' || text[i] > '9')) return false;
    return true;
}

void prune_rotated(const std::string& path)
{
    std::size_t slash = path.rfind('/');
    std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d)) names.emplace_back(e->d_name);
        closedir(d);
    }
    for (const std::string& name : log_rotated_beyond(names, base, g_log.keep.load()))
        unlink((dir + "/" + name).c_str());
}

void append_to_file(const std::string& line)
{
    const std::string& path = g_log.path;
    time_t now = time(nullptr);
    if (log_rotation_due(g_log.last_rotation, g_log.rotate_interval, now)) {
        if (rename(path.c_str(), log_rotated_name(path, now).c_str()) == 0) prune_rotated(path);
        g_log.last_rotation = now;
    }
    struct stat st;
    if (stat(path.c_str(), &st) != 0) make_parent_dirs(path);
    // Opened per line so that others may move or delete the file at any time.
    int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, LOG_FILE_MODE);
    if (fd < 0) return;
    write_all(fd, line.data(), line.size());
    close(fd);
}

void write_line(const std::string& line)
{
    if (g_echo.load()) write_all(STDERR_FILENO, line.data(), line.size());
    if (!g_log.path.empty()) append_to_file(line);
}

// One drain: lines leave the queue one by one, the lock is never held while writing.
void log_flush()
{
    for (;;) {
        if (pthread_mutex_lock(&g_log.lock) != 0) return;
        if (g_log.queue.empty() || (g_log.hold && !g_log.stop)) {
            pthread_mutex_unlock(&g_log.lock);
            return;
        }
        std::string line = std::move(g_log.queue.front());
        g_log.queue.pop_front();
        g_log.count--;
        pthread_mutex_unlock(&g_log.lock);
        write_line(line);
    }
}

// Sleeps on the condition variable rather than polling, so an idle
// supervisor costs no CPU here; a queued line wakes it at once.
void* log_proc(void*)
{
    for (;;) {
        pthread_mutex_lock(&g_log.lock);
        while (!g_log.stop && (g_log.queue.empty() || g_log.hold))
            pthread_cond_wait(&g_log.wake, &g_log.lock);
        bool last = g_log.stop != 0;
        pthread_mutex_unlock(&g_log.lock);
        log_flush();
        if (last) return nullptr;
    }
}

std::string format_line(int level, const char* fmt, va_list ap)
{
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    std::string line = log_line_prefix(level, tv.tv_sec, tv.tv_usec);
    std::size_t room = LOG_LINE_MAX > line.size() ? LOG_LINE_MAX - line.size() : 0;

    // Most messages fit the small buffer; only long ones cost a second pass.
    char small[1024];
    va_list again;
    va_copy(again, ap);
    int need = vsnprintf(small, sizeof small, fmt, ap);
    if (need > 0) {
        std::size_t len = static_cast<std::size_t>(need);
        if (len < sizeof small) {
            line.append(small, len < room ? len : room);
        } else {
            std::string big(len + 1, '\0');
            vsnprintf(big.data(), big.size(), fmt, again);
            line.append(big.data(), len < room ? len : room);
        }
    }
    va_end(again);
    line.push_back('\n');
    return line;
}

}  // namespace

char log_mark(int level)
{
    switch (level) {
    case LOG_ERROR: return '!';
    case LOG_TRACE: return '?';
    default: return ' ';
    }
}

std::string log_line_prefix(int level, time_t sec, long usec)
{
    struct tm tm_local;
    localtime_r(&sec, &tm_local);
    char date[64];
    std::size_t n = strftime(date, sizeof date, "[%Y-%m-%d %H:%M:%S", &tm_local);
    date[n] = '\0';
    long long ms = (static_cast<long long>(sec) * 1000 + usec / 1000) % 1000;
    char out[96];
    snprintf(out, sizeof out, "%c %s.%.03d] ", log_mark(level), date, static_cast<int>(ms));
    return out;
}

bool log_rotation_due(int64_t last, int64_t interval, int64_t now) { return last + interval < now; }

std::string log_rotated_name(const std::string& path, time_t when)
{
    struct tm tm_local;
    localtime_r(&when, &tm_local);
    char suffix[64];
    std::size_t n = strftime(suffix, sizeof suffix, "-%Y%m%d_%H%M%S", &tm_local);
    std::string name = path + std::string(suffix, n);
    if (name.size() > LOG_PATH_MAX) name.resize(LOG_PATH_MAX);
    return name;
}

std::vector<std::string> log_rotated_beyond(const std::vector<std::string>& names, const std::string& base, int keep)
{
    std::vector<std::string> rotated;
    for (const std::string& name : names)
        if (name.size() > base.size() && name.compare(0, base.size(), base) == 0 &&
            is_rotated_stamp(name.substr(base.size())))
            rotated.push_back(name);
    std::sort(rotated.begin(), rotated.end());   // the stamp sorts by time
    std::size_t kept = static_cast<std::size_t>(std::max(keep, 0));
    if (rotated.size() <= kept) return {};
    rotated.resize(rotated.size() - kept);
    return rotated;
}

void log_set_keep(int keep) { g_log.keep.store(keep); }

int log_start(const char* path, int rotate_interval)
{
    pthread_mutex_lock(&g_log.lock);
    if (g_log.state == log_state::running) {
        pthread_mutex_unlock(&g_log.lock);
        return -1;
    }
    g_log.path.assign(path ? path : "");
    if (g_log.path.size() > LOG_PATH_MAX) g_log.path.resize(LOG_PATH_MAX);
    g_log.rotate_interval = rotate_interval;
    g_log.last_rotation = 0;
    g_log.queue.clear();
    g_log.count = 0;
    g_log.stop = 0;
    g_log.hold = 0;
    int rc = pthread_create(&g_log.writer, nullptr, log_proc, nullptr);
    if (rc == 0) g_log.state = log_state::running;
    pthread_mutex_unlock(&g_log.lock);
    return rc == 0 ? 0 : -rc;
}

int log_printf(int level, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    std::string line = format_line(level, fmt, ap);
    va_end(ap);

    enum { queued, to_stderr, overflow, dropped } outcome = queued;
    bool wake = false;
    if (pthread_mutex_lock(&g_log.lock) != 0) {
        outcome = to_stderr;
    } else {
        if (g_log.state == log_state::idle) {
            // Before the log runs only the terminal can show a line.
            outcome = g_echo.load() ? to_stderr : dropped;
        } else if (g_log.state == log_state::stopped) {
            outcome = dropped;
        } else if (g_log.count >= LOG_QUEUE_MAX) {
            outcome = overflow;
        } else {
            wake = g_log.queue.empty();
            g_log.queue.push_back(std::move(line));
            g_log.count++;
        }
        pthread_mutex_unlock(&g_log.lock);
    }
    if (wake) pthread_cond_signal(&g_log.wake);
    if (outcome == to_stderr) write_all(STDERR_FILENO, line.data(), line.size());
    if (outcome == overflow) write_all(STDERR_FILENO, OVERFLOW_MESSAGE, sizeof OVERFLOW_MESSAGE - 1);
    return 0;
}

int log_set_stderr(int flag)
{
    g_echo.store(flag);
    return flag;
}

int log_stop()
{
    pthread_mutex_lock(&g_log.lock);
    if (g_log.state != log_state::running) {
        pthread_mutex_unlock(&g_log.lock);
        return -1;
    }
    // Lines from here on are refused; those already queued are still written.
    g_log.state = log_state::stopped;
    g_log.stop = 1;
    g_log.hold = 0;
    pthread_cond_signal(&g_log.wake);
    pthread_mutex_unlock(&g_log.lock);
    pthread_join(g_log.writer, nullptr);

    if (pthread_mutex_lock(&g_log.lock) != 0) return -2;
    g_log.queue.clear();
    g_log.queue.shrink_to_fit();
    g_log.count = 0;
    pthread_mutex_unlock(&g_log.lock);
    return 0;
}

void log_test_hold_writer(int hold)
{
    pthread_mutex_lock(&g_log.lock);
    g_log.hold = hold;
    pthread_mutex_unlock(&g_log.lock);
    pthread_cond_signal(&g_log.wake);
}

int log_test_queued()
{
    pthread_mutex_lock(&g_log.lock);
    int n = g_log.count;
    pthread_mutex_unlock(&g_log.lock);
    return n;
}
