#!/bin/sh
# The guest's /init: loads the reference driver, runs the checks, prints each
# result between markers on the console and powers off. The host reads the
# markers ("@@AOV ..."); what runs comes from /aov/plan (written by the host).
export PATH=/bin:/sbin:/aov
export HOME=/tmp
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
mount -t debugfs debugfs /sys/kernel/debug
mount -t tmpfs tmpfs /tmp
NODE=/dev/kelo_aov
STATUS=/sys/kernel/debug/kelo_aov/status
MODULE=/aov/kelo_aov.ko
failed=0
. /aov/plan
export LD_LIBRARY_PATH="$GUEST_LIBRARY_PATH"

mark() { echo "@@AOV $*"; }

# check NAME COMMAND...: runs the command, prints its output and result.
check() {
    name=$1
    shift
    mark "step $name"
    "$@" >/tmp/out 2>&1
    rc=$?
    cat /tmp/out
    mark "result $name $rc"
    [ "$rc" -eq 0 ] || failed=$((failed + 1))
    return "$rc"
}

load() {
    insmod "$MODULE" "$@" || return 1
    i=0
    while [ ! -c "$NODE" ] && [ "$i" -lt 50 ]; do sleep 0.1; i=$((i + 1)); done
    [ -c "$NODE" ]
}

# A killed checker child may still be leaving the driver: bounded retries.
unload() {
    i=0
    while ! rmmod kelo_aov 2>/dev/null; do
        i=$((i + 1))
        [ "$i" -lt 50 ] || { echo "rmmod kelo_aov still refused after 5 s"; return 1; }
        sleep 0.1
    done
}

# The checker against the clean module: nothing failed, no warning, no skip
# (the module's timer delivers events, so a skipped check is a failure too).
compliance_clean() {
    aov-compliance -d "$NODE" >/tmp/compliance.out 2>&1
    rc=$?
    cat /tmp/compliance.out
    [ "$rc" -eq 0 ] || return "$rc"
    for total in '0 failed' '0 warnings' '0 skipped'; do
        grep -q "aov-compliance: .* $total" /tmp/compliance.out || {
            echo "the totals do not say $total"
            return 1
        }
    done
}

session() {
    aov-sim --node "$NODE" --events 5 >/tmp/session.out 2>&1
    rc=$?
    cat /tmp/session.out
    [ "$rc" -eq 0 ] || return "$rc"
    grep -q 'events delivered 5' /tmp/session.out || { echo "not 5 events delivered"; return 1; }
    grep -q 'library error lines 0' /tmp/session.out || { echo "library error lines"; return 1; }
}

record() {
    aov-rec record -o /tmp/session.rec -- aov-sim --node "$NODE" --events 5 || return 1
    mark "file session.rec begin"
    base64 /tmp/session.rec
    mark "file session.rec end"
}

rmmod_while_open() {
    exec 3<>"$NODE"
    if rmmod kelo_aov 2>/dev/null; then
        exec 3>&-
        echo "rmmod succeeded while the node was open"
        return 1
    fi
    exec 3>&-
    rmmod kelo_aov || { echo "rmmod refused after the last close"; return 1; }
}

mark "begin $(uname -r) $(uname -m)"
check load load
if [ "$failed" -eq 0 ]; then
    check compliance compliance_clean
    check library-session aov_ksession 5
    [ -n "$RUN_SESSION" ] && check session session
    [ -n "$RUN_RECORD" ] && check record record
    check status cat "$STATUS"
    check unload unload
    # Stress with a timer that ticks every jiffy, so closes and STOPs race it;
    # header-only events, so that a dequeue needs no buffer.
    check load-stress load period_ms=1 content_every=0
    check cycles aov_kstress "$NODE" "$STATUS" cycles "$CYCLES"
    check close-loop aov_kstress "$NODE" "$STATUS" close-loop "$CLOSES"
    check queue aov_kstress "$NODE" "$STATUS" queue 4
    check stop-discards aov_kstress "$NODE" "$STATUS" stop-discards
    check status-stress cat "$STATUS"
    check rmmod-while-open rmmod_while_open
    # The blocking-dequeue bug still lets STOP end the wait.
    check load-blocking load block_empty_dequeue=1 session_events=1 content_every=0
    check blocked-stop aov_kstress "$NODE" "$STATUS" blocked-stop
    check unload-blocking unload
    while read -r fault params <&4; do
        mark "step fault $fault"
        # shellcheck disable=SC2086 # the parameters are separate words
        if load "$fault=1" $params; then
            aov-compliance -d "$NODE" --timeout-ms 2000
            rc=$?
            grep -E '^(started|open_files|produced|dequeued) ' "$STATUS" | tr '\n' ' '
            echo
            mark "result fault $fault $rc"
        else
            mark "result fault $fault load-failed"
            failed=$((failed + 1))
        fi
        unload || failed=$((failed + 1))
    done 4</aov/faults
fi
mark "step dmesg"
dmesg
mark "result dmesg 0"
mark "verdict $failed"
sync
poweroff -f
