#!/usr/bin/env bash
# Builds against an installed prefix the way consumers do: a small program
# once with find_package and once with pkg-config, and the SDK's modules (the
# clock and the echo module in C++, the echo module in C) with
# tessmar_add_module. The modules are signed with their -sign targets in a
# temporary HOME whose config.json names the prefix's installation, and are
# answered in-process and through the host by tessmar-drive.
#   consumer_test.sh PREFIX SOURCE_DIR WORK_DIR
set -euo pipefail
prefix=$1 source=$2 work=$3
rm -rf "$work"
expected="ungWv48Bz+pBQUDeXa4iI7ADYaOWF3qctBD/YfIAFa0=
signature ok"
fail() { echo "FAIL: $*" >&2; exit 1; }

export HOME="$work/home"
mkdir -p "$HOME"
install_dir=$(dirname "$(find "$prefix" -name libTessmarFirefox.so | head -n 1)")
config_dir="$HOME/.config/Pelmora/Tessmar/morrowhost"
mkdir -p "$config_dir"
printf '{"Tessmar": "%s", "Version": "1.0.0.0"}\n' "$install_dir" >"$config_dir/config.json"
"$prefix/bin/tessmar-sign" install >/dev/null

for project in tests/packaging/consumer examples/clock_module examples/echo_module \
               examples/echo_module_c; do
  cmake -S "$source/$project" -B "$work/$project" -G Ninja \
    -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
  cmake --build "$work/$project" >/dev/null
done
for pair in clock_module:clock echo_module:tessmar_echo_module \
            echo_module_c:tessmar_echo_module_c; do
  cmake --build "$work/examples/${pair%%:*}" --target "${pair#*:}-sign" >/dev/null
done
# Each module exports Initialize and nothing else, and links no bridge library.
for module in $(find "$work/examples" -name 'lib*.so'); do
  [ "$(nm -D --defined-only "$module" | awk '{print $3}')" = Initialize ] ||
    fail "$module exports more than Initialize"
  ! ldd "$module" | grep -q libTessmarFirefox || fail "$module links the library"
done
[ "$("$work/tests/packaging/consumer/consumer")" = "$expected" ]

pc_dir=$(dirname "$(find "$prefix" -name tessmar.pc | head -n 1)")
flags=$(PKG_CONFIG_PATH="$pc_dir" pkg-config --cflags --libs tessmar)
# shellcheck disable=SC2086
c++ -std=c++17 -o "$work/pkg-consumer" "$source/tests/packaging/consumer/consumer.cpp" $flags
[ "$("$work/pkg-consumer")" = "$expected" ]

# The modules' answers, the same through every route. The echo modules in
# C++ and C answer byte for byte alike.
native() { printf '{"cmd":"native","id":"%s","tabid":"t","module":"%s","origin":"https://a.example","pad":"q\\"\\u0001"}' "$1" "$2"; }
setcallback() { printf '{"cmd":"setcallback","id":"%s","tabid":"t","callback":"cb","module":"%s"}' "$1" "$2"; }
contains() { grep -qF -- "$2" <<<"$1" || fail "$3: no '$2' in: $1"; }
for mode in "" --host; do
  route="tessmar-drive ${mode:-in-process}"
  out=$("$prefix/bin/tessmar-drive" $mode --wait-ms 1300 "$(native 1 clock)" "$(setcallback 2 clock)" \
    "$(native 3 echo)" "$(setcallback 4 echo)" "$(native 5 echo_c)" "$(setcallback 6 echo_c)" 2>&1)
  contains "$out" '"status":"TRUE", "reply":{"now":' "$route clock"
  contains "$out" '"reply":{"registered":true}' "$route clock setcallback"
  contains "$out" '"callback":"cb", "reply":{"now":' "$route clock callback"
  # ID MODULE LENGTH: the echo modules' answers name the request's length.
  for case in "3 echo 100" "5 echo_c 102"; do
    set -- $case
    contains "$out" '"reply":{"module":"echo","origin":"https://a.example","id":"'"$1"'","length":'"$3}" \
      "$route $2"
    contains "$out" "\"reply\":{\"module\":\"echo\",\"event\":\"ping\",\"id\":\"$(($1 + 1))\"}" "$route $2 callback"
  done
  contains "$out" '"reply":{"module":"echo","registered":true,"callback":"cb"}' "$route setcallback"
done

echo "consumer test passed"
