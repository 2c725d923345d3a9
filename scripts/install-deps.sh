#!/usr/bin/env bash
# Installs the Debian packages that building, testing and the demo need.
# Idempotent: installs only what is missing, and refreshes the package lists
# only when something must be installed. Package names carry no compiler
# version: libclang-rt-dev is the sanitizer and libFuzzer runtime of whichever
# clang the distribution's clang package is. Packages named as arguments
# (rabbitmq-server for make fleet FLEET_BROKERS=rabbitmq) are installed too.
set -euo pipefail

packages=(
  cmake g++ make pkg-config
  libjansson-dev libboost-dev
  libcurl4-openssl-dev libmosquitto-dev libsqlite3-dev libssl-dev sqlite3 openssl
  libcpp-httplib-dev mosquitto mosquitto-clients
  libgtest-dev libgmock-dev libbenchmark-dev
  clang clang-format libclang-rt-dev valgrind python3
  dpkg-dev lintian mandoc abigail-tools
  python3-prometheus-client gnuplot-nox prometheus curl
  fiu-utils libfiu-dev
)

packages+=("$@")  # what a target needs only when asked, e.g. rabbitmq-server

missing=()
for package in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$package")
done

if ((${#missing[@]} == 0)); then
  echo "install-deps: everything is installed"
  exit 0
fi

sudo=()
if ((EUID != 0)); then
  command -v sudo >/dev/null || { echo "install-deps: run as root to install: ${missing[*]}" >&2; exit 1; }
  sudo=(sudo)
fi

echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -qq
"${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
