#include "host_options.h"

#include <cstdlib>

#include "instance.h"

namespace {

// Far from the values of the main option table, so both can grow.
enum host_opt_val : int {
    OPT_CONF_BACKUPS = 0x400,
    OPT_LOG_KEEP,
    OPT_UMASK,
};

constexpr int UMASK_BITS = 0777;

int count_of(const char* value)
{
    long n = strtol(value, nullptr, 10);
    return n < 0 ? 0 : n > 1000000 ? 1000000 : static_cast<int>(n);
}

}  // namespace

const struct option host_long_opts[] = {
    {"conf-backups", required_argument, nullptr, OPT_CONF_BACKUPS},
    {"log-keep", required_argument, nullptr, OPT_LOG_KEEP},
    {"umask", required_argument, nullptr, OPT_UMASK},
};
const int host_long_opts_cnt = sizeof host_long_opts / sizeof host_long_opts[0];

bool host_option_apply(instance* inst, int val, const char* value)
{
    switch (val) {
    case OPT_CONF_BACKUPS: inst->host.conf_backups = count_of(value); return true;
    case OPT_LOG_KEEP: inst->host.log_keep = count_of(value); return true;
    case OPT_UMASK: inst->host.child_umask = static_cast<int>(strtol(value, nullptr, 8)) & UMASK_BITS; return true;
    default: return false;
    }
}

void host_options_write(FILE* f, const instance* inst)
{
    const host_options& h = inst->host;
    if (h.conf_backups != CONF_BACKUPS_DEFAULT) fprintf(f, "--conf-backups=%d\n", h.conf_backups);
    if (h.log_keep != LOG_KEEP_DEFAULT) fprintf(f, "--log-keep=%d\n", h.log_keep);
    if (h.child_umask != CHILD_UMASK_DEFAULT) fprintf(f, "--umask=%03o\n", static_cast<unsigned>(h.child_umask));
}
