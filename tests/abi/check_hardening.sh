#!/usr/bin/env bash
# Checks the built binaries for the hardening the build asks for.
#   check_hardening.sh --library LIB... --executable EXE...
# All: full RELRO (GNU_RELRO and BIND_NOW) and a stack that is not executable.
# Shared objects: the stack protector and endbr64 landing pads on every
# exported function. Executables: position-independent.
set -uo pipefail
failures=0
fail() { echo "FAIL: $1: $2"; failures=$((failures + 1)); }

# Outputs are captured whole: grep -q closing a pipe early would fail it.
check() {  # MODE FILE
  local mode=$1 file=$2 dynamic segments symbol first
  dynamic=$(readelf -dW "$file")
  segments=$(readelf -lW "$file")
  grep -qE '\(FLAGS\).*BIND_NOW|\(FLAGS_1\).*NOW' <<<"$dynamic" || fail "$file" "no BIND_NOW"
  grep -q 'GNU_RELRO' <<<"$segments" || fail "$file" "no GNU_RELRO segment"
  grep -qE 'GNU_STACK.* RW ' <<<"$segments" || fail "$file" "stack executable or unmarked"
  if [ "$mode" = executable ]; then
    grep -qE '\(FLAGS_1\).*PIE' <<<"$dynamic" || fail "$file" "not PIE"
    return
  fi
  grep -q '__stack_chk_fail' <<<"$(nm -D --undefined-only "$file")" || fail "$file" "no stack protector"
  for symbol in $(nm -D --defined-only "$file" | awk '$2 == "T" { print $3 }'); do
    first=$(objdump -d --no-show-raw-insn --disassemble="$symbol" "$file" |
      awk '/^[[:space:]]+[0-9a-f]+:/ { print $2; exit }')
    [ "$first" = endbr64 ] || fail "$file" "$symbol starts with '$first', not endbr64"
  done
}

mode="" checked=0
for arg in "$@"; do
  case "$arg" in
    --library | --executable) mode=${arg#--} ;;
    *) [ -n "$mode" ] || { echo "usage: $0 --library LIB... --executable EXE..." >&2; exit 2; }
       if [ -f "$arg" ]; then check "$mode" "$arg"; checked=$((checked + 1)); else fail "$arg" missing; fi ;;
  esac
done
echo "$checked binaries checked, $failures problems"
[ "$failures" -eq 0 ]
