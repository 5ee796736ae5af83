#!/usr/bin/env bash
# Builds the libFuzzer targets (clang-14, AddressSanitizer + UBSan, in
# build/fuzz) and runs one of them.
#
#   scripts/fuzz.sh TARGET SECONDS [LIBFUZZER_ARGS...]  fuzz TARGET that long
#   scripts/fuzz.sh --merge TARGET   fold what runs found into the committed
#                                    corpus, keeping one input per new edge
#                                    and every hand-written seed-* file
#   scripts/fuzz.sh --list           the targets
#   scripts/fuzz.sh --help
#
# A run reads the committed corpus (fuzz/corpus/TARGET) without writing to
# it and keeps the inputs it finds in the scratch directory
# build/fuzz/corpus/TARGET; a crashing input is saved as
# build/fuzz/crash-* (or leak-*, timeout-*). Extra arguments go to libFuzzer,
# e.g. -max_len=256 or -runs=1000000 (the time bound still applies).
#
# Exit status: 0 nothing found (or merged), 1 the target found a problem,
# 2 bad arguments, 3 the build or the merge failed.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build="$root/build/fuzz"
targets=$(sed -n 's/^tessmar_add_fuzzer(\([a-z_0-9]*\).*/\1/p' "$root/fuzz/CMakeLists.txt")

usage() { sed -n '2,19p' "$0" | sed 's/^# \{0,1\}//'; }
die() { echo "fuzz.sh: $2" >&2; exit "$1"; }
known() { grep -qx -- "$1" <<<"$targets"; }

# build_target <target>: configures build/fuzz if needed and builds one
# target; the build output is shown only when it fails.
build_target() {
  bash "$root/scripts/install-deps.sh" || die 3 "installing the dependencies failed"
  local log
  log=$(mktemp)
  if ! (cd "$root" && cmake --preset fuzz &&
         cmake --build --preset fuzz -j 2 --target "$1") >"$log" 2>&1; then
    cat "$log" >&2
    rm -f "$log"
    die 3 "building $1 failed"
  fi
  rm -f "$log"
}

export ASAN_OPTIONS="abort_on_error=1:detect_leaks=1"
# The targets that write configuration files keep their private HOME under
# TMPDIR; in memory they run many times faster than on a busy disk.
if [ -z "${TMPDIR:-}" ] && [ -d /dev/shm ] && [ -w /dev/shm ]; then
  export TMPDIR=/dev/shm
fi
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1"

case "${1:-}" in
  -h | --help) usage; exit 0 ;;
  --list) echo "$targets"; exit 0 ;;
  --merge)
    [ $# -eq 2 ] && known "$2" ||
      die 2 "expected --merge TARGET, TARGET one of: $(echo $targets)"
    target=$2 committed="$root/fuzz/corpus/$2" found="$build/corpus/$2"
    [ -d "$found" ] || die 2 "nothing to merge: $found does not exist"
    build_target "$target"
    fresh=$(mktemp -d)
    trap 'rm -rf "$fresh"' EXIT
    # Edges without hit counts, so that the committed corpus stays small.
    "$build/fuzz/$target" -merge=1 -use_counters=0 "$fresh" "$committed" "$found" \
      >"$fresh.log" 2>&1 || { cat "$fresh.log" >&2; rm -f "$fresh.log"; die 3 "merging failed"; }
    rm -f "$fresh.log"
    # libFuzzer names the kept inputs by their SHA-1; hand-written seeds
    # (seed-*) stay under their names whether or not they add coverage.
    seeds=$(mktemp -d)
    cp "$committed"/seed-* "$seeds"/ 2>/dev/null || true
    for s in "$seeds"/*; do
      [ -e "$s" ] && rm -f "$fresh/$(sha1sum <"$s" | cut -d' ' -f1)"
    done
    rm -f "$committed"/*
    cp "$fresh"/* "$committed"/
    cp "$seeds"/* "$committed"/ 2>/dev/null || true
    rm -rf "$seeds"
    echo "$target: $(ls "$committed" | wc -l) inputs in fuzz/corpus/$target"
    exit 0 ;;
esac

[ $# -ge 2 ] && known "$1" && [[ "$2" =~ ^[1-9][0-9]*$ ]] ||
  die 2 "expected TARGET SECONDS (SECONDS > 0), TARGET one of: $(echo $targets)"
target=$1 seconds=$2
shift 2

build_target "$target"
mkdir -p "$build/corpus/$target"
"$build/fuzz/$target" -max_total_time="$seconds" -print_final_stats=1 \
  -artifact_prefix="$build/" "$@" "$build/corpus/$target" "$root/fuzz/corpus/$target" ||
  die 1 "$target found a problem; the input is saved in $build (see above)"
