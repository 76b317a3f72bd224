# shellcheck shell=bash
# What the build needs from the system. A package counts as present if what it provides works, whatever its origin.

# version_of COMMAND [OPTION]: the first dotted number that the command prints; fails if it does not run.
version_of() {
  local text
  text=$("$1" "${2:---version}" 2>/dev/null </dev/null) || return 1
  [[ $text =~ [0-9]+(\.[0-9]+)+ ]] && printf '%s\n' "${BASH_REMATCH[0]}"
}

# tool NAME VERSION: the first one on PATH that runs and is new enough. pyenv shims are skipped: they depend on the
# currently selected Python, but a build tree keeps the paths of its tools.
tool() {
  local candidate version
  while read -r candidate; do
    [[ $candidate == */shims/* ]] && continue
    version=$(version_of "$candidate") && at_least "$2" "$version" && printf '%s\n' "$candidate" && return
  done < <(type -aP "$1")
  return 1
}

# clang_tool NAME [OLDEST]: that clang program, of version OLDEST (16) or later.
clang_tool() {
  local suffix
  for suffix in -16 -17 -18 -19 -20 -21 -22 -23 ""; do
    tool "$1$suffix" "${2:-16}" && return
  done
  return 1
}

has_module() {
  if tool pkg-config 0 >/dev/null; then
    pkg-config --exists "$1"
  else
    dpkg-query --show "$2" >/dev/null 2>&1
  fi
}

# has_runtime NAME OLDEST: whether clang of that version or later has such a runtime library.
has_runtime() {
  local clang
  clang=$(clang_tool clang++ "$2") && compgen -G "$("$clang" -print-resource-dir)/lib/*/libclang_rt.$1"
}

has_package() {
  case $1 in
    g++) [[ -n ${CXX:-} ]] || tool g++ 12 ;;
    cmake) tool cmake 3.25 ;;
    ninja-build) tool ninja 1.10 ;;
    pkg-config) tool pkg-config 0 ;;
    dpkg-dev) tool dpkg-source 1.20 ;;
    binutils-aarch64-linux-gnu) tool aarch64-linux-gnu-objcopy 2.35 ;;
    binutils-x86-64-linux-gnu) tool x86_64-linux-gnu-objcopy 2.35 ;;
    libcurl4-openssl-dev) has_module 'libcurl >= 7.88' "$1" ;;
    libsecp256k1-dev) has_module libsecp256k1 "$1" ;;
    libssl-dev) has_module openssl "$1" ;;
    libgtest-dev) has_module gtest_main "$1" ;;
    valgrind) has_module valgrind "$1" && tool valgrind 3.19 ;;
    clang-16) clang_tool clang++ ;;
    clang-19) clang_tool clang++ 19 ;;
    clang-format-16) tool clang-format-16 16 ;;
    libclang-rt-16-dev) has_runtime 'fuzzer*.a' 16 ;;
    libclang-rt-19-dev) has_runtime 'asan*.so' 19 ;;
    llvm-19) "$(clang_tool clang++ 19)" -print-prog-name=llvm-symbolizer | grep '^/' ;;
    clang-tidy-16) clang_tool clang-tidy ;;
    haproxy) at_least 2.6 "$(version_of haproxy -v)" ;;
    squid-openssl) squid -v | grep -e --with-openssl ;;
    tinyproxy) at_least 1.11 "$(version_of tinyproxy -v)" ;;
    # fetch exists since version 18.
    nodejs) tool node 18 ;;
    nginx) type -P nginx || [[ -x /usr/sbin/nginx ]] ;;
    shellcheck) tool shellcheck 0.9 ;;
    chromium) type -P chromium ;;
    debootstrap) type -P debootstrap ;;
    # Its path in newer releases.
    util-linux-extra) type -P pivot_root ;;
    qemu-user-static) compgen -G '/usr/lib/binfmt.d/qemu-*.conf' ;;
    spin) spin -V 2>/dev/null | grep '^Spin Version' ;;
    *) fail "has_package: no rule for $1" ;;
  esac >/dev/null
}

# missing PACKAGE...: those that are not installed.
missing() {
  local package
  for package in "$@"; do
    has_package "$package" || printf '%s ' "$package"
  done
}

# on_offer PACKAGE...: those packages; if apt does not have a compiler in that version, the next available one. Except
# formatters, since their versions format differently.
on_offer() {
  local package version
  for package in "$@"; do
    if [[ $package =~ ^(clang|clang-tidy|libclang-rt|llvm)-([0-9]+)(.*)$ ]]; then
      for ((version = BASH_REMATCH[2]; version < BASH_REMATCH[2] + 10; version++)); do
        apt-cache show "${BASH_REMATCH[1]}-$version${BASH_REMATCH[3]}" >/dev/null 2>&1 || continue
        package=${BASH_REMATCH[1]}-$version${BASH_REMATCH[3]}
        break
      done
    fi
    printf '%s ' "$package"
  done
}

is_root() { ((EUID == 0)); }

# need_packages PACKAGE...: installs those that are missing.
need_packages() {
  local -a wanted as_root=()
  read -r -a wanted <<<"$(missing "$@")"
  ((${#wanted[@]})) || return 0

  local command="sudo apt-get update && sudo apt-get install --no-install-recommends ${wanted[*]}"
  if ! is_root; then
    as_root=(sudo -n)
    sudo -n true 2>/dev/null || fail "missing system packages: ${wanted[*]}; run: $command"
  fi
  command -v apt-get >/dev/null || fail "missing system packages (by their Debian names): ${wanted[*]}"

  local -a apt=("${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -q -o DPkg::Lock::Timeout=300)
  # Old lists may be sufficient, so only the installation decides.
  mkdir -p build/logs
  "${apt[@]}" update >build/logs/apt-update.log 2>&1 </dev/null || true
  local -a offered
  read -r -a offered <<<"$(on_offer "${wanted[@]}")"
  watched "system packages: ${offered[*]}" apt-install "${apt[@]}" install -y --no-install-recommends "${offered[@]}"

  read -r -a wanted <<<"$(missing "${wanted[@]}")"
  ((${#wanted[@]} == 0)) || fail "installed, but still not usable: ${wanted[*]}"
}

# The checked tools come first on PATH, also for the build backend, which uses what it finds there.
use_checked_tools() {
  local name
  mkdir -p build/tools
  for name in cmake ctest ninja; do
    # Resolved, because the one found may be the link of an enclosing tool.
    ln -sfn "$(readlink -f "$(tool "$name" 1.10)")" "build/tools/$name"
  done
  export PATH="$PWD/build/tools:$PATH"
  export CXX="${CXX:-g++}" CMAKE_GENERATOR=Ninja CMAKE_BUILD_PARALLEL_LEVEL="${CMAKE_BUILD_PARALLEL_LEVEL:-2}"
}
