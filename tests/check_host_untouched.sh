#!/usr/bin/env bash
# The suite's first and last test: no test writes where an installed engine
# keeps its files, and none leaves anything behind in the TMPDIR that every
# test runs with.
#
#   check_host_untouched.sh start TMPDIR STATE_FILE
#     empties TMPDIR and records in STATE_FILE what the engine's directories
#     hold now;
#   check_host_untouched.sh check TMPDIR STATE_FILE
#     fails, naming them, when a path appeared in those directories since,
#     or when anything is left in TMPDIR.
set -euo pipefail

mode=${1:?usage: check_host_untouched.sh start|check TMPDIR STATE_FILE}
tmp=${2:?}
state=${3:?}
host_directories=(/var/lib/kscdp /etc/keepstone)

host_listing() { find "${host_directories[@]}" 2>/dev/null | LC_ALL=C sort || true; }

case $mode in
  start)
    rm -rf "$tmp"
    mkdir -p "$tmp"
    host_listing >"$state" ;;
  check)
    status=0
    appeared=$(host_listing | LC_ALL=C comm -13 "$state" - || true)
    if [[ -n "$appeared" ]]; then
      echo "a test wrote into the engine's own directories (give it a path in its temporary directory):" >&2
      echo "$appeared" >&2
      status=1
    fi
    left=$(find "$tmp" -mindepth 1 -maxdepth 1 2>/dev/null || true)
    if [[ -n "$left" ]]; then
      echo "a test left these behind in $tmp (remove them when the test ends):" >&2
      echo "$left" >&2
      status=1
    fi
    exit "$status" ;;
  *)
    echo "check_host_untouched.sh: mode is start or check, not '$mode'" >&2
    exit 2 ;;
esac
