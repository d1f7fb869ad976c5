#!/usr/bin/env bash
# Sets everything up and runs every test in three passes:
#   1. the normal build (build/) and the whole suite;
#   2. the whole suite again built with AddressSanitizer + UBSan (build-asan/);
#   3. the tests labelled "threads" built with ThreadSanitizer (build-tsan/).
# The suite includes every fuzz target replaying its committed corpus once
# (ctest fuzz.*), a regression check; long fuzzing is scripts/nightly.sh.
# Sanitizer reports of every process, the supervisor under the end-to-end tests
# included, go to files under build-*/sanitizer-reports/; any report fails its pass.
#
#   SKIP_SANITIZERS=1  only the normal suite
#   BUILD_ROOT=DIR     where the build directories go (default: the checkout)
#
# Ends with the sum over all passes, "total: N passed, N failed", and the
# size of the test code against the code (scripts/test-size.sh).
set -uo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
bash scripts/setup.sh || { echo "total: 0 passed, 1 failed"; exit 1; }
jobs=$(nproc)
out=${BUILD_ROOT:-$root}
t_start=$(date +%s)

total_passed=0
total_failed=0
report=()

# Adds one ctest run's counts ("NN% tests passed, F tests failed out of T").
count_ctest() {
  local name=$1 log=$2 line t f
  line=$(grep -E "tests passed, [0-9]+ tests? failed out of [0-9]+" "$log" | tail -1)
  if [ -z "$line" ]; then
    total_failed=$((total_failed + 1))
    report+=("$name: no test summary (build or ctest failed)")
    return
  fi
  f=$(sed -E 's/.* ([0-9]+) tests? failed out of ([0-9]+).*/\1/' <<<"$line")
  t=$(sed -E 's/.* ([0-9]+) tests? failed out of ([0-9]+).*/\2/' <<<"$line")
  total_passed=$((total_passed + t - f))
  total_failed=$((total_failed + f))
  report+=("$name: $((t - f)) passed, $f failed")
}

# Sanitizer reports left by any process of a pass count as one failure each.
count_reports() {
  local name=$1 dir=$2 n
  n=$(find "$dir" -type f 2>/dev/null | wc -l)
  if [ "$n" -gt 0 ]; then
    echo "== $name: $n sanitizer report(s):"
    for f in "$dir"/*; do echo "--- $f"; head -60 "$f"; done
    total_failed=$((total_failed + n))
    report+=("$name: $n sanitizer report(s) in $dir")
  fi
}

# One pass: configure, build everything, run the whole suite.
run_pass() {
  local name=$1 dir=$2 exclude=$3 label=$4
  shift 4
  local log="$dir/test-pass.log"
  local t0
  t0=$(date +%s)
  mkdir -p "$dir"
  echo "== $name: configure and build in $dir"
  if ! cmake -S . -B "$dir" "$@" >"$dir/configure.log" 2>&1; then
    tail -30 "$dir/configure.log"
    total_failed=$((total_failed + 1)); report+=("$name: configure failed"); return
  fi
  # A pass that runs only labelled tests builds only what they run.
  local targets=()
  if [ -n "$label" ]; then
    targets=(--target VantrelWatchdog)
    for t in $(ctest --test-dir "$dir" -N -L "$label" | sed -nE 's/.*Test +#[0-9]+: unit\.([A-Za-z0-9_]+)$/\1/p'); do
      targets+=("$t")
    done
  fi
  if ! cmake --build "$dir" -j"$jobs" "${targets[@]}" >"$dir/build.log" 2>&1; then
    grep -E "error|Error" "$dir/build.log" | head -40
    total_failed=$((total_failed + 1)); report+=("$name: build failed"); return
  fi
  echo "== $name: ctest"
  # Twice the cores: the end-to-end tests mostly wait on the processes they drive.
  local args=(--test-dir "$dir" --output-on-failure -j"$((jobs * 2))")
  [ -n "$exclude" ] && args+=(-E "$exclude")
  [ -n "$label" ] && args+=(-L "$label")
  ctest "${args[@]}" 2>&1 | tee "$log"
  count_ctest "$name" "$log"
  echo "== $name: $(( $(date +%s) - t0 )) s"
}

# 1. The normal build.
# Line tables only: full debug information doubles the compile time of the
# template-heavy files and no test reads it.
run_pass normal "$out/build" "" "" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  "-DCMAKE_C_FLAGS_RELWITHDEBINFO=-O2 -g1 -DNDEBUG" "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O2 -g1 -DNDEBUG"

if [ -z "${SKIP_SANITIZERS:-}" ]; then
  # Tests that cannot work under a sanitizer, and why, are listed in
  # tests/sanitizer/exclude-*.txt (one ctest name pattern per line after the reason).
  # -O1 and line tables only: the sanitizers' usual setting, and much quicker to build.
  sanitizer_flags=(-DCMAKE_BUILD_TYPE=RelWithDebInfo "-DCMAKE_C_FLAGS_RELWITHDEBINFO=-O1 -g1"
                   "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1 -g1")
  exclude_of() { grep -vE '^\s*(#|$)' "$1" | paste -sd'|' -; }

  # 2. Address + undefined behaviour. Leak checking is on: the suppressions
  # file names each leak that belongs to a library and says why.
  reports="$out/build-asan/sanitizer-reports"
  rm -rf "$reports"; mkdir -p "$reports"
  export ASAN_OPTIONS="halt_on_error=1:detect_leaks=1:log_path=$reports/asan"
  export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1:log_path=$reports/ubsan"
  export LSAN_OPTIONS="suppressions=$root/tests/sanitizer/lsan.supp:print_suppressions=0"
  run_pass asan "$out/build-asan" "$(exclude_of tests/sanitizer/exclude-asan.txt)" "" \
    "${sanitizer_flags[@]}" -DVANTREL_ASAN=ON
  unset ASAN_OPTIONS UBSAN_OPTIONS LSAN_OPTIONS
  count_reports asan "$reports"

  # 3. Threads: only the tests whose code runs threads of its own.
  reports="$out/build-tsan/sanitizer-reports"
  rm -rf "$reports"; mkdir -p "$reports"
  export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:log_path=$reports/tsan:suppressions=$root/tests/sanitizer/tsan.supp"
  run_pass tsan "$out/build-tsan" "$(exclude_of tests/sanitizer/exclude-tsan.txt)" threads \
    "${sanitizer_flags[@]}" -DVANTREL_TSAN=ON
  unset TSAN_OPTIONS
  count_reports tsan "$reports"
fi

echo
echo "== summary ($(( $(date +%s) - t_start )) s)"
for r in "${report[@]}"; do echo "   $r"; done
echo "total: $total_passed passed, $total_failed failed"
bash scripts/test-size.sh
[ "$total_failed" -eq 0 ]
