#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, AddressSanitizer + UBSan, build/fuzz)
# and runs one of them.
#   scripts/fuzz.sh TARGET SECONDS [LIBFUZZER_ARGS...]   fuzz for that long
#   scripts/fuzz.sh --list                                the targets
#   scripts/fuzz.sh --help
# The run starts from the committed corpus (fuzz/corpus/TARGET) and keeps the
# inputs it finds in build/fuzz/corpus/TARGET; crashes go to build/fuzz/.
# To keep a new input, merge it into the committed corpus:
#   build/fuzz/fuzz/TARGET -merge=1 fuzz/corpus/TARGET build/fuzz/corpus/TARGET
# Exit status: 0 nothing found, 1 the target found a crash or the build
# failed, 2 bad arguments.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
targets=$(sed -n 's/^tessmar_add_fuzzer(\([a-z_0-9]*\).*/\1/p' "$root/fuzz/CMakeLists.txt")
usage() { sed -n '2,12p' "$0" | sed 's/^# \{0,1\}//'; }

case "${1:-}" in
  -h | --help) usage; exit 0 ;;
  --list) echo "$targets"; exit 0 ;;
esac
if [ $# -lt 2 ] || ! grep -qx -- "$1" <<<"$targets" || ! [[ "$2" =~ ^[0-9]+$ ]]; then
  echo "fuzz.sh: expected TARGET SECONDS, TARGET one of: $(echo $targets)" >&2
  exit 2
fi
target=$1 seconds=$2
shift 2

bash "$root/scripts/install-deps.sh"
build="$root/build/fuzz"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_CXX_COMPILER=clang++-14 \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTESSMAR_FUZZ=ON \
  -DTESSMAR_SANITIZE=address,undefined >/dev/null
cmake --build "$build" --target "$target" >/dev/null ||
  { echo "fuzz.sh: building $target failed" >&2; exit 1; }

work="$build/corpus/$target"
mkdir -p "$work"
export ASAN_OPTIONS="abort_on_error=1:detect_leaks=1"
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1"
"$build/fuzz/$target" -max_total_time="$seconds" -print_final_stats=1 \
  -artifact_prefix="$build/" "$@" "$work" "$root/fuzz/corpus/$target" ||
  { echo "fuzz.sh: $target found a problem; see the artifact in $build" >&2; exit 1; }
