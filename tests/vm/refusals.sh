#!/bin/bash
# What the plug-in or the kernel refuses: the number and exit status that say so, and disks that keep every byte.
set -euo pipefail
source "$RVX_SOURCE/tests/vm/changes_lib.sh"

a0=${disk[AHCI-0]} a1=${disk[AHCI-1]} a2=${disk[AHCI-2]} small=${disk[AHCI-3]}
s0=${disk[SAS-0]} s1=${disk[SAS-1]} s2=${disk[SAS-2]} stranger=${disk[VIRTIO-0]}
all=("$a0" "$a1" "$a2" "$small" "$s0" "$s1" "$s2" "$stranger")

# refuse NAME EXIT_STATUS NUMBER ARGUMENT...
refuse() {
    local name=$1 want="$2 $3" status=0
    shift 3
    rvx --json "$@" >/tmp/answer 2>/tmp/said || status=$?
    expect_eq "$name" "$want" "$status $(jq -r '.errors[0].status' /tmp/answer)"
}

# unchanged NAME DISK... -- COMMAND...: the command leaves the disks as they are.
unchanged() {
    local name=$1 disks=() before
    shift
    while [ "$1" != -- ]; do
        disks+=("$1") && shift
    done
    shift
    before=$(fingerprint "${disks[@]}")
    "$@"
    expect_eq "$name: no disk changed" "$before" "$(fingerprint "${disks[@]}")"
}

# A request that is wrong.
wrong_requests() {
    refuse "three disks for a mirror" 1 20006 array create --level raid1 --yes "$a0" "$a1" "$s0"
    refuse "one disk for RAID 0" 1 20006 array create --level raid0 --yes "$a0"
    refuse "the same disk twice" 1 20006 array create --level raid0 --yes "$a0" "$a0"
    refuse "a busy disk" 1 20006 array create --level raid1 --yes "$a0" "$a2"
}

# Arrays whose superblocks are none of the plug-in's.
foreign_arrays() {
    local array
    for array in md8 md9; do
        refuse "$array cannot be deleted" 1 20003 array delete "$array" --yes
        check "$array runs on" mdadm --detail --test "/dev/$array"
    done
}

# clean ARRAY...: md has written what it had to say of them.
clean() {
    local array
    for array; do
        wait_for 20 "grep -qE '^(clean|active-idle)' /sys/block/$array/md/array_state" || return 1
    done
}

# Current kernels ask how RAID 0 of unequal disks is laid out, and stop half-way when nobody said.
unequal_stripes() {
    local member
    refuse "RAID 0 with three disks, one of them smaller" 1 20003 array create --level raid0 --yes "$a0" "$s0" "$a1"
    expect_match "the answer names the half-built array" 'mdadm --stop /dev/md_d0' "$(cat /tmp/said)"
    expect_eq "no node that others may open is left" "" "$(find /dev -type b -name 'md_d*' -perm /007)"
    check "which can be stopped" mdadm --stop /dev/md_d0
    for member in "$a0" "$s0" "$a1"; do
        check "and $member's superblock be wiped" mdadm --zero-superblock "/dev/$member"
    done
    echo 2 >/sys/module/raid0/parameters/default_layout
    expect_eq "then it can be made" md_d0 "$(make raid0 - "$a0" "$s0" "$a1")"
    check "and deleted" rvx array delete md_d0 --yes
    expect_no_array "$a0" "$s0" "$a1"
}

not_for_stripes() {
    refuse "a spare for RAID 0" 1 20003 spare add --yes "$a1" md_d1
    refuse "a spare that is too small" 1 20003 spare add --yes "$small" md_d0
    refuse "a rebuild of RAID 0" 6 20023 rebuild start --yes md_d1
}

mounted_array() {
    expect_match "a mounted array is warned of" '[Mm]ounted' \
        "$(rvx --json array delete md_d1 --dry-run | jq -r .data.warning)"
    refuse "the kernel does not stop it" 1 20003 array delete md_d1 --yes
    expect_match "the warning is shown again" 'WARNING: .*mounted' "$(cat /tmp/said)"
    check "it is mounted still" mountpoint -q /srv
}

rebuilding_array() {
    refuse "deletion during a recovery" 5 20020 array delete md_d0 --yes
    refuse "a spare for another array during a recovery" 5 20020 spare add --yes "$small" md_d1
    check "the recovery goes on" grep -q recovery /proc/mdstat
}

mkfs.ext4 -q "/dev/$a2"
mount -o ro,noload "/dev/$a2" /mnt
unchanged "wrong requests" "${all[@]}" -- wrong_requests

foreign=(--run --assume-clean --level=1 --raid-devices=2)
check "mdadm makes an old mirror" mdadm --create /dev/md9 "${foreign[@]}" --metadata=0.90 "/dev/$a0" "/dev/$a1"
check "mdadm makes a newer one" mdadm --create /dev/md8 "${foreign[@]}" --metadata=1.2 "/dev/$s0" "/dev/$s1"
check "foreign arrays are at rest" clean md8 md9
unchanged "foreign arrays" "${all[@]}" -- foreign_arrays
mdadm --stop /dev/md8 /dev/md9 2>/dev/null
mdadm --zero-superblock "/dev/$a0" "/dev/$a1" "/dev/$s0" "/dev/$s1"

unchanged "unequal stripes" "$a2" "$s1" "$s2" "$small" "$stranger" -- unequal_stripes

expect_eq "a mirror is made" md_d0 "$(make raid1 - "$a0" "$s1")"
wait_for_sync
expect_eq "a RAID 0 is made" md_d1 "$(make raid0 - "$s0" "$s2")"
check "both are at rest" clean md_d0 md_d1
unchanged "what RAID 0 cannot" "$a0" "-$a1" "$a2" "-$small" "$s0" "$s1" "$s2" "$stranger" -- not_for_stripes
expect_no_array "$a1" "$small"

mkfs.ext4 -q /dev/md_d1
mount -o ro,noload /dev/md_d1 /srv
unchanged "a mounted array" "${all[@]}" -- mounted_array

check "a spare that fits" rvx spare add --yes "$a1" md_d0
echo 10 >/proc/sys/dev/raid/speed_limit_min
echo 100 >/proc/sys/dev/raid/speed_limit_max
mdadm --manage /dev/md_d0 --fail "/dev/$s1" 2>/dev/null
check "the recovery begins" wait_for 20 "grep -q recovery /proc/mdstat"
unchanged "a recovery" "$a2" "$small" "$s0" "$s2" "$stranger" -- rebuilding_array
