#include "conf_writer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "app_types.h"
#include "bounded.h"
#include "conf_backup.h"
#include "instance.h"
#include "log/log.h"
#include "options.h"

namespace {

// The reader takes a line in pieces of at most this many bytes, newline included.
constexpr std::size_t LINE_MAX_BYTES = OPTION_LINE_SIZE - 1;

// One option line "<prefix><value>\n" that reads back as exactly one argument.
// The format has no escape, so a newline inside a value (possible through the
// control interface) becomes a blank: the file can never gain an option line the
// operator did not configure. No value reaches the length of a read piece; a
// line is cut there all the same, as a remainder would come back as an argument.
void put_line(FILE* f, const char* prefix, const std::string& value)
{
    std::string line(prefix);
    line += value;
    for (char& c : line)
        if (c == '\n') c = ' ';
    line.resize(utf8_cut(line, LINE_MAX_BYTES - 1));
    line += '\n';
    fputs(line.c_str(), f);
}

void put_app(FILE* f, const app& a)
{
    // A blank line before every block, for the reader's eye only.
    std::string type_opt = std::string("--") + app_types[a.type].name + "=";
    fputc('\n', f);
    put_line(f, type_opt.c_str(), a.config.str());
    if (!a.alias.empty()) put_line(f, "--alias=", a.alias.str());
    if (!a.thumb.empty()) put_line(f, "--thumb=", a.thumb.str());
    if (!a.bin_path.empty()) put_line(f, "--bin-path=", a.bin_path.str());
    if (!a.numa_bind.empty()) put_line(f, "--numa-bind=", a.numa_bind.str());
    if (a.f_respawn) fputs("--respawn=1\n", f);
    if (a.f_autorun) fputs("--autorun=1\n", f);
    for (const auto& env : a.envs) put_line(f, "--env=", env.str());
    for (const auto& raw : a.raws) put_line(f, "--raw=", raw.str());
}

}   // namespace

namespace {


void write_conf(FILE* f, const instance* inst)
{
    if (inst->demonize) fputs("--demonize\n", f);
    if (inst->debug) fputs("--debug\n", f);
    put_line(f, "--instance-name=", inst->instance_name.str());
    fprintf(f, "--port=%d\n", inst->port);
    if (!inst->ctl_listen.empty()) put_line(f, "--listen=", inst->ctl_listen.str());
    if (!inst->ctl_allow.empty()) put_line(f, "--allow=", inst->ctl_allow.str());
    put_line(f, "--log-file-name=", inst->log_file_name.str());
    fprintf(f, "--log-rotate-interval=%d\n", inst->log_rotate_interval);
    host_options_write(f, inst);
    // Session bounds only when they differ from the defaults.
    if (inst->sessions_keep != SESSIONS_KEEP_DEFAULT) fprintf(f, "--sessions-keep=%d\n", inst->sessions_keep);
    if (inst->session_max_bytes != SESSION_MAX_BYTES_DEFAULT)
        fprintf(f, "--session-max-bytes=%lld\n", static_cast<long long>(inst->session_max_bytes));

    for (int i = 0; i < inst->cnt; i++) {
        const app* a = inst->apps[i];
        if (!a || a->type <= APP_TYPE_NONE || a->type >= APP_TYPES_CNT) continue;
        put_app(f, *a);
    }
}

constexpr const char* FN = "watchdog_save_conf";
constexpr int64_t SAVE_RETRY_SECONDS = 1;
constexpr mode_t NEW_FILE_MODE = 0600;
constexpr const char* TEMP_SUFFIX = ".writing";

// The file the option file's name leads to: a link is followed, so the new
// file replaces its target rather than the link.
std::string conf_target(const char* path)
{
    char resolved[PATH_MAX];
    return realpath(path, resolved) ? std::string(resolved) : std::string(path);
}

std::string dir_of(const std::string& path)
{
    std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

void fsync_dir(const std::string& path)
{
    int fd = open(dir_of(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    fsync(fd);
    close(fd);
}

// Only the first failure of a streak is logged; a retry follows a second later.
int save_failed(instance* inst, const char* what, const char* path, int err)
{
    host_options& h = inst->host;
    if (h.save_failures++ == 0) log_printf(LOG_ERROR, "%s: failed to %s [%s], r=%d (%s)", FN, what, path, err, strerror(err));
    h.save_retry_at = static_cast<int64_t>(time(nullptr)) + SAVE_RETRY_SECONDS;
    return -err;
}

// The new file's mode and owner: those of the file it replaces, never
// writable by all; a first file is the owner's alone.
void temp_take_identity(int fd, const struct stat* standing)
{
    if (!standing) {
        fchmod(fd, NEW_FILE_MODE);
        return;
    }
    if (fchown(fd, standing->st_uid, standing->st_gid) != 0) {
        // Not ours to give away (an unprivileged supervisor): it stays ours.
    }
    fchmod(fd, standing->st_mode & 0777 & ~S_IWOTH);
}

// A fresh temporary file beside the option file: the descriptor, or -errno.
int temp_open(const std::string& temp, const struct stat* standing)
{
    unlink(temp.c_str());   // a leftover of an interrupted save
    int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, NEW_FILE_MODE);
    if (fd < 0) return -errno;
    temp_take_identity(fd, standing);
    return fd;
}

// Writes the whole configuration to `fd` (closed here) and makes it durable.
// 0, or -errno with the temporary file removed.
int temp_fill(int fd, const std::string& temp, const instance* inst)
{
    FILE* f = fdopen(fd, "w");
    if (!f) {
        int err = errno;
        close(fd);
        unlink(temp.c_str());
        return -err;
    }
    write_conf(f, inst);
    int rc = 0;
    if (fflush(f) != 0 || ferror(f)) rc = -(errno ? errno : EIO);
    if (rc == 0 && fsync(fd) != 0) rc = -errno;
    if (fclose(f) != 0 && rc == 0) rc = -errno;
    if (rc != 0) unlink(temp.c_str());
    return rc;
}

void backup_standing(const instance* inst, const std::string& target, const struct stat& standing)
{
    if (inst->host.conf_backups <= 0) return;
    struct timeval now {};
    gettimeofday(&now, nullptr);
    std::string backup = conf_backup_name(target, static_cast<long>(now.tv_sec), static_cast<long>(now.tv_usec));
    int rc = conf_backup_keep(target, backup, standing);
    if (rc != 0) log_printf(LOG_ERROR, "%s: failed to keep backup [%s], r=%d (%s)", FN, backup.c_str(), -rc, strerror(-rc));
}

}   // namespace

int watchdog_save_conf(instance* inst)
{
    const char* path = inst->conf_file.c_str();
    // No option file was read: nothing to rewrite, and nothing to retry.
    if (!*path) {
        log_printf(LOG_ERROR, "%s: failed to open [%s], r=%d (%s)", FN, path, ENOENT, strerror(ENOENT));
        return -ENOENT;
    }
    host_options& h = inst->host;
    std::string target = conf_target(path);
    std::string temp = target + TEMP_SUFFIX;
    struct stat standing {};
    bool exists = stat(target.c_str(), &standing) == 0 && S_ISREG(standing.st_mode);

    // The standing file is neither moved nor touched until its complete
    // replacement is on disk: a full disk or a crash leaves it as it was.
    int fd = temp_open(temp, exists ? &standing : nullptr);
    if (fd < 0) return save_failed(inst, "open", path, -fd);
    int rc = temp_fill(fd, temp, inst);
    if (rc != 0) return save_failed(inst, "write", path, -rc);
    if (h.save_failures == 0) log_printf(LOG_INFO, "%s: updating config file [%s]", FN, path);

    if (exists) backup_standing(inst, target, standing);
    if (rename(temp.c_str(), target.c_str()) != 0) {
        int err = errno;
        unlink(temp.c_str());
        return save_failed(inst, "replace", path, err);
    }
    fsync_dir(target);
    conf_backups_prune(target, h.conf_backups);
    if (h.save_failures > 0)
        log_printf(LOG_INFO, "%s: updating config file [%s] done after %d failed attempts", FN, path, h.save_failures);
    h.save_failures = 0;
    return 0;
}

bool watchdog_save_pending(const instance* inst)
{
    const host_options& h = inst->host;
    return h.save_failures > 0 && static_cast<int64_t>(time(nullptr)) >= h.save_retry_at;
}

int watchdog_conf_remove_stale(const instance* inst)
{
    if (inst->conf_file.empty()) return 0;
    std::string temp = conf_target(inst->conf_file.c_str()) + TEMP_SUFFIX;
    struct stat st {};
    if (lstat(temp.c_str(), &st) != 0 || S_ISDIR(st.st_mode)) return 0;
    if (unlink(temp.c_str()) != 0) return -errno;
    log_printf(LOG_INFO, "%s: removed [%s] left by an interrupted save", FN, temp.c_str());
    return 1;
}
