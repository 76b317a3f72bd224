# shellcheck shell=bash
# The systems, and what is run in each.
# shellcheck disable=SC2034  # read by tools/systems and tools/test-wheels

# Those in which the project is built, and those in which its wheels are tested.
systems=(debian-12 debian-13 debian-sid debian-13-aarch64)
wheel_systems=(debian-11 debian-12 debian-13 debian-sid debian-13-aarch64 debian-sid-aarch64 debian-12-musl)

# describe NAME: sets suite and architecture (by their Debian names), machine (by the kernel's), own_pythons (the
# system's own commands; none: one of the host's is brought along), linked (what such a Python is linked with),
# tests (none: all), minutes for each step, and libc. A Python with a path is to be built in there, with that libc.
describe() {
  architecture=amd64 machine=x86_64 libc=gnu own_pythons=() linked=() tests=() minutes=60
  case $1 in
    debian-11)
      suite=bullseye own_pythons=(/opt/python3.13/bin/python3.13)
      linked=(libbz2-1.0 libffi7 liblzma5 libssl1.1 zlib1g)
      ;;
    debian-12)
      suite=bookworm
      linked=(libbz2-1.0 libffi8 liblzma5 libreadline8 libsqlite3-0 libssl3 zlib1g)
      ;;
    debian-13) suite=trixie own_pythons=(python3.13) ;;
    debian-sid) suite=sid own_pythons=(python3.15 python3.14 python3.13) ;;
    debian-13-aarch64)
      suite=trixie architecture=arm64 machine=aarch64 own_pythons=(python3.13) minutes=120
      # Close to the processor: ends of processes, forks, sockets, arithmetic.
      tests=(tests/process tests/transport tests/vectors)
      ;;
    debian-sid-aarch64) suite=sid architecture=arm64 machine=aarch64 own_pythons=(python3.14 python3.15) ;;
    debian-12-musl)
      # What else is in there needs glibc; these Pythons and the wheel do not.
      suite=bookworm libc=musl linked=(musl)
      own_pythons=(/opt/python3.13/bin/python3.13 /opt/python3.14/bin/python3.14 /opt/python3.15/bin/python3.15)
      ;;
    *) return 1 ;;
  esac
}

# check_names LIST NAME...: LIST is the variable with the known ones.
check_names() {
  local -n known=$1
  local name
  for name in "${@:2}"; do
    [[ " ${known[*]} " == *" $name "* ]] || fail "no system is called $name; there are: ${known[*]}"
  done
}

emulated() { [[ $machine != "$(uname -m)" ]]; }

# wheel_for VERSION: the wheel of dist for that Python and the described system; fails if there is none.
wheel_for() {
  local platform=manylinux
  [[ $libc != musl ]] || platform=musllinux
  compgen -G "dist/*-cp${1/./}-${platform}_*_$machine.whl"
}
