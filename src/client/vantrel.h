#pragma once
/* The suite client library: one plain function per remote method of the
 * suite's services. Include this header for the whole interface. */
#include "vantrel_call.h"
#include "vantrel_filetransfer.h"
#include "vantrel_io.h"
#include "vantrel_lib.h"
#include "vantrel_sched.h"
#include "vantrel_templates.h"
#include "vantrel_thread_client.h"
#include "vantrel_watchdog.h"
