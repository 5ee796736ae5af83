#!/usr/bin/env bash
# The browser stage: installs Firefox ESR, Chromium and the pinned npm
# packages when missing, builds what the tests load (in build/tests, the
# normal suite's build, or $TESSMAR_BUILD_DIR), and runs the end-to-end
# tests in both browsers, headless. With --installed DEB (as root, with no
# tessmar package installed) it also installs DEB, checks that the browsers
# reach it through its own manifests, and purges it. Exits non-zero on any
# failure.
#   scripts/browser-test.sh [--installed DEB] [--help]
set -euo pipefail
deb=""
case "${1:-}" in
  "") ;;
  --installed) deb=${2:?"--installed needs the package file"} ;;
  -h | --help) sed -n '2,9p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
  *) echo "browser-test.sh: unexpected argument '$1' (see --help)" >&2; exit 2 ;;
esac
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
bash "$root/scripts/install-deps.sh" --browsers

build="${TESSMAR_BUILD_DIR:-$root/build/tests}"
[ "${CI:-}" = "true" ] && export TESSMAR_WERROR=ON
if [ ! -f "$build/CMakeCache.txt" ]; then
  (cd "$root" && cmake --preset dev >/dev/null)  # build/tests
fi
cmake --build "$build" -j "$(nproc)" --target TessmarFirefox \
  tessmar_reference_host tessmar-nm-host tessmar-sign tessmar_echo_module \
  bridge_host_callback_module

cd "$root"
# puppeteer-core downloads no browser; the tests use Debian's.
PUPPETEER_SKIP_DOWNLOAD=1 npm ci --no-audit --no-fund --loglevel=error
# The whole stage is bounded; each browser session has its own limit too.
TESSMAR_BUILD_DIR="$build" timeout -s KILL 600 \
  node --test --test-concurrency=1 tests/extension/ tests/browser/bridge.test.mjs

if [ -n "$deb" ]; then
  if dpkg-query -W -f='${Status}' tessmar 2>/dev/null | grep -q "install ok installed"; then
    echo "browser-test.sh: a tessmar package is installed already; not touching it" >&2
    exit 1
  fi
  trap 'dpkg --purge tessmar >/dev/null 2>&1 || true' EXIT
  DEBIAN_FRONTEND=noninteractive dpkg -i "$deb" >/dev/null
  timeout -s KILL 300 node --test --test-concurrency=1 tests/browser/installed.test.mjs
fi
