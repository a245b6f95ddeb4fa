#!/usr/bin/env python3
"""Measures the tests with faults nobody chose: a random sample of seeded faults.

Every C and C++ source file under the given paths (default: tools/ session/) is scanned
for places where a small fault fits (scripts/mutants.py: operators swapped,
conditions negated, constants changed, calls and breaks removed, returned
values swapped). A seeded random generator shuffles all of them; faults are
then taken in that order, one at a time: applied, the debug preset rebuilt, the
tests run, the file restored. A fault whose tree does not build says nothing
about the tests and is passed over, until COUNT faults have built.

The suite runs once unseeded first. A fault is caught when a test that passed
unseeded does not pass with it (failed, crashed, not run, or ended by its time
limit: a hang bounded by the limit counts as caught, and is shown as such); it
survived when every such test still passes. The tests that failed are run a
second time with the fault still in place: if they all pass then, the failure
was not the fault's. The suite stops at its first failure, so it then runs
whole once more, judged the same way; a fault whose failures again all pass
a second time is shown as 'flaky' and not counted caught.

    python3 scripts/mutate.py --seed 7 --count 40 [--paths tools/ session/] [--tests REGEX]
    python3 scripts/mutate.py --seed 7 --count 40 --list     # the sample, nothing run
    python3 scripts/mutate.py --seed 7 --apply 12            # leave fault 12 in place

Run it in a checkout of its own, configured with the debug preset: it edits the
sources. It refuses to start while a file it could seed has uncommitted changes.
"""

import argparse
import json
import os
import pathlib
import random
import re
import signal
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
import mutants  # noqa: E402

ROOT = pathlib.Path(__file__).resolve().parent.parent
# "  3/9 Test  #3: Name .....***Timeout   1.00 sec": the test's number, its name,
# then what ctest says of it after the run of dots. Tests are known by number:
# a parametrised name can print a pointer, which changes when the test binary
# is built again.
# How much of a failing run's output a report keeps: enough for the failed
# test's own lines, which ctest prints just before its summary.
LOG_TAIL = 6000
TEST_LINE = re.compile(r"^\s*\d+/\d+ Test\s+#(\d+): (.*)\s[\d.]+ sec\s*$", re.M)


def run(cmd, timeout=None):
    return subprocess.run(cmd, cwd=ROOT, capture_output=True, text=True, timeout=timeout)


def sources(paths):
    files = []
    for p in paths:
        listed = run(["git", "ls-files", "--", p]).stdout.split()
        files += [f for f in listed if f.endswith(mutants.SOURCE_SUFFIXES)]
    return sorted(set(files))


def sample(files, seed):
    sites = []
    for f in files:
        sites += mutants.find_sites(f, (ROOT / f).read_text())
    random.Random(seed).shuffle(sites)
    return sites


def test_outcomes(regex, per_test, stop_on_failure=False, numbers=None, log=None):
    """Each test's outcome: 'Passed', or what ctest said instead. With
    `numbers`, only the tests of those numbers run. With `log`, a list, what
    the failed tests printed is appended to it."""
    cmd = ["ctest", "--preset", "debug", "-j2", "--timeout", str(per_test), "--output-on-failure"]
    if stop_on_failure:
        # One failing test is enough to call a fault caught: the rest of the
        # suite is not run, which saves most of the time a fault costs.
        cmd.append("--stop-on-failure")
    if numbers:
        cmd += ["-I", "0,0,0," + ",".join(str(n) for n in numbers)]
    elif regex:
        cmd += ["-R", regex]
    result = run(cmd)
    outcomes = parse_outcomes(result.stdout)
    if log is not None and any(status != "Passed" for status in outcomes.values()):
        log.append(result.stdout[-LOG_TAIL:])
    return outcomes


def parse_outcomes(output):
    outcomes = {}
    for number, line in TEST_LINE.findall(output):
        # A parametrised name may hold spaces: "P/T.Case/1  # GetParam() = 16-byte object <...>".
        parts = re.split(r" \.+", line)
        name = parts[0].split("  # GetParam()")[0].strip()
        outcomes[f"#{number} {name}"] = parts[-1].strip().strip("*")
    return outcomes


def confirm(outcome, broken, rerun):
    """A catch stands only if the tests that failed fail again with the fault
    still in place: one that passes on the second run failed for another
    reason (a loaded machine, a flaky test), and the fault is judged 'flaky',
    which is not counted as caught. `rerun(numbers)` runs those tests."""
    if outcome != "caught":
        return outcome, broken
    again = rerun([int(name[1:].split(" ", 1)[0]) for name in broken])
    if any(again.get(name) != "Passed" for name in broken):
        return outcome, broken
    return "flaky", broken


def judge(baseline, outcomes, stopped_at_failure=False):
    """With stopped_at_failure, the run ended at its first failing test: the
    tests it did not reach are not counted, unless none that ran failed."""
    ran = {name for name in baseline if name in outcomes} if stopped_at_failure else baseline
    broken = sorted(name for name in ran if outcomes.get(name) != "Passed")
    if not broken:
        broken = sorted(baseline - ran)
    if not broken:
        return "survived", []
    if all(outcomes.get(name, "").startswith("Timeout") for name in broken):
        return "hung", broken
    return "caught", broken


def assess(baseline, run_stopping, run_all, rerun):
    """The fault's outcome and the tests that decided it. The suite runs until
    its first failure; when that failure does not come again (a loaded
    machine), the tests the stopped run never reached have not been asked, so
    the whole suite runs once more and is judged the same way."""
    outcome, broken = confirm(*judge(baseline, run_stopping(), True), rerun)
    if outcome == "flaky":
        outcome, broken = confirm(*judge(baseline, run_all()), rerun)
    return outcome, broken


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--seed", type=int, required=True)
    parser.add_argument("--count", type=int, default=40, help="faults that build (default 40)")
    parser.add_argument("--paths", nargs="*", default=["tools/", "session/"])
    parser.add_argument("--tests", default="", help="ctest -R regex (default: every test)")
    parser.add_argument("--timeout", type=int, default=60, help="seconds per test (default 60)")
    parser.add_argument("--list", action="store_true", help="print the sample and stop")
    parser.add_argument("--apply", type=int, metavar="N", help="apply fault N of the sample and stop")
    parser.add_argument("--report", type=pathlib.Path,
                        help="write every outcome as JSON, with what the failed tests printed")
    args = parser.parse_args()
    # A fault can leave a test binary that serves a FUSE node itself stuck in
    # its own exit; the watchdog frees it so that the run goes on.
    subprocess.Popen([sys.executable, str(ROOT / "scripts" / "fuse-watchdog.py"),
                      "--while-pid", str(os.getpid())])

    files = sources(args.paths)
    if not files:
        sys.exit("mutate: no C or C++ sources under " + " ".join(args.paths))
    sites = sample(files, args.seed)
    print(f"mutate: seed {args.seed}, {len(sites)} places in {len(files)} files", flush=True)

    if args.list:
        for number, site in enumerate(sites[:args.count], 1):
            text = (ROOT / site.path).read_text()
            print(f"{number:3} {site.path}:{site.line} {site.describe(text)}")
        return
    if args.apply is not None:
        if not 1 <= args.apply <= len(sites):
            sys.exit(f"mutate: --apply takes 1 to {len(sites)}")
        site = sites[args.apply - 1]
        path = ROOT / site.path
        text = path.read_text()
        path.write_text(mutants.apply(text, site))
        print(f"mutate: applied {site.path}:{site.line} {site.describe(text)}")
        return

    dirty = run(["git", "status", "--porcelain", "--"] + files).stdout.strip()
    if dirty:
        sys.exit("mutate: uncommitted changes in files it would seed:\n" + dirty)
    if run(["cmake", "--build", "--preset", "debug", "-j2"]).returncode != 0:
        sys.exit("mutate: the unseeded tree does not build")
    began = time.monotonic()
    outcomes = test_outcomes(args.tests, args.timeout)
    baseline = {name for name, status in outcomes.items() if status == "Passed"}
    if not baseline:
        sys.exit("mutate: no test passed unseeded (is the debug preset configured?)")
    print(f"mutate: unseeded, {len(baseline)} of {len(outcomes)} tests passed "
          f"in {time.monotonic() - began:.0f} s", flush=True)
    # A test that did not pass unseeded judges no fault: say which, so that a
    # reader knows what the figure was measured without.
    for name, status in sorted(outcomes.items()):
        if status != "Passed":
            print(f"mutate: not counted, unseeded {status}: {name}", flush=True)

    # A stop from outside still restores the file being seeded.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("mutate: stopped"))
    results, invalid = [], 0
    for number, site in enumerate(sites, 1):
        if len(results) == args.count:
            break
        path = ROOT / site.path
        text = path.read_text()
        path.write_text(mutants.apply(text, site))
        try:
            if run(["cmake", "--build", "--preset", "debug", "-j2"]).returncode != 0:
                invalid += 1
                continue
            output = []
            outcome, broken = assess(
                baseline, lambda: test_outcomes(args.tests, args.timeout, True, log=output),
                lambda: test_outcomes(args.tests, args.timeout, log=output),
                lambda numbers: test_outcomes("", args.timeout, False, numbers, log=output))
        finally:
            path.write_text(text)
        results.append({"number": number, "file": site.path, "line": site.line,
                        "kind": site.kind, "change": site.describe(text),
                        "outcome": outcome, "tests": broken, "output": output})
        shown = ", ".join(broken[:2]) + (" ..." if len(broken) > 2 else "")
        print(f"{number:4} {outcome:8} {site.path}:{site.line} {site.describe(text)}" +
              (f"  [{shown}]" if shown else ""), flush=True)

    run(["cmake", "--build", "--preset", "debug", "-j2"])  # the build matches the sources again
    caught = sum(r["outcome"] in ("caught", "hung") for r in results)
    hung = sum(r["outcome"] == "hung" for r in results)
    flaky = sum(r["outcome"] == "flaky" for r in results)
    share = 100.0 * caught / len(results) if results else 0.0
    print(f"mutate: seed {args.seed}: caught {caught} of {len(results)} ({share:.0f}%), "
          f"{hung} of them by a time limit; {flaky} failed once but not again (not counted); "
          f"{invalid} did not build")
    for r in results:
        if r["outcome"] in ("survived", "flaky"):
            print(f"  {r['outcome']}: #{r['number']} {r['file']}:{r['line']} {r['change']}")
    if args.report:
        unseeded = sorted(name for name in outcomes if name not in baseline)
        args.report.write_text(json.dumps({"seed": args.seed, "paths": args.paths,
                                           "failed_unseeded": unseeded,
                                           "results": results, "invalid": invalid}, indent=1))
    if len(results) < args.count:
        sys.exit(f"mutate: only {len(results)} faults built; fewer places than asked for")


if __name__ == "__main__":
    main()
