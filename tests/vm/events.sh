#!/bin/bash
# Everything that happens to disks and arrays arrives as the right event, once; how soon is printed beside what mdadm's
# monitor took to see it.
set -euo pipefail
source "$RVX_SOURCE/tests/vm/lib.sh"

readonly rvxctl=$RVX_BUILD/bin/rvxctl
declare -A disk=()
for serial in AHCI-{0..3} SAS-{0..4}; do
    disk[$serial]=$(disk_by_serial "$serial")
done
follower='' watcher='' monitor='' changed=0 mark=0
expected=()
: >/tmp/events
: >/tmp/mdadm

# Hundredths of a second since the boot.
now() {
    local up
    read -r up _ </proc/uptime
    echo $((10#${up/./}))
}

seconds() {
    printf '%d.%02d s' $(($1 / 100)) $(($1 % 100))
}

# Keeps each line of events as "MOMENT CODE NAME"; the name is the first word of the placeholder that holds one.
stamp() {
    local line name
    while read -r line; do
        echo "$line" >>/tmp/raw
        [[ $line =~ \"code\":([0-9]+),.*\"placeholders\":\[\"([^\"]*)\",\"([^\"]*)\"\] ]] || continue
        name=${BASH_REMATCH[2]:-${BASH_REMATCH[3]}}
        echo "$(now) ${BASH_REMATCH[1]} ${name%% *}" >>/tmp/events
    done
}

start_following() {
    mkdir -p /etc/zq
    check "the plug-in is told to look every two seconds" "$rvxctl" prop set plugin poll-interval 2
    expect_match "it keeps that" '^PollInterval=2$' "$(</etc/zq/piRVX.ini)"
    "$rvxctl" --trace 18 events --follow --json-lines > >(stamp) 2>/tmp/trace &
    follower=$!
    check "events are followed" wait_for 60 'grep -q "ENTER EventPoll" /tmp/trace'
}

start_monitor() {
    printf '#!/bin/sh\nread -r up rest </proc/uptime\necho "$up $*" >>/tmp/mdadm\n' >/tmp/alert
    chmod +x /tmp/alert
    mdadm --monitor --scan --program=/tmp/alert >/tmp/monitor 2>&1 &
    monitor=$!
}

# Notes the moment; what comes from here on is the answer to what follows.
change() {
    mark=$(wc -l </tmp/events)
    mdadm_mark=$(wc -l </tmp/mdadm)
    changed=$(now)
    check "$@"
}

moment_of_event() {
    tail -n +$((mark + 1)) /tmp/events | awk -v code="$1" -v name="$2" '$2 == code && $3 == name { print $1; exit }'
}

moment_at_mdadm() {
    tail -n +$((mdadm_mark + 1)) /tmp/mdadm | awk -v name="$1" -v path="$2" '$2 == name && $3 == path { print $1; exit }'
}

# arrives WHAT CODE NAME [EVENT]: within 30 seconds of the change. EVENT is what mdadm calls it; what mdadm sees only
# later, or not at all, is no fault of ours.
arrives() {
    local moment other=''
    expected+=("$2 $3")
    if ! wait_for 30 "[ -n \"\$(moment_of_event $2 $3)\" ]"; then
        not_ok "$1: event $2 for $3" "not within 30 s; since the change: $(tail -n +$((mark + 1)) /tmp/events)"
        return
    fi
    moment=$(moment_of_event "$2" "$3")
    pass "$1: event $2 for $3"
    if [ -n "${4-}" ]; then
        wait_for 3 "[ -n \"\$(moment_at_mdadm $4 /dev/$3)\" ]" || true
        other=$(moment_at_mdadm "$4" "/dev/$3")
        [ -z "$other" ] || other=$(seconds $((10#${other/./} - changed)))
        other="; mdadm's $4 ${other:-not seen}"
    fi
    echo "# delay: $1: $2 after $(seconds $((moment - changed)))$other"
}

# comes_free DISK: a failed member that was taken out. When it goes while a pass is on its way from the disks to the
# arrays, the plug-in has seen it in use but in no array: then it was in use before it came free.
comes_free() {
    check "$1 comes free" wait_for 30 "[ -n \"\$(moment_of_event 10455 $1)\$(moment_of_event 10470 $1)\" ]"
    if [ -n "$(moment_of_event 10470 "$1")" ]; then
        arrives "failed disk, in use, free" 10470 "$1"
    else
        arrives "failed disk free" 10455 "$1"
    fi
}

sync_speed() {
    echo "$1" >/proc/sys/dev/raid/speed_limit_max
}

make_mirror() {
    local array=$1
    shift
    mdadm --create "/dev/$array" --run --level=1 --metadata=1.2 --raid-devices=2 "$@"
}

set_file() {
    echo "$2" >"$1"
}

test_busy_disk() {
    local name=${disk[AHCI-3]}
    mkswap "/dev/$name" >/dev/null
    change "a disk is put to use" swapon "/dev/$name"
    arrives "disk in use" 10454 "$name"
    change "it is given back" swapoff "/dev/$name"
    arrives "disk free again" 10470 "$name"
}

test_vanished_disk() {
    local name=${disk[SAS-4]} host
    host=$(readlink -f "/sys/block/$name/device" | grep -o '/host[0-9]*/')
    change "a disk is deleted" set_file "/sys/block/$name/device/delete" 1
    arrives "disk gone" 10033 "$name"
    change "its host is scanned" set_file "/sys/class/scsi_host${host}scan" "- - -"
    udevadm settle
    disk[SAS-4]=$(disk_by_serial SAS-4)
    arrives "disk back" 10032 "${disk[SAS-4]}"
}

test_offline_disk() {
    local name=${disk[AHCI-2]}
    change "a disk goes offline" set_file "/sys/block/$name/device/state" offline
    arrives "disk offline" 10451 "$name"
    change "it runs again" set_file "/sys/block/$name/device/state" running
    arrives "disk online again" 10455 "$name"
}

# An interrupted program says good-bye to the plug-in within four seconds, however long its pass has still to go: an
# array that is being written to keeps a pass waiting for more than two.
test_signals() {
    local signal status started
    for signal in INT TERM; do
        : >/tmp/trace-$signal
        "$rvxctl" --trace 16 events --follow --json-lines >/tmp/signal 2>/tmp/trace-$signal &
        watcher=$!
        check "a pass is under way before SIG$signal" wait_for 60 \
            "[ \$(grep -c 'Before ScanSystem()' /tmp/trace-$signal) -gt \$(grep -c 'After ScanSystem()' /tmp/trace-$signal) ]"
        started=$(now)
        kill -s "$signal" "$watcher"
        status=0
        wait "$watcher" || status=$?
        started=$(($(now) - started))
        expect_eq "SIG$signal ends it" $((128 + $(kill -l "$signal"))) "$status"
        echo "# end: $(seconds "$started") after SIG$signal"
        check "it ended within 4 s" [ "$started" -lt 400 ]
    done
}

test_new_array() {
    local first=${disk[AHCI-0]} second=${disk[AHCI-1]}
    sync_speed 400
    change "mdadm makes an array" make_mirror md2 "/dev/$first" "/dev/$second"
    arrives "array created" 10080 md2 NewArray
    arrives "resync started" 10085 md2 RebuildStarted
    arrives "first member in use" 10454 "$first"
    arrives "second member in use" 10454 "$second"
    test_signals
    change "the resync is let go" sync_speed 200000
    arrives "resync let go and ended" 10086 md2 RebuildFinished
}

test_failed_member() {
    local first=${disk[AHCI-0]} second=${disk[AHCI-1]}
    change "a member fails" mdadm /dev/md2 --fail "/dev/$second"
    arrives "array degraded" 10078 md2 Fail
    change "it is taken out" mdadm /dev/md2 --remove "/dev/$second"
    comes_free "$second"
    change "the array is stopped" mdadm --stop /dev/md2
    arrives "array gone" 10081 md2 DeviceDisappeared
    arrives "its last member free" 10470 "$first"
}

percents() {
    sed -nE 's/.* ([0-9]+)%.*/\1/p' /tmp/watch
}

# Two spares: with one alone the plug-in does not read how far the rebuild is.
test_spare() {
    local status=0
    sync_speed 1000
    change "a member fails beside spares" mdadm /dev/md1 --fail "/dev/${disk[SAS-1]}"
    arrives "rebuild started" 10055 md1 RebuildStarted
    arrives "array degraded" 10078 md1 Fail
    "$rvxctl" array watch md1 >/tmp/watch 2>&1 &
    watcher=$!
    check "array watch shows progress" wait_for 60 '[ "$(percents | wc -l)" -ge 2 ]'
    change "the rebuild is let go" sync_speed 200000
    arrives "rebuild let go and ended" 10056 md1 SpareActive
    arrives "array in order" 10082 md1
    wait "$watcher" || status=$?
    expect_eq "array watch ends well" 0 "$status"
    expect_eq "progress rises: $(percents | xargs)" "$(percents | sort -nu)" "$(percents)"
    expect_match "array watch tells the end" 'md1: completed' "$(</tmp/watch)"
    change "the failed member is taken out" mdadm /dev/md1 --remove "/dev/${disk[SAS-1]}"
    comes_free "${disk[SAS-1]}"
}

passes() {
    grep -c 'After UpdateSystem()' /tmp/trace
}

# Each event once and nothing beside them, but for what repeats as long as md holds a failed member (10459).
expect_events() {
    local seen passes
    passes=$(passes)
    check "two more passes go by, which may bring nothing" wait_for 30 "[ \$(passes) -gt $((passes + 2)) ]"
    seen=$(awk '$2 != 10459 { print $2, $3 }' /tmp/events | sort)
    expect_eq "each event came once, and no other" "$(printf '%s\n' "${expected[@]}" | sort)" "$seen"
    expect_eq "what repeats is about failed members" "" \
        "$(awk '$2 == 10459 { print $3 }' /tmp/events | grep -vxE "${disk[AHCI-1]}|${disk[SAS-1]}")"
    check "the failed member that stayed in its array was reported" \
        grep -q " 10459 ${disk[SAS-1]}$" /tmp/events
    check "each line is an event" jq -se 'all(.code > 10000 and (.text | length) > 0 and (.time | endswith("Z")))' /tmp/raw
}

# Where the time goes between a change of md and its event.
measure_delay() {
    kill "$follower"
    wait "$follower" || true
    make_mirror md2 --assume-clean "/dev/${disk[AHCI-0]}" "/dev/${disk[AHCI-1]}" >/dev/null 2>&1
    check "the delay is measured" bash -c '"$0"/bench/rvx_event_delay 2 /dev/md2 "$1" >/tmp/delay' "$RVX_BUILD" \
        "/dev/${disk[AHCI-1]}"
    sed -n 's/.* ms$/# delay split: &/p' /tmp/delay
    expect_eq "all its shares are told" 7 "$(grep -cE '[0-9.]+ ms$' /tmp/delay)"
}

echo 100 >/proc/sys/dev/raid/speed_limit_min
make_mirror md1 --assume-clean --spare-devices=2 "/dev/${disk[SAS-0]}" "/dev/${disk[SAS-1]}" "/dev/${disk[SAS-2]}" \
    "/dev/${disk[SAS-3]}" >/dev/null 2>&1
start_following
start_monitor
test_busy_disk
test_vanished_disk
test_offline_disk
test_new_array
test_failed_member
test_spare
expect_events
kill "$monitor"
measure_delay
