#!/usr/bin/env python3
"""Checks an aov-sim timeline (aov-sim --timeline FILE).

Usage: check-timeline.py FILE [--errors N] [--requests N] [--delivered N]

Verifies the trace-event JSON object form and each phase's required fields;
that every kernel request, every delivered event with all its stages (in
order) and every library error line is there, against the counts the run kept
in "otherData" and, when given, against the counts of its printed summary;
that each delivered event's flow starts once, at its signal, and finishes
once, at its callback, through the monitor's wake and the notifyEvent slice in
time order. And the rules viewers draw by: flows bind to slices (never to
instants, every flow point inside a slice of its thread); the slices of each
thread nest, none beginning exactly where the one before it ends; every
process and thread named once and sorted; every counter named, its series
never changing; no thread of instants only. Prints one line; exit 0 when it
holds, 1 when it does not, 2 when the file cannot be read.
"""
import json
import sys

REQUIRED = {
    "X": ("name", "ph", "ts", "dur", "pid", "tid"),
    "B": ("name", "ph", "ts", "pid", "tid"),
    "E": ("ph", "ts", "pid", "tid"),
    "i": ("name", "ph", "ts", "pid", "tid"),
    "s": ("name", "ph", "ts", "pid", "tid", "id"),
    "t": ("name", "ph", "ts", "pid", "tid", "id"),
    "f": ("name", "ph", "ts", "pid", "tid", "id"),
    "C": ("name", "ph", "ts", "pid", "args"),
    "M": ("name", "ph", "pid", "args"),
}
METADATA = ("process_name", "process_sort_index", "thread_name", "thread_sort_index")
STAGES = ("signal", "wake", "notify", "dequeue_call", "dequeue_return", "callback_entry",
          "callback_return")
SIM_PID = 1
LANE = 100  # lanes of one track are threads this far apart
KERNEL_TRACKS = range(10, 20)
# The records an event's flow passes through, in time order.
FLOW_PATH = ("signal #", "wake", "notifyEvent", "callback #")
SLACK = 0.002  # microseconds: times are whole nanoseconds written as microseconds
EPS = 0.0001   # microseconds: two times closer than this are the same time


def metadata_problem(events):
    """Every process and thread named once and given a sort index."""
    names, sorts = {}, set()
    for event in events:
        if event["ph"] != "M":
            continue
        key = (event["pid"], event.get("tid")) if event["name"].startswith("thread") \
            else (event["pid"], None)
        if event["name"].endswith("_name"):
            name = event["args"].get("name")
            if not isinstance(name, str) or not name:
                return f"{event['name']} of {key} is empty"
            if key in names and names[key] != name:
                return f"{key} is named {names[key]!r} and then {name!r}"
            names[key] = name
        else:
            if not isinstance(event["args"].get("sort_index"), int):
                return f"{event['name']} of {key} is not a number"
            sorts.add(key)
    for event in events:
        if event["ph"] in ("M", "C"):
            keys = [(event["pid"], None)]
        else:
            keys = [(event["pid"], None), (event["pid"], event["tid"])]
        for key in keys:
            what = f"thread {key[1]} of process {key[0]}" if key[1] is not None \
                else f"process {key[0]}"
            if key not in names:
                return f"{what} has no name"
            if key not in sorts:
                return f"{what} has no sort index"
    return None


def counter_problem(events):
    """Each counter named, and its track always the same series."""
    series = {}
    for event in events:
        if event["ph"] != "C":
            continue
        if not isinstance(event["name"], str) or not event["name"]:
            return "a counter without a name"
        args = event["args"]
        if not isinstance(args, dict) or not args or \
                not all(isinstance(v, (int, float)) for v in args.values()):
            return f"counter {event['name']}: no numeric series"
        key = (event["pid"], event["name"])
        if series.setdefault(key, set(args)) != set(args):
            return f"counter {event['name']}: series {sorted(args)} after {sorted(series[key])}"
    return None


def slices_by_thread(events):
    """The slices of each thread: complete events and begin/end pairs."""
    threads, open_begins = {}, {}
    for event in sorted((e for e in events if e["ph"] in "XBE"), key=lambda e: e["ts"]):
        key = (event["pid"], event["tid"])
        if event["ph"] == "X":
            threads.setdefault(key, []).append((event["ts"], event["ts"] + event["dur"], event))
        elif event["ph"] == "B":
            open_begins.setdefault(key, []).append(event)
        elif not open_begins.get(key):
            return None, f"thread {key}: an end without its begin at {event['ts']}"
        else:
            begin = open_begins[key].pop()
            threads.setdefault(key, []).append((begin["ts"], event["ts"], begin))
    for key, begins in open_begins.items():
        if begins:
            return None, f"thread {key}: {begins[-1]['name']} begins and never ends"
    return threads, None


def nesting_problem(threads):
    """Slices of a thread nest or follow each other; none begins exactly where
    the one before it ends, which viewers would draw nested."""
    for key, track in threads.items():
        track.sort(key=lambda s: (s[0], -s[1]))
        stack = []
        for start, end, event in track:
            while stack and stack[-1][1] < start - EPS:
                stack.pop()
            if stack and abs(stack[-1][1] - start) <= EPS:
                return f"thread {key}: {event['name']} begins where {stack[-1][2]['name']} ends"
            if stack and end > stack[-1][1] + EPS:
                return f"thread {key}: {event['name']} overlaps {stack[-1][2]['name']} partly"
            stack.append((start, end, event))
    return None


def binding_problem(events, threads):
    """Flows bind to slices: bind_id only on complete events, and each flow
    point of the s/t/f form inside a slice of its thread. No thread holds
    only instants."""
    for event in events:
        if "bind_id" in event and event["ph"] != "X":
            return f"{event['name']}: a flow on a {event['ph']!r} event, not a slice"
        if event["ph"] in "stf":
            track = threads.get((event["pid"], event["tid"]), [])
            if not any(s - EPS <= event["ts"] <= e + EPS for s, e, _ in track):
                return f"flow point {event['name']} at {event['ts']} is in no slice of its thread"
    for event in events:
        if event["ph"] == "i" and (event["pid"], event["tid"]) not in threads:
            return f"thread {(event['pid'], event['tid'])} holds only instants"
    return None


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
    events = doc["traceEvents"]
    flows = {}
    requests = errors = 0
    callbacks = []
    for n, event in enumerate(events):
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
        if phase == "M" and (event["name"] not in METADATA or not isinstance(event["args"], dict)):
            return f"event {n}: unknown metadata {event['name']!r}"
        if phase == "X":
            if event["pid"] == SIM_PID and event["tid"] % LANE in KERNEL_TRACKS:
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
    problem = metadata_problem(events) or counter_problem(events)
    if problem:
        return problem
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
    threads, problem = slices_by_thread(events)
    return problem or binding_problem(events, threads) or nesting_problem(threads)


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
