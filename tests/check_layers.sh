#!/usr/bin/env bash
# Fails when a file of the library or of its platform includes a header from a
# higher layer, or when includes run in a circle. The layers, highest first:
#   engine -> gateway -> services -> rest -> the stand-in's rooms -> platform -> port
# The stand-in platform (platform/standin/) is a layer of rooms, each a layer
# of its own: the process hooks on top, then the publisher, the metrics file,
# the outbox and the two transports, the counters they keep, the
# configuration, and the files at the bottom. A file includes from its own
# layer and the layers below. The engine's public C headers, the interface the
# engine is built against, live in include/kscdp/ as LevelDB's include/ does,
# below every layer, and are included as <kscdp/...>.
#
#   check_layers.sh SOURCE_DIR
set -euo pipefail
cd "${1:?usage: check_layers.sh SOURCE_DIR}"

layers=(engine gateway services rest
  platform/standin/process platform/standin/publisher platform/standin/metrics
  platform/standin/outbox platform/standin/mqtt platform/standin/http
  platform/standin/counters platform/standin/config platform/standin/files
  platform port)

# The layer a path lies in: the longest layer that prefixes it, by rank.
rank() {
  local i best=-1 length=0
  for i in "${!layers[@]}"; do
    if [[ $1 == "${layers[$i]}/"* && ${#layers[$i]} -gt $length ]]; then
      best=$i
      length=${#layers[$i]}
    fi
  done
  echo "$best"
}

stray=$(find platform/standin -maxdepth 1 -type f ! -name CMakeLists.txt ! -name libkscdp_platform.map)
if [[ -n $stray ]]; then
  echo "files outside the stand-in's rooms: $stray" >&2
  exit 1
fi
for room in platform/standin/*/; do
  if [[ $(rank "${room}x") -lt 0 || ${layers[$(rank "${room}x")]} != "${room%/}" ]]; then
    echo "${room%/} is a room that check_layers.sh does not order" >&2
    exit 1
  fi
done

failures=0
edges=$(mktemp)
trap 'rm -f "$edges"' EXIT
while IFS=: read -r file line header; do
  own=$(rank "$file")
  included=$(rank "$header")
  if ((included >= 0 && included < own)); then
    echo "$file:$line includes $header from a higher layer than ${layers[$own]}/"
    failures=$((failures + 1))
  fi
  # A source and its header are one unit for the circle check.
  echo "${file%.*} ${header%.*}" >>"$edges"
done < <(grep -rnE --include='*.h' --include='*.cpp' '^#include "[^"]+"' engine gateway services rest platform port |
  sed -E 's/^([^:]+):([0-9]+):#include "([^"]+)".*/\1:\2:\3/')

if ! tsort "$edges" >/dev/null 2>"$edges.loop"; then
  grep -v '^tsort: .*input contains a loop' "$edges.loop" >&2 || true
  echo "the includes above run in a circle" >&2
  rm -f "$edges.loop"
  exit 1
fi
rm -f "$edges.loop"

if ((failures > 0)); then
  echo "$failures include(s) point up the layers: move the shared code down to where both stand on it" >&2
  exit 1
fi
echo "every include of the library and its platform points down the layers, in no circle"
