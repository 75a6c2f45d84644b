#!/usr/bin/env bash
# common.sh - what the scripts share; they source it.

tree="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
readonly tree

# The comment at the head of the script.
show_usage() {
  sed -n '2,/^set /{/^#/s/^# \{0,1\}//p}' "$tree/scripts/${0##*/}"
}

# The version has its home in CMakeLists.txt.
tree_version() {
  sed -n 's/^ *VERSION \([0-9.]*\)$/\1/p' "$tree/CMakeLists.txt"
}

# run_logged LOG COMMAND...: the output goes to the file LOG; when the command fails, its errors are shown.
run_logged() {
  local -r log="$1"
  shift
  mkdir -p "$(dirname "$log")"
  "$@" >"$log" 2>&1 && return
  grep -E -m 20 -A 12 'FAILED|error:|Error' "$log" || tail -n 50 "$log"
  return 1
}

# build LOG CMAKE_ARGUMENT... -- BUILD_ARGUMENT...: configures and builds, as run_logged.
build() {
  run_logged "$1" configure_and_build "${@:2}"
}

configure_and_build() {
  local configure=()
  while [[ "$1" != -- ]]; do
    configure+=("$1")
    shift
  done
  cmake "${configure[@]}" && cmake --build "${@:2}" -j "$(nproc)"
}
