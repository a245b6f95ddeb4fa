#!/usr/bin/env python3
"""Runs aov-sim (argv[1]) with --timeline on a scenario with a failed dequeue,
checks that check-timeline.py accepts the timeline, and that it rejects each
of a table of broken copies (where a reason is given, for that reason)."""
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


def meta(doc, name, tid=None):
    return first(doc, lambda e: e["ph"] == "M" and e["name"] == name and e.get("tid") == tid)


def flow_on_instant(doc):
    signal = flow_start(doc)
    signal.pop("dur")
    signal.update(ph="i", s="t")


def step_ends_where_next_begins(doc):
    ends = [e for e in doc["traceEvents"] if e["ph"] == "E"]
    nxt = first(doc, lambda e: e["ph"] == "B" and e["ts"] > ends[0]["ts"])
    nxt["ts"] = ends[0]["ts"]


def slice_begins_at_end_of_previous(doc):
    requests = sorted((e for e in doc["traceEvents"] if e["ph"] == "X" and e["tid"] == 10),
                      key=lambda e: e["ts"])
    requests[1]["ts"] = requests[0]["ts"] + requests[0]["dur"]


def flow_point_outside_slices(doc):
    wake = first(doc, lambda e: e["name"] == "wake")
    doc["traceEvents"].append(dict(ph="s", name="stray", id="0x99", pid=wake["pid"],
                                   tid=wake["tid"], ts=wake["ts"] - 1.5))


def thread_of_instants(doc):
    doc["traceEvents"] += [
        dict(ph="M", name="thread_name", pid=1, tid=7, args={"name": "markers"}),
        dict(ph="M", name="thread_sort_index", pid=1, tid=7, args={"sort_index": 7}),
        dict(ph="i", s="t", name="marker", pid=1, tid=7, ts=1.0),
    ]


def counter_renamed(doc):
    counter = [e for e in doc["traceEvents"] if e["ph"] == "C" and e["name"] == "driver queue depth"]
    counter[-1]["args"] = {"events": counter[-1]["args"]["pending"]}


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
    "a flow on an instant": (flow_on_instant, "not a slice"),
    "a flow point outside every slice of its thread": (flow_point_outside_slices, "in no slice"),
    "a step ending where the next begins": (step_ends_where_next_begins, "ends"),
    "a slice beginning where the one before it ends": (slice_begins_at_end_of_previous, "ends"),
    "a step that never ends": (lambda d: drop(d, lambda e: e["ph"] == "E"), "never ends"),
    "an end without its begin": (lambda d: drop(d, lambda e: e["ph"] == "B"), "without its begin"),
    "a thread without its name":
        (lambda d: d["traceEvents"].remove(meta(d, "thread_name", 2)), "no name"),
    "a thread without its sort index":
        (lambda d: d["traceEvents"].remove(meta(d, "thread_sort_index", 2)), "no sort index"),
    "a process without its name":
        (lambda d: d["traceEvents"].remove(meta(d, "process_name")), "no name"),
    "a thread named twice": (lambda d: d["traceEvents"].append(
        dict(meta(d, "thread_name", 1), args={"name": "counters"})), "and then"),
    "a counter without a name":
        (lambda d: first(d, lambda e: e["ph"] == "C").update(name=""), "without a name"),
    "a counter whose series changes": (counter_renamed, "series"),
    "a thread of instants only": (thread_of_instants, "only instants"),
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
    for name, case in BROKEN.items():
        breakage, reason = case if isinstance(case, tuple) else (case, "")
        broken = copy.deepcopy(good)
        breakage(broken)
        problem = checker.check(broken, {})
        if problem is None:
            print(f"FAIL: accepted a timeline with {name}")
            failures += 1
        elif reason not in problem:
            print(f"FAIL: a timeline with {name} rejected for another reason: {problem}")
            failures += 1
    if checker.check(good, {"events_delivered": 5}) is None:
        print("FAIL: accepted a delivered count that differs from the summary's")
        failures += 1
    print(f"{len(BROKEN) + 2 - failures} of {len(BROKEN) + 2} cases hold")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
