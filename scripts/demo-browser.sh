#!/usr/bin/env bash
# Serves the demo page for trying the example extension by hand in a real
# browser (see "Using it from a real browser" in the README).
#   scripts/demo-browser.sh [--modules] [PORT]
# --modules first writes this user's module files for the demo: "echo",
# signed, and "blocked", the same library with a signature that does not
# match. Uses the installed tessmar-sign and example module.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
if [ "${1:-}" = "-h" ] || [ "${1:-}" = "--help" ]; then
  sed -n '2,7p' "$0" | sed 's/^# \{0,1\}//'; exit 0
fi
if [ "${1:-}" = "--modules" ]; then
  shift
  module=$(ls /usr/lib/*/tessmar/modules/libtessmar_echo_module.so 2>/dev/null | head -n 1)
  [ -n "$module" ] || { echo "demo-browser.sh: no installed example module" >&2; exit 1; }
  tessmar-sign module echo "$module" --version 1.0.0.1
  config="$HOME/.config/Pelmora/Tessmar/morrowhost"
  printf '{"Name":"blocked","Path":"%s","Sig":"%s=","Version":"1.0.0.0"}\n' \
    "$module" "$(printf 'A%.0s' $(seq 43))" >"$config/blocked.json"
  echo "wrote $config/echo.json and $config/blocked.json"
fi
exec node "$root/extension/demo/serve.mjs" "${1:-8765}"
