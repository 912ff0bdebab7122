#!/bin/bash
# The boot after harness.sh: what it left on the disks is assembled again.
set -euo pipefail
source "$RVX_SOURCE/tests/vm/lib.sh"

check "the array of the boot before runs again" wait_for 20 "grep -q 'active.* raid1 .*\[[01]\].*\[[01]\]' /proc/mdstat"
