// Process entry: configuration, optional detaching, the log, the run phase
// and the orderly end. The exit status is the option reader's result when it
// fails (255 for a bad option or --help, 234 for a missing port), else 0.
#include <cstdio>

#include "banner.h"
#include "conf_writer.h"
#include "daemonize.h"
#include "instance.h"
#include "log/log.h"
#include "options.h"
#include "mem_policy.h"
#include "run_phase.h"

int main(int argc, char** argv)
{
    // Before any thread exists, so that every thread inherits the mask and the
    // allocator limits.
    mem_policy_apply();
    run_phase_block_signals();

    instance* inst = nullptr;
    int ret = instance_create(&inst);
    if (ret != 0) {
        fprintf(stderr, "main: instance_create failed with code %d\n", ret);
        return 1;
    }
    inst->p_sig_cnt = &sig_cnt;

    ret = instance_opts(inst, argc, argv);
    if (ret != 0) {
        instance_destroy(&inst);
        return ret;
    }

    if (inst->demonize && !inst->nodemonize) {
        log_set_stderr(0);
        daemonize();
    }
    // Only now: the writer thread would not survive the fork.
    log_set_keep(inst->host.log_keep);
    log_start(inst->log_file_name.c_str(), inst->log_rotate_interval);
    log_printf(LOG_INFO, "%s", watchdog_banner());
    watchdog_conf_remove_stale(inst);

    run_phase(inst);

    instance_destroy(&inst);
    log_printf(LOG_INFO, "Bye!");
    log_stop();
    return 0;
}
