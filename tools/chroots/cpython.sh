# shellcheck shell=bash
# Builds a newer CPython for an older system, from Debian's source package, in a second root that has a compiler.

newer_suite=trixie

# build_python ROOT PYTHON: installs it as /opt/python/bin/python3.13.
build_python() {
  local root=$1 prefix=${2%/bin/*} name=${2##*/} builder=$1-build
  [[ ! -e $root$prefix/.made ]] || return 0
  make_system "$builder" dpkg-dev gcc libbz2-dev libc6-dev libffi-dev liblzma-dev libssl-dev make pkg-config zlib1g-dev ||
    return 1
  # shellcheck disable=SC2016  # expanded by the shell in there
  apart tools/chroots/within "$builder" -- nice sh -ec '
      rm -rf /srv/newer
      mkdir -p /srv/newer/lists/partial
      cd /srv/newer
      sed -n "s/^deb \(\S*\) .*/deb-src \1 $3 main/p" /etc/apt/sources.list >sources.list
      for step in update "source $2"; do
        apt-get -q -o Dir::Etc::SourceList="$PWD/sources.list" -o Dir::Etc::SourceParts=/dev/null \
          -o Dir::State::Lists="$PWD/lists" -o APT::Sandbox::User= $step
      done
      cd "$2"-*/
      # A patch of Debian disables pip in such a Python itself, but not in its environments.
      ./configure --prefix="$1" --disable-test-modules --with-ensurepip=no
      make -j"$(nproc)"
      make install
      # Modules whose library, or shared memory, is missing are silently skipped.
      "$1/bin/$2" -c "import bz2, ctypes, ensurepip, lzma, multiprocessing.synchronize, ssl, zlib"' \
    sh "$prefix" "$name" "$newer_suite" || return 1
  rm -rf "$root$prefix"
  mkdir -p "$root${prefix%/*}"
  cp -a "$builder$prefix" "$root$prefix" && touch "$root$prefix/.made"
}
