# What scripts/demo.sh, fleet.sh, chaos.sh and faults.sh share (sourced): waiting within
# the run's bound, free loopback ports, the run's certificates, mosquitto
# brokers, the master simulator and subscribers. They set run_name ("fleet"),
# bound (seconds), bound_key (the variable that sets it), started ($SECONDS
# at the start), work (the run's directory), bin (the built programs),
# site_tls (on or off) and pids (what their cleanup ends) first.
#
# With site_tls on, every link is TLS and both ends prove who they are, as on
# a site that follows keepstone.conf(5): brokers and the master admit only
# clients whose certificate the run's CA signed, and engines and subscribers
# present theirs.

site_scripts=$(dirname "${BASH_SOURCE[0]}")

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

# Fails for a site_tls other than on or off.
check_site_tls() {
  [[ "$site_tls" == on || "$site_tls" == off ]] && return 0
  echo "$run_name: $1 is on or off, not '$site_tls'" >&2
  exit 2
}

# With site_tls on, a CA and the certificates of scripts/make-certs.sh in
# $work/tls (tls_dir).
tls_dir="$work/tls"
make_run_certificates() {
  [[ "$site_tls" == on ]] || return 0
  bash "$site_scripts/make-certs.sh" "$tls_dir" ||
    { echo "$run_name: cannot make the run's certificates with openssl" >&2; exit 1; }
}

# The keepstone.conf lines of an engine's TLS: the host's keys for the
# master and the broker's keys, one client certificate for both.
engine_tls_lines() {
  [[ "$site_tls" == on ]] || return 0
  cat <<CONF
ca_file = $tls_dir/ca.pem
cert_file = $tls_dir/client.pem
key_file = $tls_dir/client.key
broker_tls = on
broker_ca_file = $tls_dir/ca.pem
broker_cert_file = $tls_dir/client.pem
broker_key_file = $tls_dir/client.key
CONF
}

# Broker n on port $2, its state in $work/broker-n, with the further
# configuration lines of $3. It saves its subscriber's session and the
# messages queued for it when it stops, and loads them when it starts again.
# Started as root, mosquitto switches to the user its configuration names
# (else "mosquitto", who could not read the run's keys nor write the state
# here): this one.
declare -a broker_pid
start_broker() {
  local dir="$work/broker-$1" tls_lines=""
  mkdir -p "$dir"
  if [[ "$site_tls" == on ]]; then
    tls_lines="cafile $tls_dir/ca.pem
certfile $tls_dir/broker.pem
keyfile $tls_dir/broker.key
require_certificate true"
  fi
  cat >"$dir/mosquitto.conf" <<CONF
listener $2 127.0.0.1
$tls_lines
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

# mosquitto_sub on the broker at port $1 with the further arguments, in the
# background (its pid in pids and subscriber_pid), presenting the run's
# client certificate. Over TLS it exits when its broker is killed -9 rather
# than wait for it: whoever restarts the broker starts it again.
subscribe() {
  local port=$1 tls_args=()
  shift
  [[ "$site_tls" == on ]] && tls_args=(--cafile "$tls_dir/ca.pem" --cert "$tls_dir/client.pem" --key "$tls_dir/client.key")
  mosquitto_sub -h 127.0.0.1 -p "$port" "${tls_args[@]}" "$@" &
  subscriber_pid=$!
  pids+=($!)
}

# The master simulator on a free port with the further arguments, over
# https with client certificates when site_tls is on; sets master_url and
# master_port.
start_master() {
  local tls_args=()
  [[ "$site_tls" == on ]] &&
    tls_args=(--tls-cert "$tls_dir/master.pem" --tls-key "$tls_dir/master.key" --client-ca "$tls_dir/ca.pem")
  "$bin/kscdp-master-sim" --port 0 "${tls_args[@]}" "$@" >"$work/master-sim.out" 2>&1 &
  pids+=($!)
  wait_for "the master simulator to listen" grep -qs 'listening on' "$work/master-sim.out"
  master_url=$(grep -Eo 'https?://[0-9.]*:[0-9]*' "$work/master-sim.out" | head -n 1)
  master_port=${master_url##*:}
}

# A request to the master simulator's own interface: METHOD PATH; the
# answer's body on stdout.
master_request() {
  local tls_args=()
  [[ "$site_tls" == on ]] &&
    tls_args=(--cacert "$tls_dir/ca.pem" --cert "$tls_dir/client.pem" --key "$tls_dir/client.key")
  curl -sS --max-time 10 "${tls_args[@]}" -X "$1" "$master_url$2"
}
