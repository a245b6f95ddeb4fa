#!/usr/bin/env bash
# Boots Debian's kernel under QEMU (software emulation) with the reference AOV
# driver and runs the project's tools against /dev/kelo_aov inside the guest:
# the checker (clean and with every injected fault), a library session, a
# recorded session (replayed and retraced on the host), the library alone
# (aov_ksession), start/stop and close stress, rmmod, and a scan of the
# kernel log. Exit 0 only if all passed.
#
# Usage: scripts/run-kernel.sh [--arch x86_64|arm64|all] [--tools BUILD_DIR] [--out DIR]
#   --tools  the host build whose tools go into the x86-64 guest (default build/debug)
#   --out    where the module, initramfs and logs go (default build/kernel)
# The Arm64 guest takes the static checker of build/arm64 (ARM64_COMPLIANCE) and
# aov_ksession of build/arm64-libcxx (ARM64_LIBCXX_BUILD), as scripts/build-arm64.sh
# builds them. Installs its Debian packages first (root).
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$PWD

arch=all
tools=build/debug
out=build/kernel
while [ $# -gt 0 ]; do
    case "$1" in
        --arch) arch=${2:?--arch needs a value}; shift 2 ;;
        --tools) tools=${2:?--tools needs a directory}; shift 2 ;;
        --out) out=${2:?--out needs a directory}; shift 2 ;;
        *) echo "run-kernel: unknown option $1 (see the usage at the top of the script)" >&2; exit 2 ;;
    esac
done
case "$arch" in x86_64 | arm64 | all) ;; *) echo "run-kernel: --arch: x86_64, arm64 or all" >&2; exit 2 ;; esac
tools=$(realpath -m "$tools")
mkdir -p "$out"
out=$(realpath "$out")

# The fault matrix, one fault a line: its name (a module parameter of the
# driver, an --fault of aov-kdev), then any further module parameters (joined
# by commas) and the aov-kdev scenario the same run needs ("-": none). Where a
# check's outcome depends on whether another event arrives meanwhile, both
# sides produce three events a session, so that no event of a streaming timer
# can slip in between the checker's drained poll and its next dequeue. The
# epoll check of wake-pollin-waiters-only arms its watch with nothing pending
# and waits for the next event: the second comes 2.4 s after the first on
# both sides.
FAULTS="
overrun-area            -                                -
accept-unknown-code     -                                -
accept-wrong-size       -                                -
no-readiness            -                                -
readable-after-drain    session_events=3,period_ms=10    tests/compliance/three-events.json
events-after-stop       -                                -
ignore-area-fault       -                                -
hang-sensor-off         -                                -
block-empty-dequeue     session_events=3,period_ms=10    tests/compliance/three-events.json
keep-session-on-close   -                                -
overrun-buffer          -                                -
refuse-rdwr             -                                -
hang-release            -                                -
hang-flush              -                                -
flush-busy              -                                -
wrong-errno             -                                -
positive-success        -                                -
refuse-full-content     -                                -
missing-ulposc3         -                                -
refuse-sensor-id-0      -                                -
sensor-count-off-by-one -                                -
lenient-sensor-count    -                                -
stop-needs-ulposc3      -                                -
refuse-idle-stop        -                                -
start-once-per-open     -                                -
busy-after-started-close -                               -
basic-sections-only     -                                -
leak-padding            -                                -
area-fault-eio          -                                -
stuck-after-area-fault  -                                -
readable-when-stopped   -                                -
pollerr-after-error     -                                -
wake-pollin-waiters-only first_gap_ms=2400,period_ms=100 tests/compliance/late-events.json
accept-null-sensor-list -                                -
dequeue-keeps-event     -                                -
"
# Checks that report a fault in the kernel and cannot on aov-kdev, one a line:
# the fault, then the check as the checker reports it. A null record never
# reaches a FUSE server: the kernel's copy of it fails first.
KERNEL_ONLY="
accept-null-sensor-list requests: SENSOR_ON with a null record refused: WARN
"
# Guest time limits (seconds): about eight times a run on a busy 2-core
# machine under TCG, and short enough to keep CI under its 40 minutes.
GUEST_LIMIT_X86=${GUEST_LIMIT_X86:-300}
GUEST_LIMIT_ARM64=${GUEST_LIMIT_ARM64:-240}
CYCLES=${CYCLES:-1000}
CLOSES=${CLOSES:-200}

bash scripts/kernel/install-kernel-deps.sh
bash scripts/kernel/check-driver-style.sh "$out"
# shellcheck source=kernel/lib.sh
. scripts/kernel/lib.sh
# aov-kdev's side of the fault matrix, made once for both legs.
kdev_runs=$out/kdev-runs
rm -rf "$kdev_runs"

verdicts=()
run_x86_64() {
    local dir=$out/x86_64 headers kver
    headers=$(latest_headers /usr/src amd64)
    kver=${headers##*/linux-headers-}
    [ -f "/boot/vmlinuz-$kver" ] || die "no /boot/vmlinuz-$kver for the headers $headers"
    for tool in tools/aov-compliance/aov-compliance tools/aov-sim/aov-sim tools/aov-rec/aov-rec \
        tools/aov-rec/libaov_rec_preload.so tests/kernel/aov_ksession; do
        [ -x "$tools/$tool" ] || die "$tools/$tool missing: build the tools first (cmake --build --preset debug)"
    done
    rm -rf "$dir" && mkdir -p "$dir"
    build_module "$dir" "$headers" "" ""
    gcc -static -O2 -Wall -Wextra -Werror -I hw/aov/inc/uapi -I hw/aov/inc/sys \
        -o "$dir/aov_kstress" tests/kernel/aov_kstress.c || die "aov_kstress does not build"
    local root=$dir/root
    make_root "$root" /bin/busybox "$dir/kelo_aov.ko" "$dir/aov_kstress"
    for tool in tools/aov-compliance/aov-compliance tools/aov-sim/aov-sim tools/aov-rec/aov-rec \
        tools/aov-rec/libaov_rec_preload.so tests/kernel/aov_ksession; do
        copy_with_libs "$tools/$tool" "$root"
    done
    write_plan "$root" 1 1 /aov/lib
    pack_root "$root" "$dir/initramfs.cpio.gz"
    boot_guest x86_64 "$GUEST_LIMIT_X86" "$dir/console.log" \
        qemu-system-x86_64 -m 1024 -smp 1 -nographic -no-reboot \
        -kernel "/boot/vmlinuz-$kver" -initrd "$dir/initramfs.cpio.gz" \
        -append "console=ttyS0 panic=-1 loglevel=4 slub_debug=FZP init_on_free=1"
    local ok=0
    judge_guest x86_64 "$dir" || ok=1
    if guest_finished "$dir"; then
        host_replay "$dir" || ok=1
        compare_faults x86_64 "$dir" || ok=1
    fi
    verdict x86_64 "$ok"
}

run_arm64() {
    local dir=$out/arm64 kroot headers kver
    kroot=$(bash scripts/kernel/fetch-arm64-kernel.sh "$out/arm64-kernel")
    headers=$(latest_headers "$kroot/usr/src" arm64)
    kver=${headers##*/linux-headers-}
    local compliance=${ARM64_COMPLIANCE:-build/arm64/tools/aov-compliance/aov-compliance}
    rm -rf "$dir" && mkdir -p "$dir"
    build_module "$dir" "$headers" arm64 aarch64-linux-gnu-
    aarch64-linux-gnu-gcc -static -O2 -Wall -Wextra -Werror -I hw/aov/inc/uapi -I hw/aov/inc/sys \
        -o "$dir/aov_kstress" tests/kernel/aov_kstress.c || die "aov_kstress does not build"
    local root=$dir/root busybox
    busybox=$kroot/bin/busybox
    make_root "$root" "$busybox" "$dir/kelo_aov.ko" "$dir/aov_kstress"
    [ -x "$compliance" ] && file -L "$compliance" | grep -q 'statically linked' ||
        die "arm64: no static aov-compliance at $compliance (scripts/build-arm64.sh builds it)"
    cp "$compliance" "$root/aov/"
    # The library's own session, as the device builds it (clang, libc++).
    local arm64_build=${ARM64_LIBCXX_BUILD:-build/arm64-libcxx}
    [ -x "$arm64_build/tests/kernel/aov_ksession" ] ||
        die "arm64: no $arm64_build/tests/kernel/aov_ksession (scripts/build-arm64.sh builds it)"
    copy_arm64_with_libs "$arm64_build/tests/kernel/aov_ksession" "$root" \
        "$arm64_build/hw/aov" "$arm64_build/platform" \
        build/arm64-libcxx-root/root/usr/lib/aarch64-linux-gnu /usr/aarch64-linux-gnu/lib
    write_plan "$root" "" "" /lib/aarch64-linux-gnu
    pack_root "$root" "$dir/initramfs.cpio.gz"
    boot_guest arm64 "$GUEST_LIMIT_ARM64" "$dir/console.log" \
        qemu-system-aarch64 -M virt -cpu cortex-a57 -m 1024 -smp 1 -nographic -no-reboot \
        -kernel "$kroot/boot/vmlinuz-$kver" -initrd "$dir/initramfs.cpio.gz" \
        -append "console=ttyAMA0 panic=-1 loglevel=4 slub_debug=FZP init_on_free=1"
    local ok=0
    judge_guest arm64 "$dir" || ok=1
    ! guest_finished "$dir" || compare_faults arm64 "$dir" || ok=1
    verdict arm64 "$ok"
}

began=$SECONDS
status=0
if [ "$arch" = x86_64 ] || [ "$arch" = all ]; then
    run_x86_64 || status=1
fi
if [ "$arch" = arm64 ] || [ "$arch" = all ]; then
    run_arm64 || status=1
fi
echo "run-kernel: ${verdicts[*]} in $((SECONDS - began)) s"
exit "$status"
