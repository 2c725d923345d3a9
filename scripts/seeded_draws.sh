# What scripts/chaos.sh and faults.sh share before a run starts (sourced):
# checking their numbers, and drawing their schedule from the seed.
#
# Every draw runs in the calling shell. A subshell, such as $(...), reseeds
# RANDOM, so a value drawn inside one would not follow from the seed, and the
# same seed would no longer give the same schedule.

# Exits with status 2, naming the run $1, unless every later argument is a
# whole number.
require_whole_numbers() {
  local name=$1 value
  shift
  for value in "$@"; do
    [[ "$value" =~ ^[0-9]+$ ]] || { echo "$name: seeds, counts and seconds must be whole numbers, not '$value'" >&2; exit 2; }
  done
}

# Sets the variable named $1 to a number drawn between $2 and $3, both
# included.
draw() { printf -v "$1" '%d' $(($2 + RANDOM % ($3 - $2 + 1))); }
