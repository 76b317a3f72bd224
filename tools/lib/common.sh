# shellcheck shell=bash
# Sourced by every tool. Changes to the project's root.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."

export LC_ALL=C.UTF-8
unset PYTHONHOME PYTHONPATH

say() { printf 'setup: %s\n' "$*"; }

fail() {
  printf 'setup: %s\n' "$*" >&2
  exit 1
}

# logged NAME COMMAND...: prints nothing on success, and the end of the log on failure.
logged() {
  local log=build/logs/$1.log
  shift
  mkdir -p build/logs
  "$@" >"$log" 2>&1 </dev/null && return
  tail -n 60 "$log" >&2
  fail "that failed; the whole log is in $log"
}

# how_far LOG: the progress that the log of a build or an installation shows.
how_far() {
  local count
  count=$(tail -n 5 "$1" | grep -oE '\[[0-9]+/[0-9]+\]' | tail -n 1) ||
    count=$(grep -c '^Collecting ' "$1") || return 0
  printf '%s ' "$count"
}

# watched WHAT NAME COMMAND...: as `logged`, and prints what is done, the progress and the duration. `progress` precedes
# it: which step of how many.
progress=
watched() {
  local what="$progress$1" log=build/logs/$2.log begin=$SECONDS watcher=
  say "$what"
  mkdir -p build/logs
  : >"$log"
  if [[ -t 1 ]]; then
    # Background processes ignore Ctrl-C, so it checks whether this shell still exists.
    while sleep 0.5 && kill -0 $$ 2>/dev/null; do
      printf '\r       %s%d s' "$(how_far "$log")" $((SECONDS - begin))
    done &
    watcher=$!
  fi
  logged "${@:2}"
  if [[ -n $watcher ]]; then
    kill "$watcher"
    wait "$watcher" 2>/dev/null || true
    printf '\r\033[K'
  fi
  say "$what: $((SECONDS - begin)) s"
}

# Reproducible archives.
set_source_date() {
  export SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(git log -1 --format=%ct 2>/dev/null || echo 315532800)}
}

# at_least WANTED FOUND: compares versions.
at_least() { [[ $(printf '%s\n' "$1" "$2" | sort -V | head -n 1) == "$1" ]]; }

is_done() { [[ -r $1 && $(<"$1") == "$2" ]]; }

# The mark is written atomically, so an interrupted step is repeated.
mark_done() { printf '%s\n' "$2" >"$1.new" && mv "$1.new" "$1"; }
