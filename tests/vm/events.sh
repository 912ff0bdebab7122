#!/bin/bash
# Everything that happens to disks and arrays arrives as the right event, once; how soon is printed beside what mdadm's
# monitor took to see it.
source "$RVX_SOURCE/tests/vm/lib.sh"

expected=()
: >/tmp/events
: >/tmp/mdadm

# Hundredths of a second since the boot.
now() {
    local up
    read -r up _ </proc/uptime
    echo $((10#${up/./}))
}

seconds() { printf '%d.%02d s' $(($1 / 100)) $(($1 % 100)); }

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

# change WHAT COMMAND...: notes the moment; what comes from here on is the answer to what follows.
change() {
    mark=$(wc -l </tmp/events) mdadm_mark=$(wc -l </tmp/mdadm) changed=$(now)
    check "$@"
}

# moment FILE LINES WORDS: of the first line with the words behind so many lines.
moment() {
    tail -n +$(($2 + 1)) "$1" | sed -n "s#^\([0-9.]*\) $3\$#\1#p" | head -n1
}

# arrives CODE NAME [EVENT]: within 30 seconds of the change. EVENT is what mdadm calls it; what mdadm sees only later,
# or not at all, is no fault of ours.
arrives() {
    local seen other=''
    expected+=("$1 $2")
    check "event $1 for $2" wait_for 30 "[ -n \"\$(moment /tmp/events $mark '$1 $2')\" ]"
    seen=$(moment /tmp/events "$mark" "$1 $2")
    if [ -n "${3-}" ]; then
        wait_for 3 "[ -n \"\$(moment /tmp/mdadm $mdadm_mark '$3 /dev/$2.*')\" ]" || true
        other=$(moment /tmp/mdadm "$mdadm_mark" "$3 /dev/$2.*")
        [ -z "$other" ] || other=$(seconds $((10#${other/./} - changed)))
        other="; mdadm's $3 after ${other:-more than that}"
    fi
    echo "# delay: $1 for $2 after $(seconds $((seen - changed)))$other"
}

# comes_free DISK: a failed member that was taken out. When it goes while a pass is on its way from the disks to the
# arrays, the plug-in has seen it in use but in no array: then it was in use before it came free.
comes_free() {
    wait_for 30 "[ -n \"\$(moment /tmp/events $mark '104\(55\|70\) $1')\" ]" || true
    if [ -n "$(moment /tmp/events "$mark" "10470 $1")" ]; then arrives 10470 "$1"; else arrives 10455 "$1"; fi
}

sync_speed() { echo "$1" >/proc/sys/dev/raid/speed_limit_max; }
write() { echo "$2" >"$1"; }
mirror() { mdadm --create "/dev/$1" --run --level=1 --metadata=1.2 --raid-devices=2 "${@:2}"; }
passes() { grep -c 'After UpdateSystem()' /tmp/trace; }

echo 100 >/proc/sys/dev/raid/speed_limit_min
mirror md1 --assume-clean --spare-devices=2 "/dev/${disk[SAS-0]}" "/dev/${disk[SAS-1]}" "/dev/${disk[SAS-2]}" \
    "/dev/${disk[SAS-3]}" >/dev/null 2>&1
mkdir -p /etc/zq
check "the plug-in is told to look every two seconds" rvx prop set plugin poll-interval 2
"$RVX_BUILD/bin/rvxctl" --trace 18 events --follow --json-lines > >(stamp) 2>/tmp/trace &
follower=$!
check "events are followed" wait_for 60 'grep -q "ENTER EventPoll" /tmp/trace'
printf '#!/bin/sh\nread -r up rest </proc/uptime\necho "$up $*" >>/tmp/mdadm\n' >/tmp/alert
chmod +x /tmp/alert
mdadm --monitor --scan --program=/tmp/alert >/tmp/monitor 2>&1 &
monitor=$!

busy=${disk[AHCI-3]}
mkswap "/dev/$busy" >/dev/null
change "a disk is put to use" swapon "/dev/$busy"
arrives 10454 "$busy"
change "it is given back" swapoff "/dev/$busy"
arrives 10470 "$busy"

gone=${disk[SAS-4]}
host=$(readlink -f "/sys/block/$gone/device" | grep -o '/host[0-9]*/')
change "a disk is deleted" write "/sys/block/$gone/device/delete" 1
arrives 10033 "$gone"
change "its host is scanned" write "/sys/class/scsi_host${host}scan" "- - -"
udevadm settle
find_disks
arrives 10032 "${disk[SAS-4]}"

offline=${disk[AHCI-2]}
change "a disk goes offline" write "/sys/block/$offline/device/state" offline
arrives 10451 "$offline"
change "it runs again" write "/sys/block/$offline/device/state" running
arrives 10455 "$offline"

first=${disk[AHCI-0]} second=${disk[AHCI-1]}
sync_speed 400
change "mdadm makes an array" mirror md2 "/dev/$first" "/dev/$second"
arrives 10080 md2 NewArray
arrives 10085 md2 RebuildStarted
arrives 10454 "$first"
arrives 10454 "$second"
change "the resync is let go" sync_speed 200000
arrives 10086 md2 RebuildFinished
change "a member fails" mdadm /dev/md2 --fail "/dev/$second"
arrives 10078 md2 Fail
change "it is taken out" mdadm /dev/md2 --remove "/dev/$second"
comes_free "$second"
change "the array is stopped" mdadm --stop /dev/md2
arrives 10081 md2 DeviceDisappeared
arrives 10470 "$first"

# Two spares: with one alone the plug-in does not read how far the rebuild is.
failed=${disk[SAS-1]}
sync_speed 1000
change "a member fails beside spares" mdadm /dev/md1 --fail "/dev/$failed"
arrives 10055 md1 RebuildStarted
arrives 10078 md1 Fail
change "the rebuild is let go" sync_speed 200000
arrives 10056 md1 SpareActive
arrives 10082 md1
change "the failed member is taken out" mdadm /dev/md1 --remove "/dev/$failed"
comes_free "$failed"

# Nothing but that, save what repeats as long as md holds a failed member (10459).
before=$(passes)
check "two more passes go by, which may bring nothing" wait_for 30 "[ \$(passes) -gt $((before + 2)) ]"
expect_eq "each event came once, and no other" "$(printf '%s\n' "${expected[@]}" | sort)" \
    "$(awk '$2 != 10459 { print $2, $3 }' /tmp/events | sort)"
expect_eq "what repeats is about the failed member that stayed in its array" "$failed" \
    "$(awk -v "out=$second" '$2 == 10459 && $3 != out { print $3 }' /tmp/events | sort -u)"
check "each line is an event" jq -se 'all(.data | .code > 10000 and (.text | length) > 0 and (.time | endswith("Z")))' /tmp/raw

changed=$(now)
kill "$follower" "$monitor"
status=0
wait "$follower" || status=$?
expect_eq "SIGTERM ends what follows within 4 s" "143 1" "$status $(($(now) - changed < 400))"

# Where the time goes between a change of md and its event.
mirror md2 --assume-clean "/dev/$first" "/dev/$second" >/dev/null 2>&1
"$RVX_BUILD/bench/rvx_event_delay" 2 /dev/md2 "/dev/$second" >/tmp/delay || true
sed -n 's/.* ms$/# delay split: &/p' /tmp/delay
expect_eq "all shares of the delay are told" 7 "$(grep -cE '[0-9.]+ ms$' /tmp/delay)"
