# shellcheck shell=bash
# Mounts parts of this machine in a root. For a mount namespace.

# show_in ROOT [FOLDER...] -- ...: devices, processes, and these folders, read-only.
show_in() {
  local root=$1
  shift
  mount --rbind /dev "$root/dev"
  # Recursively: an emulator's registration ends with the last mount of its kind.
  mount --rbind /proc "$root/proc"
  while [[ $1 != -- ]]; do
    mkdir -p "$root$1"
    mount --bind "$1" "$root$1"
    mount -o remount,bind,ro "$root$1"
    shift
  done
}
