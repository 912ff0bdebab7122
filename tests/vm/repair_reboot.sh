#!/bin/bash
# The boot after repair.sh: udev and mdadm assemble the mirror, the plug-in lists and deletes it, its disks are free.
source "$RVX_SOURCE/tests/vm/lib.sh"

first=${disk[AHCI-0]} second=${disk[AHCI-1]} spare=${disk[SAS-1]}

check "the mirror runs again" wait_for 30 \
    "grep -q 'active.* raid1 .*\[.*\[.*\[' /proc/mdstat && grep -q '\[UU\]' /proc/mdstat"
array=$(arrays)
mount -o ro "/dev/$array" /mnt
expect_eq "all five files are there" 5 "$(wc -l </mnt/SUMS)"
check "they are whole" env -C /mnt sha256sum --quiet --check SUMS
umount /mnt

read_topology
expect_eq "the plug-in lists it with its members and its spare" \
    "40009 40093 $(sorted "$first" "$second" "$spare") 40093 40093 40098" \
    "$(listed "$array" 30045 30017) $(listed "$first" 30017) $(listed "$second" 30017) $(listed "$spare" 30017)"
check "the plug-in deletes it" rvx array delete "$array" --yes
expect_eq "md holds nothing" "" "$(arrays)"
expect_no_array "$first" "$second" "$spare"
expect_eq "a new array is made of its disks" md_d0 "$(make raid0 - "$spare" "$second")"
