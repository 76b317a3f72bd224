# shellcheck shell=bash
# The systems, and what is done in each.
# shellcheck disable=SC2034  # read by tools/systems

systems=(debian-12 debian-13 debian-sid debian-13-aarch64)

# describe NAME: sets suite and architecture (by their Debian names), machine (by the kernel's), own_pythons (the
# system's own commands; none: one of the host's is brought along), tests (none: all) and minutes for each step.
describe() {
  architecture=amd64 machine=x86_64 own_pythons=() tests=() minutes=60
  case $1 in
    debian-12) suite=bookworm ;;
    debian-13) suite=trixie own_pythons=(python3.13) ;;
    debian-sid) suite=sid own_pythons=(python3.13 python3.14 python3.15) ;;
    debian-13-aarch64)
      suite=trixie architecture=arm64 machine=aarch64 own_pythons=(python3.13) minutes=120
      # What is close to the processor: ends of processes, forks, sockets, arithmetic.
      tests=(tests/process tests/transport tests/vectors)
      ;;
    *) return 1 ;;
  esac
}

emulated() { [[ $machine != "$(uname -m)" ]]; }
