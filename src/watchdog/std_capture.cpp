// Collecting a child's standard output and error into session files and rings.
//
// The session files are written under the instance lock: the forker's final
// collection runs under it too, and both must append each chunk to the file and
// the ring in stream order. The writes go to the page cache and are bounded per
// call by the caller's budget.
//
// While a session file is open the pipe is spliced into it, so the kernel copies
// each byte once, as into any reader; the ring, which keeps only the newest
// STD_BUF_SIZE bytes, reads them back from the page cache. Without a file (or
// on a file system that cannot splice) the bytes are read and written.
#include "std_capture.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include "instance.h"
#include "os_ops.h"

namespace {

// Session file paths join two text fields, so they may exceed one field.
constexpr std::size_t SESSION_PATH_SIZE = 2 * TEXT_FIELD_SIZE + 40;
// After a failed open (no directory, no permission) the next try waits this long.
constexpr int64_t SESSION_RETRY_MS = 100;
constexpr mode_t SESSION_FILE_MODE = 0640;
const char* const ROTATED_SUFFIX = ".1";

void session_path(const instance* inst, const std::string& name, int fd_no, char* out)
{
    snprintf(out, SESSION_PATH_SIZE, "%s.sessions/%s-%d", inst->log_file_name.c_str(), name.c_str(), fd_no);
}

void session_files_remove(const instance* inst, const std::string& name)
{
    char path[SESSION_PATH_SIZE];
    for (int fd_no = 1; fd_no <= 2; fd_no++) {
        session_path(inst, name, fd_no, path);
        unlink(path);
        std::string rotated = std::string(path) + ROTATED_SUFFIX;
        unlink(rotated.c_str());
    }
}

// The newest sessions_keep children of an application keep their files.
// Unlinking happens once per launch; it touches metadata only.
void session_register(const instance* inst, app* record)
{
    record->sessions.push_back(record->session_name.str());
    std::size_t keep = inst->sessions_keep > 0 ? static_cast<std::size_t>(inst->sessions_keep) : 1;
    while (record->sessions.size() > keep) {
        session_files_remove(inst, record->sessions.front());
        record->sessions.pop_front();
    }
}

void session_name_form(const instance* inst, app* record)
{
    char name[TEXT_FIELD_SIZE];
    time_t started = static_cast<time_t>(record->started);
    struct tm local {};
    localtime_r(&started, &local);
    size_t len = strftime(name, sizeof(name), "%Y%m%d_%H%M%S", &local);
    snprintf(name + len, sizeof(name) - len, "-%d", record->pid);
    str_copy(record->session_name, name);
    session_register(inst, record);
}

void session_open(const instance* inst, app* record, int fd_no)
{
    char path[SESSION_PATH_SIZE];
    session_path(inst, record->session_name.str(), fd_no, path);
    // The mode is given in full: the umask may be 0 under --demonize. Not
    // O_APPEND, which splice refuses; every collection seeks to the end instead.
    // Readable, so the ring can take its bytes back from the page cache.
    int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, SESSION_FILE_MODE);
    record->session_fds[fd_no] = fd;
    record->session_bytes[fd_no] = 0;
    if (fd < 0) {
        record->session_retry_ms = watchdog_os.monotonic_ms() + SESSION_RETRY_MS;
        return;
    }
    struct stat st {};
    if (fstat(fd, &st) == 0) record->session_bytes[fd_no] = st.st_size;
}

void session_reopen(const instance* inst, app* record, int fd_no)
{
    close(record->session_fds[fd_no]);
    record->session_fds[fd_no] = -1;
    session_open(inst, record, fd_no);
}

// A full file becomes name.1 (replacing an older one) and a new file starts:
// at least the newest session_max_bytes stay on disk, at most twice that.
void session_rotate(const instance* inst, app* record, int fd_no)
{
    char path[SESSION_PATH_SIZE];
    session_path(inst, record->session_name.str(), fd_no, path);
    std::string rotated = std::string(path) + ROTATED_SUFFIX;
    rename(path, rotated.c_str());
    session_reopen(inst, record, fd_no);
}

// The open session file with room for more bytes, rotating a full one first,
// and how many it still takes; -1 without a file.
int session_with_room(const instance* inst, app* record, int fd_no, std::size_t* room)
{
    if (record->session_fds[fd_no] < 0) return -1;
    if (record->session_bytes[fd_no] >= inst->session_max_bytes) session_rotate(inst, record, fd_no);
    int fd = record->session_fds[fd_no];
    if (fd < 0) return -1;
    // Append at the end as it is now: someone may have truncated the file.
    off_t end = lseek(fd, 0, SEEK_END);
    if (end >= 0) record->session_bytes[fd_no] = end;
    int64_t left = inst->session_max_bytes - record->session_bytes[fd_no];
    // A file that could not rotate grows on rather than take a byte at a time.
    *room = left > 0 ? static_cast<std::size_t>(left) : SIZE_MAX;
    return fd;
}

void session_write(const instance* inst, app* record, int fd_no, const char* data, std::size_t n)
{
    while (n > 0) {
        std::size_t room = 0;
        int fd = session_with_room(inst, record, fd_no, &room);
        if (fd < 0) return;
        // A failed write to the session file is not retried.
        ssize_t written = write(fd, data, std::min(n, room));
        if (written <= 0) return;
        record->session_bytes[fd_no] += written;
        data += written;
        n -= static_cast<std::size_t>(written);
    }
}

// Moves up to `wanted` bytes from the pipe into the session file and their
// newest part into the ring. 0 when the pipe is empty or at its end, -1 when
// there is no file or it cannot take a splice (the caller reads instead).
ssize_t collect_by_splice(const instance* inst, app* record, int fd_no, char* scratch, std::size_t scratch_size,
                          std::size_t wanted)
{
    std::size_t room = 0;
    int fd = session_with_room(inst, record, fd_no, &room);
    if (fd < 0) return -1;
    off_t at = record->session_bytes[fd_no];
    ssize_t n = splice(record->std_pipes[fd_no].rd, nullptr, fd, nullptr, std::min(wanted, room), SPLICE_F_NONBLOCK);
    if (n < 0) return errno == EAGAIN ? 0 : -1;
    if (n == 0) {
        record->std_eof[fd_no] = true;
        return 0;
    }
    record->session_bytes[fd_no] += n;
    std::size_t tail = std::min({static_cast<std::size_t>(n), STD_BUF_SIZE, scratch_size});
    ssize_t got = pread(fd, scratch, tail, at + n - static_cast<off_t>(tail));
    std_ring_append_tail(record->std_bufs[fd_no], static_cast<std::size_t>(n), scratch,
                         got > 0 ? static_cast<std::size_t>(got) : 0);
    return n;
}

}  // namespace

void std_ring_append(std_ring& ring, const char* data, std::size_t n)
{
    std_ring_append_tail(ring, n, n > STD_BUF_SIZE ? data + n - STD_BUF_SIZE : data, std::min(n, STD_BUF_SIZE));
}

void std_ring_append_tail(std_ring& ring, std::size_t total, const char* data, std::size_t n)
{
    if (total == 0) return;
    if (n < total) {
        // Bytes not at hand count as written and dropped, ahead of the tail.
        ring.head = ring.tail + (total - n);
        ring.tail = ring.head;
    }
    if (!ring.buf) ring.buf.reset(new char[STD_BUF_SIZE]);
    std::size_t used = static_cast<std::size_t>(ring.tail - ring.head);
    if (used + n > STD_BUF_SIZE) {
        std::size_t drop = used + n - STD_BUF_SIZE;
        memmove(ring.buf.get(), ring.buf.get() + drop, STD_BUF_SIZE - drop);
        ring.head += drop;
        used -= drop;
    }
    memcpy(ring.buf.get() + used, data, n);
    ring.tail += n;
}

void watchdog_std_session_dir(const instance* inst, char* out, std::size_t size)
{
    snprintf(out, size, "%s.sessions", inst->log_file_name.c_str());
}

std::size_t watchdog_std_collect(instance* inst, app* record, char* scratch, std::size_t scratch_size, int fd_no,
                                 std::size_t budget)
{
    // Record 0 (standard input) is never written.
    if (fd_no != 1 && fd_no != 2) return 0;
    if (record->session_name.empty()) session_name_form(inst, record);
    if (record->session_fds[fd_no] < 0 && watchdog_os.monotonic_ms() >= record->session_retry_ms)
        session_open(inst, record, fd_no);

    int rd = record->std_pipes[fd_no].rd;
    std_ring& ring = record->std_bufs[fd_no];
    std::size_t moved = 0;
    bool spliceable = true;
    while (rd >= 0 && moved < budget) {
        if (spliceable) {
            ssize_t n = collect_by_splice(inst, record, fd_no, scratch, scratch_size, budget - moved);
            if (n == 0) break;
            if (n > 0) {
                moved += static_cast<size_t>(n);
                continue;
            }
            spliceable = false;
        }
        ssize_t n = read(rd, scratch, scratch_size);
        if (n == 0) record->std_eof[fd_no] = true;
        if (n <= 0) break;
        session_write(inst, record, fd_no, scratch, static_cast<size_t>(n));
        std_ring_append(ring, scratch, static_cast<size_t>(n));
        moved += static_cast<size_t>(n);
    }
    return moved;
}

int watchdog_std_drain(instance* inst, app* record, char* scratch, int fd_no)
{
    // The pipe is non-blocking, but the child may refill it as fast as we read:
    // stop after the largest pipe's worth.
    watchdog_std_collect(inst, record, scratch, STD_BUF_SIZE, fd_no, STD_PIPE_DEBUG_SIZE + 2 * STD_BUF_SIZE);
    return 0;
}

void watchdog_std_check_sessions(instance* inst, app* record)
{
    if (record->session_name.empty()) return;
    char path[SESSION_PATH_SIZE];
    for (int fd_no = 1; fd_no <= 2; fd_no++) {
        int fd = record->session_fds[fd_no];
        if (fd < 0) continue;
        struct stat open_st {}, path_st {};
        session_path(inst, record->session_name.str(), fd_no, path);
        bool gone = fstat(fd, &open_st) != 0 || open_st.st_nlink == 0 || stat(path, &path_st) != 0 ||
                    path_st.st_ino != open_st.st_ino || path_st.st_dev != open_st.st_dev;
        if (gone) session_reopen(inst, record, fd_no);
    }
}

void watchdog_std_close(app* record)
{
    for (int fd_no = 0; fd_no < STD_STREAMS; fd_no++) {
        if (record->session_fds[fd_no] >= 0) close(record->session_fds[fd_no]);
        record->session_fds[fd_no] = -1;
        record->session_bytes[fd_no] = 0;
    }
    record->session_retry_ms = 0;
}
