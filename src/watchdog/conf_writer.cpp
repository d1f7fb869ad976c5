#include "conf_writer.h"

#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "app_types.h"
#include "bounded.h"
#include "instance.h"
#include "log/log.h"

namespace {

// The reader takes a line in pieces of at most this many bytes, newline included.
constexpr std::size_t LINE_MAX_BYTES = TEXT_FIELD_MAX;

// One option line "<prefix><value>\n" that reads back as exactly one argument.
// The format has no escape, so a newline inside a value (possible through the
// control interface) becomes a blank: the file can never gain an option line the
// operator did not configure. A value too long for one line is cut for the same
// reason: its remainder would otherwise come back as an argument of its own.
void put_line(FILE* f, const char* prefix, const std::string& value)
{
    std::string line(prefix);
    line += value;
    for (char& c : line)
        if (c == '\n') c = ' ';
    if (line.size() > LINE_MAX_BYTES - 1) line.resize(LINE_MAX_BYTES - 1);
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

int save_failed(const char* path, int err)
{
    log_printf(LOG_ERROR, "%s: failed to open [%s], r=%d (%s)", "watchdog_save_conf", path, err, strerror(err));
    return -err;
}

void write_conf(FILE* f, const instance* inst)
{
    if (inst->demonize) fputs("--demonize\n", f);
    if (inst->debug) fputs("--debug\n", f);
    put_line(f, "--instance-name=", inst->instance_name.str());
    fprintf(f, "--port=%d\n", inst->port);
    put_line(f, "--log-file-name=", inst->log_file_name.str());
    fprintf(f, "--log-rotate-interval=%d\n", inst->log_rotate_interval);
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

}   // namespace

int watchdog_save_conf(instance* inst)
{
    const char* path = inst->conf_file.c_str();
    // No option file was read: nothing to rewrite (and no directory to put a
    // temporary file in).
    if (!*path) return save_failed(path, ENOENT);

    struct timeval now {};
    gettimeofday(&now, nullptr);
    char backup[TEXT_FIELD_SIZE];
    snprintf(backup, sizeof backup, "%s-%ld.%ld", path, static_cast<long>(now.tv_sec),
             static_cast<long>(now.tv_usec));

    // The new file is written aside and renamed over the old one, so anyone
    // reading the option file (an operator, a tool, the next start after a
    // crash) sees either the old or the new file whole, never a part of one.
    std::string temp = std::string(path) + ".writing";
    FILE* f = fopen(temp.c_str(), "w");
    bool in_place = false;
    if (!f) {
        // Nothing can be created beside it (a read-only directory): the old
        // way, move it aside if possible and write the file itself.
        rename(path, backup);
        f = fopen(path, "w");
        if (!f) return save_failed(path, errno);
        in_place = true;
    }
    log_printf(LOG_INFO, "%s: updating config file [%s]", "watchdog_save_conf", path);

    write_conf(f, inst);
    bool written = !ferror(f);
    int err = errno;
    if (fclose(f) != 0 && written) {
        written = false;
        err = errno;
    }
    if (!written) {
        // A full disk must not cost the configuration that still stands.
        if (!in_place) unlink(temp.c_str());
        log_printf(LOG_ERROR, "%s: failed to write [%s], r=%d (%s)", "watchdog_save_conf", path, err,
                   strerror(err));
        return -err;
    }
    if (in_place) return 0;

    // The backup is a second name of the old file, so the option file never
    // goes missing in between; where no link can be made, a move does it.
    if (link(path, backup) != 0 && errno != ENOENT) rename(path, backup);
    if (rename(temp.c_str(), path) != 0) {
        err = errno;
        unlink(temp.c_str());
        return save_failed(path, err);
    }
    return 0;
}
