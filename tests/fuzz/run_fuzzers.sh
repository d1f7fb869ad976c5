#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (address and undefined-behaviour
# sanitizers on, every library of the project instrumented for coverage) and
# runs each over its committed corpus: by default once over every input (a
# regression check of a few seconds), with FUZZ_SECONDS=N fuzzing for N seconds.
#
#   bash tests/fuzz/run_fuzzers.sh              # every corpus input once
#   FUZZ_SECONDS=3600 bash tests/fuzz/run_fuzzers.sh fuzz_options   # one target, one hour
#
# For a long run by hand, keep new inputs out of the repository:
#   build-fuzz/tests/fuzz/fuzz_ctl /tmp/my-corpus tests/fuzz/corpus/fuzz_ctl \
#       -max_total_time=36000 -rss_limit_mb=2048 -jobs=2 -workers=2
# and merge the few interesting ones back with -merge=1 into tests/fuzz/corpus/<target>/.
# A crash leaves build-fuzz/crash-<target>-<hash>; replay it with the target
# and that file as its only argument.
#
# Prints "N passed, N failed" (one per target) as its last line; exits 1 when
# a target found a fault.
set -uo pipefail
cd "$(dirname "$0")/../.."
root=$(pwd)
build=$(realpath -m "${FUZZ_BUILD_DIR:-$root/build-fuzz}")   # the targets run from a scratch directory
seconds=${FUZZ_SECONDS:-0}
work=$(mktemp -d /tmp/vantrel-fuzz-XXXXXX)
trap 'rm -rf "$work"' EXIT

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for f in tests/fuzz/fuzz_*.cpp; do targets+=("$(basename "$f" .cpp)"); done
fi

# tests/fuzz/CMakeLists.txt instruments the libraries under test itself (and
# refuses a compiler other than clang).
CC=clang CXX=clang++ cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DVANTREL_FUZZ=ON >"$work/configure.log" 2>&1 ||
  { cat "$work/configure.log"; echo "0 passed, 1 failed"; exit 1; }
cmake --build "$build" --target "${targets[@]}" -j"$(nproc)" >"$work/build.log" 2>&1 ||
  { tail -50 "$work/build.log"; echo "0 passed, 1 failed"; exit 1; }

export ASAN_OPTIONS=${ASAN_OPTIONS:-halt_on_error=1:detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}

passed=0
failed=0
for t in "${targets[@]}"; do
  mkdir -p "$work/$t"
  args=(-rss_limit_mb=2048 -timeout=20 -print_final_stats=1 -artifact_prefix="$build/crash-$t-")
  # -runs=0 reads and runs every corpus input once, then stops.
  if [ "$seconds" -gt 0 ]; then args+=(-max_total_time="$seconds"); else args+=(-runs=0); fi
  # The option reader reports on standard error by design; keep the run readable.
  [ "$t" = fuzz_options ] && args+=(-close_fd_mask=2)
  [ "$t" = fuzz_ctl ] && args+=(-dict="$root/tests/fuzz/xmlrpc.dict")
  echo "== $t: $([ "$seconds" -gt 0 ] && echo "${seconds}s" || echo "corpus")"
  # New inputs go to a scratch directory first, the committed corpus is only read.
  dirs=("$work/$t" "$root/tests/fuzz/corpus/$t")
  if (cd "$work" && timeout $((seconds + 120)) "$build/tests/fuzz/$t" "${args[@]}" "${dirs[@]}") \
      >"$work/$t.log" 2>&1; then
    grep -E "^stat::number_of_executed_units|^Done" "$work/$t.log" | tail -2
    passed=$((passed + 1))
  else
    tail -60 "$work/$t.log"
    echo "== $t FAILED (artifact: $build/crash-$t-*)"
    failed=$((failed + 1))
  fi
done

echo "fuzz: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
