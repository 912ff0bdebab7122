#!/bin/bash
# Runs scripts as root in a virtual machine that has the disks and controllers of a machine file.
#
#   boot.sh [OPTION]... MACHINE SCRIPT [SCRIPT]...
#
# MACHINE is the name of a file in machines/ (machines/README explains what it may say). Each SCRIPT runs in a boot of its
# own, in the order given, on the same disks: what the second one meets is what a reboot leaves.
#
#   --timeout S    seconds that each script may take, not counting the boot (60)
#   --build DIR    the build under test; the guest sees it as $RVX_BUILD
#   --keep DIR     use the images that lie there, and leave them: DIR/KIND.UNIT.img; and DIR/boot has what belongs to the last
#                  boot, control/ (the guest's /run/guest), and pid, which is QEMU's
#   --tap FILE     collect the assertions' lines there; a script that does not count its assertions then fails
#
# The guest's root file system is the host's, read-only under a layer in memory, or under one on a disk, for the time of
# this command, where the machine has systemd. The scripts' output appears here as it
# is written; the exit status is that of the first script that fails, 124 when it ran out of time, 125 when the machine
# did not get as far as running it. RVX_VM_ACCEL=kvm uses KVM instead of plain emulation.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source_folder=$(realpath "$here/../..")
readonly boot_seconds=180 # what a boot and its end may take on a machine that is busy; 6 is usual

timeout=60 build='' keep='' tap=''
machine_type=q35 modules='' systemd='' logged='' monitor=''
drives=() controllers=()

fail() {
    echo "boot.sh: $*" >&2
    exit 125
}

# controller KIND: the device that KIND's disks hang on, once; the boards' own controllers need none.
controller() {
    local device
    case $1 in
        ahci[2-9]) device=ich9-ahci,id=$1 ;;
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
        ahci[2-9]) echo "ide-hd,bus=$1.$2" ;;
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
    local kind=${1%.*} unit=${1##*.} size=64M word device image=$scratch/$1.img top=driver=raw
    local node=${kind}_$unit options=locking=off,cache.no-flush=on
    device=$(frontend "$kind" "$unit") && controller "$kind"
    for word in "${@:2}"; do
        case $word in
            size=*) size=${word#size=} ;;
            rotation=*) device+=,rotation_rate=${word#rotation=} ;;
            model=* | vendor=* | product=*) device+=",$word" ;;
            *) fail "$machine: unknown word $word" ;;
        esac
    done
    truncate -s "$size" "$image"
    if [ -n "$logged" ]; then
        : >"$image.log"
        top="driver=blklogwrites,log.driver=file,log.filename=$image.log,log.${options//,/,log.}"
    fi
    drives+=(-blockdev "driver=file,node-name=${node}_file,filename=$image,$options"
        -blockdev "$top,node-name=$node,file=${node}_file" -device "$device,drive=$node,serial=${kind^^}-$unit")
}

read_machine() {
    local line words
    while read -r line; do
        mapfile -t words < <(xargs -n1 printf '%s\n' <<<"$line")
        case ${words[0]} in
            machine) machine_type=${words[1]} ;;
            modules) modules=1 ;;
            systemd)
                systemd=1
                add_disk virtio.upper size=1G
                mkfs.ext4 -q "$scratch/virtio.upper.img"
                ;;
            logged) logged=1 ;;
            monitor) monitor=1 ;;
            *) add_disk "${words[@]}" ;;
        esac
    done < <(grep -v -e '^[[:space:]]*#' -e '^[[:space:]]*$' "$machine")
}

run_qemu() {
    local work=$1 kernel=$2 initramfs=$3 acceleration=(-accel 'tcg,thread=multi' -cpu max) ports=()
    [ "${RVX_VM_ACCEL:-tcg}" != kvm ] || acceleration=(-accel kvm -cpu host)
    local kernel_line="console=ttyS0 quiet loglevel=3 panic=-1 rdinit=/init mitigations=off audit=0 apparmor=0"
    kernel_line+=" 8250.nr_uarts=1 cryptomgr.notests tsc=reliable no_timer_check rcupdate.rcu_expedited=1"
    kernel_line+=" rvx.source=$source_folder${modules:+ rvx.modules=1}"
    # It takes no machine for a new one, and looks for no disks of the host's.
    [ -z "$systemd" ] || kernel_line+=" rvx.systemd=1 systemd.machine_id=72767800000000000000000000000001 fstab=no \
        systemd.gpt_auto=0 systemd.condition_needs_update=no"
    [ -z "$monitor" ] || ports=(-chardev "socket,id=server,path=$work/monitor,server=on,wait=off" -mon "chardev=server,mode=control"
        -chardev "socket,id=client,path=$work/monitor" -device "virtserialport,chardev=client")
    timeout --foreground -k 5 $((timeout + boot_seconds)) qemu-system-x86_64 \
        -M "$machine_type" "${acceleration[@]}" -smp 2 -m 1024 -nodefaults -no-user-config -no-reboot \
        -display none -serial "file:$work/console" -pidfile "$work/pid" \
        -kernel "$kernel" -initrd "$initramfs" -append "$kernel_line" \
        -virtfs local,path=/,mount_tag=host,security_model=none,readonly=on,multidevs=remap \
        -virtfs "local,path=$work/control,mount_tag=control,security_model=none" \
        -device virtio-serial-pci -chardev file,id=output,path=/dev/stdout -device virtserialport,chardev=output ${ports[@]+"${ports[@]}"} \
        ${controllers[@]+"${controllers[@]}"} ${drives[@]+"${drives[@]}"} </dev/null 2>"$work/qemu"
}

explain_failure() {
    local work=$1 file
    echo "boot.sh: $2 failed; the guest's last words:"
    for file in control/dmesg control/mdstat qemu console; do
        [ ! -s "$work/$file" ] || { echo "--- ${file#control/}" && tail -n 40 "$work/$file"; }
    done
}

# Keeps the assertions' lines, and adds a failure where the script ended before it had counted them, or failed with no
# assertion that says so.
collect_tap() {
    local output=$1 status=$3
    grep -aE '^(ok|not ok) - |^# [0-9]+ passed' "$output" >>"$tap" || true
    if ! tail -n1 "$output" | grep -qaE '^# [0-9]+ passed, [0-9]+ failed$' ||
        { [ "$status" != 0 ] && ! grep -qa '^not ok - ' "$output"; }; then
        echo "not ok - $(basename "${2%.*}") runs to its end: exit status $status" | tee -a "$tap"
        return 1
    fi
}

# boot SCRIPT KERNEL INITRAMFS: one boot; returns the script's exit status.
boot() {
    local script=$1 name work status=125
    [ -f "$script" ] || fail "there is no script $script"
    work=$scratch/boot
    rm -rf "$work"
    mkdir -p "$work/control"
    for name in "${!RVX_@}"; do printf 'export %s=%q\n' "$name" "${!name}"; done >"$work/control/environment"
    printf 'export %s=%q\n' RVX_SCRIPT "$(realpath "$script")" RVX_TIMEOUT "$timeout" RVX_SOURCE "$source_folder" \
        RVX_BUILD "${build:+$(realpath "$build")}" >>"$work/control/environment"
    run_qemu "$work" "$2" "$3" | tee "$work/output" || true
    [ ! -s "$work/control/status" ] || status=$(<"$work/control/status")
    [ "$status" = 0 ] || explain_failure "$work" "$script" >&2
    [ -z "$tap" ] || collect_tap "$work/output" "$script" "$status" || status=$((status ? status : 1))
    return "$status"
}

while [[ ${1-} =~ ^--(timeout|build|keep|tap)$ ]]; do
    printf -v "${1#--}" %s "${2:?$1 needs a value}"
    shift 2
done
[ $# -ge 2 ] || fail "usage: boot.sh [--timeout S] [--build DIR] [--keep DIR] [--tap FILE] MACHINE SCRIPT [SCRIPT]..."
machine=$here/machines/$1.machine
[ -f "$machine" ] || fail "there is no machine $1"
shift
command -v qemu-system-x86_64 >/dev/null || fail "qemu-system-x86_64 is not installed"
scratch=$keep
if [ -z "$scratch" ]; then
    scratch=$(mktemp -d "${TMPDIR:-/tmp}/rvx-vm.XXXXXX")
    trap 'rm -rf "$scratch"' EXIT
fi
read_machine
images=$("$here/prepare.sh") || fail "there is nothing to boot"
[ -z "$tap" ] || { mkdir -p "$(dirname "$tap")" && : >"$tap"; }
status=0
for script; do
    # shellcheck disable=SC2086  # two paths without blanks, one a line
    boot "$script" $images || { status=$? && break; }
done
exit "$status"
