# shellcheck shell=bash
# Builds a newer CPython for an older system, from Debian's source package, in a second root that has a compiler.

# build_python ROOT PYTHON: as /opt/python/bin/python3.13, where it is kept.
build_python() {
  local root=$1 prefix=${2%/bin/*} name=${2##*/} builder=$1-build
  [[ ! -e $root$prefix/.made ]] || return 0
  make_system "$builder" gcc libbz2-dev libc6-dev libffi-dev liblzma-dev libssl-dev make pkg-config zlib1g-dev || return 1
  .venv/bin/python -m tools.wheels.interpreter "$name" "$builder/srv/$name" || return 1
  # shellcheck disable=SC2016  # expanded by the shell in there
  apart tools/chroots/within "$builder" -- nice sh -ec '
      cd "/srv/$2"
      ./configure --prefix="$1" --disable-test-modules --with-ensurepip=install
      make -j"$(nproc)"
      make install' sh "$prefix" "$name" || return 1
  rm -rf "$root$prefix"
  mkdir -p "$root${prefix%/*}"
  cp -a "$builder$prefix" "$root$prefix" && touch "$root$prefix/.made"
}
