#!/usr/bin/env bash
# Builds against an installed prefix the way consumers do: the example module
# with find_package(Tessmar), a small program once with find_package and once
# with pkg-config; runs the program and checks what it prints.
#   consumer_test.sh PREFIX SOURCE_DIR WORK_DIR
set -euo pipefail
prefix=$1 source=$2 work=$3
rm -rf "$work"
mkdir -p "$work"

expected="ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad
ungWv48Bz+pBQUDeXa4iI7ADYaOWF3qctBD/YfIAFa0=
signature ok"

configure_and_build() {  # SOURCE BUILD
  cmake -S "$1" -B "$2" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
  cmake --build "$2" >/dev/null
}

echo "example module with find_package(Tessmar)"
configure_and_build "$source/examples/echo_module" "$work/echo"
nm -D --defined-only "$work/echo/libtessmar_echo_module.so" | grep -qw Initialize

echo "program with find_package(Tessmar)"
configure_and_build "$source/tests/packaging/consumer" "$work/cmake"
[ "$("$work/cmake/consumer")" = "$expected" ]

echo "program with pkg-config"
pc_dir=$(dirname "$(find "$prefix" -name tessmar.pc | head -n 1)")
# shellcheck disable=SC2046
c++ -std=c++17 -o "$work/pkg-consumer" "$source/tests/packaging/consumer/consumer.cpp" \
  $(PKG_CONFIG_PATH="$pc_dir" pkg-config --cflags --libs tessmar)
[ "$("$work/pkg-consumer")" = "$expected" ]
echo "all consumers built and ran"
