# shellcheck shell=bash
# Runs commands where mounts, processes and an emulator's registration end with the command.

job=

# Nothing in there hears a signal of ours but this one, and the kernel ends the rest with it.
end_job() { [[ -z $job ]] || kill -KILL "$job" 2>/dev/null || true; }

end_with_signals() {
  trap 'end_job; exit 130' INT
  trap 'end_job; exit 143' TERM HUP
}

# apart COMMAND...: in namespaces of its own. They end with this shell as well, however it ends.
apart() {
  local -a apart=(setpriv --pdeathsig KILL unshare --mount --propagation private --pid --fork --kill-child --mount-proc)
  if emulated; then
    apart=(.venv/bin/python -I tools/chroots/userns.py "${apart[@]}" tools/chroots/emulate "$machine")
  fi
  # What runs in the background ignores Ctrl-C and hands that on.
  env --default-signal=INT,QUIT "${apart[@]}" "$@" </dev/null &
  job=$!
  local status=0
  wait "$job" || status=$?
  job=
  return "$status"
}
