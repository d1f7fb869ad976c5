#pragma once
// The constant table of application types: type name (also the option name),
// executable file name and the flag bits selecting per-child default option lines.
#include <cstdint>
#include <string>

struct app_type {
    const char* name;
    const char* exe;   // null: the type names no executable
    uint64_t flags;
};

constexpr int APP_TYPES_CNT = 46;
constexpr int APP_TYPE_NONE = 0;
constexpr int APP_TYPE_GPI = 3;
constexpr int APP_TYPE_ELEM_FLASH = 23;
constexpr int APP_TYPE_SCRIPT = 43;

enum app_flag : uint64_t {
    AF_LOG_FILE_NAME = 0x01,
    AF_MATRIX = 0x02,
    AF_STATE_SAVE = 0x04,
    AF_LOCAL = 0x08,
    AF_ROOT = 0x10,
    AF_CROSSDOMAIN = 0x20,
    AF_SETTINGS = 0x40,
    AF_DB = 0x80,
};
constexpr int APP_DEFAULT_OPTS_CNT = 8;

extern const app_type app_types[APP_TYPES_CNT];
// Option prefixes of the default lines, indexed by flag bit number.
extern const char* const app_default_opts[APP_DEFAULT_OPTS_CNT];

// The value written after app_default_opts[bit] for an application with `alias`.
std::string app_default_opt_value(int bit, const std::string& alias);

// Row index of the type called `name` (exact, case-sensitive), or -ENOENT.
int instance_apps_lookup(const char* name);
