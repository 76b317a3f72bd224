# shellcheck shell=bash
# Sourced by tools/sanitize: how each sanitizer is built, started and configured.

runtime_of() { "$compiler" -print-file-name="$1"; }

# use_sanitizer NAME: selects it for the functions below.
use_sanitizer() {
  local gxx
  sanitizer=$1
  tree=$PWD/build/sanitize-$sanitizer
  # Older runtimes do not survive a fork: the allocator stays locked in the child, or a thread of it dies because it has
  # the ID of one of the parent's.
  compiler=$(clang_tool clang++ 19)
  gxx=$(tool g++ 12)
  kinds=$sanitizer,undefined
  # shellcheck disable=SC2034 # tools/sanitize reads `planted`.
  case $sanitizer in
    address) preset=asan planted=(use_after_free overflow) ;;
    thread) preset=tsan planted=(race overflow) ;;
  esac
  runtimes=("$(runtime_of "libclang_rt.$preset-$(uname -m).so")")
  # Resolved before the interpreter loads it, so that throwing is intercepted too.
  runtimes+=("$("$gxx" -print-file-name=libstdc++.so)")
  [[ -e ${runtimes[0]} ]] || fail "$compiler has no runtime ${runtimes[0]}"
}

build_tree() {
  cmake --preset "$preset" -B "$tree" \
    -D CMAKE_CXX_COMPILER="$compiler" -D Python_EXECUTABLE="$PWD/.venv/bin/python"
  cmake --build "$tree" --target auth native tessaline_http_library fuzz_rooms wallet_tests http_tests \
    steps_tests transport_tests
  "$compiler" -g -shared -fPIC -fsanitize="$kinds" -fno-sanitize=vptr -fno-sanitize-recover=undefined \
    tools/sanitizers/planted.cpp -o "$tree/planted.so"
}

# under_sanitizer FOLDER COMMAND...: reports go into that folder of the tree.
under_sanitizer() {
  local report=$tree/$1/report supp=$PWD/tools/sanitizers/$sanitizer.supp
  local all="log_path=$report:print_suppressions=1:allocator_may_return_null=1"
  all+=":external_symbolizer_path=$("$compiler" -print-prog-name=llvm-symbolizer)"
  shift
  local address="$all:abort_on_error=1:detect_stack_use_after_return=1:quarantine_size_mb=16"
  # No wait at exit: the tests measure how fast a program ends. And forked children start threads.
  local thread="$all:suppressions=$supp:second_deadlock_stack=1:history_size=4:atexit_sleep_ms=0:die_after_fork=0"
  env \
    ASAN_OPTIONS="$address:detect_leaks=${leaks:-1}" \
    LSAN_OPTIONS="suppressions=$supp" \
    UBSAN_OPTIONS="$all:print_stacktrace=1:halt_on_error=1" \
    TSAN_OPTIONS="$thread" \
    TESSALINE_SANITIZER="$sanitizer" "$@"
}

# python_under FOLDER ARGUMENT...: the interpreter, with the runtime preloaded and the guard in every process.
python_under() {
  local folder=$1
  shift
  # The interpreter does not free most of its objects at exit, so leaks cannot be distinguished here.
  leaks=0 under_sanitizer "$folder" env \
    LD_PRELOAD="$(IFS=:; echo "${runtimes[*]}")" \
    PYTHONPATH="$tree/package:$PWD/tools/sanitizers/guard" \
    PYTHONMALLOC=malloc \
    PYCRYPTODOME_DISABLE_DEEPBIND=1 \
    TESSALINE_EXIT_RUNS="${TESSALINE_EXIT_RUNS:-2}" \
    TESSALINE_INSTRUMENTED="$tree/package" \
    TESSALINE_INSTRUMENTED_LOG="$tree/$folder/imports" \
    TESSALINE_SANITIZER_OUTCOME="$tree/$folder/python.json" \
    TESSALINE_SANITIZER_RUNTIME="$(basename "$(readlink -f "${runtimes[0]}")")" \
    .venv/bin/python "$@"
}
