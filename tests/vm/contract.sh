#!/bin/bash
# The real kernel keeps what the simulated machine promises: one suite runs on both.
set -euo pipefail
source "$RVX_SOURCE/tests/vm/lib.sh"

# Nobody else may assemble what the suite writes, and its resyncs must last long enough to be seen.
udevadm control --stop-exec-queue
echo 20000 >/proc/sys/dev/raid/speed_limit_max
check "the contract holds" "$RVX_BUILD/tests/rvx_contract" "$(disk_by_serial AHCI-0)" "$(disk_by_serial AHCI-1)" \
    "$(disk_by_serial SAS-0)" --gtest_brief=1
