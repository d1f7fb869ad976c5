#pragma once
// Each group of commands registers its subcommands with the parser; the
// callbacks run after the shared options have been resolved.
#include <CLI/CLI.hpp>

#include "context.h"

void add_status_command(CLI::App& app, ctl_context& ctx);
void add_run_commands(CLI::App& app, ctl_context& ctx);     // start, stop, restart
void add_tail_command(CLI::App& app, ctl_context& ctx);
void add_config_commands(CLI::App& app, ctl_context& ctx);  // add, edit, remove, clone, move, autorun, respawn
void add_info_commands(CLI::App& app, ctl_context& ctx);    // show, types, elements, auth
void add_machine_commands(CLI::App& app, ctl_context& ctx); // reboot, halt
