#!/usr/bin/env python3
"""Mutation testing for the library's sources: how many deliberate faults do
the tests catch?

  scripts/mutate.py generate [--per-file N]   rewrite scripts/mutations.tsv
  scripts/mutate.py run [--only TEXT]... [--build DIR] [--timeout S] [--plain]
  scripts/mutate.py list

`generate` scans the sources for places where a typical mistake can be made
(a flipped comparison or logical operator, an off-by-one, a changed constant
or status code, a deleted call, a changed letter in one of the reply texts)
and keeps at most N of them per file (*.cpp and *.h under src/, tools/nm-host/,
tools/reference-host/ and tools/tessmar-sign/), picked deterministically. The
list is committed; regenerate it when the code moves (a mutant whose line no
longer holds its text is reported as stale, not run).

`run` applies one mutant at a time to the working tree, rebuilds the build
directory incrementally (configured on first use, tests on, benchmarks off),
runs the whole CTest suite, and restores the file whatever happens. A mutant
the plain suite misses is tried again in a second build under ASan+UBSan, as
the test command's second stage runs it (leaks, out-of-bounds accesses and
undefined behaviour then count); --plain skips that. A mutant is killed when
a build or a test fails or times out. A mutant may be marked
equivalent in the list's last column (with the reason); it is then skipped.
The summary gives killed/survived per subsystem (src/<subsystem>/, and each of
the three tools) and lists
the survivors.

A developer tool, not part of the test command. Exit status: 0 done, 1 a
mutant could not be restored or the baseline suite fails, 2 bad arguments.
"""
import argparse
import hashlib
import os
import pathlib
import re
import signal
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
LIST = ROOT / "scripts" / "mutations.tsv"

# (kind, pattern, replacement); applied to one occurrence at a time.
OPERATORS = [
    ("flip", r" == ", " != "),
    ("flip", r" != ", " == "),
    ("boundary", r" < ", " <= "),
    ("boundary", r" <= ", " < "),
    ("boundary", r" > ", " >= "),
    ("boundary", r" >= ", " > "),
    ("logic", r" && ", " || "),
    ("logic", r" \|\| ", " && "),
    ("off-by-one", r" \+ 1\b", " + 2"),
    ("off-by-one", r" - 1\b", " - 2"),
    ("constant", r"\breturn 0;", "return 1;"),
    ("constant", r"\breturn true;", "return false;"),
    ("constant", r"\breturn false;", "return true;"),
    ("constant", r"\b0x1[0-9A-Fa-f]{4,5}\b", None),  # status code + 1
    ("literal", r'"(TRUE|FALSE|BLOCK:QX|BLOCK:CLIENT|morrowhost|_all_|'
                r'get_version|get_versions|setcallback|native)"', None),
]
DELETABLE = re.compile(
    r"^\s*(?:std::)?(fsync|close|unlink|free|memset|memcpy|mkfifo|"
    r"pthread_join|waitpid|QueueCallback|Terminate|FreeString)\b.*;\s*$")


# The library, the two tools that stand between it and the outside (the
# native-messaging adapter and the reference host) and the signing tool.
MUTATED_TREES = ("src", "tools/nm-host", "tools/reference-host",
                 "tools/tessmar-sign")


def source_files():
    return sorted(p for tree in MUTATED_TREES for p in (ROOT / tree).rglob("*")
                  if p.suffix in (".cpp", ".h"))


def code_lines(path):
    """(number, text) of the lines worth mutating: no comments, includes or
    static tables."""
    for number, text in enumerate(path.read_text().splitlines(), 1):
        stripped = text.strip()
        if (not stripped or stripped.startswith(("//", "#", "*", "/*"))
                or "static_assert" in stripped):
            continue
        yield number, text


def candidates(path):
    for number, text in code_lines(path):
        code = text.split("//")[0]
        for kind, pattern, replacement in OPERATORS:
            for match in re.finditer(pattern, code):
                original = match.group(0)
                if replacement is not None:
                    mutated = re.sub(pattern, replacement, original)
                elif kind == "constant":
                    mutated = "0x%X" % (int(original, 16) + 1)
                else:  # a reply text with its second letter changed
                    word = original[1:-1]
                    mutated = '"%s%s%s"' % (word[0], "#", word[2:])
                yield (number, kind, original, mutated, match.start())
        if DELETABLE.match(code):
            statement = code.strip()
            yield (number, "delete", statement, ";", code.index(statement))


def generate(per_file):
    # Reasons given for equivalent mutants survive a regeneration as long as
    # their line of code is unchanged. The same line may stand more than once
    # in a file with different reasons: the n-th keeps the n-th's.
    reasons = {}
    seen = {}

    def key(file, code, column, original):
        k = (file, code, column, original)
        seen[k] = seen.get(k, 0) + 1
        return k + (seen[k],)

    if LIST.exists():
        for m in load():
            k = key(m["file"], m["code"], m["column"], m["original"])
            if m["equivalent"]:
                reasons[k] = m["equivalent"]
    seen.clear()
    rows = []
    for path in source_files():
        found = list(candidates(path))
        lines = path.read_text().splitlines()
        # Deterministic pick, spread over the file and the kinds; keyed by
        # the code itself so that moving a line does not change the pick.
        found.sort(key=lambda c: hashlib.sha1(("%s:%s:%s:%d" % (
            path.name, lines[c[0] - 1].strip(), c[2], c[4])).encode()).hexdigest())
        for number, kind, original, mutated, column in sorted(
                found[:per_file]):
            rel = str(path.relative_to(ROOT))
            code = lines[number - 1].strip()
            reason = reasons.get(key(rel, code, column, original), "")
            rows.append("\t".join([rel, str(number), str(column), kind,
                                   original, mutated, reason, code]))
    header = ("# file\tline\tcolumn\tkind\toriginal\tmutated\t"
              "equivalent (why the mutant cannot change behaviour)\tcode")
    LIST.write_text(header + "\n" + "\n".join(rows) + "\n")
    print("%d mutants in %s" % (len(rows), LIST.relative_to(ROOT)))


def load():
    mutants = []
    for line in LIST.read_text().splitlines():
        if line.startswith("#") or not line.strip():
            continue
        fields = line.split("\t")
        fields += [""] * (8 - len(fields))
        file, number, column, kind, original, mutated, equivalent, code = \
            fields[:8]
        mutants.append(dict(file=file, line=int(number), column=int(column),
                            kind=kind, original=original, mutated=mutated,
                            equivalent=equivalent, code=code))
    return mutants


def describe(m):
    return "%s:%d %s %r -> %r" % (m["file"], m["line"], m["kind"],
                                   m["original"], m["mutated"])


SANITIZER_ENV = {
    "ASAN_OPTIONS": "abort_on_error=1:detect_leaks=1:strict_string_checks=1",
    "UBSAN_OPTIONS": "halt_on_error=1:print_stacktrace=1",
}


def build_and_test(build, timeout):
    """True when the suite passes (the mutant survives)."""
    built = subprocess.run(["cmake", "--build", str(build), "-j2"],
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    if built.returncode != 0:
        return False
    # CTest in a process group of its own: when it stops on the first
    # failure, or is killed here, it leaves the other test still running,
    # and a mutant's endless loop would go on eating the cores (and time out
    # the mutants after it) unless the whole group goes with it.
    tested = subprocess.Popen(
        ["ctest", "--test-dir", str(build), "-j2", "--timeout", str(timeout),
         "--stop-on-failure"],
        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
        env=dict(os.environ, **SANITIZER_ENV), start_new_session=True)
    try:
        status = tested.wait(timeout=timeout * 4)
    except subprocess.TimeoutExpired:
        status = None
    try:
        os.killpg(tested.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    tested.wait()
    return status == 0


def configure(build, sanitize):
    if not (build / "CMakeCache.txt").exists():
        subprocess.run(["cmake", "-S", str(ROOT), "-B", str(build), "-G",
                        "Ninja", "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
                        "-DTESSMAR_BUILD_BENCH=OFF",
                        "-DTESSMAR_SANITIZE=" + sanitize],
                       check=True, stdout=subprocess.DEVNULL)


def survives(builds, timeout):
    return all(build_and_test(build, timeout) for build in builds)


def run(only, build, timeout, plain):
    builds = [pathlib.Path(build)]
    if not plain:
        builds.append(builds[0].with_name(builds[0].name + "-asan"))
    for b, sanitize in zip(builds, ["", "address,undefined"]):
        configure(b, sanitize)
    if not survives(builds, timeout):
        print("the suite fails without any mutant; fix that first",
              file=sys.stderr)
        return 1
    results = {}  # subsystem -> [killed, survived, stale, equivalent]
    survivors = []
    for m in load():
        if only and not any(text in describe(m) for text in only):
            continue
        parts = pathlib.Path(m["file"]).parts
        subsystem = "/".join(parts[:2]) if parts[0] == "tools" else parts[1]
        counts = results.setdefault(subsystem, [0, 0, 0, 0])
        if m["equivalent"]:
            counts[3] += 1
            continue
        path = ROOT / m["file"]
        original_text = path.read_text()
        lines = original_text.splitlines(keepends=True)
        line = lines[m["line"] - 1] if m["line"] <= len(lines) else ""
        col = m["column"]
        if line[col:col + len(m["original"])] != m["original"]:
            counts[2] += 1
            print("stale    " + describe(m))
            continue
        lines[m["line"] - 1] = (line[:col] + m["mutated"] +
                                line[col + len(m["original"]):])
        try:
            path.write_text("".join(lines))
            survived = survives(builds, timeout)
        finally:
            path.write_text(original_text)
        if path.read_text() != original_text:
            print("could not restore " + m["file"], file=sys.stderr)
            return 1
        counts[1 if survived else 0] += 1
        print(("SURVIVED " if survived else "killed   ") + describe(m),
              flush=True)
        if survived:
            survivors.append(describe(m))
    for b in builds:  # leave the builds matching the sources
        build_and_test(b, timeout)
    print("\n| subsystem | killed | survived | stale | equivalent |")
    print("|---|---:|---:|---:|---:|")
    total = [0, 0, 0, 0]
    for subsystem in sorted(results):
        counts = results[subsystem]
        total = [a + b for a, b in zip(total, counts)]
        print("| %s | %d | %d | %d | %d |" % ((subsystem,) + tuple(counts)))
    print("| all | %d | %d | %d | %d |" % tuple(total))
    run_count = total[0] + total[1]
    if run_count:
        print("\nkilled %.1f%% of %d non-equivalent mutants"
              % (100.0 * total[0] / run_count, run_count))
    for survivor in survivors:
        print("survivor: " + survivor)
    return 0


def main():
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    sub = parser.add_subparsers(dest="command", required=True)
    g = sub.add_parser("generate", help="rewrite scripts/mutations.tsv")
    g.add_argument("--per-file", type=int, default=4)
    r = sub.add_parser("run", help="run the mutants")
    r.add_argument("--only", action="append", default=[],
                   help="run mutants whose description contains this text (a "
                   "file name, a kind); may be given more than once")
    r.add_argument("--build", default=str(ROOT / "build" / "mutate"))
    r.add_argument("--timeout", type=int, default=60,
                   help="seconds per test")
    r.add_argument("--plain", action="store_true",
                   help="do not try the plain suite's survivors again under "
                   "ASan+UBSan")
    sub.add_parser("list", help="print the mutants")
    args = parser.parse_args()
    if args.command == "generate":
        generate(args.per_file)
        return 0
    if args.command == "list":
        for m in load():
            print(describe(m) + (" [equivalent: %s]" % m["equivalent"]
                                 if m["equivalent"] else ""))
        return 0
    return run(args.only, args.build, args.timeout, args.plain)


if __name__ == "__main__":
    sys.exit(main())
