// Scaffolding the unit test programs share: scratch directories, file
// contents, option-reader passes and a configuration as one line of text.
#pragma once

#include <gtest/gtest.h>
#include <regex.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "instance.h"
#include "options.h"

namespace unit_support {

namespace fs = std::filesystem;

// The groups of the first match of extended regular expression `pattern` in
// `text` (the whole match first, "" for a group that took no part); empty when
// nothing matches. POSIX's matcher: the C++ one costs seconds of compile time.
inline std::vector<std::string> regex_groups(const std::string& text, const char* pattern)
{
    regex_t re;
    if (regcomp(&re, pattern, REG_EXTENDED) != 0) throw std::invalid_argument(pattern);
    std::vector<regmatch_t> found(re.re_nsub + 1);
    std::vector<std::string> groups;
    if (regexec(&re, text.c_str(), found.size(), found.data(), 0) == 0)
        for (const regmatch_t& g : found)
            groups.push_back(g.rm_so < 0 ? "" : text.substr(g.rm_so, g.rm_eo - g.rm_so));
    regfree(&re);
    return groups;
}

// A fresh directory under /tmp, removed with its contents when the owner ends.
struct scratch_dir {
    explicit scratch_dir(const std::string& prefix)
    {
        std::string tmpl = "/tmp/" + prefix + "-XXXXXX";
        if (!mkdtemp(tmpl.data())) throw std::runtime_error("cannot make " + tmpl);
        path = tmpl;
    }
    ~scratch_dir() { std::error_code ec; fs::remove_all(path, ec); }
    scratch_dir(const scratch_dir&) = delete;
    fs::path path;
};

inline std::string file_text(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

inline std::vector<std::string> lines_of(const std::string& text)
{
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

inline void write_file(const fs::path& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

// True once `pid` is gone or a zombie waiting for its parent.
inline bool process_gone(pid_t pid)
{
    std::string stat = file_text("/proc/" + std::to_string(pid) + "/stat");
    std::size_t paren = stat.rfind(')');
    return stat.empty() || (paren != std::string::npos && stat.compare(paren + 2, 1, "Z") == 0);
}

// An executable /bin/sh script.
inline void write_script(const fs::path& path, const std::string& body)
{
    write_file(path, "#!/bin/sh\n" + body + "\n");
    fs::permissions(path, fs::perms::owner_all | fs::perms::group_read | fs::perms::others_read);
}

// An instance that lives as long as its owner and passes as the pointer the code takes.
struct owned_instance {
    instance* p = nullptr;
    owned_instance() { instance_create(&p); }
    ~owned_instance() { instance_destroy(&p); }
    owned_instance(const owned_instance&) = delete;
    operator instance*() const { return p; }
    instance* operator->() const { return p; }
};

// One option-reader pass over `args` behind the program name; what it wrote
// to standard error goes to `err`.
inline int read_options(instance* inst, std::vector<std::string> args, std::string& err)
{
    args.insert(args.begin(), "VantrelWatchdog");
    std::vector<char*> argv(args.size() + 1);   // ends in a null pointer, as the reader expects
    for (std::size_t i = 0; i < args.size(); i++) argv[i] = args[i].data();
    ::testing::internal::CaptureStderr();
    int r = instance_opts(inst, static_cast<int>(args.size()), argv.data());
    err = ::testing::internal::GetCapturedStderr();
    return r;
}

// A list as "a,b" or, when long, "N:first..last".
template <typename List>
std::string list_text(const List& list)
{
    if (list.size() > 3) return std::to_string(list.size()) + ":" + list[0].str() + ".." + list[list.size() - 1].str();
    std::string out;
    for (std::size_t i = 0; i < list.size(); i++) out += (i ? "," : "") + list[i].str();
    return out;
}

// The whole configuration as one line: the three per-pass globals always, the
// rest when set, then every application (only the count past three).
inline std::string describe(const instance* inst)
{
    std::ostringstream out;
    out << "port=" << inst->port << " log=" << inst->log_file_name.str() << " rot=" << inst->log_rotate_interval;
    auto text = [&](const char* key, const bounded_str& v) { if (!v.empty()) out << " " << key << "=" << v.str(); };
    auto num = [&](const char* key, long v) { if (v) out << " " << key << "=" << v; };
    text("name", inst->instance_name), text("secret", inst->web_auth_secret);
    num("demonize", inst->demonize), num("nodemonize", inst->nodemonize), num("debug", inst->debug);
    num("cpu", inst->cpu_affinity), num("rtio", inst->realtime_io), num("rtcpu", inst->realtime_cpu);
    text("conf", inst->conf_file);
    const host_options& host = inst->host;   // backups kept, rotated logs kept, children's umask
    if (host.conf_backups != 20 || host.log_keep != 30 || host.child_umask)
        out << " host=" << host.conf_backups << "," << host.log_keep << "," << host.child_umask;
    out << " apps=" << inst->cnt;
    for (int i = 0; i < inst->cnt && inst->cnt <= 3; i++) {
        const app& a = *inst->apps[i];
        out << " [" << a.type << ":" << a.config.str();
        text("alias", a.alias), text("thumb", a.thumb), text("bin", a.bin_path), text("numa", a.numa_bind);
        num("respawn", a.f_respawn), num("autorun", a.f_autorun);
        if (!a.envs.empty()) out << " env=" << list_text(a.envs);
        if (!a.raws.empty()) out << " raw=" << list_text(a.raws);
        out << "]";
    }
    return out.str();
}

}  // namespace unit_support
