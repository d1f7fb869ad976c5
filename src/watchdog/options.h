#pragma once
// Reading the command line and option files into the instance.
struct instance;

// One pass over argv (argv[0] is the program or the option file's path).
// 0; -1 after --help or an incorrect argument; -EINVAL when port ends as 0.
int instance_opts(instance* inst, int argc, char** argv);
