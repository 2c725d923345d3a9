# What scripts/fleet.sh and scripts/chaos.sh share (sourced): waiting within
# the run's bound, free loopback ports and mosquitto brokers. They set
# run_name ("fleet"), bound (seconds), bound_key (the variable that sets it),
# started ($SECONDS at the start), work (the run's directory) and pids (what
# their cleanup ends) first.

# Fails, naming `what`, once the run's time is up.
within_bound() {
  ((SECONDS - started < bound)) && return 0
  echo "$run_name: gave up after $bound s ($bound_key) waiting for $1; files in $work" >&2
  exit 1
}
# Waits, within the bound, until `command` succeeds.
wait_for() {
  local what=$1
  shift
  until "$@"; do
    within_bound "$what"
    sleep 0.1
  done
}
port_is_free() { ! (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }
listening() { ! port_is_free "$1"; }
# Sets the variable named $1 to a free loopback port that this run has not
# handed out before, below the kernel's ephemeral ports (32768 and up), which
# outgoing connections take at any time. SRANDOM leaves RANDOM's sequence,
# which a seeded run draws from, alone.
handed_out=" "
pick_port() {
  local port
  for _ in $(seq 100); do
    port=$((20000 + SRANDOM % 12768))
    if [[ "$handed_out" != *" $port "* ]] && port_is_free "$port"; then
      handed_out+="$port "
      printf -v "$1" '%s' "$port"
      return 0
    fi
  done
  echo "$run_name: no free port found" >&2
  exit 1
}
# Waits, within the bound, until every process named has exited.
wait_for_exits() {
  local pid
  for pid in "$@"; do
    while kill -0 "$pid" 2>/dev/null; do
      within_bound "the engines to finish"
      sleep 0.1
    done
  done
}
# Seconds since `start` (a date +%s.%N), with one decimal.
seconds_since() { awk "BEGIN { printf \"%.1f\", $(date +%s.%N) - $1 }"; }

# Broker n on port $2, its state in $work/broker-n, with the further
# configuration lines of $3. It saves its subscriber's session and the
# messages queued for it when it stops, and loads them when it starts again.
# Started as root, mosquitto switches to the user its configuration names
# (else "mosquitto", who could not write the state here): this one.
declare -a broker_pid
start_broker() {
  local dir="$work/broker-$1"
  mkdir -p "$dir"
  cat >"$dir/mosquitto.conf" <<CONF
listener $2 127.0.0.1
allow_anonymous true
user $(id -un)
persistence true
persistence_location $dir/
max_queued_messages 0
${3:-}
CONF
  /usr/sbin/mosquitto -c "$dir/mosquitto.conf" >>"$dir/mosquitto.log" 2>&1 &
  broker_pid[$1]=$!
  pids+=($!)
  wait_for "broker $1 to listen on port $2" broker_listens "$1" "$2"
}
broker_listens() {
  kill -0 "${broker_pid[$1]}" 2>/dev/null ||
    { echo "$run_name: broker $1 did not start: see $work/broker-$1/mosquitto.log" >&2; exit 1; }
  listening "$2"
}
