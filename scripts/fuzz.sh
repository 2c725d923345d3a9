#!/usr/bin/env bash
# Runs every fuzz target of fuzz/ for FUZZ_SECONDS seconds each (default 60),
# one after the other, with leak detection. Usage: scripts/fuzz.sh BUILD_DIR,
# where BUILD_DIR is a clang tree configured with -DKSCDP_FUZZ=ON and built
# (`make fuzz` does both).
#
# Each target starts from its seed corpus in fuzz/corpus/<target>/ and from
# what earlier runs found (BUILD_DIR/fuzz-corpus/<target>/, where new inputs
# go). A crash, a leak, a broken invariant, an escaped exception (it aborts) or
# a time-out fails the run; the input is kept in BUILD_DIR/fuzz-artifacts/ and
# the target's output in BUILD_DIR/fuzz-logs/.
set -euo pipefail
cd "$(dirname "$0")/.."

build=${1:?usage: scripts/fuzz.sh BUILD_DIR}
seconds=${FUZZ_SECONDS:-60}
targets=(jobs_answer daemon_answer config_text engine_calls)

dictionary() {
  case "$1" in
    jobs_answer | daemon_answer) echo fuzz/dictionaries/json_answer.dict ;;
    config_text) echo fuzz/dictionaries/config_text.dict ;;
  esac
}

passed=0
failed=0
for target in "${targets[@]}"; do
  corpus="$build/fuzz-corpus/$target"
  artifacts="$build/fuzz-artifacts/$target"
  log="$build/fuzz-logs/$target.log"
  mkdir -p "$corpus" "$artifacts" "$(dirname "$log")"
  options=(-max_total_time="$seconds" -detect_leaks=1 -timeout=10 -rss_limit_mb=2048
           -print_final_stats=1 -artifact_prefix="$artifacts/")
  dict=$(dictionary "$target")
  [[ -n "$dict" ]] && options+=(-dict="$dict")

  echo "fuzz: $target for ${seconds}s"
  if ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
     "$build/bin/fuzz_$target" "${options[@]}" "$corpus" "fuzz/corpus/$target" >"$log" 2>&1; then
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    echo "fuzz: $target ok, $runs runs"
    passed=$((passed + 1))
  else
    echo "fuzz: $target FAILED; the end of $log:" >&2
    tail -n 40 "$log" >&2
    failed=$((failed + 1))
  fi
done

echo "fuzz: $passed passed, $failed failed"
((failed == 0))
