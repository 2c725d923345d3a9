#!/usr/bin/env bash
# make upgrade-check: the packages of the previous release (the commit named
# in packaging/previous-release, built in a git worktree of its own inside
# the build tree) upgraded to this tree's with apt while alerts wait in the
# outbox, and rolled back and forth again, each time with the broker away
# while the engine runs on the old packages. After each return of this
# tree's packages an engine runs with the broker up, and every alert that
# waited must reach the broker.
#
# Installs the packages with apt-get as root and purges them at the end; it
# refuses to run where any of them is installed already. One summary line;
# the run's folder stays in the build tree.
#
#   scripts/upgrade_check.sh BUILD_DIR [JOBS]
set -euo pipefail

source_dir=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:?usage: upgrade_check.sh BUILD_DIR [JOBS]}" && pwd)
jobs=${2:-2}
run_name=upgrade-check
bound=${UPGRADE_CHECK_SECONDS:-1800}
bound_key=UPGRADE_CHECK_SECONDS
site_tls=off  # what is checked is the outbox across releases, not the links
started=$SECONDS
packages=(libkscdp1 libkscdp-dev kscdp-tools)

fail() {
  echo "upgrade-check: $*" >&2
  exit 1
}

((EUID == 0)) || fail "apt-get installs the packages: run it as root"
for package in "${packages[@]}"; do
  if dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
    fail "$package is installed already; this check installs and purges it: apt-get purge ${packages[*]} first"
  fi
done
read -r previous_commit previous_version < <(grep -v '^#' "$source_dir/packaging/previous-release")
this_version=$(sed -n 's/^project(kscdp VERSION \([0-9.]*\) .*/\1/p' "$source_dir/CMakeLists.txt")
new_debs=()
for package in "${packages[@]}"; do new_debs+=("$build/packages/${package}_${this_version}_amd64.deb"); done
for deb in "${new_debs[@]}"; do [[ -f "$deb" ]] || fail "missing $deb: run make package first"; done

# The previous release's packages stay in $check_dir between runs; each run's
# files, brokers included, in $work.
check_dir="$build/upgrade-check"
work="$check_dir/run"
rm -rf "$work"
mkdir -p "$work"
pids=()
# shellcheck source=site_run.sh
source "$source_dir/scripts/site_run.sh"

# The previous release's packages, built once per commit and kept.
previous_debs=()
previous_packages="$check_dir/packages-$previous_commit"
tree="$check_dir/tree-$previous_commit"
build_previous() {
  local build_start=$SECONDS
  rm -rf "$tree"
  git -C "$source_dir" worktree prune
  git -C "$source_dir" worktree add --detach "$tree" "$previous_commit" >/dev/null
  make -C "$tree" package BUILD=build JOBS="$jobs" \
    CMAKE_FLAGS="-DCMAKE_BUILD_TYPE=RelWithDebInfo -DKSCDP_BUILD_TESTS=OFF -DKSCDP_BUILD_BENCH=OFF" \
    >"$check_dir/build-$previous_commit.log" 2>&1 ||
    fail "building $previous_version ($previous_commit) failed: see $check_dir/build-$previous_commit.log"
  mkdir -p "$previous_packages.partial"
  cp "$tree"/build/packages/*.deb "$previous_packages.partial/"
  mv "$previous_packages.partial" "$previous_packages"
  echo "upgrade-check: built $previous_version from $previous_commit in $((SECONDS - build_start)) s"
}
remove_tree() {
  [[ -d "$tree" ]] || return 0
  git -C "$source_dir" worktree remove --force "$tree"
  git -C "$source_dir" worktree prune
}

installed_by_us=0
cleanup() {
  local pid
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  remove_tree || true
  if ((installed_by_us)); then
    apt_get purge "${packages[@]}" >>"$work/apt.log" 2>&1 || echo "upgrade-check: could not purge ${packages[*]}" >&2
  fi
}
trap cleanup EXIT

apt_get() {
  DEBIAN_FRONTEND=noninteractive apt-get -y -q -o DPkg::Lock::Timeout=600 "$@"
}
# Installs the packages in $@ over whatever is there, upgrading or
# downgrading, and checks that `version` is what dpkg now has.
install_release() {
  local version=$1
  shift
  installed_by_us=1
  apt_get install --allow-downgrades "$@" >>"$work/apt.log" 2>&1 || fail "apt-get install $* failed: see $work/apt.log"
  [[ "$(dpkg-query -W -f '${Version}' libkscdp1)" == "$version" ]] || fail "libkscdp1 $version is not installed"
}

pick_port master_port
pick_port broker_port
"$build/bin/kscdp-master-sim" --port "$master_port" --job-seconds 1 >"$work/master-sim.out" 2>&1 &
pids+=($!)
wait_for "the master simulator to listen" listening "$master_port"
outbox_dir="$work/engine"
mkdir -m 700 "$outbox_dir"
outbox="$outbox_dir/outbox.db"
cat >"$work/keepstone.conf" <<CONF
server = 127.0.0.1
host_name = upgrade-check-host
rest_url = http://127.0.0.1:$master_port
ksqd_url = http://127.0.0.1:$master_port
broker = 127.0.0.1:$broker_port
outbox = $outbox
http_timeout = 10
CONF

# One engine run of the installed packages: two VMs evicted and five alerts
# of its own per poll, numbered from `seed`.
run_engine() {
  local seed=$1
  KEEPSTONE_CONF="$work/keepstone.conf" KSU_LOG_FILE="$work/kscdp.log" \
    timeout 60 /usr/bin/kscdp-engine-sim --vms 2 --seed "$seed" --alerts-per-poll 5 --first-alert $((seed * 1000)) \
    --poll-interval 0.3 --timeout 30 >"$work/engine-$seed.out" 2>&1 ||
    fail "the engine of run $seed failed: see $work/engine-$seed.out"
}
waiting_alerts() {
  [[ ! -f "$outbox" ]] || sqlite3 "$outbox" 'SELECT payload FROM events ORDER BY id'
}
# An engine run with the broker away: what it raised waits in the outbox, on
# top of what waited before.
run_with_broker_away() {
  local seed=$1 before
  before=$(waiting_alerts | wc -l)
  run_engine "$seed"
  waiting_alerts >"$work/waiting-$seed.txt"
  (($(wc -l <"$work/waiting-$seed.txt") > before)) ||
    fail "no alert of run $seed waits in the outbox: see $work/kscdp.log"
  grep -Fxvf "$work/waiting-$seed.txt" "$work/waiting-before-$seed.txt" >"$work/lost-$seed.txt" || true
  [[ ! -s "$work/lost-$seed.txt" ]] ||
    fail "run $seed lost alerts that waited before it: see $work/lost-$seed.txt and $work/kscdp.log"
}
# An engine run with the broker up: every alert that waited reaches it.
run_with_broker_up() {
  local seed=$1 waited
  waited="$work/waiting-before-$seed.txt"
  start_broker "$seed" "$broker_port"
  mosquitto_sub -h 127.0.0.1 -p "$broker_port" -q 1 -t keepstone/notifications >"$work/received-$seed.txt" &
  local subscriber=$!
  pids+=("$subscriber")
  wait_for "the subscriber to connect" grep -q 'New client connected' "$work/broker-$seed/mosquitto.log"
  run_engine "$seed"
  until [[ -z "$(grep -Fxvf "$work/received-$seed.txt" "$waited")" ]]; do
    within_bound "the alerts that waited before run $seed to arrive"
    sleep 0.2
  done
  [[ -z "$(waiting_alerts)" ]] || fail "alerts still wait in the outbox after run $seed: see $work/kscdp.log"
  kill "$subscriber" "${broker_pid[$seed]}"
  wait "$subscriber" "${broker_pid[$seed]}" 2>/dev/null || true
  delivered+=$(wc -l <"$waited")
  delivered+=" "
}
# Notes what waits before run `seed`, for the run to check against.
note_waiting() { waiting_alerts >"$work/waiting-before-$1.txt"; }

if [[ ! -d "$previous_packages" ]]; then build_previous; fi
remove_tree
previous_debs=("$previous_packages"/*.deb)
delivered=""
check_start=$SECONDS

# Upgrade: alerts wait under the previous release, this one sends them.
install_release "$previous_version" "${previous_debs[@]}"
note_waiting 1 && run_with_broker_away 1
install_release "$this_version" "${new_debs[@]}"
note_waiting 2 && run_with_broker_up 2
# Rollback: alerts wait under this release, the previous one runs on that
# outbox with the broker still away, and this one returns and sends them all.
note_waiting 3 && run_with_broker_away 3
install_release "$previous_version" "${previous_debs[@]}"
note_waiting 4 && run_with_broker_away 4
set_aside=$(find "$outbox_dir" -name 'outbox.db.damaged-*' -o -name 'outbox.db.unknown-*' | head -n 1)
[[ -z "$set_aside" ]] || fail "$previous_version set the outbox aside as $set_aside"
install_release "$this_version" "${new_debs[@]}"
note_waiting 5 && run_with_broker_up 5

read -r upgraded rolled_back <<<"$delivered"
echo "upgrade-check: $previous_version -> $this_version: $upgraded waiting alerts delivered;" \
  "$this_version -> $previous_version -> $this_version: $rolled_back waiting alerts delivered;" \
  "$((SECONDS - check_start)) s of engines and apt, $((SECONDS - started)) s in all; files in $work"
