#!/bin/bash
# Measures beside the programs that do the same, in a machine of which every second pair of disks becomes a mirror; prints
# "value NAME_DISKS NUMBER". Rounds and seconds come from the file that bench/run leaves in the build.
source "$RVX_SOURCE/tests/vm/lib.sh"
rounds=0 idle_seconds=0
# shellcheck disable=SC1091  # written by bench/run
source "$RVX_BUILD/settings"
stopwatch=$RVX_BUILD/bench/rvx_stopwatch
disks=${#disk[@]}
failing=/dev/${disk[AHCI-1]}

# tell: its input's lines "NAME NUMBER" as values of this machine; others (the plug-in tells of its start) are left out.
tell() { sed -nE "s/^([a-z_]+) ([0-9.e+-]+)\$/value \1_$disks \2/p"; }
median() { sort -n "$1" | awk '{ all[NR] = $1 } END { if (!NR) exit 1; print all[int(NR / 2) + 1] }'; }

mirror() {
    mdadm --create "$1" --run --level=1 --metadata=1.2 --bitmap=none --assume-clean --raid-devices=2 \
        "/dev/${disk[$2]}" "/dev/${disk[$3]}" 2>/dev/null
}

# calm SECONDS FILE...: until so many seconds brought none of them a line, for two minutes at most.
calm() {
    local deadline=$((SECONDS + 120)) before=''
    until [ "$before" = "$(cat "${@:2}" | wc -l)" ]; do
        [ $SECONDS -lt $deadline ]
        before=$(cat "${@:2}" | wc -l)
        sleep "$1"
    done
}

# follow_events OPTION...: starts what follows events, and mdadm's monitor with the options. When ours has its three threads,
# it has taken what there is for known.
follow_events() {
    "$RVX_BUILD/bin/rvxctl" events --follow --json-lines > >("$stopwatch" stamp >/tmp/ours) 2>/tmp/said &
    followers=($!)
    mdadm --monitor --scan --program=/tmp/alert "$@" >/dev/null 2>&1 &
    followers+=($!)
    wait_for 60 "[ \$(ls /proc/${followers[0]}/task | wc -l) -ge 3 ]"
}

stop_following() {
    kill "${followers[@]}"
    wait "${followers[@]}" || true
}

programs() {
    "$stopwatch" compare "$rounds" "status=$RVX_BUILD/bin/rvxctl --json status" "lsblk=lsblk -J" \
        "mdadm=mdadm --detail --scan" "version=$RVX_BUILD/bin/rvxctl --version" "shell=sh -c :"
    "$RVX_BUILD/bench/rvx_scan_time" "$rounds"
}

# The status by way of rvxd.
served() {
    local server
    "$RVX_BUILD/sbin/rvxd" 2>/dev/null &
    server=$!
    wait_for 30 'rvx --socket /run/rvx/rvxd.sock api GET /v1/health >/dev/null 2>&1'
    "$stopwatch" compare "$rounds" "served=$RVX_BUILD/bin/rvxctl --json status" "served_lsblk=lsblk -J"
    kill "$server"
    wait "$server"
}

# seen FILE LINES WORDS: the moment of the first line with the words behind so many.
seen() { tail -n +$(($2 + 1)) "$1" | grep -m1 -- "$3" | cut -d' ' -f1; }

# A member fails; who tells of it when? The first round does not count: the first alert finds nothing in the caches.
change_to_event() {
    local round begin name watchers=(bare mdadm ours) files=(/tmp/bare /tmp/mdadm /tmp/ours)
    local -A words=([bare]=change [mdadm]=Fail [ours]='"code":10078,') before=()
    mkfifo /tmp/alerts
    "$stopwatch" stamp <>/tmp/alerts >/tmp/mdadm &
    "$stopwatch" mdstat >/tmp/bare &
    # shellcheck disable=SC2016  # the alert's own words
    printf '#!/bin/sh\necho "$*" >/tmp/alerts\n' >/tmp/alert
    chmod +x /tmp/alert
    follow_events
    for ((round = 0; round <= rounds; ++round)); do
        calm 2 "${files[@]}"
        for name in "${watchers[@]}"; do before[$name]=$(wc -l <"/tmp/$name"); done
        begin=$("$stopwatch" fail /dev/md1 "$failing")
        for name in "${watchers[@]}"; do
            wait_for 60 "[ -n \"\$(seen /tmp/$name ${before[$name]} '${words[$name]}')\" ]"
            [ $round = 0 ] || echo $(($(seen "/tmp/$name" "${before[$name]}" "${words[$name]}") - begin)) >>"/tmp/$name.us"
        done
        wait_for 30 'mdadm /dev/md1 --remove "$failing" 2>/dev/null'
        mdadm /dev/md1 --add "$failing" 2>/dev/null
        wait_for 60 "mdadm --detail /dev/md1 | grep -q 'State : .*clean *\$'"
    done
    for name in "${watchers[@]}"; do
        echo "# $name: $(sort -n "/tmp/$name.us" | xargs) us"
        echo "event_${name}_ms $(median "/tmp/$name.us" | awk '{ print $1 / 1000 }')"
    done
    stop_following
}

# used PID: milliseconds of processor time of its threads and of the children that it waited for. The scheduler's own
# count is finer than the clock ticks of "stat", which are too few of a program that mostly sleeps.
used() {
    cat /proc/"$1"/task/*/schedstat "/proc/$1/stat" |
        awk 'NF == 3 { sum += $1 / 1e6 } NF > 3 { sum += 10 * ($16 + $17) } END { print sum }'
}

# Both look every ten seconds.
idle() {
    follow_events --delay=10
    sleep 15
    {
        used "${followers[0]}" && used "${followers[1]}"
        sleep "$idle_seconds"
        used "${followers[0]}" && used "${followers[1]}"
    } | xargs | awk '{ print "idle_ours_ms", $3 - $1; print "idle_mdadm_ms", $4 - $2 }'
    stop_following
}

mkdir -p /etc/zq
mirror /dev/md1 AHCI-0 AHCI-1
mirror /dev/md2 AHCI-2 AHCI-3
udevadm settle
programs | tell
served | tell
change_to_event >/tmp/delays
grep '^#' /tmp/delays
tell </tmp/delays
[ "$disks" != 24 ] || idle | tell
