#!/bin/bash
# That the kinds of disks a machine file can name are what they say, and that the faulty ones fail where they should.
set -euo pipefail
source "$RVX_SOURCE/tests/vm/lib.sh"

read_sector() { dd if="/dev/$1" of=/dev/null bs=512 skip="$2" count=1 iflag=direct; }
write_sector() { dd if=/dev/zero of="/dev/$1" bs=512 seek="$2" count=1 oflag=direct; }

while read -r serial driver rotational identity; do
    disk=$(disk_by_serial "$serial")
    expect_eq "$serial hangs on $driver" "$driver" "$(driver_of "$disk")"
    expect_eq "$serial rotates: $rotational" "$rotational" "$(< "/sys/block/$disk/queue/rotational")"
    expect_match "$serial is $identity" "^$identity *\$" \
        "$(cat "/sys/block/$disk/device/vendor" "/sys/block/$disk/device/model" | tr -s ' \n' ' ')"
done <<'END'
AHCI-0 ahci 0 ATA SOLID STATE
AHCI-1 ahci 1 ATA ROTATING
AHCI2-0 ahci 1 ATA SECOND AHCI
SAS-0 mptsas 1 LSILOGIC Logical Volume
SAS-1 mptsas 1 SEAGATE ST64
VSCSI-0 virtio-pci 1 SEAGATE ST64
END

bad_write=$(disk_by_serial SAS-1) bad_read=$(disk_by_serial VSCSI-0) victim=$(disk_by_serial AHCI-1)
check "a sector beside the one that cannot be written" write_sector "$bad_write" 99999
check_fails "the one that cannot be written" write_sector "$bad_write" 100000
check "a sector beside the one that cannot be read" read_sector "$bad_read" 89999
check_fails "the one that cannot be read" read_sector "$bad_read" 90000

check "a disk before it dies" read_sector "$victim" 0
monitor "drive_del ahci_1"
check "a disk that the monitor takes away fails" wait_for 20 "! dd if=/dev/$victim of=/dev/null bs=512 count=1 iflag=direct"
