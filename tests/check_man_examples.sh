#!/usr/bin/env bash
# Fails when a manual page does not show an example program exactly as its
# source file holds it. Every examples/*.c is shown in PAGE as
#
#   .\" examples/<name>.c
#   .Bd -literal -offset indent
#   <the file, each backslash written \e>
#   .Ed
#
#   check_man_examples.sh SOURCE_DIR PAGE
set -euo pipefail
source_dir=${1:?usage: check_man_examples.sh SOURCE_DIR PAGE}
page=${2:?usage: check_man_examples.sh SOURCE_DIR PAGE}
status=0
for path in "$source_dir"/examples/*.c; do
  file=examples/$(basename "$path")
  shown=$(awk -v marker=".\\\\\" $file" '
    $0 == marker { found = 1; getline; next }
    found && $0 == ".Ed" { exit }
    found { print }
  ' "$page" | sed 's/\\e/\\/g')
  if [[ -z "$shown" ]]; then
    echo "$page does not show $file (a line \".\\\" $file\" before its display)" >&2
    status=1
  elif ! diff -u --label "$file" --label "$page" "$path" <(printf '%s\n' "$shown") >&2; then
    echo "$page shows $file otherwise than the file holds it" >&2
    status=1
  fi
done
exit "$status"
