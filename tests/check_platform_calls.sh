#!/usr/bin/env bash
# Fails when libkscdp.so needs a symbol that neither the product's platform
# libraries nor the system libraries it links provide. The product's platform
# is what platform/*.h declares of it: any symbol of the stand-in platform
# library must belong to one of these names; everything else must come from a
# system library (C and C++ runtime, Jansson, ...).
#
#   check_platform_calls.sh LIBRARY PLATFORM_LIBRARY
set -euo pipefail

library=${1:?usage: check_platform_calls.sh LIBRARY PLATFORM_LIBRARY}
platform=$(basename "${2:?usage: check_platform_calls.sh LIBRARY PLATFORM_LIBRARY}")
product_names=(ksu_logmsg_str KS_read_master_config get_master_config_ptr NotificationSupplier
  NotificationEvent invoke_ksqd_cct_request cct_malloc cct_free KSClientCURL cert_type
  KSCurlSessionType TokenManager_Base)

system_symbols=$(mktemp)
trap 'rm -f "$system_symbols"' EXIT
# Every library the dynamic linker loads for LIBRARY, except the platform,
# and the dynamic linker itself (thread-local storage).
ldd "$library" | awk '$2 == "=>" && $3 ~ /^\// { print $3 } $1 ~ /^\// { print $1 }' | while read -r needed; do
  [[ $(basename "$needed") == "$platform" ]] || nm -D --defined-only "$needed" | awk '{ sub(/@.*/, "", $3); print $3 }'
done | sort -u >"$system_symbols"

failures=0
while read -r symbol; do
  grep -qxF "$symbol" "$system_symbols" && continue
  # The outermost name: "KSClientCURL::get(std::string const&)" -> KSClientCURL.
  name=$(c++filt "$symbol" | sed -E 's/^(vtable|typeinfo|typeinfo name) for //; s/[(<].*//; s/::.*//')
  printf '%s\n' "${product_names[@]}" | grep -qxF "$name" && continue
  echo "not provided by the product's platform or a system library: $(c++filt "$symbol")"
  failures=$((failures + 1))
done < <(nm -D --undefined-only "$library" | awk '$1 == "U" { sub(/@.*/, "", $2); print $2 }')

if ((failures > 0)); then
  echo "$failures symbol(s) would be missing where the product's libraries replace the stand-ins" >&2
  exit 1
fi
echo "every symbol libkscdp.so needs comes from the product's platform or a system library"
