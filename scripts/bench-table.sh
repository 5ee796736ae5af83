#!/usr/bin/env bash
# Runs the benchmarks (Release build in build/bench) with repetitions in
# random interleaving and prints the table of ratios the README records:
# for each case our median time and the anchor's (OpenSSL, json-parser
# alone, or a plain FIFO ping-pong) from the same run, and ours / anchor
# (how many times slower we are; below 1 is faster).
#   scripts/bench-table.sh [--repetitions N] [--filter REGEX]
# Exit status: 0 printed, 1 a build or benchmark failed, 2 bad arguments.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
repetitions=7
filter="."
while [ $# -gt 0 ]; do
  case "$1" in
    --repetitions) repetitions=${2:?}; shift 2 ;;
    --filter) filter=${2:?}; shift 2 ;;
    -h | --help) sed -n '2,9p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "bench-table.sh: unknown argument '$1' (see --help)" >&2; exit 2 ;;
  esac
done

build="$root/build/bench"
(cd "$root" && cmake --preset bench >/dev/null && cmake --build --preset bench >/dev/null)
results=$(mktemp -d)
trap 'rm -rf "$results"' EXIT
for bench in crypto_bench signature_bench inprocess_bench host_roundtrip_bench nm_host_bench; do
  "$build/bench/$bench" --benchmark_filter="$filter" \
    --benchmark_repetitions="$repetitions" \
    --benchmark_enable_random_interleaving=true \
    --benchmark_format=json >"$results/$bench.json" 2>/dev/null
done

python3 - "$results" <<'PY'
import glob, json, re, sys
anchors = [("/ours", "/openssl"), ("/tsmx_Invoke", "/json_parse_and_copy"),
           ("/tsmx_Invoke", "/fifo_pingpong"), ("/adapter", "/minimal_host")]
medians = {}
wakeups = {}
for path in sorted(glob.glob(sys.argv[1] + "/*.json")):
    try:
        runs = json.load(open(path))["benchmarks"]
    except ValueError:  # the filter matched nothing in this program
        continue
    for b in runs:
        name = re.sub(r"(/iterations:\d+)?(/real_time|/manual_time)?(_median)?$", "", b["run_name"])
        if "wakeups_per_second" in b and b.get("run_type") == "iteration":
            wakeups.setdefault(name, []).append(b["wakeups_per_second"])
        elif b.get("aggregate_name") == "median" and "wakeups_per_second" not in b:
            scale = {"ns": 1, "us": 1e3, "ms": 1e6}[b["time_unit"]]
            medians[name] = b["real_time"] * scale
def show(ns):
    return "%.0f ns" % ns if ns < 1e4 else "%.1f µs" % (ns / 1e3) if ns < 1e7 else "%.1f ms" % (ns / 1e6)
print("| case | ours | anchor | ours / anchor |")
print("|---|---:|---:|---:|")
for name in sorted(medians):
    for mine, theirs in anchors:
        if mine in name and name.replace(mine, theirs) in medians:
            other = medians[name.replace(mine, theirs)]
            case = name.replace(mine, "")
            print("| %s | %s | %s | %.2f |" % (case, show(medians[name]), show(other),
                                              medians[name] / other))
paired = set()
for name in medians:
    for mine, theirs in anchors:
        if mine in name and name.replace(mine, theirs) in medians:
            paired |= {name, name.replace(mine, theirs)}
alone = [name for name in sorted(medians) if name not in paired]
if alone or wakeups:
    print()
    print("| figure | median |")
    print("|---|---:|")
    for name in alone:
        print("| %s | %s |" % (name, show(medians[name])))
    for name in sorted(wakeups):
        counts = sorted(wakeups[name])
        print("| %s, wake-ups per second | %g |" % (name, counts[len(counts) // 2]))
PY
