#pragma once
// Human durations for uptimes: "42s", "3m 05s", "2h 07m", "5d 03h".
#include <cstdint>
#include <string>

std::string format_duration(int64_t seconds);
