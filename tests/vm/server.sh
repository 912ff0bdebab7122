#!/bin/bash
# rvxd over md: each event once and in order, over a restart in the middle of a resync and a kill, beside what mdadm's
# monitor saw; changes and views by way of it; the lock and the sockets' rights.
source "$RVX_SOURCE/tests/vm/lib.sh"

socket=/run/rvx/rvxd.sock
server=
start_server() {
    "$RVX_BUILD/sbin/rvxd" >>/tmp/rvxd.log 2>&1 &
    server=$!
    check "rvxd serves $1" wait_for 30 'rvx --socket $socket api GET /v1/health >/tmp/health 2>&1'
}
api() { rvx --socket $socket api "$@"; }
sync_speed() { echo "$1" >/proc/sys/dev/raid/speed_limit_max; }
# told CODE NAME...: how often the journal has it.
told() { api GET '/v1/events?limit=1000' | jq "[.events[] | select(.code == $1 and (.objectName == \"$2\" or (.placeholders | index(\"$2\"))))] | length"; }
# comes CODE NAME
comes() { check "event $1 for $2" wait_for 30 "[ \"\$(told $1 $2)\" -ge 1 ]"; }

mkdir -p /etc/zq /run/rvx
check "the plug-in is told to look every two seconds" rvx prop set plugin poll-interval 2
printf '#!/bin/sh\necho "$*" >>/tmp/mdadm\n' >/tmp/alert
chmod +x /tmp/alert
: >/tmp/mdadm
# It ends where there is no array to watch.
mdadm --create /dev/md1 --run --level=1 --metadata=1.2 --bitmap=none --assume-clean --raid-devices=2 \
    "/dev/${disk[SAS-2]}" "/dev/${disk[SAS-3]}" >/dev/null 2>&1
mdadm --monitor --scan --program=/tmp/alert >/tmp/monitor 2>&1 &
monitor=$!
start_server "at first"
rvx events --follow --json-lines >/tmp/followed 2>/tmp/follower &
follower=$!
first=${disk[AHCI-0]} second=${disk[SAS-0]} spare=${disk[AHCI-1]} next=${disk[SAS-1]}

echo 100 >/proc/sys/dev/raid/speed_limit_min
sync_speed 200
expect_eq "a mirror is made by way of rvxd" md_d0 "$(make raid1 - "$first" "$second")"
expect_eq "the operation is kept" "done" "$(api GET /v1/operations | jq -r '.operations[-1].state')"
comes 10085 md_d0
expect_match "the state has it at once" 'First sync [0-9]*% \(md\)' "$(rvx status)"
# shellcheck disable=SC2034  # of the condition
uuid=$(mdadm --detail /dev/md_d0 | sed -n 's/.*UUID : //p')
check "it is found by its uuid too, once udev has seen it" wait_for 10 'api GET "/v1/arrays/$uuid" >/dev/null'
status=0
rvx --direct array create --level raid1 "$spare" "$next" --yes >/tmp/said 2>&1 || status=$?
expect_match "nobody changes anything past rvxd" '^5 .*rvxd \(process [0-9]*\) holds /run/rvx/writer.lock' "$status $(tail -n1 /tmp/said)"
status=0
"$RVX_BUILD/sbin/rvxd" --socket /run/rvx/other.sock >/tmp/second 2>&1 || status=$?
expect_match "a second rvxd does not start" '^5 .*rvxd \(process [0-9]*\) holds' "$status $(tail -n1 /tmp/second)"

kill -TERM "$server"
status=0
wait "$server" || status=$?
expect_eq "it ends in order in the middle of a resync" 0 "$status"
start_server "again"
comes 10085 md_d0
expect_eq "the resync goes on, and is not told again" "resync 1" \
    "$(api GET /v1/arrays/md_d0 | jq -r .activity.kind) $(told 10085 md_d0)"
sync_speed 200000
comes 10086 md_d0

check "a spare is added" rvx spare add "$spare" md_d0 --yes
mdadm --manage /dev/md_d0 --fail "/dev/$second" >/dev/null 2>&1
comes 10078 md_d0
comes 10056 md_d0
kill -KILL "$server"
wait "$server" 2>/dev/null || true
start_server "after a kill"
check "the failed member is released" rvx spare release "$second" --yes
expect_eq "rvxd tells what was done, by whom, for how long" "done 0 true" "$(api GET /v1/operations |
    jq -r '.operations[-1] | "\(.state) \(.by.uid) \(.ended >= .started)"')"
check "the array is deleted" rvx array delete md_d0 --yes
comes 10081 md_d0
expect_no_array "$first" "$spare" "$second"

# A restart may need another moment before the follower is back.
last=$(api GET /v1/events?limit=1000 | jq -r '.events[-1].id')
check "the follower has all of it" wait_for 30 "grep -q '\"$last\"' /tmp/followed"
expect_eq "each event once, in the journal's order" "$(api GET '/v1/events?limit=1000' | jq -r '.events[].id')" \
    "$(jq -r 'select(.type == "event").data.id' /tmp/followed)"
expect_eq "identifiers rise" "$(jq -r 'select(.type == "event").data.id' /tmp/followed | sort -t- -k2n -u)" \
    "$(jq -r 'select(.type == "event").data.id' /tmp/followed)"
for code in 10080 10085 10086 10055 10056 10078 10081; do
    expect_eq "event $code came once" 1 "$(told $code md_d0)"
done
check "mdadm's monitor saw the failure and the end" sh -c 'grep -q "^Fail /dev/md.*d0" /tmp/mdadm && grep -q "^DeviceDisappeared /dev/md.*d0" /tmp/mdadm'
for pair in NewArray:10080 RebuildStarted:10085 RebuildFinished:10086 Fail:10078 DeviceDisappeared:10081; do
    ! grep -q "^${pair%:*} /dev/md.*d0" /tmp/mdadm || expect_eq "what mdadm's monitor saw as ${pair%:*} came too" 1 "$(told "${pair#*:}" md_d0)"
done
echo "# mdadm's monitor: $(sort /tmp/mdadm | uniq -c | xargs)"

expect_eq "who may not change things may look" "ok 403" "$(setpriv --reuid 65534 --regid 65534 --clear-groups curl -s \
    --unix-socket /run/rvx/rvxd-ro.sock http://x/v1/health | jq -r .level) $(setpriv --reuid 65534 --regid 65534 \
    --clear-groups curl -s -o /dev/null -w '%{http_code}' -X POST --unix-socket /run/rvx/rvxd-ro.sock http://x/v1/plans)"
check "the other socket is not theirs" sh -c "! setpriv --reuid 65534 --regid 65534 --clear-groups \
    curl -s --unix-socket $socket http://x/v1/health"
check "status comes by way of rvxd without rights" setpriv --reuid 65534 --regid 65534 --clear-groups \
    "$RVX_BUILD/bin/rvxctl" status

kill "$follower" "$monitor" "$server"
status=0
wait "$server" || status=$?
expect_eq "rvxd ends in order" 0 "$status"
