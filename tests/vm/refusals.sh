#!/bin/bash
# What the plug-in refuses for the sake of arrays that it did not make, and what the kernel refuses: the number and exit
# status that say so, and disks that keep every byte.
source "$RVX_SOURCE/tests/vm/lib.sh"

a0=${disk[AHCI-0]} a1=${disk[AHCI-1]} s0=${disk[SAS-0]} s1=${disk[SAS-1]}

# refuse NAME RULE ARGUMENT...: rvxctl sees the reason itself, before and in place of the change, and the kernel refuses
# what the plug-in alone would do.
refuse() {
    local status=0 mode
    for mode in --dry-run --yes; do
        status=0
        rvx "${@:3}" "$mode" >/dev/null 2>/tmp/said || status=$?
        expect_eq "$1 ($mode)" 6 "$status"
        expect_match "$1, in words" "$2" "$(</tmp/said)"
    done
    status=0
    rvx --json "${@:3}" --yes --plugin-alone >/tmp/answer 2>/tmp/said || status=$?
    expect_eq "$1, the kernel says so too" "1 20003" "$status $(jq -r '.errors[0].status' /tmp/answer)"
}

# clean ARRAY...: md has written what it had to say of them.
clean() {
    local array
    for array; do
        wait_for 20 "grep -qE '^(clean|active-idle)' /sys/block/$array/md/array_state" || return 1
    done
}

foreign=(--run --assume-clean --level=1 --raid-devices=2)
check "mdadm makes an old mirror" mdadm --create /dev/md9 "${foreign[@]}" --metadata=0.90 "/dev/$a0" "/dev/$a1"
check "mdadm makes a newer one" mdadm --create /dev/md8 "${foreign[@]}" --metadata=1.2 "/dev/$s0" "/dev/$s1"
check "both are at rest" clean md8 md9
before=$(fingerprint "${disk[@]}")
for array in md8 md9; do
    refuse "$array cannot be deleted" 'only an array with version 1.0' array delete "$array"
    check "$array runs on" mdadm --detail --test "/dev/$array"
done
expect_eq "no disk changed" "$before" "$(fingerprint "${disk[@]}")"
mdadm --stop /dev/md8 /dev/md9 2>/dev/null
mdadm --zero-superblock "/dev/$a0" "/dev/$a1" "/dev/$s0" "/dev/$s1"

plan=$(rvx --json array create --level raid1 --dry-run "$a0" "$s1")
expect_eq "a disk's serial number is told before it is written to" AHCI-0 "$(jq -r '.data.disks[0].serial' <<<"$plan")"

# Current kernels ask how RAID 0 of unequal disks is laid out, and stop half-way when nobody said.
refuse "RAID 0 with three disks, one of them smaller" 'default_layout' array create --level raid0 "$a0" "$s0" "$a1"
expect_match "the answer names the half-built array" 'mdadm --stop /dev/md_d0' "$(cat /tmp/said)"
expect_eq "no node that others may open is left" "" "$(find /dev -type b -name 'md_d*' -perm /007)"
check "which can be stopped" mdadm --stop /dev/md_d0
for member in "$a0" "$s0" "$a1"; do
    check "and $member's superblock be wiped" mdadm --zero-superblock "/dev/$member"
done
echo 2 >/sys/module/raid0/parameters/default_layout
expect_eq "then it can be made" md_d0 "$(make raid0 - "$a0" "$s0" "$a1")"

mkfs.ext4 -q /dev/md_d0
mount -o ro,noload /dev/md_d0 /srv
check "it is at rest" clean md_d0
before=$(fingerprint "${disk[@]}")
expect_match "a mounted array is warned of" '[Mm]ounted' \
    "$(rvx --json array delete md_d0 --dry-run --plugin-alone | jq -r .data.warning)"
refuse "the kernel does not stop it" 'md_d0 is mounted at /srv' array delete md_d0
expect_match "the warning is shown again" 'WARNING: .*mounted' "$(cat /tmp/said)"
check "it is mounted still" mountpoint -q /srv
expect_eq "no disk changed" "$before" "$(fingerprint "${disk[@]}")"
