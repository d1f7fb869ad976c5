// Scaffolding the unit test programs share: scratch directories, file
// contents, option-reader passes, descriptor counts and control replies.
#pragma once

#include <dirent.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/xmlrpc_raii.h"
#include "instance.h"
#include "options.h"

namespace unit_support {

namespace fs = std::filesystem;

// A fresh directory under /tmp, removed with its contents when the owner ends.
class scratch_dir {
public:
    explicit scratch_dir(const std::string& prefix)
    {
        std::string tmpl = "/tmp/" + prefix + "-XXXXXX";
        if (!mkdtemp(tmpl.data())) throw std::runtime_error("cannot make " + tmpl);
        path_ = tmpl;
    }
    ~scratch_dir()
    {
        std::error_code ec;
        fs::remove_all(path_, ec);
    }
    scratch_dir(const scratch_dir&) = delete;
    scratch_dir& operator=(const scratch_dir&) = delete;
    const fs::path& path() const { return path_; }

private:
    fs::path path_;
};

inline std::string file_text(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream all;
    all << in.rdbuf();
    return all.str();
}

inline std::vector<std::string> lines_of(const std::string& text)
{
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

inline void write_file(const fs::path& path, const std::string& text)
{
    std::ofstream(path, std::ios::binary) << text;
}

// An executable /bin/sh script.
inline void write_script(const fs::path& path, const std::string& body)
{
    write_file(path, "#!/bin/sh\n" + body + "\n");
    fs::permissions(path, fs::perms::owner_all | fs::perms::group_read | fs::perms::others_read);
}

inline int open_fd_count()
{
    DIR* dir = opendir("/proc/self/fd");
    if (!dir) return -1;
    int count = 0;
    for (int i = 0; i < 100000 && readdir(dir); i++) count++;
    closedir(dir);
    return count;
}

// A handle as the control methods spell it.
inline std::string hex(uint64_t handle)
{
    char text[32];
    snprintf(text, sizeof text, "%" PRIx64, handle);
    return text;
}

// One option-reader pass over `args` behind the program name; what it wrote
// to standard error goes to `err`.
inline int read_options(instance* inst, std::vector<std::string> args, std::string& err)
{
    args.insert(args.begin(), "VantrelWatchdog");
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    ::testing::internal::CaptureStderr();
    int r = instance_opts(inst, static_cast<int>(args.size()), argv.data());
    err = ::testing::internal::GetCapturedStderr();
    return r;
}

// An array of strings for built request parameters.
inline xmlrpc_value* string_array(xmlrpc_env* env, const std::vector<std::string>& items)
{
    xmlrpc_value* array = xmlrpc_array_new(env);
    for (const std::string& item : items) {
        xmlrpc_value_ref value(xmlrpc_string_new(env, item.c_str()));
        xmlrpc_array_append_item(env, array, value.get());
    }
    return array;
}

// Calls a control method with `params` (taken over); the reply's "ret", or
// INT32_MIN for a fault, whose code lands in `fault` when given. A fault must
// come without a reply. `members` receives the reply's member count.
template <typename Method>
int call_ret(Method method, xmlrpc_value* params, instance* inst, int* fault = nullptr, int* members = nullptr)
{
    xmlrpc_value_ref owned(params);
    xmlrpc_env_guard env;
    xmlrpc_value_ref reply(method(env.get(), params, inst, nullptr));
    if (env.failed()) {
        EXPECT_FALSE(reply) << "a fault comes without a reply";
        if (fault) *fault = env.fault_code();
        return INT32_MIN;
    }
    int ret = 0;
    xmlrpc_decompose_value(env.get(), reply.get(), "{s:i,*}", "ret", &ret);
    EXPECT_FALSE(env.failed());
    if (members) *members = xmlrpc_struct_size(env.get(), reply.get());
    return ret;
}

}  // namespace unit_support
