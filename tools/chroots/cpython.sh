# shellcheck shell=bash
# Builds a CPython that a system does not have, in a second root that has a compiler.
# shellcheck disable=SC2154  # `describe` of list.sh sets libc

# Debian's suites with their sources.
declare -A source_suites=([python3.13]=trixie [python3.14]=sid [python3.15]=sid)

# build_python ROOT PYTHON: installs it as /opt/python3.13/bin/python3.13, linked with the described system's libc.
build_python() {
  local root=$1 prefix=${2%/bin/*} name=${2##*/} builder=$1-build
  [[ ! -e $root$prefix/.made ]] || return 0
  local -a packages=(dpkg-dev gcc make pkg-config)
  if [[ $libc == musl ]]; then
    packages+=(linux-libc-dev musl-tools perl)
  else
    packages+=(libbz2-dev libc6-dev libffi-dev liblzma-dev libssl-dev zlib1g-dev)
  fi
  make_system "$builder" "${packages[@]}" || return 1
  apart tools/chroots/within "$builder" "$PWD/tools/chroots" -- \
    nice "$PWD/tools/chroots/compile-python" "$prefix" "$name" "${source_suites[$name]}" "$libc" || return 1
  rm -rf "$root$prefix"
  mkdir -p "$root${prefix%/*}"
  cp -a "$builder$prefix" "$root$prefix" && touch "$root$prefix/.made"
}
