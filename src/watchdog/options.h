#pragma once
// Reading the command line and option files into the instance.
#include <cstddef>

struct instance;

// One read of an option file's line: room for the longest option name, "=",
// a full 4095-character value and the newline; longer lines come in pieces.
constexpr std::size_t OPTION_LINE_SIZE = 8192;

// One pass over argv (argv[0] is the program or the option file's path).
// 0; -1 after --help or an incorrect argument; -EINVAL when port ends as 0.
int instance_opts(instance* inst, int argc, char** argv);

// Reads one option file and parses its lines as a nested pass; records the path
// in conf_file when that pass succeeds. -errno when it cannot be opened.
int opts_from_file(instance* inst, const char* path);
