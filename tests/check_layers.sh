#!/usr/bin/env bash
# Fails when a file of the library or of its platform includes a header from a
# higher layer. The layers, highest first:
#   engine -> gateway -> services -> rest -> platform -> port
# A file includes from its own layer and the layers below. The engine's public
# C headers, the interface the engine is built against, live in include/kscdp/
# as LevelDB's include/ does, below every layer, and are included as
# <kscdp/...>.
#
#   check_layers.sh SOURCE_DIR
set -euo pipefail
cd "${1:?usage: check_layers.sh SOURCE_DIR}"

layers=(engine gateway services rest platform port)

rank() {
  local i
  for i in "${!layers[@]}"; do [[ ${layers[$i]} == "$1" ]] && { echo "$i"; return; }; done
  echo -1
}

failures=0
for layer in "${layers[@]}"; do
  own=$(rank "$layer")
  while IFS=: read -r file line header; do
    included=$(rank "${header%%/*}")
    if ((included >= 0 && included < own)); then
      echo "$file:$line includes $header from a higher layer than $layer/"
      failures=$((failures + 1))
    fi
  done < <(grep -rnE --include='*.h' --include='*.cpp' '^#include "[^"]+"' "$layer" |
    sed -E 's/^([^:]+):([0-9]+):#include "([^"]+)".*/\1:\2:\3/')
done

if ((failures > 0)); then
  echo "$failures include(s) point up the layers: move the shared code down to where both stand on it" >&2
  exit 1
fi
echo "every include of the library and its platform points down the layers"
