#!/usr/bin/env bash
# Sets everything up and runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
jobs=$(nproc)
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure -j"$jobs"
