#!/usr/bin/env bash
# Builds against an installed prefix the way consumers do: the example module
# with find_package(Tessmar), a small program once with find_package and once
# with pkg-config; runs the program and checks what it prints.
#   consumer_test.sh PREFIX SOURCE_DIR WORK_DIR
set -euxo pipefail
prefix=$1 source=$2 work=$3
rm -rf "$work"
expected="ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad
ungWv48Bz+pBQUDeXa4iI7ADYaOWF3qctBD/YfIAFa0=
signature ok"
for project in examples/echo_module tests/packaging/consumer; do
  cmake -S "$source/$project" -B "$work/$project" -G Ninja \
    -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
  cmake --build "$work/$project" >/dev/null
done
nm -D --defined-only "$work/examples/echo_module/libtessmar_echo_module.so" |
  grep -qw Initialize
[ "$("$work/tests/packaging/consumer/consumer")" = "$expected" ]

pc_dir=$(dirname "$(find "$prefix" -name tessmar.pc | head -n 1)")
flags=$(PKG_CONFIG_PATH="$pc_dir" pkg-config --cflags --libs tessmar)
# shellcheck disable=SC2086
c++ -std=c++17 -o "$work/pkg-consumer" "$source/tests/packaging/consumer/consumer.cpp" $flags
[ "$("$work/pkg-consumer")" = "$expected" ]
