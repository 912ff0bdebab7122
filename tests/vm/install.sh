#!/bin/bash
# The packages on a machine with systemd. First boot: installed they start nothing; an enabled socket starts rvxd at the
# first request, which serves whom its group has and sends alarms. Second boot, the same script: all of it is back; an
# upgrade keeps it, removal leaves what was configured, a purge nothing.
source "$RVX_SOURCE/tests/vm/lib.sh"

packages=("$RVX_BUILD"/packages/*.deb)
mapfile -t names < <(for package in "${packages[@]}"; do dpkg-deb -f "$package" Package; done)
mapfile -t files < <(for package in "${packages[@]}"; do dpkg-deb --fsys-tarfile "$package" | tar -t | sed -n 's/^\.//;/[^/]$/p'; done)

# as USER COMMAND...
as() { runuser -u "$1" -- "${@:2}"; }
state() { echo "$(systemctl is-enabled "$1") $(systemctl is-active "$1")"; }
events() { rvxctl --json events | jq -r '.data[] | "\(.id) \(.code)"'; }
# written: all files that this machine has beside or in place of its host's.
written() {
    local device
    mkdir -p /run/upper
    device=$(grep -lx VIRTIO-upper /sys/block/vd*/serial)
    mountpoint -q /run/upper || mount "/dev/$(cut -d/ -f4 <<<"$device")" /run/upper
    find /run/upper/data -not -type d -not -type c -printf '/%P\n' | sort
}

if [ ! -e /var/tmp/before ]; then
    # A container's, that no service is started in it; and what has all manuals read anew, which takes minutes here.
    rm -f /usr/sbin/policy-rc.d /var/lib/man-db/auto-update
    useradd alice
    useradd bob
    printf '#!/bin/sh\nid -u >/var/tmp/told\n' >/usr/local/bin/tell
    chmod 755 /usr/local/bin/tell
    written >/var/tmp/before

    expect_eq "none of the packages' files is there" "" "$(ls -d "${files[@]}" 2>/dev/null)"
    check "the packages are installed" dpkg -i "${packages[@]}"
    for unit in rvxd.service rvxd.socket rvxd-ro.socket rvxd-metrics.socket rvx-notify.socket; do
        expect_match "$unit is neither enabled nor started" '^(disabled|static) inactive$' "$(state $unit)"
    done
    check "rvxctl works without rvxd" rvxctl status
    check "simulated machines work" rvxctl --simulate status

    usermod -aG rvx alice
    printf 'type = program\nprogram = /usr/local/bin/tell\n' >/etc/rvx/notify.d/script.conf
    check "the socket is enabled" systemctl enable --now rvxd.socket rvxd-ro.socket
    expect_eq "nothing runs before somebody asks" inactive "$(systemctl is-active rvxd)"
    check "the first request is answered" as alice rvxctl rescan
    expect_eq "rvxd has said that it is ready" "active running" "$(systemctl show -P ActiveState -P SubState rvxd | xargs)"
    check "everybody may look" as bob rvxctl status
    expect_eq "nobody else may change" 8 "$(as bob rvxctl rescan >/dev/null 2>&1 && echo 0 || echo $?)"
    check "an alarm leaves the sandbox" as alice rvxctl notify test
    expect_eq "by a process of root's" 0 "$(cat /var/tmp/told)"
    check "nobody listens for metrics" sh -c '! curl -s http://127.0.0.1:9634/metrics'

    check "rvxd is enabled" systemctl enable rvxd
    check "a member of the group sets the plug-in" as alice rvxctl prop set plugin poll-interval 5
    check "and makes an array" as alice rvxctl array create --level raid1 "${disk[AHCI-0]}" "${disk[AHCI-1]}" --yes
    wait_for_sync
    check "its events are kept" wait_for 60 'events | grep " 10086$"'

    # What the guide has people type there, where a member of the array has failed.
    mdadm --fail /dev/md_d0 "/dev/${disk[AHCI-1]}"
    check "the array is degraded" wait_for 60 'rvxctl condition list | grep array-degraded:md_d0'
    awk '/^<!-- machine: installed -->$/ { mine = 1; next } /^```/ { runs = mine && !runs; mine = mine && runs; next } runs' \
        "$RVX_SOURCE/docs/operator.md" >/var/tmp/guide
    expect_eq "the guide has commands for it" 15 "$(grep -c . /var/tmp/guide)"
    check "the guide's commands run" bash -euxo pipefail /var/tmp/guide
    check "metrics are served where it says" sh -c 'curl -s http://127.0.0.1:9634/metrics | grep "^rvx_array_state"'
    check "the failed member is released" rvxctl spare release "${disk[AHCI-1]}" --yes
    check "another disk takes its place" rvxctl spare add "${disk[AHCI-2]}" md_d0 --wait --yes
    events >/var/tmp/events
    exit
fi

for unit in rvxd.service rvxd.socket rvxd-ro.socket; do
    expect_eq "$unit is back after a boot" "enabled active" "$(state $unit)"
done
expect_match "so is the array" 'raid1 sd.*\[UU\]' "$(tr '\n' ' ' </proc/mdstat)"
expect_eq "events of the boot before are there, by their identifiers" "$(cat /var/tmp/events)" "$(events | head -n "$(wc -l </var/tmp/events)")"

process=$(systemctl show -P MainPID rvxd)
# Of the same version, which the packages' scripts are not told.
check "an upgrade is installed" dpkg -i "${packages[@]}"
check "rvxd is another process" sh -c "systemctl is-active rvxd && [ $process != \$(systemctl show -P MainPID rvxd) ]"
check "it serves" as alice rvxctl rescan
check "it has its channel" sh -c 'rvxctl notify list | grep script'

check "the packages are removed" dpkg -r "${names[@]}"
expect_eq "nothing runs any more" "" "$(systemctl list-units --no-legend --state=active 'rvxd*' 'rvx-notify*')"
for file in /etc/rvx/notify.d/script.conf /etc/zq/piRVX.ini /var/lib/rvx/events.jsonl; do
    check "$file stays" test -e $file
done
check "the packages are purged" dpkg -P "${names[@]}"
expect_eq "their files are gone" "" "$(ls -d "${files[@]}" /etc/rvx /etc/zq /var/lib/rvx /run/rvx 2>/dev/null)"
# dpkg, systemd, the group and the caches of others keep records of their own.
expect_eq "so is what was written meanwhile" "" "$(written | comm -13 /var/tmp/before - |
    grep -vE '^/(var/(log|cache|tmp|lib/dpkg|lib/systemd/[a-z-]*$)|etc/(group|gshadow|ld\.so\.cache))' | xargs)"
expect_match "the array has seen nothing of it" 'raid1 sd.*\[UU\]' "$(tr '\n' ' ' </proc/mdstat)"

