#!/usr/bin/env bash
# Sets everything up and runs the supervisor in the foreground on the example
# configuration (control port 9000). Ctrl-C ends it.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$(nproc)" --target VantrelWatchdog
exec bash examples/run.sh build/src/VantrelWatchdog
