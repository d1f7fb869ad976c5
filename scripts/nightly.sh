#!/usr/bin/env bash
# The long checks that stay out of the test command: every fuzz target for
# FUZZ_SECONDS (default one hour each), the soak test against the built
# supervisor, and the benchmarks. Run it nightly or before a release.
#
#   FUZZ_SECONDS=N  per fuzz target (default 3600)
#   SOAK_SECONDS=N  soak duration (default the soak test's own)
#   SKIP_BENCH=1    no benchmarks
#
# Ends with "nightly: N passed, N failed".
set -uo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh || exit 1
passed=0
failed=0
step() {
  local name=$1
  shift
  echo "== $name"
  if "$@"; then passed=$((passed + 1)); else failed=$((failed + 1)); echo "== $name FAILED"; fi
}

step fuzz env FUZZ_SECONDS="${FUZZ_SECONDS:-3600}" bash tests/fuzz/run_fuzzers.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null &&
  cmake --build build -j"$(nproc)" --target VantrelWatchdog vantrelctl >/dev/null
step soak env WATCHDOG_BIN="$(pwd)/build/src/VantrelWatchdog" VANTRELCTL_BIN="$(pwd)/build/src/vantrelctl" ${SOAK_SECONDS:+SOAK_SECONDS=$SOAK_SECONDS} \
  PYTHONPATH=tests/e2e python3 -m unittest -v bench/soak_test.py
[ -z "${SKIP_BENCH:-}" ] && step bench bash bench/run_all.sh

echo "nightly: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
