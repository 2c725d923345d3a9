# A three-node RabbitMQ cluster on loopback with the MQTT plugin, for
# scripts/fleet.sh (sourced; it uses its work, pids, wait_for, pick_port,
# site_tls and tls_dir). With site_tls on, each node's MQTT listener is TLS
# only and admits only clients whose certificate the run's CA signed.
# Each node has its own name (<run>-N@localhost, <run> from the name of the
# run's directory, so that runs on one machine never share a node), ports and
# data directory under $work/rabbitmq-N; the Erlang cookie lives in $work, never in the
# user's home. Debian's rabbitmq-server runs the nodes as this user.

rabbitmq_bin=/usr/lib/rabbitmq/bin
declare -a rabbit_mqtt_port rabbit_pid
rabbit_epmd_was_running=false
pidof epmd >/dev/null && rabbit_epmd_was_running=true

rabbit_run=$(basename "$work" | tr -c 'A-Za-z0-9\n' '-')
rabbit_node() { echo "$rabbit_run-$1@localhost"; }
rabbit_ctl() { HOME="$work" "$rabbitmq_bin/rabbitmqctl" -n "$(rabbit_node "$1")" "${@:2}"; }

# Starts node n (1 to 3) in the background.
start_rabbit_node() {
  local dir="$work/rabbitmq-$1"
  mkdir -p "$dir"
  pick_port "rabbit_mqtt_port[$1]"
  local amqp_port dist_port
  pick_port amqp_port
  pick_port dist_port
  echo "[rabbitmq_mqtt]." >"$dir/enabled_plugins"
  if [[ "$site_tls" == on ]]; then
    cat >"$dir/rabbitmq.conf" <<CONF
listeners.tcp.default = 127.0.0.1:$amqp_port
mqtt.listeners.tcp = none
mqtt.listeners.ssl.default = 127.0.0.1:${rabbit_mqtt_port[$1]}
ssl_options.cacertfile = $tls_dir/ca.pem
ssl_options.certfile = $tls_dir/broker.pem
ssl_options.keyfile = $tls_dir/broker.key
ssl_options.verify = verify_peer
ssl_options.fail_if_no_peer_cert = true
CONF
  else
    cat >"$dir/rabbitmq.conf" <<CONF
listeners.tcp.default = 127.0.0.1:$amqp_port
mqtt.listeners.tcp.default = 127.0.0.1:${rabbit_mqtt_port[$1]}
CONF
  fi
  HOME="$work" RABBITMQ_NODENAME="$(rabbit_node "$1")" RABBITMQ_NODE_IP_ADDRESS=127.0.0.1 \
    RABBITMQ_NODE_PORT="$amqp_port" RABBITMQ_DIST_PORT="$dist_port" ERL_EPMD_ADDRESS=127.0.0.1 \
    RABBITMQ_MNESIA_BASE="$dir/mnesia" RABBITMQ_LOG_BASE="$dir/log" RABBITMQ_PID_FILE="$dir/pid" \
    RABBITMQ_CONFIG_FILE="$dir/rabbitmq.conf" RABBITMQ_ENABLED_PLUGINS_FILE="$dir/enabled_plugins" \
    RABBITMQ_ADVANCED_CONFIG_FILE="$dir/advanced.config" RABBITMQ_CONF_ENV_FILE="$dir/rabbitmq-env.conf" \
    "$rabbitmq_bin/rabbitmq-server" >"$dir/server.out" 2>&1 &
  rabbit_pid[$1]=$!
}
rabbit_node_up() {
  kill -0 "${rabbit_pid[$1]}" 2>/dev/null || { echo "fleet: RabbitMQ node $1 did not start: see $work/rabbitmq-$1/" >&2; exit 1; }
  rabbit_ctl "$1" await_startup --timeout 1 >/dev/null 2>&1
}
# The Erlang VM under node n's start script: what a kill -9 of the node hits.
rabbit_vm() { ps -o pid= --ppid "${rabbit_pid[$1]}" | head -n 1 | tr -d ' ' || true; }

# Starts the three nodes together, then joins nodes 2 and 3 to node 1.
start_rabbitmq_cluster() {
  for n in 1 2 3; do start_rabbit_node "$n"; done
  for n in 1 2 3; do wait_for "RabbitMQ node $n to start" rabbit_node_up "$n"; done
  for n in 2 3; do
    { rabbit_ctl "$n" stop_app && rabbit_ctl "$n" join_cluster "$(rabbit_node 1)" && rabbit_ctl "$n" start_app; } \
      >>"$work/rabbitmq-$n/cluster.out" 2>&1 ||
      { echo "fleet: RabbitMQ node $n could not join the cluster: see $work/rabbitmq-$n/cluster.out" >&2; exit 1; }
  done
}

# Ends every node and, when this run started it, Erlang's port mapper.
stop_rabbitmq_cluster() {
  local n vm
  for n in 1 2 3; do
    [[ -n "${rabbit_pid[$n]:-}" ]] || continue
    vm=$(rabbit_vm "$n")
    if [[ -n "$vm" ]]; then kill -9 "$vm" 2>/dev/null || true; fi
    kill "${rabbit_pid[$n]}" 2>/dev/null || true
    wait "${rabbit_pid[$n]}" 2>/dev/null || true
  done
  if ! $rabbit_epmd_was_running; then
    local epmd
    epmd=$(pidof epmd || true)
    if [[ -n "$epmd" ]]; then kill "$epmd" 2>/dev/null || true; fi
  fi
}
