#!/bin/bash
# What the other guest tests rest on: drivers bound to their controllers, disks found by name, md at work.
set -euo pipefail
source "$RVX_SOURCE/tests/vm/lib.sh"

while read -r serial driver; do
    disk=$(disk_by_serial "$serial")
    expect_eq "$serial hangs on $driver" "$driver" "$(driver_of "$disk")"
done <<'END'
AHCI-0 ahci
AHCI-1 ahci
SAS-0 mptsas
SAS-1 mptsas
VIRTIO-0 virtio-pci
END

check "the kernel lists mdp's major" grep -qE '^ *[0-9]+ mdp$' /proc/devices
check "the result folder can be written" touch "$RVX_OUT/seen"

first=$(disk_by_serial AHCI-0) second=$(disk_by_serial SAS-0)
check "mdadm makes a RAID 1" mdadm --create /dev/md0 --run --level=1 --metadata=1.0 --raid-devices=2 "/dev/$first" "/dev/$second"
expect_match "mdstat shows both members" "md0 : active raid1 ($second\\[1\\] $first\\[0\\]|$first\\[0\\] $second\\[1\\])" "$(< /proc/mdstat)"
check "the resync ends" wait_for 60 "grep -q '\[UU\]' /proc/mdstat && ! grep -q resync /proc/mdstat"
