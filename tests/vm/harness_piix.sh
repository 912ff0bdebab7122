#!/bin/bash
# The older board's controller and its driver.
set -euo pipefail
source "$RVX_SOURCE/tests/vm/lib.sh"

for serial in PIIX-0 PIIX-1 PIIX-2; do
    disk=$(disk_by_serial "$serial")
    expect_eq "$serial hangs on ata_piix" ata_piix "$(driver_of "$disk")"
done
