#pragma once
/* The suite client library: one plain function per remote method of the
 * suite's services. Include this header for the whole interface. */
#include "vantrel_call.h"
