// SetField: one command for one application (flags, start, terminate, move,
// delete, clone), or a machine command from a request that addresses none.
#include <strings.h>

#include <cstdlib>

#include "app_life.h"
#include "common/xmlrpc_raii.h"
#include "ctl.h"
#include "ctl_methods.h"
#include "ctl_reply.h"
#include "instance.h"
#include "log/log.h"
#include "respawner.h"
#include "system_runner.h"

namespace {

constexpr const char* METHOD = "ctl_method_SetField";
constexpr const char* CLONE_MARK = "(clone)";

// Leading-number conversion: blanks and a sign accepted, no digits gives 0.
int flag_value(const char* val)
{
    return static_cast<int>(strtol(val, nullptr, 10));
}

int set_autorun(instance* inst, app& record, const char* val)
{
    record.f_autorun = flag_value(val);
    record.amend++;
    inst->amend++;
    return CTL_RET_OK;
}

int set_respawn(instance* inst, app& record, const char* val)
{
    app_life_set_respawn(inst, record, flag_value(val));
    record.amend++;
    inst->amend++;
    return CTL_RET_OK;
}

// The supervision thread does the launch; this only asks for it.
int mark_run(instance* inst, app& record)
{
    if (!app_life_request_start(inst, record)) {
        log_printf(LOG_ERROR, "%s: already running", METHOD);
        return CTL_RET_OK;
    }
    log_printf(LOG_ERROR, "%s: marking to start", METHOD);
    return CTL_RET_OK;
}

// SIGINT once; the supervision thread escalates to SIGKILL when it is ignored.
int terminate(app& record)
{
    record.amend++;
    stop_result result = app_life_request_stop(record);
    if (result == stop_result::not_running) log_printf(LOG_ERROR, "%s: not running", METHOD);
    if (result == stop_result::already_terminating) log_printf(LOG_ERROR, "%s: already terminating", METHOD);
    return CTL_RET_OK;
}

int move_up(instance* inst, int slot)
{
    if (slot > 0) instance_slot_swap(inst, slot, slot - 1);
    inst->amend++;
    return CTL_RET_OK;
}

int move_down(instance* inst, int slot)
{
    if (slot < inst->cnt - 1) instance_slot_swap(inst, slot, slot + 1);
    inst->amend++;
    return CTL_RET_OK;
}

// A running application stays; its finished forker is joined before the
// record goes, so no thread is left pointing at freed memory.
int remove_app(instance* inst, int slot)
{
    app* record = inst->apps[slot];
    if (record->pid > 0) {
        inst->amend++;
        return CTL_RET_OK;
    }
    // Under the lock: the record must not be launched again meanwhile. The
    // forker has cleared pid as its last step, so the join is immediate.
    watchdog_respawner_app_join(record);
    // last_app must never point at a freed record.
    if (inst->last_app == record) inst->last_app = nullptr;
    app_free(instance_slot_remove(inst, slot));   // raises amend
    return CTL_RET_OK;
}

int clone_app(instance* inst, int slot)
{
    if (inst->cnt >= APPS_MAX) {
        log_printf(LOG_ERROR, "%s: instance->apps.cnt=%d is maximal", METHOD, inst->cnt);
        return CTL_RET_FULL;
    }
    app* copy = app_clone(*inst->apps[slot]);
    if (!copy) {
        log_printf(LOG_ERROR, "%s: out of memory for a clone", METHOD);
        return -ENOMEM;
    }
    str_cat(copy->alias, CLONE_MARK);
    instance_slot_insert(inst, slot + 1, copy);   // raises cnt and amend
    return CTL_RET_OK;
}

// Commands for an addressed application, tried in this order.
int run_app_command(instance* inst, int slot, const char* field, const char* val)
{
    app& record = *inst->apps[slot];
    if (!strcasecmp(field, "f_autorun")) return set_autorun(inst, record, val);
    if (!strcasecmp(field, "f_respawn")) return set_respawn(inst, record, val);
    if (!strcasecmp(field, "t_run")) return mark_run(inst, record);
    if (!strcasecmp(field, "t_term")) return terminate(record);
    if (!strcasecmp(field, "t_up")) return move_up(inst, slot);
    if (!strcasecmp(field, "t_down")) return move_down(inst, slot);
    if (!strcasecmp(field, "t_del")) return remove_app(inst, slot);
    if (!strcasecmp(field, "t_clone")) return clone_app(inst, slot);
    log_printf(LOG_ERROR, "%s: field=[%s] not known", METHOD, field);
    return CTL_RET_UNKNOWN;
}

// Machine commands are taken only without an application, so that no command
// meant for one application can reboot the machine. Their exit status is not
// looked at: the machine is going down anyway.
int run_system_command(const char* field)
{
    if (!strcasecmp(field, "t_reboot")) {
        log_printf(LOG_INFO, "%s: will reboot", METHOD);
        system_run("/usr/sbin/reboot");
        return CTL_RET_OK;
    }
    if (!strcasecmp(field, "t_shutdown")) {
        log_printf(LOG_INFO, "%s: will shutdown", METHOD);
        system_run("/usr/sbin/halt -f -p");
        return CTL_RET_OK;
    }
    return CTL_RET_NO_APP;
}

}  // namespace

CTL_METHOD(SetField)
{
    (void)call_info;
    auto* inst = static_cast<instance*>(server_info);

    int idx = 0;
    decoded_text ptr, field, val;
    xmlrpc_decompose_value(env, params, "(isss)", &idx, ptr.out(), field.out(), val.out());
    if (env->fault_occurred) return ctl_decode_failed(METHOD, "'idx', 'ptr', 'field', 'val'");
    decoded_adopt(ptr, field, val);
    log_printf(LOG_TRACE, "%s: idx=%d, ptr=[%s], field=[%s], val=[%s]", METHOD, idx, ptr.get(), field.get(),
               val.get());

    int slot, ret = 0;
    {
        instance_lock_guard hold(inst);
        slot = ctl_app_resolve(inst, METHOD, idx, ptr.get());
        if (slot >= 0) ret = run_app_command(inst, slot, field.get(), val.get());
    }
    // The machine commands wait for a shell; supervision must not wait with them.
    if (slot < 0) ret = run_system_command(field.get());
    return ctl_reply_ret(env, ret);
}
