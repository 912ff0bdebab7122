#!/bin/bash
# Corners where a wrong disk could be written or a server be hurt: arrays of one number, disks that change places between
# the look and the yes, a system without room for threads.
source "$RVX_SOURCE/tests/vm/lib.sh"

a0=${disk[AHCI-0]} a1=${disk[AHCI-1]} a2=${disk[AHCI-2]} s1=${disk[SAS-1]} s2=${disk[SAS-2]}

equal_numbers() {
    local others status=0
    expect_eq "a mirror takes the number 0" md_d0 "$(make raid1 - "$a1" "$s1")"
    check "mdadm makes another array of that number" mdadm --create /dev/md0 --run --assume-clean --level=1 \
        --raid-devices=2 --metadata=1.0 "/dev/$a2" "/dev/$s2"
    wait_for_sync
    read_topology
    expect_eq "both are listed with their own members" "$(printf '0 %s\n' "$(sorted "$a1" "$s1")" "$(sorted "$a2" "$s2")")" \
        "$(listed md_d0 30126 && listed md0 30126)"
    check "the other one is at rest" wait_for 20 "grep -qE '^(clean|active-idle)' /sys/block/md0/md/array_state"
    others=$(fingerprint "$a2" "$s2")
    rvx array delete md_d0 --yes 2>/tmp/said || status=$?
    expect_eq "rvxctl deletes neither by its number" 6 "$status"
    check "the plug-in alone deletes one" rvx array delete md_d0 --yes --plugin-alone
    expect_eq "leaves every byte of the other's members" "$others" "$(fingerprint "$a2" "$s2")"
    expect_no_array "$a1" "$s1"
    expect_eq "and the other runs on" md0 "$(arrays)"
    mdadm --stop /dev/md0 2>/dev/null
    mdadm --zero-superblock "/dev/$a2" "/dev/$s2"
}

# The disk that the name meant goes, and another, larger one comes under that name while a person reads the plan.
swapped_disk() {
    local host0 host1 before status=0 asking keys
    host0=$(readlink -f "/sys/block/$a0/device") host1=$(readlink -f "/sys/block/$a1/device")
    host0=${host0##*/} host1=${host1##*/}
    keys=$(mktemp -d)/keys
    mkfifo "$keys"
    script -qfec "$RVX_BUILD/bin/rvxctl array create --level raid1 $a1 $s1" /tmp/screen <"$keys" >/dev/null 2>&1 &
    asking=$!
    exec 3>"$keys"
    check "rvxctl asks" wait_for 60 "grep -q 'y/N' /tmp/screen"
    echo 1 >"/sys/block/$a0/device/delete"
    echo 1 >"/sys/block/$a1/device/delete"
    check "both disks go" wait_for 20 "[ ! -e /sys/block/$a0 ] && [ ! -e /sys/block/$a1 ]"
    # The lowest free name goes to the one that comes first.
    if [[ $a0 < $a1 ]]; then set -- "${host1%%:*}" "${host0%%:*}"; else set -- "${host0%%:*}" "${host1%%:*}"; fi
    echo "- - -" >"/sys/class/scsi_host/host$1/scan"
    check "one comes back under a name" wait_for 20 "[ -e /sys/block/$a0 ] || [ -e /sys/block/$a1 ]"
    echo "- - -" >"/sys/class/scsi_host/host$2/scan"
    check "and the other" wait_for 20 "[ -e /sys/block/$a0 ] && [ -e /sys/block/$a1 ]"
    udevadm settle --timeout=30
    expect_eq "the names have changed places" "$a1" "$(find_disks && echo "${disk[AHCI-0]}")"
    before=$(fingerprint "$a0" "$a1" "$s1")
    echo y >&3
    exec 3>&-
    wait "$asking" || status=$?
    expect_eq "the creation is refused" "5" "$status"
    expect_match "in words" 'changed meanwhile, nothing was done' "$(</tmp/screen)"
    expect_eq "no disk changed" "$before" "$(fingerprint "$a0" "$a1" "$s1")"
    expect_eq "and md was not asked" "" "$(arrays)"
    find_disks
    a0=${disk[AHCI-0]} a1=${disk[AHCI-1]}
}

# Two people at once: each disk is in one array or in none, and who came second is told.
two_creations() {
    local first=0 second=0 program
    rvx array create --level raid1 --yes "$a1" "$s1" >/tmp/one 2>&1 &
    program=$!
    rvx array create --level raid1 --yes "$a2" "$s1" >/tmp/two 2>&1 || second=$?
    wait "$program" || first=$?
    expect_match "one is made, and the other refused" '^(0 [56]|[56] 0)$' "$first $second"
    expect_eq "md has one array of two" "1 2" "$(arrays | wc -l) $(grep -oE 'sd[a-z]+\[' /proc/mdstat | wc -l)"
    wait_for_sync
    check "it is deleted" rvx array delete --all --yes
}

# A lost terminal in the middle of a creation: it is carried to its end.
hang_up() {
    local status=0
    LD_PRELOAD=$RVX_BUILD/tests/vm/librvx_kill_at.so RVX_KILL_AT=3 RVX_KILL_SIGNAL=1 RVX_KILL_LOG=/tmp/calls \
        rvx array create --level raid1 --yes "$a1" "$s1" >/tmp/out 2>/tmp/said || status=$?
    expect_eq "rvxctl gives its answer and ends by the signal" "129 Created md_d0: 15 MiB." "$status $(</tmp/out)"
    expect_match "it runs with both members" 'active raid1 .*\[.*\[' "$(grep '^md_d0' /proc/mdstat)"
    wait_for_sync
    check "it is deleted" rvx array delete md_d0 --yes
}

# QEMU has no enclosures: one is put over the disk's folder in sysfs, which keeps what it has.
light() {
    local folder entry status=0
    folder=$(readlink -f "/sys/block/$a0/device")
    rvx disk locate "$a0" on 2>/tmp/said || status=$?
    expect_eq "without an enclosure it is refused" 6 "$status"
    mkdir /tmp/behind
    mount --bind "$folder" /tmp/behind
    mount -t tmpfs tmpfs "$folder"
    for entry in /tmp/behind/*; do
        if [ -L "$entry" ]; then
            cp -P "$entry" "$folder"
        elif [ -d "$entry" ]; then
            mkdir "$folder/${entry##*/}"
            mount --bind "$entry" "$folder/${entry##*/}"
        else
            touch "$folder/${entry##*/}"
            mount --bind "$entry" "$folder/${entry##*/}"
        fi
    done
    mkdir "$folder/enclosure_device:Slot 7"
    echo 0 >"$folder/enclosure_device:Slot 7/locate"
    expect_eq "the light goes on" "The light of $a0 is on. 1" \
        "$(rvx disk locate "$a0" on) $(<"$folder/enclosure_device:Slot 7/locate")"
    expect_eq "and off" "The light of $a0 is off. 0" \
        "$(rvx disk locate "$a0" off) $(<"$folder/enclosure_device:Slot 7/locate")"
    umount -R "$folder" /tmp/behind
}

# udev takes a pulled member out as this does, and leaves the array read-only until it is written to: the spare waits.
put_off() {
    expect_eq "a mirror is made" md_d0 "$(make raid1 - "$a1" "$s1")"
    wait_for_sync
    check "it has a spare" rvx spare add "$a2" md_d0 --yes
    echo read-auto >/sys/block/md_d0/md/array_state
    check "a member is taken out" mdadm --incremental --fail "$s1"
    expect_match "that is critical" '^RAID CRITICAL - 1 array degraded' "$(rvx check || true)"
    expect_match "what begins the rebuild is said" 'mdadm --readwrite /dev/md_d0' "$(rvx status)"
    expect_match "nobody waits for it" 'Waiting for the first write' "$(timeout 30 "$RVX_BUILD/bin/rvxctl" array watch md_d0)"
    check "it is begun" mdadm --readwrite /dev/md_d0
    check "it ends" wait_for 60 "[ \$(</sys/block/md_d0/md/degraded) = 0 ]"
    check "the array is deleted" rvx array delete md_d0 --yes
    mdadm --zero-superblock "/dev/$s1"
}

no_threads() {
    local status=0 program
    # A thread's stack is as large as the limit says, and does not fit into the memory that the process may have.
    (
        ulimit -s 8000000 -v 4000000
        exec "$RVX_BUILD/bin/rvxctl" events --follow
    ) >/tmp/out 2>/tmp/said &
    program=$!
    check "a thread that could not be started is told of" wait_for 60 "grep -q 'start the thread EventPoll' /tmp/said"
    check "and the other one" wait_for 5 "grep -q 'start the thread Worker' /tmp/said"
    kill -TERM "$program"
    wait "$program" || status=$?
    expect_eq "and rvxctl ends by the signal, not by a crash" 143 "$status"
}

mkdir -p /dev/pts
mount -t devpts devpts /dev/pts # rvxctl asks on a terminal only
equal_numbers
put_off
no_threads
light
swapped_disk
two_creations
hang_up
