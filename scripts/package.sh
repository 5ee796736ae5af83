#!/usr/bin/env bash
# Builds the Debian package: a Release build for the /usr prefix under
# build/package, then cpack. Prints the path of the .deb on its last line.
#   scripts/package.sh [--help]
# Exit status: 0 built, 1 the build or cpack failed, 2 bad arguments.
set -euo pipefail
case "${1:-}" in
  "") ;;
  -h | --help) sed -n '2,5p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
  *) echo "package.sh: unexpected argument '$1' (see --help)" >&2; exit 2 ;;
esac
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
bash "$root/scripts/install-deps.sh"

build="$root/build/package"
[ "${CI:-}" = "true" ] && export TESSMAR_WERROR=ON
{
  (cd "$root" && cmake --preset package >/dev/null &&
    cmake --build --preset package -j "$(nproc)") &&
  (cd "$build" && cpack -G DEB >/dev/null)
} || { echo "package.sh: building the package failed" >&2; exit 1; }
ls "$build"/tessmar_*.deb
