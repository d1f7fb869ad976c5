// Addressing one application by (idx, ptr): an index while it is in range, a
// handle when the index is negative.
#include <cstdint>
#include <cstdlib>

#include "ctl.h"
#include "instance.h"
#include "log/log.h"

uint64_t ctl_handle_parse(const char* ptr)
{
    // strtoull gives what clients rely on: leading blanks, a sign, an optional
    // "0x", either case, stopping at the first non-digit, 0 without digits.
    return strtoull(ptr ? ptr : "", nullptr, 16);
}

int ctl_app_resolve(instance* inst, const char* method, int idx, const char* ptr)
{
    if (idx >= inst->cnt) {
        log_printf(LOG_ERROR, "%s: idx=%d out of apps range (%d)", method, idx, inst->cnt);
        return -1;
    }
    if (idx >= 0) return idx;

    uint64_t handle = ctl_handle_parse(ptr);
    for (int i = 0; i < inst->cnt; i++)
        if (inst->apps[i]->handle == handle) return i;

    log_printf(LOG_ERROR, "%s: ptr=[%s], p=%p not found", method, ptr ? ptr : "",
               reinterpret_cast<void*>(static_cast<uintptr_t>(handle)));
    return -1;
}
