#include "conf_backup.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <tuple>

#include "bounded.h"

namespace {

constexpr std::size_t COPY_CHUNK = 65536;

// "<digits>.<digits>" as the two numbers; false for anything else.
bool parse_stamp(const std::string& text, long long& sec, long long& usec)
{
    std::size_t dot = text.find('.');
    if (dot == 0 || dot == std::string::npos || dot + 1 == text.size() || dot > 18 || text.size() - dot > 19)
        return false;
    for (std::size_t i = 0; i < text.size(); i++)
        if (i != dot && (text[i] < '0' || text[i] > '9')) return false;
    sec = std::stoll(text.substr(0, dot));
    usec = std::stoll(text.substr(dot + 1));
    return true;
}

std::pair<std::string, std::string> split_path(const std::string& path)
{
    std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) return {".", path};
    return {slash == 0 ? "/" : path.substr(0, slash), path.substr(slash + 1)};
}

int copy_fd(int from, int to)
{
    std::string buf(COPY_CHUNK, '\0');
    for (;;) {
        ssize_t n = read(from, buf.data(), buf.size());
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return -errno;
        if (n == 0) return 0;
        for (ssize_t done = 0; done < n;) {
            ssize_t w = write(to, buf.data() + done, static_cast<std::size_t>(n - done));
            if (w < 0 && errno == EINTR) continue;
            if (w <= 0) return w < 0 ? -errno : -EIO;
            done += w;
        }
    }
}

int backup_copy(const std::string& path, const std::string& backup, const struct stat& standing)
{
    int from = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (from < 0) return -errno;
    int to = open(backup.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (to < 0) {
        int err = -errno;
        close(from);
        return err;
    }
    int rc = copy_fd(from, to);
    if (rc == 0 && fchmod(to, standing.st_mode & 0777) != 0) rc = -errno;
    if (rc == 0 && fsync(to) != 0) rc = -errno;
    if (close(to) != 0 && rc == 0) rc = -errno;
    close(from);
    if (rc != 0) unlink(backup.c_str());
    return rc;
}

}  // namespace

std::string conf_backup_name(const std::string& path, long sec, long usec)
{
    std::string name = path + "-" + std::to_string(sec) + "." + std::to_string(usec);
    if (name.size() > TEXT_FIELD_MAX) name.resize(TEXT_FIELD_MAX);
    return name;
}

int conf_backup_keep(const std::string& path, const std::string& backup, const struct stat& standing)
{
    if (link(path.c_str(), backup.c_str()) == 0) return 0;
    if (errno == ENOENT || errno == EEXIST || errno == ENOSPC) return -errno;
    return backup_copy(path, backup, standing);
}

std::vector<std::string> conf_backups_beyond(const std::vector<std::string>& names, const std::string& base, int keep)
{
    std::vector<std::tuple<long long, long long, std::string>> found;
    std::string prefix = base + "-";
    for (const std::string& name : names) {
        long long sec = 0, usec = 0;
        if (name.compare(0, prefix.size(), prefix) != 0 || !parse_stamp(name.substr(prefix.size()), sec, usec)) continue;
        found.emplace_back(sec, usec, name);
    }
    std::sort(found.begin(), found.end());
    std::vector<std::string> out;
    std::size_t kept = static_cast<std::size_t>(std::max(keep, 0));
    for (std::size_t i = 0; i + kept < found.size(); i++) out.push_back(std::get<2>(found[i]));
    return out;
}

int conf_backups_prune(const std::string& path, int keep)
{
    auto [dir, base] = split_path(path);
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d)) names.emplace_back(e->d_name);
        closedir(d);
    }
    int removed = 0;
    for (const std::string& name : conf_backups_beyond(names, base, keep))
        if (unlink((dir + "/" + name).c_str()) == 0) removed++;
    return removed;
}
