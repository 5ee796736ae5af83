#!/usr/bin/env bash
# Installs the Debian packages the build, tests and demo need, skipping the
# ones already present. Runs as root (CI) or through sudo when available.
# --browsers adds what the browser tests need (scripts/browser-test.sh).
set -euo pipefail

packages=(
  cmake ninja-build g++ pkg-config binutils
  libjsonparser-dev        # JSON parsing inside the library
  rapidjson-dev            # JSON writing in tessmar-sign (headers, build only)
  libgtest-dev             # unit tests
  libbenchmark-dev         # benchmarks
  libssl-dev               # OpenSSL: test and benchmark oracle only
  dpkg-dev lintian         # the Debian package: dependencies and checks
  clang-14 libclang-rt-14-dev  # libFuzzer targets
)
if [ "${1:-}" = "--browsers" ]; then
  packages+=(firefox-esr chromium nodejs)  # headless end-to-end tests
  # Debian's nodejs comes without npm; other builds of it bring their own.
  command -v npm >/dev/null || packages+=(npm)
fi

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" \
    || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
