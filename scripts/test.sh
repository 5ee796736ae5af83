#!/usr/bin/env bash
# Installs what is missing, then builds and runs the whole test suite: a
# normal build, the same suite under AddressSanitizer + UndefinedBehavior-
# Sanitizer, and the concurrency tests under ThreadSanitizer. Exits non-zero
# on any failed test or sanitizer report. Warnings are errors when CI=true.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
bash "$root/scripts/install-deps.sh"

werror=OFF
[ "${CI:-}" = "true" ] && werror=ON
jobs=$(nproc)

# suite <build dir name> <sanitizers> [ctest arguments...]
suite() {
  local dir="$root/build/$1" sanitize="$2"
  shift 2
  echo "=== build/$(basename "$dir") (sanitizers: ${sanitize:-none})"
  cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DTESSMAR_WERROR="$werror" -DTESSMAR_SANITIZE="$sanitize" \
    -DTESSMAR_BUILD_BENCH="$([ -z "$sanitize" ] && echo ON || echo OFF)" >/dev/null
  cmake --build "$dir" -j "$jobs"
  ctest --test-dir "$dir" --output-on-failure -j "$jobs" "$@"
}

export ASAN_OPTIONS="abort_on_error=1:detect_leaks=1:strict_string_checks=1"
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1"

suite tests ""
suite tests-asan "address,undefined"
suite tests-tsan "thread" -L concurrency

# Every fuzz target replays its committed corpus (clang, ASan + UBSan).
echo "=== build/fuzz (libFuzzer corpus replay)"
cmake -S "$root" -B "$root/build/fuzz" -G Ninja -DCMAKE_CXX_COMPILER=clang++-14 \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTESSMAR_FUZZ=ON \
  -DTESSMAR_SANITIZE=address,undefined -DTESSMAR_WERROR="$werror" >/dev/null
cmake --build "$root/build/fuzz" -j "$jobs"
ctest --test-dir "$root/build/fuzz" --output-on-failure -j "$jobs" -L fuzz

# The Debian package: built, installed, driven in both modes and purged.
if [ "$(id -u)" -eq 0 ]; then
  echo "=== Debian package (build/package)"
  deb=$(bash "$root/scripts/package.sh" | tail -n 1)
  bash "$root/tests/packaging/package_test.sh" "$deb"
else
  echo "=== Debian package test SKIPPED: it installs a package and needs root"
fi
# Web pages through the example extension and the native-messaging adapter,
# in headless Firefox ESR and Chromium.
echo "=== browsers (Firefox ESR, Chromium)"
if [ "$(id -u)" -eq 0 ]; then
  bash "$root/scripts/browser-test.sh" --installed "$deb"
else
  bash "$root/scripts/browser-test.sh"
fi
echo "=== all tests passed"
