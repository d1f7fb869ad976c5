#include "child_conf.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "app_types.h"
#include "instance.h"
#include "log/log.h"

namespace {

// The file belongs to a launch, so its messages carry the forker's name.
constexpr const char* PROC = "watchdog_respawner_run_proc";
constexpr mode_t DIR_MODE = 0700;
constexpr mode_t FILE_MODE = 0600;

struct conf_dir_state {
    std::mutex lock;
    std::string dir;
    pid_t owner = 0;   // a forked copy of the supervisor must not share the directory
    unsigned seq = 0;
    bool cleanup_registered = false;
};

conf_dir_state g_conf;

bool starts_with(const std::string& text, const char* prefix)
{
    return text.compare(0, strlen(prefix), prefix) == 0;
}

// Still ours: a real directory of our user that nobody else may enter. A
// cleaner may remove it from /tmp, and someone else may then take its name.
bool dir_still_private(const std::string& dir)
{
    struct stat st {};
    if (lstat(dir.c_str(), &st) != 0) return false;
    return S_ISDIR(st.st_mode) && st.st_uid == geteuid() && (st.st_mode & 07777) == DIR_MODE;
}

void remove_dir_tree(const std::string& dir)
{
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d))
            if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) unlink((dir + "/" + e->d_name).c_str());
        closedir(d);
    }
    rmdir(dir.c_str());
}

void remove_dir_at_exit()
{
    std::lock_guard<std::mutex> hold(g_conf.lock);
    if (!g_conf.dir.empty() && g_conf.owner == getpid()) remove_dir_tree(g_conf.dir);
    g_conf.dir.clear();
}

// With g_conf.lock held. 0, or -errno.
int dir_ensure()
{
    if (!g_conf.dir.empty() && g_conf.owner == getpid() && dir_still_private(g_conf.dir)) return 0;
    char tmpl[64];
    snprintf(tmpl, sizeof tmpl, "/tmp/watchdog-%d-XXXXXX", static_cast<int>(getpid()));
    if (!mkdtemp(tmpl)) {
        g_conf.dir.clear();
        return -errno;
    }
    chmod(tmpl, DIR_MODE);   // mkdtemp's mode already, whatever the umask; made sure
    g_conf.dir = tmpl;
    g_conf.owner = getpid();
    if (!g_conf.cleanup_registered) g_conf.cleanup_registered = atexit(remove_dir_at_exit) == 0;
    return 0;
}

int write_all(int fd, const std::string& text)
{
    const char* p = text.data();
    std::size_t left = text.size();
    while (left > 0) {
        ssize_t n = write(fd, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return n < 0 ? -errno : -EIO;
        p += n;
        left -= static_cast<std::size_t>(n);
    }
    return 0;
}

// With g_conf.lock held: creates and fills `path`. 0, or -errno.
int file_write(const std::string& path, const std::string& text)
{
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, FILE_MODE);
    if (fd < 0) return -errno;
    int rc = write_all(fd, text);
    if (close(fd) != 0 && rc == 0) rc = -errno;
    if (rc != 0) unlink(path.c_str());
    return rc;
}

}  // namespace

std::string child_conf_text(const app& record)
{
    std::string text;
    bool given[APP_DEFAULT_OPTS_CNT] = {};
    for (const bounded_str& raw : record.raws) {
        text += raw.str();
        text += '\n';
        for (int bit = 0; bit < APP_DEFAULT_OPTS_CNT; bit++)
            if (starts_with(raw.str(), app_default_opts[bit])) given[bit] = true;
    }
    if (record.alias.empty() || record.type <= APP_TYPE_NONE || record.type >= APP_TYPES_CNT) return text;
    uint64_t flags = app_types[record.type].flags;
    for (int bit = 0; bit < APP_DEFAULT_OPTS_CNT; bit++) {
        if (!(flags & (uint64_t{1} << bit)) || given[bit]) continue;
        text += app_default_opts[bit];
        text += app_default_opt_value(bit, record.alias.str());
        text += '\n';
    }
    return text;
}

int child_conf_create(app& record)
{
    record.child_conf_file.clear();
    std::string text = child_conf_text(record);
    std::lock_guard<std::mutex> hold(g_conf.lock);
    unsigned seq = g_conf.seq++;
    int rc = dir_ensure();
    std::string path;
    if (rc == 0) {
        char name[64];
        snprintf(name, sizeof name, "/watchdog-%d-%03u.conf", static_cast<int>(getpid()), seq);
        path = g_conf.dir + name;
        rc = file_write(path, text);
    }
    if (rc != 0) {
        log_printf(LOG_ERROR, "%s: failed to open [%s], r=%d (%s)", PROC, path.empty() ? "/tmp" : path.c_str(), -rc,
                   strerror(-rc));
        return rc;
    }
    str_copy(record.child_conf_file, path);
    return 0;
}

void child_conf_remove(app& record)
{
    if (record.child_conf_file.empty()) return;
    unlink(record.child_conf_file.c_str());
    record.child_conf_file.clear();
}

unsigned child_conf_seq()
{
    std::lock_guard<std::mutex> hold(g_conf.lock);
    return g_conf.seq;
}

std::string child_conf_dir()
{
    std::lock_guard<std::mutex> hold(g_conf.lock);
    return g_conf.dir;
}
