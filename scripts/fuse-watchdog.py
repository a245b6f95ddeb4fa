#!/usr/bin/env python3
"""Frees processes stuck in their exit on a FUSE node nobody will answer.

A test binary that serves a FUSE node from one of its own threads, and still
holds a file of that node when it exits (after a failed test, or killed at its
time limit), closes the file during its exit: the close sends the node's server
a FLUSH, and the server was a thread of the very process that is exiting. The
request is never answered and no signal ends the wait, so ctest, or anything
else waiting for that process, waits for ever.

While it runs, this watchdog looks every few seconds for a task that is
exiting and waiting for a FUSE answer. Once one has been seen so for --stuck
seconds, the FUSE connections of the mounts that task sees are aborted (as
`umount -f` would abort them), which ends the wait, and one line names the
process on standard error. A process stuck in a FUSE request but not exiting is
left alone: a test that makes a driver hang stops that driver itself.

Usage: fuse-watchdog.py [--stuck SECONDS] [--interval SECONDS] [--while-pid PID]
"""

import argparse
import os
import sys
import time

PF_EXITING = 0x4
CONNECTIONS = "/sys/fs/fuse/connections"


def read(path):
    try:
        with open(path, "r", encoding="ascii", errors="replace") as f:
            return f.read()
    except OSError:
        return None


def exiting_in_fuse(task):
    """Whether the task is exiting while it waits for a FUSE answer."""
    if (read(task + "/wchan") or "").strip() != "request_wait_answer":
        return False
    stat = read(task + "/stat")
    if stat is None or ")" not in stat:
        return False
    # The fields after the command name; the flags are the ninth field.
    fields = stat[stat.rindex(")") + 2:].split()
    try:
        return int(fields[6]) & PF_EXITING != 0
    except (IndexError, ValueError):
        return False


def fuse_connections(task):
    """The connection numbers of the FUSE mounts the task sees."""
    found = set()
    for line in (read(task + "/mountinfo") or "").splitlines():
        before, _, after = line.partition(" - ")
        fields = before.split()
        fstype = after.split()[0] if after else ""
        if len(fields) < 3 or not (fstype == "fuse" or fstype.startswith("fuse.")):
            continue
        major, _, minor = fields[2].partition(":")
        if major == "0" and minor.isdigit():
            found.add(int(minor))
    return found


def tasks():
    for pid in os.listdir("/proc"):
        if not pid.isdigit():
            continue
        try:
            tids = os.listdir("/proc/%s/task" % pid)
        except OSError:
            continue
        for tid in tids:
            yield pid, "/proc/%s/task/%s" % (pid, tid)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--stuck", type=float, default=60.0,
                        help="seconds a task must be seen stuck in its exit (default 60)")
    parser.add_argument("--interval", type=float, default=2.0,
                        help="seconds between looks (default 2)")
    parser.add_argument("--while-pid", type=int, default=0,
                        help="stop once this process has ended")
    args = parser.parse_args()
    if args.stuck <= 0 or args.interval <= 0:
        parser.error("--stuck and --interval must be positive")

    first_seen = {}
    while args.while_pid <= 0 or os.path.exists("/proc/%d" % args.while_pid):
        now = time.monotonic()
        seen = {}
        for pid, task in tasks():
            if not exiting_in_fuse(task):
                continue
            since = first_seen.get(task, now)
            seen[task] = since
            if now - since < args.stuck:
                continue
            aborted = []
            for connection in sorted(fuse_connections(task)):
                try:
                    with open("%s/%d/abort" % (CONNECTIONS, connection), "w") as f:
                        f.write("1")
                    aborted.append(str(connection))
                except OSError:
                    pass
            comm = (read("/proc/%s/comm" % pid) or "?").strip()
            print("fuse-watchdog: process %s (%s) was stuck in its exit on a FUSE request for "
                  "%.0f s: aborted connection(s) %s" % (pid, comm, now - since,
                                                        ", ".join(aborted) or "none found"),
                  file=sys.stderr, flush=True)
            seen.pop(task)
        first_seen = seen
        time.sleep(args.interval)
    return 0


if __name__ == "__main__":
    sys.exit(main())
