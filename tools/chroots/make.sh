# shellcheck shell=bash
# Creates a system, or updates an existing one.
# shellcheck disable=SC2154  # `describe` of list.sh sets suite, machine and architecture

# need_for_systems NAME...: installs what this machine needs to create them and to run programs in them.
need_for_systems() {
  local -a packages=(debootstrap util-linux-extra)
  local name
  for name in "$@"; do
    describe "$name"
    ! emulated || packages+=("qemu-user-static")
  done
  need_packages "${packages[@]}"
}

# The mirror of this system's own packages; empty (debootstrap's default) if apt has no list of them.
mirror() {
  # shellcheck disable=SC2016  # apt's own variables
  apt-get indextargets --format '$(REPO_URI)' 'Created-By: Packages' 'Label: Debian' 2>/dev/null | head -n 1 || true
}

# furnish ROOT: copies this machine's settings of apt, pip, DNS and CAs.
furnish() {
  local file
  for file in /etc/apt/apt.conf /etc/apt/apt.conf.d/*; do
    # Files of packages are left to those packages.
    [[ -f $file ]] && ! dpkg --search "$file" >/dev/null 2>&1 && cp "$file" "$1/etc/apt/apt.conf.d/90${file##*/}"
  done
  cp tools/chroots/apt.conf "$1/etc/apt/apt.conf.d/91tessaline"
  for file in /etc/pip.conf /etc/resolv.conf /etc/hosts; do
    [[ ! -e $file ]] || cp --dereference --remove-destination "$file" "$1$file"
  done
  mkdir -p "$1/usr/local/share/ca-certificates"
  cp /usr/local/share/ca-certificates/*.crt "$1/usr/local/share/ca-certificates/" 2>/dev/null || true
}

# bring_compiler ROOT: for an emulated system, a cross compiler of this machine: an emulated one is ten times slower. It
# is only unpacked, because apt cannot install the libraries of both.
bring_compiler() {
  local root=$1 state=$1/var/cache/compiler package
  mkdir -p "$state/lists/partial" "$state/archives/partial" "$root/usr/lib64"
  : >"$state/status"
  local -a apt=(apt-get -qy -o Dir="$root" -o Dir::Bin::methods=/usr/lib/apt/methods
    -o Dir::State::lists="$state/lists" -o Dir::State::status="$state/status" -o Dir::Cache::archives="$state/archives"
    -o APT::Architectures="$(dpkg --print-architecture)" -o Debug::NoLocking=1)
  "${apt[@]}" update && "${apt[@]}" install --download-only --no-install-recommends \
    "g++-${machine//_/-}-linux-gnu" || return 1
  ln -sfn usr/lib64 "$root/lib64"
  for package in "$state"/archives/*.deb; do
    # The system has its own version of the rest.
    if [[ $(dpkg-deb --field "$package" Package) =~ ^z?lib|-cross$|-${machine//_/-}- ]]; then
      dpkg --extract "$package" "$root" || return 1
    fi
  done
}

# make_system ROOT PACKAGE...: a complete one is marked, so an interrupted one is created again.
make_system() {
  local root=$1
  shift
  if [[ ! -e $root/.made ]]; then
    say "making $suite for $machine"
    rm -rf --one-file-system "$root"
    mkdir -p "$root"
    # shellcheck disable=SC2046  # none, or one word
    apart tools/chroots/bootstrap "$root" "$architecture" "$suite" $(mirror) || return 1
    touch "$root/.made"
  fi
  furnish "$root"
  # shellcheck disable=SC2016  # expanded by the shell in there
  apart tools/chroots/within "$root" -- env DEBIAN_FRONTEND=noninteractive sh -ec '
      update-ca-certificates
      apt-get -q update
      apt-get -qy dist-upgrade
      apt-get -qy install --no-install-recommends "$@"' sh "$@"
}
