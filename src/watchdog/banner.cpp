#include "banner.h"

#include "build_version.h"

const char* watchdog_version() { return VANTREL_BUILD_VERSION; }

const char* watchdog_banner()
{
    return "VantrelWatchdog " VANTREL_BUILD_VERSION " (c) Vantrel Broadcast Systems";
}
