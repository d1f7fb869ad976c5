#!/usr/bin/env bash
# Builds the supervision benchmark against the supervisor core and runs it.
# BUILD_DIR: build directory to use (default /tmp/build-bench);
# EXTRA_OBJS: extra objects to link (optional). Arguments go to the program:
# none for restarts and idle CPU, "status" for the GetStatus lock and CPU figures.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${BUILD_DIR:-/tmp/build-bench}"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" --target watchdog_core -j2 >/dev/null
# shellcheck disable=SC2046
g++ -std=c++20 -O2 -I "$root/src" -I "$root/src/watchdog" "$root/bench/supervision_bench.cpp" ${EXTRA_OBJS:-} \
    "$build/src/libwatchdog_core.a" "$build/src/libvantrel_log.a" "$build/src/libvantrel.a" \
    "$build/src/libxmlrpc_fault_guard.a" -lsystemd \
    $(xmlrpc-c-config abyss-server client --libs) -lxml2 -lnuma -lpthread -o "$build/supervision_bench"
# The supervisor's own log lines go to a file; the figures go to standard output.
"$build/supervision_bench" "$@" 2>"$build/supervision_bench.log"
