// Placeholder until the queued writer lands: lines go straight to standard error.
#include "log.h"

#include <cstdarg>
#include <cstdio>

int log_start(const char*, int) { return 0; }
int log_printf(int, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vfprintf(stderr, fmt, ap);
    va_end(ap);
    fputc('\n', stderr);
    return 0;
}
int log_set_stderr(int flag) { return flag; }
int log_stop() { return 0; }
