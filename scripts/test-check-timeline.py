#!/usr/bin/env python3
"""Runs aov-sim (argv[1]) with --timeline on a scenario with a failed dequeue,
checks that check-timeline.py accepts the timeline, and that it rejects each
of a table of broken copies."""
import copy
import importlib.util
import json
import os
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
checker_source = importlib.util.spec_from_file_location(
    "checker", os.path.join(HERE, "check-timeline.py"))
checker = importlib.util.module_from_spec(checker_source)
checker_source.loader.exec_module(checker)


def first(doc, test):
    return next(e for e in doc["traceEvents"] if test(e))


def drop(doc, test):
    doc["traceEvents"].remove(first(doc, test))


def is_callback(e):
    return e["name"].startswith("callback #")


def swap_stages(doc):
    stages = first(doc, is_callback)["args"]["stages"]
    stages["wake"], stages["callback_return"] = stages["callback_return"], stages["wake"]


def flow_start(doc):
    return first(doc, lambda e: e.get("flow_out") and not e.get("flow_in"))


def second_finish(doc):
    flow = flow_start(doc)["bind_id"]
    first(doc, lambda e: e.get("bind_id") == flow and e["name"] == "notifyEvent").pop("flow_out")


def no_flow(doc):
    flow = flow_start(doc)["bind_id"]
    for event in doc["traceEvents"]:
        if event.get("bind_id") == flow:
            for key in ("bind_id", "flow_in", "flow_out"):
                event.pop(key, None)


def overlap(doc):
    parent = first(doc, lambda e: e["ph"] == "X" and e["name"] == "notifyEvent")
    doc["traceEvents"].append(dict(parent, name="late", ts=parent["ts"] + parent["dur"] / 2))


BROKEN = {
    "no ts": lambda d: first(d, lambda e: e["ph"] == "X").pop("ts"),
    "unknown phase": lambda d: first(d, lambda e: e["ph"] == "i").update(ph="Q"),
    "a kernel request missing": lambda d: drop(d, lambda e: e["ph"] == "X" and 10 <= e["tid"] < 20),
    "an event missing": lambda d: drop(d, is_callback),
    "a stage missing": lambda d: first(d, is_callback)["args"]["stages"].pop("dequeue_return"),
    "stages out of order": swap_stages,
    "an error marker missing": lambda d: drop(d, lambda e: e["name"] == "library error"),
    "partial overlap": overlap,
    "a flow without its start": lambda d: d["traceEvents"].remove(flow_start(d)),
    "a flow that finishes twice": second_finish,
    "a flow through another event's wake": lambda d: flow_start(d).update(bind_id="0x2"),
    "an event without its flow": no_flow,
}


def main():
    with tempfile.TemporaryDirectory() as tmp:
        # A run that hangs fails here with its command named, inside ctest's limit.
        scenario = subprocess.run([sys.argv[1], "--print-scenario"], check=True,
                                  capture_output=True, text=True, timeout=60).stdout
        doc = json.loads(scenario)
        doc["failures"] = {"dequeue": [2]}
        path = os.path.join(tmp, "failure.json")
        with open(path, "w") as f:
            json.dump(doc, f)
        timeline = os.path.join(tmp, "timeline.json")
        subprocess.run([sys.argv[1], "-s", path, "--events", "4", "--timeline", timeline],
                       check=True, capture_output=True, timeout=60)
        with open(timeline) as f:
            good = json.load(f)
    failures = 0
    problem = checker.check(good, {})
    if problem:
        print(f"FAIL: the run's own timeline is rejected: {problem}")
        failures += 1
    if good["otherData"]["library_error_lines"] == 0:
        print("FAIL: the failed dequeue wrote no library error line")
        failures += 1
    for name, breakage in BROKEN.items():
        broken = copy.deepcopy(good)
        breakage(broken)
        if checker.check(broken, {}) is None:
            print(f"FAIL: accepted a timeline with {name}")
            failures += 1
    if checker.check(good, {"events_delivered": 5}) is None:
        print("FAIL: accepted a delivered count that differs from the summary's")
        failures += 1
    print(f"{len(BROKEN) + 2 - failures} of {len(BROKEN) + 2} cases hold")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
