#include "daemonize.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

int daemonize()
{
    // Nothing may be left buffered, or parent and child would both print it.
    fflush(nullptr);
    pid_t pid = fork();
    if (pid < 0) {
        fprintf(stderr, "ERROR: 'fork' failed with code %d\n", pid);
        return 1;
    }
    // The parent has no threads and nothing to clean up: leave without
    // running exit handlers that belong to the daemon's state.
    if (pid > 0) _exit(0);

    umask(0);
    pid_t sid = setsid();
    if (sid < 0) {
        fprintf(stderr, "ERROR: 'setid' failed with code %d\n", sid);
        return 1;
    }
    int rc = chdir("/");
    if (rc < 0) {
        fprintf(stderr, "ERROR: Unable to change root directory. 'chdir' failed with code %d\n", rc);
        return 1;
    }
    int fd = open("/dev/null", O_RDWR);
    if (fd >= 0) {
        dup2(fd, STDIN_FILENO);
        dup2(fd, STDOUT_FILENO);
        dup2(fd, STDERR_FILENO);
        if (fd > STDERR_FILENO) close(fd);
    }
    return 0;
}
