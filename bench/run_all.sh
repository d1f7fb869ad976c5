#!/usr/bin/env bash
# Builds the supervisor (RelWithDebInfo) and runs every benchmark against it,
# printing one table. Takes about two minutes.
#
#   bash bench/run_all.sh            # 5 s per timed measurement
#   SECONDS_PER=10 bash bench/run_all.sh
#
# BUILD_DIR picks the build directory (default: build/ of this checkout).
# For the supervision thread measured in-process, see bench/run.sh; for the
# idle-memory limit check, bench/rss_idle.py.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${BUILD_DIR:-$root/build}"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" --target VantrelWatchdog -j"$(nproc)" >/dev/null
echo "$(date -u '+%Y-%m-%d %H:%M UTC'), $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//'), load $(cut -d' ' -f1-3 /proc/loadavg)"
python3 "$root/bench/bench_all.py" "$build/src/VantrelWatchdog" "${SECONDS_PER:-5}"
