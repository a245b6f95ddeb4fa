#!/usr/bin/env python3
"""Seeds faults into the sources one at a time and reports which the tests catch.

Each seed replaces one exact piece of text (it must occur exactly once) in one
file. For every seed the script applies it, rebuilds the debug preset, runs
ctest with a per-test time limit, records the outcome and restores the file
with `git checkout`. Outcomes: caught (a test failed), hung (a test ran into
the time limit and nothing else failed), missed (every test passed), invalid
(the seeded tree does not build, so it says nothing about the tests).

    python3 scripts/seed-faults.py SEEDS.json [--tests REGEX] [--timeout S] [--targets T...]

SEEDS.json is a list of {"file": ..., "find": ..., "replace": ..., "note": ...}.
Run it in a checkout of its own, configured with the debug preset: it edits
the sources it is given. It refuses to start on a tree with changes to a
file it would seed.
"""

import argparse
import json
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent


def run(cmd, timeout=None):
    return subprocess.run(cmd, cwd=ROOT, capture_output=True, text=True, timeout=timeout)


def ctest_outcome(regex, per_test):
    cmd = ["ctest", "--preset", "debug", "-j2", "--timeout", str(per_test)]
    if regex:
        cmd += ["-R", regex]
    result = run(cmd)
    # A parametrised test's name is followed by "  # GetParam() = ...".
    failed = re.findall(r"^\s*\d+ - (\S+).*\((\w+)\)\s*$", result.stdout, re.M)
    if result.returncode == 0:
        return "missed", []
    kinds = {kind for _, kind in failed}
    names = [name for name, _ in failed]
    if kinds == {"Timeout"}:
        return "hung", names
    return "caught", names


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("seeds", type=pathlib.Path)
    parser.add_argument("--tests", default="", help="ctest -R regex (default: all)")
    parser.add_argument("--timeout", type=int, default=60, help="seconds per test")
    parser.add_argument("--targets", nargs="*", default=[],
                        help="build only these targets (default: all)")
    args = parser.parse_args()

    seeds = json.loads(args.seeds.read_text())
    files = sorted({seed["file"] for seed in seeds})
    dirty = run(["git", "status", "--porcelain", "--"] + files).stdout.strip()
    if dirty:
        sys.exit("seed-faults: uncommitted changes in files to seed:\n" + dirty)

    totals = {}
    for number, seed in enumerate(seeds, 1):
        path = ROOT / seed["file"]
        text = path.read_text()
        if text.count(seed["find"]) != 1:
            outcome, names = "invalid", ["text to replace not found exactly once"]
        else:
            path.write_text(text.replace(seed["find"], seed["replace"]))
            try:
                targets = ["--target"] + args.targets if args.targets else []
                build = run(["cmake", "--build", "--preset", "debug", "-j2"] + targets)
                if build.returncode != 0:
                    outcome, names = "invalid", ["does not build"]
                else:
                    outcome, names = ctest_outcome(args.tests, args.timeout)
            finally:
                run(["git", "checkout", "--", seed["file"]])
        totals[outcome] = totals.get(outcome, 0) + 1
        shown = ", ".join(names[:3]) + (" ..." if len(names) > 3 else "")
        print(f"{number:3} {outcome:7} {seed['file']}: {seed['note']}" +
              (f"  [{shown}]" if shown else ""), flush=True)

    # Leave the build matching the restored sources.
    run(["cmake", "--build", "--preset", "debug", "-j2"])
    valid = sum(totals.get(k, 0) for k in ("caught", "hung", "missed"))
    print(f"caught {totals.get('caught', 0)} of {valid}, hung {totals.get('hung', 0)}, "
          f"missed {totals.get('missed', 0)}, invalid {totals.get('invalid', 0)}")


if __name__ == "__main__":
    main()
