#include "options.h"

#include <getopt.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "app_types.h"
#include "banner.h"
#include "host_options.h"
#include "instance.h"
#include "netmask.h"

namespace {

constexpr int DEFAULT_PORT = 9000;
constexpr const char* DEFAULT_LOG_FILE_NAME = "VantrelWatchdog.log";
constexpr int DEFAULT_LOG_ROTATE_INTERVAL = 86400;

// Argument lines one option file may hold: all the writer produces for a full
// table (type, alias, thumb, bin-path, numa-bind, respawn, autorun, every env
// and raw of every application), with room to spare for the global options.
constexpr int APP_LINES_MAX = 7 + static_cast<int>(APP_ENVS_MAX + APP_RAWS_MAX);
constexpr int FILE_ARGS_MAX = APPS_MAX * APP_LINES_MAX + 4095;
constexpr int FILE_PIECES_MAX = 4 * FILE_ARGS_MAX;   // blank and comment lines included
// Below this a session file would rotate at nearly every read.
constexpr long long SESSION_MAX_BYTES_MIN = 4096;
constexpr int FILE_DEPTH_MAX = 32;         // option files open inside one another
// Option files read in one start: a file that names another many times over,
// through several levels, would otherwise multiply the reading without end.
constexpr int FILE_READS_MAX = 4096;

// Every type option shares one val so that getopt_long resolves a prefix matched
// only by type options to the first of them; the index tells them apart. Every
// other option has a val of its own, which makes a mixed prefix ambiguous.
enum opt_val : int {
    OPT_HELP = 'h',
    OPT_TYPE = 0x100,
    OPT_PORT,
    OPT_ENV,
    OPT_AUTORUN,
    OPT_RESPAWN,
    OPT_BIN_PATH,
    OPT_ALIAS,
    OPT_RAW,
    OPT_THUMB,
    OPT_INSTANCE_NAME,
    OPT_NUMA_BIND,
    OPT_WEB_AUTH_SECRET,
    OPT_LOG_FILE_NAME,
    OPT_LOG_ROTATE_INTERVAL,
    OPT_DEMONIZE,
    OPT_NODEMONIZE,
    OPT_REALTIME_IO,
    OPT_CPU_AFFINITY,
    OPT_DEBUG,
    OPT_REALTIME_CPU,
    OPT_LISTEN,
    OPT_ALLOW,
    OPT_SESSIONS_KEEP,
    OPT_SESSION_MAX_BYTES,
};

#define TYPE_OPT(name) {name, required_argument, nullptr, OPT_TYPE}

// The position of an option in this table is part of one error message.
const struct option long_opts[] = {
    {"port", required_argument, nullptr, OPT_PORT},
    TYPE_OPT("filetranscoder"),
    TYPE_OPT("filetransfer"),
    TYPE_OPT("gpi"),
    TYPE_OPT("io"),
    TYPE_OPT("lcd"),
    TYPE_OPT("lib"),
    TYPE_OPT("ltc"),
    TYPE_OPT("sched"),
    TYPE_OPT("vdcp"),
    TYPE_OPT("box1"),
    TYPE_OPT("dynmpl"),
    TYPE_OPT("libadapter"),
    TYPE_OPT("libcleaner"),
    TYPE_OPT("libfeeder"),
    TYPE_OPT("plyconv"),
    TYPE_OPT("rki"),
    TYPE_OPT("stl"),
    TYPE_OPT("ticker_crawl"),
    TYPE_OPT("bridge"),
    TYPE_OPT("elem_matrix"),
    TYPE_OPT("elem_mixer"),
    TYPE_OPT("elem_mult4"),
    TYPE_OPT("elem_flash"),
    TYPE_OPT("elem_io_decklink_out"),
    TYPE_OPT("elem_io_decklink_in"),
    TYPE_OPT("elem_io_ndi_out"),
    TYPE_OPT("elem_io_ndi_in"),
    TYPE_OPT("elem_multi"),
    TYPE_OPT("elem_amix"),
    TYPE_OPT("elem_dsp"),
    TYPE_OPT("elem_delay"),
    TYPE_OPT("elem_dve"),
    TYPE_OPT("elem_abmix"),
    TYPE_OPT("elem_oxtel_proxy"),
    TYPE_OPT("box2"),
    TYPE_OPT("elem_subs_burn"),
    TYPE_OPT("elem_subs_ins"),
    TYPE_OPT("elem_b1mix"),
    TYPE_OPT("elem_io_drm_out"),
    TYPE_OPT("elem_io_jpeg_out"),
    TYPE_OPT("elem_color"),
    TYPE_OPT("elem_mosaic"),
    TYPE_OPT("script"),
    TYPE_OPT("elem_dve3d"),
    TYPE_OPT("elem_clock"),
    {"env", required_argument, nullptr, OPT_ENV},
    {"autorun", required_argument, nullptr, OPT_AUTORUN},
    {"respawn", required_argument, nullptr, OPT_RESPAWN},
    {"bin-path", required_argument, nullptr, OPT_BIN_PATH},
    {"alias", required_argument, nullptr, OPT_ALIAS},
    {"raw", required_argument, nullptr, OPT_RAW},
    {"thumb", required_argument, nullptr, OPT_THUMB},
    {"instance-name", required_argument, nullptr, OPT_INSTANCE_NAME},
    {"numa-bind", required_argument, nullptr, OPT_NUMA_BIND},
    {"web-auth-secret", required_argument, nullptr, OPT_WEB_AUTH_SECRET},
    {"log-file-name", required_argument, nullptr, OPT_LOG_FILE_NAME},
    {"log-rotate-interval", required_argument, nullptr, OPT_LOG_ROTATE_INTERVAL},
    {"demonize", no_argument, nullptr, OPT_DEMONIZE},
    {"nodemonize", no_argument, nullptr, OPT_NODEMONIZE},
    {"help", no_argument, nullptr, OPT_HELP},
    {"realtime-io", no_argument, nullptr, OPT_REALTIME_IO},
    {"cpu-affinity", required_argument, nullptr, OPT_CPU_AFFINITY},
    {"debug", no_argument, nullptr, OPT_DEBUG},
    {"realtime-cpu", required_argument, nullptr, OPT_REALTIME_CPU},
    {"listen", required_argument, nullptr, OPT_LISTEN},
    {"allow", required_argument, nullptr, OPT_ALLOW},
    {"sessions-keep", required_argument, nullptr, OPT_SESSIONS_KEEP},
    {"session-max-bytes", required_argument, nullptr, OPT_SESSION_MAX_BYTES},
    {nullptr, 0, nullptr, 0},
};

#undef TYPE_OPT

const char usage_text[] =
    "Usage:\n"
    "    VantrelWatchdog [args]\n"
    "Where args:\n"
    "    --port=<NUM>                           XMLRPC service port\n"
    "    --demonize                         Become daemon on executing\n"

    "\n"
    "                                       Log file operation\n"
    "    --log-file-name=<STR>\n"
    "    --log-rotate-interval=<INT>\n"
    "\n"
    "    -h, --help                         Show this help and usage\n";

// Identity of the option files being read, outermost first (a file met again
// while it is still open would be read forever), and how many were read so far.
struct file_chain {
    std::vector<std::pair<dev_t, ino_t>> open;
    int reads = 0;
};

int opts_pass(instance* inst, int argc, char** argv, file_chain& chain);
int opts_from_file(instance* inst, const char* path, file_chain& chain);

// The main table followed by the host options' rows, built once.
const struct option* all_long_opts()
{
    static const std::vector<struct option> table = [] {
        std::vector<struct option> rows(std::begin(long_opts), std::end(long_opts) - 1);
        rows.insert(rows.end(), host_long_opts, host_long_opts + host_long_opts_cnt);
        rows.push_back({nullptr, 0, nullptr, 0});
        return rows;
    }();
    return table.data();
}

void print_usage()
{
    fprintf(stderr, "%s\n%s", watchdog_banner(), usage_text);
}

// The leading-number conversion: blanks and a sign accepted, 0 without digits.
int to_int(const char* text)
{
    return static_cast<int>(strtol(text, nullptr, 10));
}

// The element that the next getopt_long call starts on. Every short option ends
// the pass, so a call never starts in the middle of a cluster; elements at or
// after optind are not moved by the permutation, so the pointer stays valid.
const char* next_option_element(char** argv, int argc)
{
    for (int i = std::max(optind, 1); i < argc; i++)
        if (argv[i][0] == '-' && argv[i][1] != '\0') return argv[i];
    return "";
}

void add_app(instance* inst, int pos, const char* value)
{
    const char* name = long_opts[pos].name;
    int type = instance_apps_lookup(name);
    if (type < 1) {
        fprintf(stderr, "Error! Failed to find app index=[%d], value from table=[%s]\n", pos, name);
        return;
    }
    if (inst->cnt >= APPS_MAX) {
        fprintf(stderr, "%s: instance->apps.cnt=%d is maximal\n", "instance_opts", inst->cnt);
        return;
    }
    app* record = app_new();
    if (!record) {
        fprintf(stderr, "%s: out of memory for [%s]\n", "instance_opts", name);
        return;
    }
    record->type = type;
    record->config.set(value);
    instance_slot_append(inst, record);
    inst->last_app = record;
}

app* target_app(instance* inst)
{
    if (!inst->last_app) fputs("Error! No app defined\n", stderr);
    return inst->last_app;
}

// Who may reach the control port is checked here, so a typo stops the start.
// The value is kept even then: an option file's error does not stop it, and
// the control port then refuses to open rather than open wider than meant.
bool set_listen(instance* inst, const char* value)
{
    inst->ctl_listen.set(value);
    if (netmask_is_address(value)) return true;
    fprintf(stderr, "ERROR: --listen=%s is not an IPv4 or IPv6 address\n", value);
    return false;
}

bool set_allow(instance* inst, const char* value)
{
    std::vector<netmask> nets;
    inst->ctl_allow.set(value);
    if (netmask_parse_list(value, nets)) return true;
    fprintf(stderr, "ERROR: --allow=%s is not a list of networks (ADDR[/BITS],...)\n", value);
    return false;
}

// Applies one recognised option; false ends the pass with -1.
bool apply_option(instance* inst, int val, int pos, const char* value)
{
    app* a = nullptr;
    if (host_option_apply(inst, val, value)) return true;
    switch (val) {
    case OPT_HELP: print_usage(); return false;
    case OPT_TYPE: add_app(inst, pos, value); return true;
    case OPT_PORT: inst->port = to_int(value); return true;
    case OPT_INSTANCE_NAME: inst->instance_name.set(value); return true;
    case OPT_WEB_AUTH_SECRET: inst->web_auth_secret.set(value); return true;
    case OPT_LOG_FILE_NAME: inst->log_file_name.set(value); return true;
    case OPT_LOG_ROTATE_INTERVAL: inst->log_rotate_interval = to_int(value); return true;
    case OPT_DEMONIZE: inst->demonize = 1; return true;
    case OPT_NODEMONIZE: inst->nodemonize = 1; return true;
    case OPT_REALTIME_IO: inst->realtime_io = 1; return true;
    case OPT_CPU_AFFINITY: inst->cpu_affinity = to_int(value); return true;
    case OPT_DEBUG: inst->debug++; return true;
    case OPT_REALTIME_CPU: inst->realtime_cpu = to_int(value); return true;
    case OPT_LISTEN: return set_listen(inst, value);
    case OPT_ALLOW: return set_allow(inst, value);
    // Instance options like the secret: set once, not reset by a later pass.
    case OPT_SESSIONS_KEEP: inst->sessions_keep = std::max(to_int(value), 1); return true;
    case OPT_SESSION_MAX_BYTES:
        inst->session_max_bytes = std::max(strtoll(value, nullptr, 10), SESSION_MAX_BYTES_MIN);
        return true;
    default: break;
    }
    // The rest fill in the application added last.
    if (!(a = target_app(inst))) return true;
    switch (val) {
    case OPT_ENV: a->envs.append(value); break;   // dropped silently when full
    case OPT_AUTORUN: a->f_autorun = to_int(value); break;
    case OPT_RESPAWN: a->f_respawn = to_int(value); break;
    case OPT_BIN_PATH: a->bin_path.set(value); break;
    case OPT_ALIAS: a->alias.set(value); break;
    case OPT_RAW: a->raws.append(value); break;
    case OPT_THUMB: a->thumb.set(value); break;
    case OPT_NUMA_BIND: a->numa_bind.set(value); break;
    default: break;
    }
    return true;
}

int port_result(instance* inst)
{
    if (inst->port != 0) return 0;
    fprintf(stderr, "ERROR: argument '%s' required\n", "--port");
    return -EINVAL;
}

int opts_pass(instance* inst, int argc, char** argv_in, file_chain& chain)
{
    // getopt_long permutes the vector it is given; work on a copy so that the
    // caller's array stays as it was.
    std::vector<char*> argv(argv_in, argv_in + argc);
    argv.push_back(nullptr);

    optind = 0;   // full re-initialisation, also after a nested pass
    opterr = 0;
    inst->log_file_name.set(DEFAULT_LOG_FILE_NAME);
    inst->log_rotate_interval = DEFAULT_LOG_ROTATE_INTERVAL;
    inst->port = DEFAULT_PORT;

    // "-" hands every non-option over in order (as value 1) instead of
    // permuting, and keeps doing so with POSIXLY_CORRECT set, which would
    // otherwise end the options at the first file name.
    std::vector<const char*> files;
    for (;;) {
        const char* current = next_option_element(argv.data(), argc);
        int pos = -1;
        int val = getopt_long(argc, argv.data(), "-h", all_long_opts(), &pos);
        if (val == -1) break;
        if (val == 1) {
            files.push_back(optarg);
            continue;
        }
        if (val == '?') {
            fprintf(stderr, "ERROR: Incorrect argument! [%s]\n", current);
            print_usage();
            return -1;
        }
        if (!apply_option(inst, val, pos, optarg)) return -1;
    }

    // What is not an option names option files, read in their order.
    files.insert(files.end(), argv.begin() + std::min(optind, argc), argv.begin() + argc);   // after "--"
    for (const char* path : files) opts_from_file(inst, path, chain);
    return port_result(inst);
}

// Strips the trimming set from both ends of a line in place.
char* trim_line(char* line)
{
    static const char trim_set[] = "\n\t\r ";
    std::size_t len = strlen(line);
    while (len > 0 && strchr(trim_set, line[len - 1])) line[--len] = '\0';
    return line + strspn(line, trim_set);
}

struct file_lines {
    std::vector<std::string> args;
    bool read_error = false;
};

file_lines read_option_lines(FILE* f, const char* path)
{
    file_lines out;
    char piece[OPTION_LINE_SIZE];   // a longer line arrives in pieces
    std::string carry;              // a character cut off the end of the last piece
    for (int n = 0;; n++) {
        if (n >= FILE_PIECES_MAX || static_cast<int>(out.args.size()) >= FILE_ARGS_MAX) {
            // A configuration this large is a mistake; use what came first.
            if (fgets(piece, sizeof piece, f))
                fprintf(stderr, "%s: [%s] is longer than %d argument lines or %d lines, the rest is ignored\n",
                        "opts_from_file", path, FILE_ARGS_MAX, FILE_PIECES_MAX);
            break;
        }
        memcpy(piece, carry.data(), carry.size());
        if (!fgets(piece + carry.size(), static_cast<int>(sizeof piece - carry.size()), f)) {
            out.read_error = ferror(f) != 0;
            break;
        }
        // Pieces end on character boundaries, so none carries half a character.
        std::size_t len = strlen(piece);
        std::size_t whole = piece[len - 1] == '\n' ? len : utf8_whole_prefix(std::string_view(piece, len));
        carry.assign(piece + whole, len - whole);
        piece[whole] = '\0';
        const char* arg = trim_line(piece);
        if (arg[0] == '\0' || arg[0] == '#') continue;
        out.args.emplace_back(arg);
    }
    return out;
}

int opts_from_file(instance* inst, const char* path, file_chain& chain)
{
    FILE* f = fopen(path, "re");
    if (!f) {
        int err = errno;
        fprintf(stderr, "%s: failed to open [%s]\n", "opts_from_file", path);
        return -err;
    }
    struct stat st {};
    if (fstat(fileno(f), &st) == 0) {
        for (const auto& open : chain.open) {
            if (open.first == st.st_dev && open.second == st.st_ino) {
                fprintf(stderr, "%s: [%s] is already being read, skipped\n", "opts_from_file", path);
                fclose(f);
                return -ELOOP;
            }
        }
    }
    if (chain.reads >= FILE_READS_MAX) {
        fprintf(stderr, "%s: [%s] skipped, more than %d option files read\n", "opts_from_file", path,
                FILE_READS_MAX);
        fclose(f);
        return -ELOOP;
    }
    chain.reads++;
    if (static_cast<int>(chain.open.size()) >= FILE_DEPTH_MAX) {
        fprintf(stderr, "%s: [%s] is nested deeper than %d files, skipped\n", "opts_from_file", path,
                FILE_DEPTH_MAX);
        fclose(f);
        return -ELOOP;
    }

    file_lines lines = read_option_lines(f, path);
    fclose(f);
    if (lines.read_error)
        fprintf(stderr, "%s: failed to read [%s], the rest is ignored\n", "opts_from_file", path);

    int r = 0;
    if (!lines.args.empty()) {
        std::vector<char*> argv;
        argv.reserve(lines.args.size() + 1);
        argv.push_back(const_cast<char*>(path));
        for (auto& arg : lines.args) argv.push_back(arg.data());
        chain.open.emplace_back(st.st_dev, st.st_ino);
        r = opts_pass(inst, static_cast<int>(argv.size()), argv.data(), chain);
        chain.open.pop_back();
    }
    // Only a file read completely and accepted is the one to write back to.
    if (r == 0 && !lines.read_error) inst->conf_file.set(path);
    return lines.read_error && r == 0 ? -EIO : r;
}

}   // namespace

int instance_opts(instance* inst, int argc, char** argv)
{
    file_chain chain;
    return opts_pass(inst, argc, argv, chain);
}

int opts_from_file(instance* inst, const char* path)
{
    file_chain chain;
    return opts_from_file(inst, path, chain);
}
