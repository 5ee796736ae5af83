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

check "dpkg -i" dpkg -i "$deb"
files=$(dpkg -L tessmar)
install_dir=$(dirname "$(grep '/libTessmarFirefox.so$' <<<"$files")")
system_config="/usr/share/Pelmora/Tessmar/morrowhost/config.json"
check "config.json names the installation" contains "$(cat "$system_config" 2>&1)" "\"Tessmar\": \"$install_dir\""
check "the installation is signed" tessmar-sign --system verify-install

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
