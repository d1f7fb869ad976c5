// Collecting a child's standard output and error into session files and rings.
#include "std_capture.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>

#include "instance.h"

namespace {

// Session file paths join two text fields, so they may exceed one field.
constexpr std::size_t SESSION_PATH_SIZE = 2 * TEXT_FIELD_SIZE + 32;

void session_name_form(app* record)
{
    char name[TEXT_FIELD_SIZE];
    time_t started = static_cast<time_t>(record->started);
    struct tm local {};
    localtime_r(&started, &local);
    size_t len = strftime(name, sizeof(name), "%Y%m%d_%H%M%S", &local);
    snprintf(name + len, sizeof(name) - len, "-%d", record->pid);
    str_copy(record->session_name, name);
}

}  // namespace

void std_ring_append(std_ring& ring, const char* data, std::size_t n)
{
    if (n == 0) return;
    if (n > STD_BUF_SIZE) {
        // Only the newest STD_BUF_SIZE bytes can survive; the rest counts as dropped.
        std::size_t skip = n - STD_BUF_SIZE;
        ring.head = ring.tail + skip;
        ring.tail = ring.head;
        data += skip;
        n = STD_BUF_SIZE;
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

int watchdog_std_drain(instance* inst, app* record, char* scratch, int fd_no)
{
    // Record 0 (standard input) is never written.
    if (fd_no != 1 && fd_no != 2) return 0;
    if (record->session_name.empty()) session_name_form(record);

    char path[SESSION_PATH_SIZE];
    snprintf(path, sizeof(path), "%s.sessions/%s-%d", inst->log_file_name.c_str(),
             record->session_name.c_str(), fd_no);
    // A missing directory just means no file copy; the ring is filled regardless.
    int file = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);

    int rd = record->std_pipes[fd_no].rd;
    std_ring& ring = record->std_bufs[fd_no];
    // The pipe is non-blocking, but the child may refill it as fast as we read:
    // stop after the largest pipe's worth so one chatty child cannot stall a pass.
    constexpr int ROUNDS_MAX = static_cast<int>(STD_PIPE_DEBUG_SIZE / STD_BUF_SIZE) + 2;
    for (int round = 0; rd >= 0 && round < ROUNDS_MAX; round++) {
        ssize_t n = read(rd, scratch, STD_BUF_SIZE);
        if (n <= 0) break;
        if (file >= 0) {
            ssize_t written = write(file, scratch, static_cast<size_t>(n));
            (void)written;   // a short or failed write to the session file is not retried
        }
        std_ring_append(ring, scratch, static_cast<size_t>(n));
    }
    if (file >= 0) close(file);
    return 0;
}
