# shellcheck shell=bash
# Runs commands where mounts, processes and an emulator's registration end with the command.

job=

# PID 1 in there ignores our signals except this one, with which the kernel ends all of them.
end_job() { [[ -z $job ]] || kill -KILL "$job" 2>/dev/null || true; }

end_with_signals() {
  trap 'end_job; exit 130' INT
  trap 'end_job; exit 143' TERM HUP
}

# apart COMMAND...: runs it in its own namespaces, which end with this shell, however it ends.
apart() {
  local -a apart=(setpriv --pdeathsig KILL unshare --mount --propagation private --pid --fork --kill-child --mount-proc)
  if emulated; then
    apart=(.venv/bin/python -I tools/chroots/userns.py "${apart[@]}" tools/chroots/emulate "$machine")
  fi
  # Background processes ignore Ctrl-C, and so do their children.
  env --default-signal=INT,QUIT "${apart[@]}" "$@" </dev/null &
  job=$!
  local status=0
  wait "$job" || status=$?
  job=
  return "$status"
}
