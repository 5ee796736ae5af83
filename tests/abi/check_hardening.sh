#!/usr/bin/env bash
# Checks the built binaries for the hardening the build asks for.
#   check_hardening.sh --library LIB... --executable EXE...
# Shared objects: full RELRO (GNU_RELRO segment and BIND_NOW), a stack that
# is not executable, the stack protector, and endbr64 landing pads.
# Executables: position-independent and BIND_NOW.
set -uo pipefail

failures=0
fail() { echo "FAIL: $1: $2"; failures=$((failures + 1)); }

check_common() {
  local file=$1
  local dynamic segments
  dynamic=$(readelf -dW "$file")
  segments=$(readelf -lW "$file")
  grep -qE '\(FLAGS\).*BIND_NOW|\(FLAGS_1\).*NOW' <<<"$dynamic" ||
    fail "$file" "not linked with -z now (no BIND_NOW)"
  grep -q 'GNU_RELRO' <<<"$segments" || fail "$file" "no GNU_RELRO segment"
  local stack
  stack=$(grep 'GNU_STACK' <<<"$segments")
  [ -n "$stack" ] || fail "$file" "no GNU_STACK segment (executable stack)"
  grep -qE 'GNU_STACK.* RWE ' <<<"$stack" && fail "$file" "executable stack"
}

check_library() {
  local file=$1
  check_common "$file"
  # Outputs are captured whole: grep -q closing a pipe early would fail it.
  local undefined
  undefined=$(nm -D --undefined-only "$file")
  grep -q '__stack_chk_fail' <<<"$undefined" ||
    fail "$file" "no stack protector (__stack_chk_fail is never called)"
  # Every exported function must start with a landing pad.
  local symbol first code
  for symbol in $(nm -D --defined-only "$file" | awk '$2 == "T" { print $3 }'); do
    code=$(objdump -d --no-show-raw-insn --disassemble="$symbol" "$file")
    first=$(awk '/^[[:space:]]+[0-9a-f]+:/ { print $2; exit }' <<<"$code")
    [ "$first" = "endbr64" ] || fail "$file" "$symbol starts with '$first', not endbr64"
  done
}

check_executable() {
  local file=$1
  check_common "$file"
  readelf -hW "$file" | grep -qE 'Type:[[:space:]]+DYN' ||
    fail "$file" "not a position-independent executable"
  readelf -dW "$file" | grep -qE '\(FLAGS_1\).*PIE' ||
    fail "$file" "not marked PIE"
}

mode=""
checked=0
for arg in "$@"; do
  case "$arg" in
    --library | --executable) mode=${arg#--} ;;
    *)
      [ -n "$mode" ] || { echo "usage: $0 --library LIB... --executable EXE..." >&2; exit 2; }
      [ -f "$arg" ] || { fail "$arg" "missing"; continue; }
      "check_$mode" "$arg"
      checked=$((checked + 1))
      ;;
  esac
done
echo "$checked binaries checked, $failures problems"
[ "$failures" -eq 0 ]
