#include "duration.h"

#include <cstdio>

std::string format_duration(int64_t seconds)
{
    if (seconds < 0) seconds = 0;
    const int64_t minute = 60, hour = 60 * minute, day = 24 * hour;
    char text[48];
    // Two units are enough to read at a glance; the smaller one is padded.
    if (seconds < minute)
        snprintf(text, sizeof text, "%llds", static_cast<long long>(seconds));
    else if (seconds < hour)
        snprintf(text, sizeof text, "%lldm %02llds", static_cast<long long>(seconds / minute),
                 static_cast<long long>(seconds % minute));
    else if (seconds < day)
        snprintf(text, sizeof text, "%lldh %02lldm", static_cast<long long>(seconds / hour),
                 static_cast<long long>(seconds % hour / minute));
    else
        snprintf(text, sizeof text, "%lldd %02lldh", static_cast<long long>(seconds / day),
                 static_cast<long long>(seconds % day / hour));
    return text;
}
