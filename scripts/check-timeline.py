#!/usr/bin/env python3
"""Checks an aov-sim timeline (aov-sim --timeline FILE).

Usage: check-timeline.py FILE [--errors N] [--requests N] [--delivered N]

Verifies the trace-event JSON object form and each phase's required fields;
that every kernel request, every delivered event with all its stages (in
order) and every library error line is there, against the counts the run kept
in "otherData" and, when given, against the counts of its printed summary;
that each delivered event's flow starts once, at its signal, and finishes
once, at its callback, through the monitor's wake and the notifyEvent slice in
time order; and that the slices of each track nest. Prints one line; exit 0 when it holds,
1 when it does not, 2 when the file cannot be read.
"""
import json
import sys

REQUIRED = {
    "X": ("name", "ph", "ts", "dur", "pid", "tid"),
    "i": ("name", "ph", "ts", "pid", "tid"),
    "C": ("name", "ph", "ts", "pid", "args"),
    "M": ("name", "ph", "pid", "args"),
}
STAGES = ("signal", "wake", "notify", "dequeue_call", "dequeue_return", "callback_entry",
          "callback_return")
KERNEL_TRACKS = range(10, 20)
# The records an event's flow passes through, in time order.
FLOW_PATH = ("signal #", "wake", "notifyEvent", "callback #")
SLACK = 0.002  # microseconds: times are whole nanoseconds written as microseconds


def check(doc, expected):
    if not isinstance(doc, dict) or not isinstance(doc.get("traceEvents"), list):
        return "not the object form: no traceEvents list"
    counts = doc.get("otherData")
    if not isinstance(counts, dict):
        return "no otherData with the run's counts"
    for key, value in expected.items():
        if counts.get(key) != value:
            return f"otherData {key} is {counts.get(key)}, the summary says {value}"
    if counts.get("records_dropped", 0) != 0:
        return f"{counts['records_dropped']} records were dropped"
    slices = {}
    flows = {}
    requests = errors = 0
    callbacks = []
    for n, event in enumerate(doc["traceEvents"]):
        if not isinstance(event, dict):
            return f"event {n} is not an object"
        phase = event.get("ph")
        if phase not in REQUIRED:
            return f"event {n}: unknown phase {phase!r}"
        missing = [k for k in REQUIRED[phase] if k not in event]
        if missing:
            return f"event {n} ({phase}): missing {', '.join(missing)}"
        for key in ("ts", "dur"):
            if key in event and (not isinstance(event[key], (int, float)) or event[key] < 0):
                return f"event {n}: {key} is not a time"
        if phase == "M" and event["name"] not in ("thread_name", "process_name"):
            return f"event {n}: unknown metadata {event['name']!r}"
        if phase == "X":
            slices.setdefault(event["tid"], []).append(event)
            if event["tid"] in KERNEL_TRACKS:
                requests += 1
                args = event.get("args", {})
                if "result" not in args or "decoded" not in args:
                    return f"event {n}: kernel request {event['name']} without its result"
            if event["name"].startswith("callback #"):
                callbacks.append(event)
        if phase == "i" and event["name"] == "library error":
            errors += 1
        if "bind_id" in event:
            if event.get("flow_in") is not True and event.get("flow_out") is not True:
                return f"event {n}: bind_id without flow_in or flow_out"
            flows.setdefault(event["bind_id"], []).append(event)
    if requests != counts.get("kernel_requests"):
        return f"{requests} kernel requests in the timeline, the run made {counts.get('kernel_requests')}"
    if errors != counts.get("library_error_lines"):
        return f"{errors} library error markers, the run wrote {counts.get('library_error_lines')} error lines"
    if len(callbacks) != counts.get("events_delivered"):
        return f"{len(callbacks)} events in the timeline, {counts.get('events_delivered')} delivered"
    for event in callbacks:
        stages = event.get("args", {}).get("stages", {})
        absent = [s for s in STAGES if s not in stages]
        if absent:
            return f"{event['name']}: no {', '.join(absent)} stage"
        times = [stages[s] for s in STAGES]
        for a, b, ta, tb in zip(STAGES, STAGES[1:], times, times[1:]):
            if tb + SLACK < ta:
                return f"{event['name']}: {b} before {a}"
    for bind_id, chain in flows.items():
        starts = sum(1 for e in chain if not e.get("flow_in"))
        finishes = sum(1 for e in chain if not e.get("flow_out"))
        if starts != 1 or finishes != 1:
            return f"flow {bind_id} starts {starts} times and finishes {finishes} times"
        chain.sort(key=lambda e: e["ts"])
        path = [next((p for p in FLOW_PATH if e["name"].startswith(p)), e["name"]) for e in chain]
        if tuple(path) != FLOW_PATH or chain[0].get("flow_in") or chain[-1].get("flow_out"):
            return f"flow {bind_id} runs through {', '.join(e['name'] for e in chain)}"
    for event in callbacks:
        if event.get("flow_in") is not True:
            return f"{event['name']}: no flow arrives"
    for tid, track in slices.items():
        track.sort(key=lambda e: (e["ts"], -e["dur"]))
        open_ends = []
        for event in track:
            start, end = event["ts"], event["ts"] + event["dur"]
            while open_ends and open_ends[-1][0] <= start + SLACK:
                open_ends.pop()
            if open_ends and end > open_ends[-1][0] + SLACK:
                return f"track {tid}: {event['name']} overlaps {open_ends[-1][1]} partly"
            open_ends.append((end, event["name"]))
    return None


def main(argv):
    if len(argv) < 2 or len(argv) % 2 != 0:
        print("usage: check-timeline.py FILE [--errors N] [--requests N] [--delivered N]",
              file=sys.stderr)
        return 2
    keys = {"--errors": "library_error_lines", "--requests": "kernel_requests",
            "--delivered": "events_delivered"}
    expected = {}
    for flag, value in zip(argv[2::2], argv[3::2]):
        if flag not in keys or not value.isdigit():
            print(f"check-timeline: bad option {flag} {value}", file=sys.stderr)
            return 2
        expected[keys[flag]] = int(value)
    try:
        with open(argv[1], encoding="utf-8") as file:
            doc = json.load(file)
    except (OSError, ValueError) as error:
        print(f"check-timeline: {argv[1]}: {error}".splitlines()[0], file=sys.stderr)
        return 1 if isinstance(error, ValueError) else 2
    problem = check(doc, expected)
    if problem:
        print(f"check-timeline: {argv[1]}: {problem}")
        return 1
    print(f"check-timeline: {argv[1]}: {len(doc['traceEvents'])} records hold")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
