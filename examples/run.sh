#!/usr/bin/env bash
# Renders the example configuration with absolute paths into a working
# directory and runs the supervisor on it in the foreground (control port
# 9000). Ctrl-C ends it. Configuration changes made over the control
# interface are written back to <work dir>/watchdog.conf.
#
#   examples/run.sh <VantrelWatchdog binary> [work dir]
set -euo pipefail
binary=$(readlink -f "${1:?usage: $0 <VantrelWatchdog binary> [work dir]}")
here=$(cd "$(dirname "$0")" && pwd)
work=${2:-$(mktemp -d /tmp/watchdog-example.XXXXXX)}
mkdir -p "$work"
work=$(cd "$work" && pwd)
# Captured output goes to session files only when this directory exists.
mkdir -p "$work/log/VantrelWatchdog.log.sessions"
sed -e "s|@BIN_DIR@|$here/bin|g" -e "s|@WORK_DIR@|$work|g" "$here/watchdog.conf.in" > "$work/watchdog.conf"
echo "run.sh: working directory $work, log $work/log/VantrelWatchdog.log, control port 9000" >&2
cd "$work"
exec "$binary" --port=9000 "$work/watchdog.conf"
