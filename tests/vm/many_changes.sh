#!/bin/bash
# Changes of md at random moments, many of them: none is missed between two looks of the poller.
source "$RVX_SOURCE/tests/vm/lib.sh"

udevadm control --stop-exec-queue # nobody else opens what changes
spare=${disk[AHCI-2]}
mdadm --create /dev/md1 --run --level=1 --metadata=1.2 --bitmap=none --assume-clean --raid-devices=2 \
    --spare-devices=1 "/dev/${disk[AHCI-0]}" "/dev/${disk[AHCI-1]}" "/dev/$spare" >/dev/null 2>&1
mkdir -p /etc/zq
check "the plug-in is told to look every 255 seconds by itself" rvx prop set plugin poll-interval 255
"$RVX_BUILD/tests/vm/rvx_many_changes" 1000 /dev/md1 "/dev/$spare" >/tmp/changes 2>&1 || true
expect_match "a thousand changes arrive" '(^|[^0-9])0 of 1000 changes lost' "$(</tmp/changes)"
sed -n 's/^longest: /# delay: the longest of them /p' /tmp/changes
