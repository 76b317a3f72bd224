# shellcheck shell=bash
# Makes a system, or brings one up to date that is there already.
# shellcheck disable=SC2154  # `describe` of list.sh sets suite, machine and architecture

# The place from which this system has its own packages; none (then debootstrap's own) where apt has no list of them.
mirror() {
  # shellcheck disable=SC2016  # apt's own variables
  apt-get indextargets --format '$(REPO_URI)' 'Created-By: Packages' 'Label: Debian' 2>/dev/null | head -n 1 || true
}

# furnish ROOT: what this machine's owner has set for apt, pip, names and authorities.
furnish() {
  local file
  for file in /etc/apt/apt.conf /etc/apt/apt.conf.d/*; do
    # What belongs to a package is that package's matter.
    [[ -f $file ]] && ! dpkg --search "$file" >/dev/null 2>&1 && cp "$file" "$1/etc/apt/apt.conf.d/90${file##*/}"
  done
  cp tools/chroots/apt.conf "$1/etc/apt/apt.conf.d/91tessaline"
  for file in /etc/pip.conf /etc/resolv.conf /etc/hosts; do
    [[ ! -e $file ]] || cp --dereference --remove-destination "$file" "$1$file"
  done
  mkdir -p "$1/usr/local/share/ca-certificates"
  cp /usr/local/share/ca-certificates/*.crt "$1/usr/local/share/ca-certificates/" 2>/dev/null || true
}

# make_system ROOT PACKAGE...: a whole one is marked, so an interrupted one is made anew.
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
      dpkg --add-architecture "$1"
      shift
      apt-get -q update
      apt-get -qy dist-upgrade
      apt-get -qy install --no-install-recommends "$@"' sh "$(dpkg --print-architecture)" "$@"
}
