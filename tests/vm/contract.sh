#!/bin/bash
# The real kernel keeps what the simulated machine promises: one suite runs on both.
source "$RVX_SOURCE/tests/vm/lib.sh"

# Nobody else may assemble what the suite writes, and its resyncs must last long enough to be seen.
udevadm control --stop-exec-queue
echo 20000 >/proc/sys/dev/raid/speed_limit_max
check "the contract holds" "$RVX_BUILD/tests/rvx_contract" "${disk[AHCI-0]}" "${disk[AHCI-1]}" "${disk[SAS-0]}" \
    --gtest_brief=1
