// Arbitrary command lines and option files, files naming each other and
// themselves included. Whatever the reader accepts must respect the record
// capacities, and whatever it stored must come back unchanged through the
// option-file writer and a second read.
//
// Input: segments separated by NUL bytes. The first is the command line, one
// argument per line; the next four are the contents of four option files.
// "@0" to "@3" in any segment stand for those files' paths, "@9" for a file
// that does not exist and "@d" for a directory.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "app_types.h"
#include "conf_writer.h"
#include "instance.h"
#include "log/log.h"
#include "options.h"

namespace {

constexpr int FILES = 4;
constexpr int ARGS_MAX = 16;
// Every reference to a file may read it again, so the number of passes grows
// with refs^files; a few per file keep one input well under a second.
constexpr int REFS_PER_SEGMENT = 3;

std::string g_dir;

std::string file_path(int i) { return g_dir + "/f" + std::to_string(i) + ".conf"; }

std::string expand(const std::string& text)
{
    std::string out;
    int refs = 0;
    for (size_t i = 0; i < text.size(); i++) {
        char c = i + 1 < text.size() && text[i] == '@' && refs < REFS_PER_SEGMENT ? text[i + 1] : 0;
        bool numbered = c >= '0' && c < '0' + FILES;
        if (numbered || c == '9' || c == 'd') {
            out += numbered ? file_path(c - '0') : c == '9' ? g_dir + "/missing.conf" : g_dir;
            refs++, i++;
        } else {
            out += text[i];
        }
    }
    return out;
}

void write_file(const std::string& path, const std::string& content)
{
    if (FILE* f = fopen(path.c_str(), "wb"); !f || fwrite(content.data(), 1, content.size(), f) != content.size() || fclose(f))
        abort();
}

void check_capacities(const instance* inst)
{
    if (inst->cnt < 0 || inst->cnt > APPS_MAX) abort();
    bool last_found = inst->last_app == nullptr;
    for (int i = 0; i < inst->cnt; i++) {
        const app* a = inst->apps[i];
        if (!a || a->type < 1 || a->type >= APP_TYPES_CNT || a->envs.size() > APP_ENVS_MAX || a->raws.size() > APP_RAWS_MAX)
            abort();
        last_found |= a == inst->last_app;
        for (const bounded_str* s : {&a->config, &a->alias, &a->thumb, &a->bin_path, &a->numa_bind})
            if (strlen(s->c_str()) != s->size()) abort();
    }
    if (!last_found) abort();
}

// What a value reads back as after the writer put it on its line: a stored
// value fits the reader's line whole, and blanks at the end go.
std::string read_back(std::string value)
{
    while (!value.empty() && strchr("\n\t\r ", value.back())) value.pop_back();
    return value;
}

void expect_same(const bounded_str& before, const bounded_str& after)
{
    if (read_back(before.str()) != after.str()) abort();
}

template <std::size_t N>
void expect_same_list(const bounded_list<N>& before, const bounded_list<N>& after)
{
    size_t j = 0;
    for (const auto& item : before) {
        std::string v = read_back(item.str());
        if (!v.empty() && (j >= after.size() || v != after[j++].str())) abort();   // an all-blank value reads back as nothing
    }
    if (j != after.size()) abort();
}

// Writes what was read and reads it again: the same configuration must result.
// (Not for records without a type or without a port: those are not written.)
void check_round_trip(instance* inst)
{
    for (int i = 0; i < inst->cnt; i++)
        if (inst->apps[i]->type <= APP_TYPE_NONE) return;
    if (inst->port == 0) return;
    std::string path = g_dir + "/written.conf";
    unlink(path.c_str());   // no backups pile up over a long run
    inst->conf_file.set(path);
    if (watchdog_save_conf(inst) != 0) abort();

    instance* again = nullptr;
    char* argv[] = {const_cast<char*>("fuzz"), path.data(), nullptr};
    if (instance_create(&again) != 0) abort();
    instance_opts(again, 2, argv);

    if (again->cnt != inst->cnt || again->port != inst->port || again->log_rotate_interval != inst->log_rotate_interval ||
        !again->debug != !inst->debug || again->demonize != inst->demonize)
        abort();
    expect_same(inst->instance_name, again->instance_name), expect_same(inst->log_file_name, again->log_file_name);
    for (int i = 0; i < inst->cnt; i++) {
        const app &a = *inst->apps[i], &b = *again->apps[i];
        if (a.type != b.type || !a.f_respawn != !b.f_respawn || !a.f_autorun != !b.f_autorun) abort();
        expect_same(a.config, b.config), expect_same(a.alias, b.alias), expect_same(a.thumb, b.thumb);
        expect_same(a.bin_path, b.bin_path), expect_same(a.numa_bind, b.numa_bind);
        expect_same_list(a.envs, b.envs), expect_same_list(a.raws, b.raws);
    }
    instance_destroy(&again);
}

}   // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    log_set_stderr(0);
    char tmpl[] = "/tmp/fuzz_options_XXXXXX";
    if (!mkdtemp(tmpl)) abort();
    g_dir = tmpl;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::vector<std::string> segments(1), args = {"fuzz", ""};
    for (size_t i = 0; i < size; i++) {
        if (data[i] == 0 && segments.size() < 1 + FILES) segments.emplace_back();
        else segments.back() += static_cast<char>(data[i]);
    }
    segments.resize(1 + FILES);
    for (int i = 0; i < FILES; i++) write_file(file_path(i), expand(segments[1 + i]));
    for (char c : expand(segments[0])) {   // one argument per line, blank lines skipped
        if (c != '\n') args.back() += c;
        else if (!args.back().empty() && args.size() < ARGS_MAX) args.emplace_back();
    }
    if (args.back().empty()) args.pop_back();
    if (args.size() == 1) args.push_back(file_path(0));
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);

    instance* inst = nullptr;
    if (instance_create(&inst) != 0) abort();
    int r = instance_opts(inst, static_cast<int>(args.size()), argv.data());
    if (r != 0 && r != -1 && r != -22) abort();
    check_capacities(inst);
    check_round_trip(inst);
    if (instance_destroy(&inst) != 0) abort();
    return 0;
}
