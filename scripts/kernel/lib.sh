# Helpers of scripts/run-kernel.sh (sourced): building the module, packing
# the guest's initramfs, booting it with a limit, and judging its output.

die() {
    echo "run-kernel: $*" >&2
    exit 1
}

fail() {
    echo "run-kernel: $*" >&2
}

# The newest linux-headers-*-ARCH directory under DIR.
latest_headers() {
    local found
    found=$(find "$1" -maxdepth 1 -name "linux-headers-*-$2" | sort -V | tail -n 1)
    [ -n "$found" ] || die "no linux-headers-*-$2 under $1"
    echo "$found"
}

# build_module DIR HEADERS ARCH CROSS: builds a copy of the driver in DIR.
build_module() {
    local dir=$1 headers=$2 march=$3 cross=$4 src=$1/module
    mkdir -p "$src"
    cp drivers/kelo_aov/kelo_aov.c drivers/kelo_aov/Kbuild "$src/"
    local args=(-C "$headers" M="$src" AOV_INC="$repo/hw/aov/inc" W=1)
    [ -z "$march" ] || args+=(ARCH="$march" CROSS_COMPILE="$cross")
    make -s "${args[@]}" modules >"$dir/module-build.log" 2>&1 || {
        cat "$dir/module-build.log" >&2
        die "the module does not build against $headers"
    }
    if grep -E 'warning|error' "$dir/module-build.log" | grep -v 'Skipping BTF'; then
        die "the module's build warns (above)"
    fi
    cp "$src/kelo_aov.ko" "$dir/"
}

# make_root ROOT BUSYBOX MODULE STRESS: the guest's file tree.
make_root() {
    local root=$1
    mkdir -p "$root"/{bin,sbin,proc,sys,dev,tmp,aov,etc}
    cp "$2" "$root/bin/busybox"
    for applet in sh mount insmod rmmod sleep cat grep base64 dmesg poweroff sync uname; do
        ln -sf busybox "$root/bin/$applet"
    done
    cp scripts/kernel/guest-init.sh "$root/init"
    chmod +x "$root/init"
    cp "$3" "$4" "$root/aov/"
}

# copy_with_libs FILE ROOT: FILE into ROOT/aov, the shared libraries it loads
# into ROOT/aov/lib (the guest's library path: the build's run paths need not
# exist there) and the dynamic loader at its own path.
copy_with_libs() {
    local file=$1 root=$2 lib
    cp "$file" "$root/aov/"
    mkdir -p "$root/aov/lib"
    while read -r lib; do
        [ -n "$lib" ] || continue
        case "$lib" in
            */ld-linux*)
                mkdir -p "$root$(dirname "$lib")"
                cp -L "$lib" "$root$lib"
                ;;
            *) cp -L "$lib" "$root/aov/lib/" ;;
        esac
    done < <(ldd "$file" | grep -oE '/[^ ]+' || true)
}

# copy_arm64_with_libs FILE ROOT DIR...: an Arm64 program into ROOT/aov, the
# shared libraries it needs (found in the DIRs) into ROOT/lib/aarch64-linux-gnu
# and the dynamic loader into ROOT/lib.
copy_arm64_with_libs() {
    local file=$1 root=$2 lib path d current
    shift 2
    cp "$file" "$root/aov/"
    mkdir -p "$root/lib/aarch64-linux-gnu"
    local queue=("$file") seen=" "
    while [ "${#queue[@]}" -gt 0 ]; do
        current=${queue[0]}
        queue=("${queue[@]:1}")
        for lib in $(aarch64-linux-gnu-readelf -d "$current" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
            case "$seen" in *" $lib "*) continue ;; esac
            seen+="$lib "
            path=""
            for d in "$@"; do
                if [ -e "$d/$lib" ]; then path=$d/$lib; break; fi
            done
            [ -n "$path" ] || die "arm64: $lib, needed by $(basename "$current"), is in none of: $*"
            cp -L "$path" "$root/lib/aarch64-linux-gnu/$lib"
            queue+=("$path")
        done
    done
    cp -L /usr/aarch64-linux-gnu/lib/ld-linux-aarch64.so.1 "$root/lib/"
}

# write_plan ROOT SESSION RECORD LIBRARY_PATH: what the guest runs (aov-sim
# sessions, a recording) and where its shared libraries are.
write_plan() {
    {
        echo "CYCLES=$CYCLES"
        echo "CLOSES=$CLOSES"
        echo "RUN_SESSION=$2"
        echo "RUN_RECORD=$3"
        echo "GUEST_LIBRARY_PATH=$4"
    } >"$1/aov/plan"
    echo "$FAULTS" | awk 'NF >= 1 { p = ($2 == "-" ? "" : $2); gsub(",", " ", p); print $1, p }' \
        >"$1/aov/faults"
}

pack_root() {
    (cd "$1" && find . | cpio -o -H newc --quiet | gzip -1) >"$2"
}

# boot_guest NAME LIMIT LOG QEMU...: boots with a limit, console to LOG.
boot_guest() {
    local name=$1 limit=$2 log=$3 began=$SECONDS rc=0
    shift 3
    echo "run-kernel: $name: booting (limit $limit s)"
    timeout -k 10 "$limit" "$@" </dev/null >"$log" 2>&1 || rc=$?
    echo "run-kernel: $name: guest ran $((SECONDS - began)) s"
    if [ "$rc" -eq 124 ] || [ "$rc" -eq 137 ]; then
        echo "run-kernel: $name: the guest did not finish in $limit s and was killed; it stopped at: $(grep -a '^@@AOV step' "$log" | tail -n 1 || echo 'before the first step')" >&2
    fi
}

# guest_finished DIR: whether the guest got as far as its verdict.
guest_finished() {
    grep -aq '^@@AOV verdict' "$1/console.txt"
}

# verdict NAME OK: records the leg's verdict and returns OK.
verdict() {
    if [ "$2" -eq 0 ]; then verdicts+=("$1: PASS"); else verdicts+=("$1: FAIL"); fi
    return "$2"
}

# judge_guest NAME DIR: 0 when every step passed, the module loaded with each
# fault, and the kernel log is clean.
judge_guest() {
    local name=$1 dir=$2 log=$2/console.log ok=0 line
    tr -d '\r' <"$log" >"$dir/console.txt"
    log=$dir/console.txt
    if ! grep -aq '^@@AOV verdict' "$log"; then
        echo "run-kernel: $name: no verdict; the guest stopped at: $(grep -a '^@@AOV step' "$log" | tail -n 1 || echo 'before the first step') (console: $log)" >&2
        tail -n 20 "$log" >&2
        return 1
    fi
    while read -r line; do
        set -- $line
        case "$3" in
            # Which checks report a fault is compared with aov-kdev's later.
            fault) [ "$5" != load-failed ] || { echo "run-kernel: $name: fault $4: the module did not load" >&2; ok=1; } ;;
            *) [ "$4" = 0 ] || { echo "run-kernel: $name: step $3 failed (exit $4)" >&2; ok=1; } ;;
        esac
    done < <(grep -a '^@@AOV result' "$log")
    local verdict
    verdict=$(grep -a '^@@AOV verdict' "$log" | awk '{print $3}')
    [ "$verdict" = 0 ] || ok=1
    # The kernel log of the whole run, the faults included.
    if sed -n '/^@@AOV step dmesg/,/^@@AOV result dmesg/p' "$log" |
        grep -aE 'BUG|WARNING|Oops|leak' >"$dir/dmesg-problems.txt"; then
        echo "run-kernel: $name: the kernel log reports problems:" >&2
        cat "$dir/dmesg-problems.txt" >&2
        ok=1
    fi
    grep -a '^@@AOV result' "$log" | grep -v '^@@AOV result fault ' | sed "s/^@@AOV result/run-kernel: $name:/"
    return "$ok"
}

# host_replay DIR: the guest's recording, replayed by aov-sim and retraced
# against aov-kdev on the host.
host_replay() {
    local dir=$1 rec=$1/session.rec
    sed -n '/^@@AOV file session.rec begin/,/^@@AOV file session.rec end/p' "$dir/console.txt" |
        grep -v '^@@AOV' | base64 -d >"$rec" || { fail "the recording did not come out of the guest whole"; return 1; }
    "$tools/tools/aov-rec/aov-rec" info "$rec" >"$dir/rec-info.txt" || { fail "aov-rec info $rec failed"; return 1; }
    cat "$dir/rec-info.txt"
    "$tools/tools/aov-sim/aov-sim" --replay "$rec" --events 5 --speed max >"$dir/replay.txt" 2>&1 ||
        { tail -n 20 "$dir/replay.txt" >&2; fail "aov-sim --replay of the guest's recording failed"; return 1; }
    grep -q 'events delivered 5' "$dir/replay.txt" || { fail "the replay did not deliver 5 events"; return 1; }
    echo "run-kernel: replay: $(grep 'events delivered' "$dir/replay.txt")"
    local mnt
    mnt=$(mktemp -d)
    "$tools/tools/aov-kdev/aov-kdev" --mount "$mnt" --quiet --exit-with-parent &
    local kdev=$!
    local i=0
    while [ ! -e "$mnt/kelo_aov" ] && [ "$i" -lt 100 ]; do sleep 0.1; i=$((i + 1)); done
    local rc=0
    "$tools/tools/aov-rec/aov-rec" retrace "$rec" -d "$mnt/kelo_aov" >"$dir/retrace.txt" 2>&1 || rc=$?
    kill "$kdev" 2>/dev/null || true
    wait "$kdev" 2>/dev/null || true
    umount "$mnt" 2>/dev/null || true
    rmdir "$mnt" 2>/dev/null || true
    cat "$dir/retrace.txt"
    [ "$rc" -ne 2 ] || { fail "aov-rec retrace could not read the recording"; return 1; }
    echo "run-kernel: retrace against aov-kdev: exit $rc (differences are listed above)"
}

# The checks that report a fault (FAIL or WARN), without their details, from
# the checker's output on stdin.
reported_checks() {
    grep -aE '^[a-z]+: .*: (FAIL|WARN)' | sed -E 's/: (FAIL|WARN)( \(.*)?$/: \1/' | sort -u
}

# kdev_checker_run FAULT SCENARIO: the host's checker against aov-kdev with
# FAULT, once a harness run (both legs compare with the same host tools); its
# output in $kdev_runs/FAULT.out.
kdev_checker_run() {
    local fault=$1 scenario=$2 mnt
    [ ! -f "$kdev_runs/$fault.out" ] || return 0
    mkdir -p "$kdev_runs"
    local args=(--quiet --exit-with-parent --fault "$fault")
    [ "$scenario" = - ] || args+=(--scenario "$scenario")
    mnt=$(mktemp -d)
    "$tools/tools/aov-kdev/aov-kdev" --mount "$mnt" "${args[@]}" &
    local kdev=$! i=0
    while [ ! -e "$mnt/kelo_aov" ] && [ "$i" -lt 100 ]; do sleep 0.1; i=$((i + 1)); done
    timeout 60 "$tools/tools/aov-compliance/aov-compliance" -d "$mnt/kelo_aov" --timeout-ms 2000 \
        >"$kdev_runs/$fault.out.part" 2>&1 || true
    kill "$kdev" 2>/dev/null || true
    wait "$kdev" 2>/dev/null || true
    umount -l "$mnt" 2>/dev/null || true
    rmdir "$mnt" 2>/dev/null || true
    mv "$kdev_runs/$fault.out.part" "$kdev_runs/$fault.out"
}

# compare_faults NAME DIR: each fault of the matrix is reported in the guest,
# and only by checks that report it too when aov-kdev injects it on the host
# (or that KERNEL_ONLY lists for it: checks FUSE cannot show).
compare_faults() {
    local name=$1 dir=$2 fault params scenario ok=0
    mkdir -p "$dir/faults"
    while read -r fault params scenario; do
        [ -n "$fault" ] || continue
        sed -n "/^@@AOV step fault $fault\$/,/^@@AOV result fault $fault /p" "$dir/console.txt" |
            reported_checks >"$dir/faults/$fault.kernel"
        kdev_checker_run "$fault" "$scenario"
        cp "$kdev_runs/$fault.out" "$dir/faults/$fault.kdev.out"
        local only
        only=$(awk -v f="$fault" '$1 == f { sub(/^[^ ]+ /, ""); print }' <<<"$KERNEL_ONLY")
        {
            reported_checks <"$dir/faults/$fault.kdev.out"
            [ -z "$only" ] || echo "$only"
        } | sort -u >"$dir/faults/$fault.kdev"
        if [ ! -s "$dir/faults/$fault.kernel" ]; then
            echo "run-kernel: $name: fault $fault: no check reports it in the guest" >&2
            ok=1
        elif [ -n "$(comm -23 "$dir/faults/$fault.kernel" "$dir/faults/$fault.kdev")" ]; then
            echo "run-kernel: $name: fault $fault: reported by checks that pass on aov-kdev with it:" >&2
            comm -23 "$dir/faults/$fault.kernel" "$dir/faults/$fault.kdev" >&2
            ok=1
        else
            local as="as on aov-kdev"
            [ -z "$only" ] || as="as on aov-kdev or kernel-only ($(paste -sd ';' <<<"$only"))"
            echo "run-kernel: $name: fault $fault: $(paste -sd ';' "$dir/faults/$fault.kernel"), $as"
            # What else a fault upsets can depend on when events arrive: listed, not judged.
            local more
            more=$(comm -13 "$dir/faults/$fault.kernel" "$dir/faults/$fault.kdev" | paste -sd ';')
            [ -z "$more" ] || echo "run-kernel: $name: fault $fault: on aov-kdev also: $more"
        fi
    done <<<"$FAULTS"
    return "$ok"
}
