# shellcheck shell=bash
# Sourced by every tool. Puts the shell at the project's root.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."

export LC_ALL=C.UTF-8
unset PYTHONHOME PYTHONPATH

say() { printf 'setup: %s\n' "$*"; }

fail() {
  printf 'setup: %s\n' "$*" >&2
  exit 1
}

# logged NAME COMMAND...: quiet when it goes well, the end of the log when it does not.
logged() {
  local log=build/logs/$1.log
  shift
  mkdir -p build/logs
  "$@" >"$log" 2>&1 </dev/null && return
  tail -n 60 "$log" >&2
  fail "that failed; the whole log is in $log"
}

# at_least WANTED FOUND: compares versions.
at_least() { [[ $(printf '%s\n' "$1" "$2" | sort -V | head -n 1) == "$1" ]]; }

is_done() { [[ -r $1 && $(<"$1") == "$2" ]]; }

# The mark appears whole or not at all, so an interrupted step is done again.
mark_done() { printf '%s\n' "$2" >"$1.new" && mv "$1.new" "$1"; }
