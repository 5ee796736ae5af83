#!/usr/bin/env bash
# Installs what is missing, builds the library and its tools, and shows the
# whole library at work on a sandbox installation under build/release/demo:
# a private HOME with its own configuration, a signed installation and a
# signed example module. Your real HOME and /usr/share are never touched.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
bash "$root/scripts/install-deps.sh"

build="$root/build/release"
(cd "$root" && cmake --preset release >/dev/null && cmake --build --preset release -j "$(nproc)")

library="$build/src/libTessmarFirefox.so"
sign="$build/tools/tessmar-sign/tessmar-sign"
drive="$build/tools/driver/tessmar-drive"

section() { printf '\n=== %s\n' "$*"; }
run() { printf '$ %s\n' "${*/#$build\//}"; "$@"; }

section "Crypto primitives through the library"
"$build/examples/crypto_tour"

# The sandbox: HOME, the installation directory and its covered files.
sandbox="$build/demo"
rm -rf "$sandbox"
install_dir="$sandbox/install"
mkdir -p "$sandbox/home" "$install_dir/modules"
export HOME="$sandbox/home"
config_dir="$HOME/.config/Pelmora/Tessmar/morrowhost"
mkdir -p "$config_dir"

cp "$library" "$install_dir/libTessmarFirefox.so"
cp "$build/tools/reference-host/TessmarFirefox" "$install_dir/TessmarFirefox"
printf 'browser plug-in placeholder\n' >"$install_dir/libnpTessmarPlugin.so"
printf 'chrome host placeholder\n' >"$install_dir/TessmarChrome"
module="$install_dir/modules/libtessmar_echo_module.so"
cp "$build/examples/echo_module/libtessmar_echo_module.so" "$module"
cat >"$config_dir/config.json" <<JSON
{"Tessmar": "$install_dir", "Version": "1.4.0.2"}
JSON

section "Signing the sandbox installation (HOME=$HOME)"
run "$sign" module echo "$module" --version 1.0.7.0
run "$sign" install
run "$sign" verify-module echo
run "$sign" verify-install

# A second module whose file changes after it was signed.
tampered="$install_dir/modules/libtampered.so"
cp "$module" "$tampered"
"$sign" module tampered "$tampered" --version 1.0.0.1 >/dev/null
printf 'x' >>"$tampered"
echo "(module 'tampered' was signed, then one byte was appended to its file)"

requests=(
  '{"init":"get_version","module":"echo"}'
  '{"init":"get_versions","m":"echo,tampered,absent","pv":"1.4.0.1"}'
  '{"cmd":"native","id":"1","tabid":"tab-7","callback":"onAnswer","module":"echo","origin":"https://shop.example","text":"hello"}'
  '{"cmd":"setcallback","id":"2","tabid":"tab-7","callback":"onTick","module":"echo","origin":"https://shop.example"}'
  '{"cmd":"native","id":"3","tabid":"tab-7","callback":"onEcho","echo":true}'
  '{"cmd":"native","id":"4","tabid":"tab-7","callback":"onAnswer","module":"tampered"}'
)

section "In-process: the library answers by itself (no host running)"
run "$drive" --library "$library" --wait-ms 400 "${requests[@]}"

section "Host mode: the same requests through the reference host over FIFOs"
run "$drive" --library "$library" --host --wait-ms 400 "${requests[@]}"

section "Done. The sandbox stays in ${sandbox#$root/} for a closer look."
