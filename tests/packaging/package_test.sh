#!/usr/bin/env bash
# package_test.sh DEB: installs the package, drives the installed library and
# host with a module signed by the installed tessmar-sign, purges it and checks
# nothing is left; lintian must report no error. Skipped unless run as root.
set -uo pipefail
deb=$1
if [ "$(id -u)" -ne 0 ]; then
  echo "SKIPPED: the package test installs a package and needs root"
  exit 0
fi
if dpkg-query -W -f='${Status}' tessmar 2>/dev/null | grep -q installed; then
  echo "SKIPPED: a tessmar package is installed already; not touching it"
  exit 0
fi

passed=0 failed=0
check() {  # DESCRIPTION COMMAND...
  local what=$1; shift
  if "$@"; then passed=$((passed + 1)); else echo "FAIL: $what"; failed=$((failed + 1)); fi
}
contains() { grep -qF -- "$2" <<<"$1"; }

export DEBIAN_FRONTEND=noninteractive
lintian_out=$(lintian --fail-on error --tag-display-limit 0 "$deb" 2>&1)
check "lintian reports no error: $lintian_out" test $? -eq 0

install_out=$(dpkg -i "$deb" 2>&1)
check "dpkg -i: $install_out" test $? -eq 0
check "a quiet install: $install_out" test -z "$(grep -i -e warning -e tessmar-sign <<<"$install_out")"
files=$(dpkg -L tessmar)
install_dir=$(dirname "$(grep '/libTessmarFirefox.so$' <<<"$files")")
# Where the system config.json says; tessmar-drive below finds the library there.
check "the installation is signed" tessmar-sign --system verify-install

# Each browser manifest names an executable the package installed.
manifests=$(grep '/native-messaging-hosts/.*\.json$' <<<"$files")
check "three browser manifests" test "$(wc -l <<<"$manifests")" -eq 3
while IFS= read -r manifest; do
  adapter=$(sed -n 's/^ *"path": "\(.*\)",$/\1/p' "$manifest")
  check "$manifest names a packaged executable: '$adapter'" \
    test -n "$adapter" -a -x "$adapter" -a -n "$(grep -Fx -- "$adapter" <<<"$files")"
done <<<"$manifests"
# No installed file points back at the tree the package was built from.
build_dir=$(cd "$(dirname "$deb")" && pwd)
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
leaks=""
while IFS= read -r path; do
  [ -f "$path" ] && grep -qF -e "$build_dir" -e "$root/" "$path" && leaks+="$path "
done <<<"$files"
check "no packaged file names $build_dir or $root: $leaks" test -z "$leaks"
docs=/usr/share/doc/tessmar
for doc in README.md docs/first-module.md docs/refusals.md examples/echo_module/echo_module.cpp \
           examples/echo_module_c/echo_module.c examples/clock_module/clock_module.cpp \
           examples/extension/manifest.json; do
  check "$docs/$doc shipped" test -s "$docs/$doc"
done
check "TessmarChrome man page" test -s /usr/share/man/man1/TessmarChrome.1.gz

home=$(mktemp -d)
module="$install_dir/modules/libtessmar_echo_module.so"
check "sign the example module" env HOME="$home" tessmar-sign module echo "$module" --version 1.0.0.1
request='{"cmd":"native","id":"1","tabid":"t","callback":"c","module":"echo","origin":"https://a.example"}'
for mode in "" --host; do
  out=$(HOME="$home" tessmar-drive $mode '{"init":"get_versions","m":"echo"}' "$request" 2>&1)
  check "versions ${mode:-in-process}: $out" contains "$out" '"qx":"1.0.0.0","m":[{"name":"echo","version":"1.0.0.1"}]'
  check "module ${mode:-in-process}: $out" contains "$out" '"status":"TRUE", "reply":{"module":"echo"'
done
rm -rf "$home"

check "dpkg --purge" dpkg --purge tessmar
left=""
while IFS= read -r path; do
  [ -e "$path" ] && [ ! -d "$path" ] && left+="$path "
done <<<"$files"
check "package files removed: $left" test -z "$left"
check "config.json and its directories removed" test ! -e /usr/share/Pelmora
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
