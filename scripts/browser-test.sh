#!/usr/bin/env bash
# The browser stage: installs Firefox ESR, Chromium and the pinned npm
# packages when missing, builds what the tests load (in build/tests, the
# normal suite's build, or $TESSMAR_BUILD_DIR), and runs the end-to-end
# tests in both browsers, headless. Exits non-zero on any failure.
#   scripts/browser-test.sh [--help]
set -euo pipefail
case "${1:-}" in
  "") ;;
  -h | --help) sed -n '2,6p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
  *) echo "browser-test.sh: unexpected argument '$1' (see --help)" >&2; exit 2 ;;
esac
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
bash "$root/scripts/install-deps.sh" --browsers

build="${TESSMAR_BUILD_DIR:-$root/build/tests}"
werror=OFF
[ "${CI:-}" = "true" ] && werror=ON
if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DTESSMAR_WERROR="$werror" >/dev/null
fi
cmake --build "$build" -j "$(nproc)" --target TessmarFirefox \
  tessmar_reference_host tessmar-nm-host tessmar-sign tessmar_echo_module \
  bridge_host_callback_module

cd "$root"
# puppeteer-core downloads no browser; the tests use Debian's.
PUPPETEER_SKIP_DOWNLOAD=1 npm ci --no-audit --no-fund --loglevel=error
# The whole stage is bounded; each browser session has its own limit too.
TESSMAR_BUILD_DIR="$build" timeout -s KILL 600 \
  node --test --test-concurrency=1 tests/extension/ tests/browser/
