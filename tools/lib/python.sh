# shellcheck shell=bash
# Finds the newest tested CPython, and creates .venv.

pythons=(3.15 3.14 3.13)

# python_behind COMMAND: the interpreter itself (without shims and virtual environments), if it is a suitable CPython
# that can create an environment and build an extension. Newer ones than the tested are suitable.
python_behind() {
  "$1" -I - 2>/dev/null <<'PYTHON'
import importlib.util, os, sys, sysconfig

fits = (
    sys.implementation.name == "cpython"
    and sys.version_info >= (3, 13)
    and not sysconfig.get_config_var("Py_GIL_DISABLED")
    and importlib.util.find_spec("ensurepip")
    and importlib.util.find_spec("ssl")
    and os.path.exists(os.path.join(sysconfig.get_path("include"), "Python.h"))
)
print(os.path.realpath(sys._base_executable)) if fits else sys.exit(1)
PYTHON
}

python_candidates() {
  local pyenv_root=${PYENV_ROOT:-} version
  [[ -n $pyenv_root ]] || pyenv_root=$(pyenv root 2>/dev/null) || pyenv_root=${HOME:-}/.pyenv
  for version in "${pythons[@]}"; do
    type -aP "python$version" || true
    printf '%s\n' "$pyenv_root"/versions/*/bin/python"$version"
    uv python find --system --no-project "$version" 2>/dev/null || true
  done
}

find_python() {
  local candidate
  if [[ -n ${PYTHON:-} ]]; then
    python_behind "$PYTHON" ||
      fail "PYTHON=$PYTHON is not a CPython 3.13 or later with its lock (GIL), headers, ssl and ensurepip"
    return
  fi
  while read -r candidate; do
    python_behind "$candidate" && return
  done < <(python_candidates)
  fail "no CPython 3.13, 3.14 or 3.15 with its headers, ssl and ensurepip on PATH or in pyenv and uv;" \
    "run: uv python install 3.15 (or: pyenv install 3.15), or say where one is: make PYTHON=..."
}

venv_mark() { printf '%s\n' "$PWD $1 $(sha256sum <"requirements/$1.txt") $2"; }

# need_venv LIST: creates .venv with at least the packages that requirements/LIST.txt pins.
need_venv() {
  local list=$1 python=
  if [[ -n ${PYTHON:-} ]]; then
    python=$(find_python)
  elif [[ -x .venv/bin/python ]]; then
    # If it is re-created for other packages, it keeps its Python.
    python=$(python_behind .venv/bin/python) || true
  fi
  is_done .venv/.set-up "$(venv_mark dev "$python")" && return
  is_done .venv/.set-up "$(venv_mark "$list" "$python")" && return

  if ! is_done .venv/.set-up "$(venv_mark demo "$python")"; then
    [[ -n $python ]] || python=$(find_python)
    say "creating .venv with $("$python" --version), $python"
    logged venv "$python" -m venv --clear .venv
    # A build tree that was configured for another Python does not find this one.
    find build -name CMakeCache.txt -delete
  fi
  # The list is complete, so nothing unpinned is installed.
  watched "$(grep -c == "requirements/$list.txt") Python packages" packages .venv/bin/python -m pip install --no-input \
    --disable-pip-version-check --no-deps --requirement "requirements/$list.txt"
  logged packages-check .venv/bin/python -m pip check
  mark_done .venv/.set-up "$(venv_mark "$list" "$python")"
}

# need_pinned NAME: installs what requirements/NAME.txt adds to .venv into a separate folder, because only one tool
# needs it. Prints that folder.
need_pinned() {
  local packages=$PWD/build/$1-packages wanted
  wanted="$(sha256sum <"requirements/$1.txt") $(python_behind .venv/bin/python)"
  if ! is_done "$packages/.set-up" "$wanted"; then
    rm -rf "$packages"
    logged "$1-packages" .venv/bin/python -m pip install --quiet --no-input --disable-pip-version-check --no-deps \
      --target "$packages" --requirement "requirements/$1.txt"
    mark_done "$packages/.set-up" "$wanted"
  fi
  printf '%s\n' "$packages"
}
