#!/usr/bin/env bash
# An engine whose system calls fail: one engine simulator against a master
# simulator and a mosquitto broker, with libfiu's POSIX preload library and
# kscdp-call-faults.so in the engine process only. A set of failure points
# drawn from FAULTS_SEED (the same seed, the same points and chances) fails,
# at random, calls that the library and the libraries it uses make:
#   - I/O: open, read, write (and their p- forms), fsync and fdatasync,
#     ftruncate, mmap, fcntl locks, rename, unlink;
#   - memory: malloc, calloc, realloc;
#   - network: socket, connect, send, recv, poll.
# The failures start once the library is loaded and last through
# stop_alert_thread and the library's unload. Every other seed also stops the
# broker for the rest of the engine's run. Then scripts/faults_check.py
# checks the invariants over the engine's output and log, the subscriber's
# alerts, the outbox left behind and the master simulator's record, prints
# one line
#
#   faults: seed S, A of A alerts kept (D delivered, O in the outbox), F calls failed (I/O i, memory m, network n), <seconds> s
#
# and, for each invariant that failed, what broke. Exit status 0 when every
# invariant holds, 1 otherwise, 2 for bad use.
#
#   scripts/faults.sh [BUILD_DIR]
#   FAULTS_SEED (1), FAULTS_SECONDS (120: the bound of the whole run),
#   FAULTS_VMS (4), FAULTS_POLLS (120: about as many polls of 5 alerts each),
#   FAULTS_MIN_FAILED (200: fewer failed calls, or none of a kind, fail the run)
set -euo pipefail

build=${1:-build}
seed=${FAULTS_SEED:-1}
bound=${FAULTS_SECONDS:-120}
vms=${FAULTS_VMS:-4}
polls=${FAULTS_POLLS:-120}
min_failed=${FAULTS_MIN_FAILED:-200}
http_timeout=5
poll_interval=0.2
alerts_per_poll=5
job_seconds=$(awk "BEGIN { printf \"%d\", $polls * $poll_interval + 0.5 }")
topic=keepstone/notifications

# shellcheck source=scripts/seeded_draws.sh
. "$(dirname "$0")/seeded_draws.sh"
require_whole_numbers faults "$seed" "$bound" "$vms" "$polls" "$min_failed"
((bound >= 30 && vms >= 1 && polls >= 5)) || { echo "faults: at least 30 seconds, 1 VM and 5 polls" >&2; exit 2; }
echo "faults: seed $seed"
bin="$build/bin"
fiu_preload=/usr/lib/fiu/fiu_posix_preload.so
schedule_preload="$build/lib/kscdp-call-faults.so"
for program in "$bin/kscdp-master-sim" "$bin/kscdp-engine-sim" /usr/sbin/mosquitto \
  "$(command -v mosquitto_sub || true)" /usr/bin/python3; do
  [[ -n "$program" && -x "$program" ]] || { echo "faults: missing $program (run 'make faults')" >&2; exit 2; }
done
for library in "$fiu_preload" "$schedule_preload"; do
  [[ -f "$library" ]] || { echo "faults: missing $library (run 'make deps faults')" >&2; exit 2; }
done

# The points and their chances come first, from the seed alone. Each kind
# keeps at least one point; the chance of a point is drawn within its kind's
# range (per mille): syncs and locks fail more often than allocations, of
# which a program makes thousands.
RANDOM=$seed
points=()
# Adds, with probability 2/3 (always when $1 is "always"), point $2 with a
# chance between $3 and $4 per mille.
maybe_fail() {
  local chance
  draw chance "$3" "$4"
  [[ $1 == always ]] || ((RANDOM % 3)) || return 0
  points+=("$2=$(awk "BEGIN { printf \"%.4f\", $chance / 1000 }")")
}
maybe_fail always posix/io/rw/pwrite 20 60
maybe_fail often posix/io/rw/write 10 50
maybe_fail often posix/io/rw/pread 10 50
maybe_fail often posix/io/rw/read 10 40
maybe_fail always posix/io/oc/open 10 50
maybe_fail often posix/io/sync/fdatasync 50 150
maybe_fail often posix/io/sync/fsync 50 150
maybe_fail often posix/io/rw/ftruncate 20 100
maybe_fail often posix/mm/mmap 10 60
maybe_fail often posix/io/lock/fcntl 10 40
maybe_fail often posix/io/dir/rename 20 100
maybe_fail often posix/io/dir/unlink 20 100
maybe_fail always libc/mm/malloc 2 5
maybe_fail often libc/mm/calloc 1 10
maybe_fail often libc/mm/realloc 1 10
maybe_fail always posix/io/net/connect 20 100
maybe_fail often posix/io/net/socket 20 80
maybe_fail often posix/io/net/send 10 50
maybe_fail often posix/io/net/recv 10 50
maybe_fail always posix/io/net/poll 10 50
outbox_sync=normal
((RANDOM % 2)) && outbox_sync=full
# Every other seed stops the broker once the engine has raised this many of
# its own alerts (of about 5 per poll), and starts it again only once the
# engine has stopped: what it raised since waits at the stop, and must be in
# the outbox.
broker_away_after=0
((RANDOM % 2)) && draw broker_away_after "$polls" $((polls * 4))

work=$(mktemp -d "${TMPDIR:-/tmp}/kscdp-faults.XXXXXX")
printf '%s\n' "${points[@]}" >"$work/points"
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill -9 "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
}
trap cleanup EXIT
trap 'echo; echo "faults: interrupted" >&2; exit 130' INT TERM

started=$SECONDS
run_name=faults
bound_key=FAULTS_SECONDS
site_tls=off  # the faults are the host's own calls, not the links
# shellcheck source=scripts/site_run.sh
. "$(dirname "$0")/site_run.sh"

pick_port broker_port
start_broker 1 "$broker_port"
# Jobs last as long as the engine's polls: it raises alerts before each.
start_master --job-seconds "$job_seconds"
mosquitto_sub -h 127.0.0.1 -p "$broker_port" -q 1 -c -i kscdp-faults -t "$topic" >"$work/alerts.jsonl" &
pids+=($!)
wait_for "the subscriber" grep -qs 'New client connected.*kscdp-faults' "$work/broker-1/mosquitto.log"

cat >"$work/keepstone.conf" <<CONF
server = 127.0.0.1
host_name = faults-engine
rest_url = $master_url
ksqd_url = $master_url
broker = 127.0.0.1:$broker_port
outbox = $work/outbox/outbox.db
outbox_sync = $outbox_sync
http_timeout = $http_timeout
CONF

away=""
((broker_away_after > 0)) && away=", the broker away after alert $broker_away_after"
echo "faults: ${#points[@]} failure points, outbox_sync $outbox_sync$away; files in $work"
run_started=$(date +%s.%N)
KEEPSTONE_CONF="$work/keepstone.conf" KSU_LOG_FILE="$work/kscdp.log" \
  KSCDP_CALL_FAULTS="${points[*]}" KSCDP_CALL_FAULTS_SEED="$seed" KSCDP_CALL_FAULTS_COUNTS="$work/failed-calls" \
  LD_PRELOAD="$schedule_preload $fiu_preload" \
  "$bin/kscdp-engine-sim" --library "$build/lib/libkscdp.so.1" --vms "$vms" --seed "$seed" \
  --poll-interval "$poll_interval" --timeout $((bound / 2)) --alerts-per-poll "$alerts_per_poll" \
  --record 1 >"$work/engine.out" 2>&1 &
engine_pid=$!
pids+=($engine_pid)
wait_for "the engine to load the library" grep -qs '^library: ' "$work/engine.out"
kill -USR2 "$engine_pid"

accepted_up_to() { sed -n 's/^record: alerts accepted up to //p' "$work/engine.out" | tail -n 1; }
status=0
hung=0
broker_away=0
while kill -0 "$engine_pid" 2>/dev/null; do
  if ((SECONDS - started >= bound)); then
    hung=1
    kill -ABRT "$engine_pid" 2>/dev/null || true
    break
  fi
  raised=$(accepted_up_to)
  if ((broker_away_after > 0 && !broker_away && ${raised:-0} >= broker_away_after)); then
    kill "${broker_pid[1]}"
    wait "${broker_pid[1]}" 2>/dev/null || true
    broker_away=1
  fi
  sleep 0.1
done
wait "$engine_pid" || status=$?
seconds=$(seconds_since "$run_started")
# The subscriber gets what the broker kept.
((broker_away)) && start_broker 1 "$broker_port"

master_request GET /sim/requests >"$work/master-requests.json"

check() {
  /usr/bin/python3 -B "$(dirname "$0")/faults_check.py" --work "$work" --seed "$seed" --status "$status" \
    --hung "$hung" --http-timeout "$http_timeout" --seconds "$seconds" --min-failed "$min_failed" "$@"
}
# Delivered alerts may still be on their way to the subscriber.
waited=$SECONDS
until check --quiet; do
  ((SECONDS - waited < 10)) || break
  sleep 0.5
done
if check; then
  rm -rf "$work"
  exit 0
fi
echo "faults: files in $work" >&2
trap - EXIT
cleanup
exit 1
