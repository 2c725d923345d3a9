#!/usr/bin/env bash
# Runs the end-to-end test under valgrind's memcheck: the engine's calls
# through the dlopen'ed libkscdp.so against the master simulator and a
# mosquitto broker. Any memory error, and any block definitely or indirectly
# lost, fails the run. Usage: scripts/memcheck.sh BUILD_DIR (a built tree;
# `make memcheck` builds it first).
#
# The simulator and the subscriber run in the same process and are checked
# too; the broker is a child process and is not.
set -euo pipefail
cd "$(dirname "$0")/.."

build=${1:?usage: scripts/memcheck.sh BUILD_DIR}
test_program="$build/bin/kscdp_end_to_end_tests"
[[ -x "$test_program" ]] || { echo "memcheck: $test_program is not built" >&2; exit 1; }

valgrind --tool=memcheck --leak-check=full \
  --show-leak-kinds=definite,indirect --errors-for-leak-kinds=definite,indirect \
  --track-origins=yes --keep-debuginfo=yes --child-silent-after-fork=yes --num-callers=40 \
  --error-exitcode=1 \
  "$test_program"
echo "memcheck: no memory error, no leak"
