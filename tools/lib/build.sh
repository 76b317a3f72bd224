# shellcheck shell=bash
# Builds the package and installs it into .venv.

build_inputs() {
  find src tests/native benchmarks/native tests/torture/native tests/fuzz/CMakeLists.txt tests/fuzz/*.[ch]pp \
    CMakeLists.txt CMakePresets.json pyproject.toml README.md LICENSE \
    -type f -not -path '*/__pycache__/*' -print0 | sort -z
}

# CI compiles with warnings as errors, which replaces a separate compilation. A tree that has passed keeps that option,
# or each change of it would rebuild everything.
warnings_are_errors() {
  if [[ ${CI:-} == true ]] || grep -qs ' werror=ON ' .venv/.built; then echo ON; else echo OFF; fi
}

# need_build TESTS: ON builds the native test programs too; a tree that has them keeps them.
need_build() {
  local wanted werror tests=$1
  werror=$(warnings_are_errors)
  if grep -qs ' tests=ON ' .venv/.built; then tests=ON; fi
  wanted="$PWD $CXX $("$CXX" -dumpversion) werror=$werror tests=$tests $(build_inputs | xargs -0 sha256sum | sha256sum)"
  [[ -e build/release/CMakeCache.txt ]] && is_done .venv/.built "$wanted" && return

  # Everything is compiled once: the wheel is built in the tree of the `release` preset, which therefore also has the
  # native test programs and, for work without installing, an importable package.
  watched "compiling" build .venv/bin/python -m pip install --no-input --disable-pip-version-check --no-deps \
    --no-build-isolation --verbose . \
    -C build-dir=build/release -C cmake.build-type=Release -C cmake.define.TESSALINE_PRECOMPILE=ON \
    -C cmake.define.TESSALINE_TESTS="$tests" -C cmake.define.TESSALINE_WERROR="$werror"
  mark_done .venv/.built "$wanted"
}
