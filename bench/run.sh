#!/usr/bin/env bash
# Runs every benchmark of a Release build tree, then prints one table of the
# results against their targets (bench/summary.py).
#
#   bench/run.sh BUILD_DIR
#
# Each program's own report and JSON output stay in BUILD_DIR/bench-results.
set -euo pipefail

build=${1:?usage: bench/run.sh BUILD_DIR}
here=$(cd "$(dirname "$0")" && pwd)
bin=$build/bin
results=$build/bench-results
callgrind_operations=5000
mkdir -p "$results"

benchmark() {
  local program=$1
  shift
  echo "bench: $program" >&2
  "$bin/$program" --benchmark_out="$results/$program.json" --benchmark_out_format=json "$@" \
    >"$results/$program.txt" 2>&1 || { cat "$results/$program.txt" >&2; exit 1; }
}

# Contenders that are compared run their repetitions interleaved.
benchmark kscdp_evict_list_bench --benchmark_enable_random_interleaving=true
benchmark kscdp_gateway_bench
benchmark kscdp_job_polling_bench --benchmark_enable_random_interleaving=true
benchmark kscdp_alert_delivery_bench --benchmark_enable_random_interleaving=true
benchmark kscdp_concurrent_alerts_bench

# Instructions per gateway operation: callgrind counts only what runs inside
# the driver's measuredOperations.
for operation in evict alert; do
  echo "bench: callgrind, $callgrind_operations x $operation" >&2
  valgrind --tool=callgrind --toggle-collect='*measuredOperations*' \
    --callgrind-out-file="$results/callgrind.$operation.out" \
    "$bin/kscdp_gateway_callgrind_driver" "$operation" "$callgrind_operations" \
    >"$results/callgrind.$operation.txt" 2>&1 || { cat "$results/callgrind.$operation.txt" >&2; exit 1; }
done

# Instructions per polled job: one poll of every job (after a first one that
# opened the connection), counted on the polling thread only.
for contender in library curl-parse curl; do
  echo "bench: callgrind, polling, $contender" >&2
  valgrind --tool=callgrind --toggle-collect='*measuredPolls*' \
    --callgrind-out-file="$results/callgrind.poll-$contender.out" \
    "$bin/kscdp_job_polling_bench" --count "$contender" \
    >"$results/callgrind.poll-$contender.txt" 2>&1 || { cat "$results/callgrind.poll-$contender.txt" >&2; exit 1; }
done

python3 "$here/summary.py" "$results" "$callgrind_operations"
