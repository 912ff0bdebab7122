#!/bin/bash
# Runs scripts as root in a virtual machine that has the disks and controllers of a machine file.
#
#   boot.sh [OPTION]... MACHINE SCRIPT [SCRIPT]...
#
# MACHINE is a file, or the name of one in machines/ (machines/README explains what it may say). Each SCRIPT runs in a
# boot of its own, in the order given, on the same disks: what the second one meets is what a reboot leaves.
#
#   --timeout S    seconds that each script may take, not counting the boot (60)
#   --build DIR    the build under test; the guest sees it as $RVX_BUILD
#   --disks DIR    keep the disk images in DIR and use those that are there already
#   --out DIR      where files that a script leaves in $RVX_OUT go
#   --tap FILE     collect the assertions' lines there; a script that does not count its assertions then fails
#   --env N=V      set a variable for the scripts; may be given several times
#   --keep         leave the working folder (console log, control files) and print its name
#   --verbose      print what the boot cost
#
# The guest's root file system is the host's, read-only under a layer in memory. The scripts' output appears here as it
# is written; the exit status is that of the first script that fails, 124 when it ran out of time, 125 when the machine
# did not get as far as running it. RVX_VM_ACCEL=kvm uses KVM instead of plain emulation.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
readonly boot_seconds=180 # what a boot and its end may take on a machine that is busy; 6 is usual

timeout=60 build='' disks='' out='' tap='' keep='' verbose=''
machine_type=q35 memory=1024 modules=''
settings=() drives=() controllers=()

fail() {
    echo "boot.sh: $*" >&2
    exit 125
}

parse_options() {
    while [[ ${1-} == --* ]]; do
        case $1 in
            --keep) keep=1 ;;
            --verbose) verbose=1 ;;
            --timeout | --build | --disks | --out | --tap) printf -v "${1#--}" %s "${2:?$1 needs a value}" && shift ;;
            --env) settings+=("${2:?--env needs a value}") && shift ;;
            *) fail "unknown option $1" ;;
        esac
        shift
    done
    [ $# -ge 2 ] || fail "usage: boot.sh [OPTION]... MACHINE SCRIPT [SCRIPT]..."
    machine=$1
    [ -f "$machine" ] || machine=$here/machines/$machine.machine
    [ -f "$machine" ] || fail "there is no machine $1"
    shift
    scripts=("$@")
}

# controller KIND: the device that KIND's disks hang on, once; the boards' own controllers need none.
controller() {
    local device
    case $1 in
        ahci2) device=ich9-ahci,id=ahci2 ;;
        sas) device=mptsas1068,id=sas ;;
        vscsi) device=virtio-scsi-pci,id=vscsi ;;
        *) return 0 ;;
    esac
    [[ " ${controllers[*]-} " == *" $device "* ]] || controllers+=(-device "$device")
}

# frontend KIND UNIT: the disk's own device and where it is plugged in.
frontend() {
    case $1 in
        ahci) echo "ide-hd,bus=ide.$2" ;;
        ahci2) echo "ide-hd,bus=ahci2.$2" ;;
        piix) echo "ide-hd,bus=ide.$(($2 / 2)),unit=$(($2 % 2))" ;;
        # The driver shows no disk that has no world-wide name.
        sas) printf 'scsi-hd,bus=sas.0,scsi-id=%d,wwn=0x5000c500000000%02x\n' "$2" "$2" ;;
        vscsi) echo "scsi-hd,bus=vscsi.0,scsi-id=$2" ;;
        virtio) echo virtio-blk-pci ;;
        *) fail "$machine: unknown kind of disk $1" ;;
    esac
}

# add_disk KIND.UNIT [KEY=VALUE]...
add_disk() {
    local kind=${1%.*} unit=${1##*.} size=64M faults=0 word key value device image backend
    [[ $1 =~ ^[a-z0-9]+\.[0-9]+$ ]] || fail "$machine: $1 is not KIND.UNIT"
    device=$(frontend "$kind" "$unit") && controller "$kind"
    image=$disks/$1.img
    backend="driver=raw,cache=unsafe,file.driver=file,file.filename=$image,file.locking=off"
    local serial=${kind^^}-$unit
    shift
    for word; do
        key=${word%%=*} value=${word#*=}
        case $key in
            size) size=$value ;;
            serial) serial=$value ;;
            rotation) device+=,rotation_rate=$value ;;
            model | vendor | product | wwn) device+=",$key=$value" ;;
            read-error | write-error)
                backend=${backend/file.driver=file,file.filename=*/file.driver=blkdebug,file.image.driver=file}
                backend+=",file.image.filename=$image,file.image.locking=off"
                backend+=",file.inject-error.$faults.event=none,file.inject-error.$faults.iotype=${key%-error}"
                backend+=",file.inject-error.$faults.sector=$value"
                ;;
            *) fail "$machine: unknown word $word" ;;
        esac
    done
    [ -f "$image" ] || truncate -s "$size" "$image"
    drives+=(-drive "if=none,id=${kind}_$unit,$backend" -device "$device,drive=${kind}_$unit,serial=$serial")
}

read_machine() {
    local line words
    while read -r line; do
        mapfile -t words < <(xargs -n1 printf '%s\n' <<<"$line")
        case ${words[0]} in
            machine) machine_type=${words[1]} ;;
            memory) memory=${words[1]} ;;
            modules) modules=1 ;;
            *) add_disk "${words[@]}" ;;
        esac
    done < <(grep -v -e '^[[:space:]]*#' -e '^[[:space:]]*$' "$machine")
}

# The scripts' variables, for the guest to source.
write_environment() {
    local setting
    printf 'export %s=%q\n' RVX_SCRIPT "$(realpath "$1")" RVX_TIMEOUT "$timeout" RVX_OUT /run/rvx/out \
        RVX_SOURCE "$(realpath "$here/../..")" RVX_BUILD "${build:+$(realpath "$build")}"
    for setting in ${settings[@]+"${settings[@]}"}; do
        printf 'export %s=%q\n' "${setting%%=*}" "${setting#*=}"
    done
}

# The monitor's pipes, crossed with those of a port of the guest's, so that a script can speak to the machine it runs in.
make_monitor() {
    mkfifo "$1/monitor.in" "$1/monitor.out"
    ln -s monitor.out "$1/port.in"
    ln -s monitor.in "$1/port.out"
}

run_qemu() {
    local work=$1 kernel=$2 initramfs=$3 acceleration=(-accel 'tcg,thread=multi' -cpu max)
    [ "${RVX_VM_ACCEL:-tcg}" != kvm ] || acceleration=(-accel kvm -cpu host)
    local kernel_line="console=ttyS0 quiet loglevel=3 panic=-1 rdinit=/init mitigations=off audit=0 apparmor=0"
    kernel_line+=" 8250.nr_uarts=1 cryptomgr.notests tsc=reliable no_timer_check rcupdate.rcu_expedited=1"
    kernel_line+=" rvx.source=$(realpath "$here/../..")${modules:+ rvx.modules=1}"
    timeout --foreground -k 5 $((timeout + boot_seconds)) qemu-system-x86_64 \
        -M "$machine_type" "${acceleration[@]}" -smp 2 -m "$memory" -nodefaults -no-user-config -no-reboot \
        -display none -serial "file:$work/console" \
        -kernel "$kernel" -initrd "$initramfs" -append "$kernel_line" \
        -virtfs local,path=/,mount_tag=host,security_model=none,readonly=on,multidevs=remap \
        -virtfs "local,path=$work/control,mount_tag=control,security_model=none" \
        -device virtio-serial-pci \
        -chardev file,id=output,path=/dev/stdout -device virtserialport,chardev=output,name=rvx.output \
        -chardev "pipe,id=port,path=$work/port" -device virtserialport,chardev=port,name=rvx.monitor \
        -chardev "pipe,id=monitor,path=$work/monitor" -mon chardev=monitor,mode=readline \
        ${controllers[@]+"${controllers[@]}"} ${drives[@]+"${drives[@]}"} </dev/null 2>"$work/qemu"
}

explain_failure() {
    local work=$1 file
    echo "boot.sh: $2 failed; the guest's last words:"
    for file in control/dmesg control/mdstat qemu; do
        [ ! -s "$work/$file" ] || { echo "--- ${file#control/}" && tail -n 40 "$work/$file"; }
    done
    [ -s "$work/control/dmesg" ] || { echo "--- console" && tail -n 40 "$work/console"; }
}

# Keeps the assertions' lines, and adds a failure where the script ended before it had counted them, or failed with no
# assertion that says so.
collect_tap() {
    local name output=$1 status=$3
    name=$(basename "$2" .sh)
    grep -aE '^(ok|not ok|skip) - |^# [0-9]+ passed' "$output" >>"$tap" || true
    if ! tail -n1 "$output" | grep -qaE '^# [0-9]+ passed, [0-9]+ failed, [0-9]+ skipped$' ||
        { [ "$status" != 0 ] && ! grep -qa '^not ok - ' "$output"; }; then
        echo "not ok - $name runs to its end: exit status $status" | tee -a "$tap"
        return 1
    fi
}

# boot SCRIPT KERNEL INITRAMFS: one boot; returns the script's exit status.
boot() {
    local script=$1 work status=125 started=$EPOCHREALTIME
    [ -f "$script" ] || fail "there is no script $script"
    work=$(mktemp -d "$scratch/boot.XXXXXX")
    mkdir -p "$work/control/out"
    write_environment "$script" >"$work/control/environment"
    make_monitor "$work"
    run_qemu "$work" "$2" "$3" | tee "$work/output" || true
    [ ! -s "$work/control/status" ] || status=$(<"$work/control/status")
    [ "$status" = 0 ] || explain_failure "$work" "$script" >&2
    [ -z "$out" ] || { mkdir -p "$out" && cp -r "$work/control/out/." "$out"; }
    [ -z "$tap" ] || collect_tap "$work/output" "$script" "$status" || status=$((status ? status : 1))
    [ -z "$verbose" ] || awk -v "booted=$(<"$work/control/booted")" -v "up=$(<"$work/control/uptime")" \
        -v "a=$started" -v "b=$EPOCHREALTIME" 'BEGIN {
            printf "boot.sh: ready after %.1f s of guest time, script %.1f s, %.1f s in all\n", booted, up - booted, b - a
        }' >&2
    return "$status"
}

main() {
    parse_options "$@"
    command -v qemu-system-x86_64 >/dev/null || fail "qemu-system-x86_64 is not installed"
    scratch=$(mktemp -d "${TMPDIR:-/tmp}/rvx-vm.XXXXXX")
    # shellcheck disable=SC2016  # expanded when it runs
    trap 'if [ -n "$keep" ]; then echo "boot.sh: kept $scratch" >&2; else rm -rf "$scratch"; fi' EXIT
    disks=${disks:-$scratch/disks}
    mkdir -p "$disks"
    disks=$(realpath "$disks")
    read_machine
    local images status=0
    images=$("$here/prepare.sh") || fail "there is nothing to boot"
    [ -z "$tap" ] || { mkdir -p "$(dirname "$tap")" && : >"$tap"; }
    for script in "${scripts[@]}"; do
        # shellcheck disable=SC2086  # two paths without blanks, one a line
        boot "$script" $images || { status=$? && break; }
    done
    return "$status"
}

main "$@"
