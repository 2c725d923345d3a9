#!/usr/bin/env bash
# Fails when a C or C++ file of the tree differs from the house style of
# .clang-format.
#
#   check_format.sh SOURCE_DIR
set -euo pipefail
cd "${1:?usage: check_format.sh SOURCE_DIR}"
find . \( -path './build*' -o -path './.git' \) -prune -o -type f \( -name '*.c' -o -name '*.cpp' -o -name '*.h' \) \
  -print0 | xargs -0 clang-format --dry-run --Werror
