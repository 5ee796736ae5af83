#!/usr/bin/env bash
# Installs what is missing, builds the library and runs the demonstration
# program against it.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
bash "$root/scripts/install-deps.sh"

build="$root/build/release"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DTESSMAR_BUILD_TESTS=OFF -DTESSMAR_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j "$(nproc)"
"$build/examples/crypto_tour"
