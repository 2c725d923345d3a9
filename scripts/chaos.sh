#!/usr/bin/env bash
# A site under faults: CHAOS_ENGINES engine simulators, each behind a fault
# proxy of its own (kscdp-fault-proxy) towards two mosquitto brokers listed
# as a cluster, the jobs interface and the request daemon of one master
# simulator. A schedule drawn from CHAOS_SEED (the same seed, the same
# schedule) injects, while the engines run:
#   - kill -9 of a broker and its restart 3 to 6 s later;
#   - a silent partition of one engine from every broker for 5 to 10 s;
#   - 1 to 3 s of latency on one engine's jobs interface, for 10 s;
#   - connection resets once the master has read a request (jobs and daemon);
#   - the master answering 503 for 3 s;
#   - one engine's brokers refusing every connection for 3 to 8 s, the open
#     ones reset: handshakes that fail, as from a broker that refuses TLS;
#   - one engine whose polls come 1.5 s apart, so that the jobs interface
#     (the master simulator's, which closes a connection idle for 1 s) has
#     closed the kept-alive connection before each poll;
#   - one engine killed -9 in the middle of its evictions (its daemon link
#     slowed so that they last) and started again on the same configuration
#     and outbox.
# Every link is TLS with client certificates, as on a site; CHAOS_TLS=off
# runs them in the clear. Then scripts/chaos_check.py checks the invariants over what the
# subscribers got, the master simulator's record and the engines' outputs,
# prints one line
#
#   chaos: seed S, N engines, V of V VMs done, A of A alerts delivered, D duplicates, F faults, K engines killed, <seconds> s
#
# and, for each invariant that failed, what broke and the fault before it.
# Exit status 0 when every invariant holds, 1 otherwise, 2 for bad use.
#
#   scripts/chaos.sh [BUILD_DIR]
#   CHAOS_SEED (1), CHAOS_ENGINES (10), CHAOS_SECONDS (180), CHAOS_FAULTS (12),
#   CHAOS_VMS per engine (5), CHAOS_TLS (on or off)
set -euo pipefail
set -f  # fault commands hold patterns for the proxy ("b* freeze"), not for the shell

build=${1:-build}
seed=${CHAOS_SEED:-1}
engines=${CHAOS_ENGINES:-10}
bound=${CHAOS_SECONDS:-180}
fault_count=${CHAOS_FAULTS:-12}
vms=${CHAOS_VMS:-5}
site_tls=${CHAOS_TLS:-on}
# How much an engine's resident memory may grow over a run that ends well.
memory_margin_kib=${CHAOS_MEMORY_MARGIN_KIB:-16384}
http_timeout=10
alerts_per_poll=2
poll_interval=0.5
topic=keepstone/notifications

# shellcheck source=scripts/seeded_draws.sh
. "$(dirname "$0")/seeded_draws.sh"
require_whole_numbers chaos "$seed" "$engines" "$bound" "$fault_count" "$vms" "$memory_margin_kib"
((engines >= 2 && bound >= 40 && fault_count >= 8)) ||
  { echo "chaos: at least 2 engines, 40 seconds and 8 faults (one of each kind)" >&2; exit 2; }
echo "chaos: seed $seed"
bin="$build/bin"
for program in "$bin/kscdp-master-sim" "$bin/kscdp-engine-sim" "$bin/kscdp-fault-proxy" /usr/sbin/mosquitto \
  "$(command -v mosquitto_sub || true)" "$(command -v curl || true)" /usr/bin/python3; do
  [[ -n "$program" && -x "$program" ]] || { echo "chaos: missing $program (run 'make chaos')" >&2; exit 2; }
done

# The schedule comes first, from the seed alone. Jobs take 45% of the bound;
# faults fall within them, and end 8 s before the first job does, so that the
# end of the run shows whether everything recovered.
RANDOM=$seed
job_seconds=$((bound * 45 / 100))
window=$((job_seconds - 11))
draw killed_engine 1 "$engines"
events=()  # "MILLISECONDS ACTION ARGUMENTS...", sorted below
schedule() { events+=("$(printf '%07d' "$1") ${*:2}"); }
kinds=(broker partition latency reset master refuse idle)
declare -a poll_interval_of
for ((f = 0; f < fault_count - 1; ++f)); do
  # Each kind once, then any; the engine killed mid-eviction is the last fault.
  if ((f < ${#kinds[@]})); then kind=${kinds[f]}; else kind=${kinds[RANDOM % ${#kinds[@]}]}; fi
  draw at 3000 $((window * 1000))
  draw engine 1 "$engines"
  case $kind in
    broker)
      draw node 1 2
      draw down 3000 6000
      schedule "$at" kill-broker "$node"
      schedule $((at + down)) restart-broker "$node" ;;
    partition) draw lasting 5000 10000 && schedule "$at" proxy "$engine" "b* freeze $lasting" ;;
    latency) draw delay 1000 3000 && schedule "$at" proxy "$engine" "rest delay $delay 10000" ;;
    reset)
      # The daemon is called while engines evict, at the start; the jobs
      # interface all along.
      if ((RANDOM % 2)); then
        schedule 0 proxy "$engine" "ksqd reset 1"
      else
        draw resets 1 3
        schedule "$at" proxy "$engine" "rest reset $resets"
      fi ;;
    master) schedule "$at" master-503 3 ;;
    refuse) draw lasting 3000 8000 && schedule "$at" proxy "$engine" "b* refuse $lasting" ;;
    idle) schedule 0 idle-polls "$engine" ;;
  esac
done
schedule 0 proxy "$killed_engine" "ksqd delay 1500 15000"
schedule 1 kill-engine "$killed_engine"
mapfile -t events < <(printf '%s\n' "${events[@]}" | sort)

work=$(mktemp -d "${TMPDIR:-/tmp}/kscdp-chaos.XXXXXX")
printf '%s\n' "${events[@]}" >"$work/schedule"
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill -9 "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  rm -rf "$work/tls"  # the run's private keys: a failed run's folder stays, they do not
}
trap cleanup EXIT
trap 'echo; echo "chaos: interrupted" >&2; exit 130' INT TERM

started=$SECONDS
run_name=chaos
bound_key=CHAOS_SECONDS
# shellcheck source=scripts/site_run.sh
. "$(dirname "$0")/site_run.sh"
check_site_tls CHAOS_TLS
make_run_certificates

# The brokers save their state after every change too: a standalone broker
# acknowledges a message before it is on disk, and a kill -9 would otherwise
# lose what it acknowledged since its last save, which no publisher can send
# again.
declare -a broker_port
broker_saves="autosave_interval 1
autosave_on_changes true"
for n in 1 2; do
  pick_port "broker_port[$n]"
  start_broker "$n" "${broker_port[$n]}" "$broker_saves"
done

start_master --job-seconds "$job_seconds" --threads $((4 * engines + 8))
scheme=${master_url%%:*}

# Broker n's subscriber, as the master's own: QoS 1, a session that outlives
# its connection; started again, it appends what its session kept.
declare -a subscriber_of
start_subscriber() {
  subscribe "${broker_port[$1]}" -q 1 -c -i "kscdp-chaos-$1" -t "$topic" >>"$work/alerts-$1.jsonl"
  subscriber_of[$1]=$subscriber_pid
}
# Broker n again, and its subscriber when that left with it.
restart_broker() {
  start_broker "$1" "${broker_port[$1]}" "$broker_saves"
  kill -0 "${subscriber_of[$1]}" 2>/dev/null || start_subscriber "$1"
}
for n in 1 2; do
  start_subscriber "$n"
  wait_for "the subscriber of broker $n" grep -qs 'New client connected.*kscdp-chaos' "$work/broker-$n/mosquitto.log"
done

# Each engine's proxy: routes b1 and b2 to the brokers, rest and ksqd to the master.
for i in $(seq "$engines"); do
  dir="$work/engine-$i"
  mkdir -p "$dir"
  "$bin/kscdp-fault-proxy" --control "$dir/proxy.ctl" --route b1 0 "127.0.0.1:${broker_port[1]}" \
    --route b2 0 "127.0.0.1:${broker_port[2]}" --route rest 0 "127.0.0.1:$master_port" \
    --route ksqd 0 "127.0.0.1:$master_port" >"$dir/proxy.out" 2>"$dir/proxy.err" &
  pids+=($!)
done
route() { sed -n "s/^route $2 //p" "$work/engine-$1/proxy.out"; }
for i in $(seq "$engines"); do
  wait_for "the proxy of engine $i" grep -qs '^ready$' "$work/engine-$i/proxy.out"
  cat >"$work/engine-$i/keepstone.conf" <<CONF
server = 127.0.0.1
host_name = chaos-engine-$i
rest_url = $scheme://$(route "$i" rest)
ksqd_url = $scheme://$(route "$i" ksqd)
broker = $(route "$i" b1), $(route "$i" b2)
outbox = $work/engine-$i/outbox.db
http_timeout = $http_timeout
$(engine_tls_lines)
CONF
done

faults_log="$work/faults.log"
run_started=$(date +%s.%N)
elapsed_ms() { awk "BEGIN { printf \"%d\", ($(date +%s.%N) - $run_started) * 1000 }"; }
note() { echo "$(elapsed_ms) $*" >>"$faults_log"; }
declare -a engine_pid
# Engine i's run r (1, or 2 once restarted), alerts numbered from $3.
start_engine() {
  local dir="$work/engine-$1"
  KEEPSTONE_CONF="$dir/keepstone.conf" KSU_LOG_FILE="$dir/kscdp.log" \
    "$bin/kscdp-engine-sim" --library "$build/lib/libkscdp.so.1" --vms "$vms" --seed "$1" \
    --poll-interval "${poll_interval_of[$1]:-$poll_interval}" --timeout "$bound" --alerts-per-poll "$alerts_per_poll" \
    --first-alert "$3" --record 1 >"$dir/engine-$2.out" 2>&1 &
  engine_pid[$1]=$!
  pids+=($!)
}
passes() { local n; n=$(grep -cs "requestEviction: VM: " "$1" 2>/dev/null); echo "${n:-0}"; }
passes_logged() { (($(passes "$1") >= $2)); }
# Runs one scheduled action.
act() {
  case $1 in
    kill-broker)
      kill -9 "${broker_pid[$2]}" 2>/dev/null || true
      wait "${broker_pid[$2]}" 2>/dev/null || true
      note "kill -9 of broker $2" ;;
    restart-broker)
      restart_broker "$2"
      note "restart of broker $2" ;;
    proxy)
      echo "${*:3}" >"$work/engine-$2/proxy.ctl"
      note "engine $2: ${*:3}" ;;
    master-503)
      master_request POST "/sim/unavailable?seconds=$2" >/dev/null 2>&1 || true
      note "master answering 503 for $2 s" ;;
    idle-polls)
      poll_interval_of[$2]=1.5
      note "engine $2: polls 1.5 s apart, past the jobs interface's 1 s keep-alive" ;;
    kill-engine)
      # In the middle of its evictions: once two passes are logged, before its last.
      local log="$work/engine-$2/kscdp.log"
      wait_for "engine $2 to start evicting" passes_logged "$log" 2
      kill -9 "${engine_pid[$2]}"
      wait "${engine_pid[$2]}" 2>/dev/null || true
      note "kill -9 of engine $2 after $(passes "$log") of its $vms passes"
      start_engine "$2" 2 1000000
      note "restart of engine $2 on the same configuration and outbox" ;;
  esac
}

echo "chaos: $engines engines of $vms VMs, jobs of $job_seconds s, $fault_count faults; files in $work"
for event in "${events[@]}"; do
  read -r at action args <<<"$event"
  ((10#$at == 0)) || break
  act "$action" $args
done
for i in $(seq "$engines"); do start_engine "$i" 1 0; done
for event in "${events[@]}"; do
  read -r at action args <<<"$event"
  ((10#$at == 0)) && continue
  while (($(elapsed_ms) < 10#$at)); do
    within_bound "the fault schedule"
    sleep 0.05
  done
  act "$action" $args
done

wait_for_exits "${engine_pid[@]}"
seconds=$(seconds_since "$run_started")
declare -a engine_status
for i in $(seq "$engines"); do
  status=0
  wait "${engine_pid[$i]}" || status=$?
  engine_status[$i]=$status
done
for n in 1 2; do kill -0 "${broker_pid[$n]}" 2>/dev/null || restart_broker "$n"; done
master_request GET /sim/requests >"$work/master-requests.json"

check() {
  /usr/bin/python3 "$(dirname "$0")/chaos_check.py" --work "$work" --seed "$seed" --engines "$engines" --vms "$vms" \
    --killed "$killed_engine" --statuses "${engine_status[*]}" --http-timeout "$http_timeout" --seconds "$seconds" \
    --faults "$fault_count" --memory-margin-kib "$memory_margin_kib" "$@"
}
# Alerts may still be on their way: wait for them within the bound.
until check --quiet; do
  ((SECONDS - started < bound)) || break
  sleep 0.5
done
if check; then
  rm -rf "$work"
  exit 0
fi
echo "chaos: files in $work" >&2
trap - EXIT
cleanup
exit 1
