#!/bin/bash
# What two programs that load the plug-in see of each other: the moment in which one of them has a disk open exclusively,
# and the lock that keeps two changes apart.
source "$RVX_SOURCE/tests/vm/lib.sh"

free=${disk[AHCI-0]} second=${disk[AHCI-1]}

# seen CODE DISK: so often in the events.
seen() { grep -c "\"code\":$1,.*\"objectName\":\"$2\"" /tmp/events || true; }

mkdir -p /etc/zq
check "the plug-in is told to look every two seconds" rvx prop set plugin poll-interval 2
rvx --trace 2 events --follow --json-lines >/tmp/events 2>/tmp/trace &
follower=$!
check "one program follows events" wait_for 60 'grep -q "ENTER EventPoll" /tmp/trace'

# How often one meets the other in that moment is chance: what comes must go.
for ((i = 0; i < 40; ++i)); do rvx status >/dev/null; done
echo "# 40 looks of another program beside passes every two seconds: $(seen 10454 '[a-z]*') times \"in use\""
check "what was announced as in use is free again" wait_for 30 "[ \$(seen 10454 '[a-z]*') = \$(seen 10470 '[a-z]*') ]"

mkdir -p /run/rvx
exec 9>/run/rvx/writer.lock
flock 9
status=0
rvx array create --level raid1 --yes "$free" "$second" 2>/tmp/said || status=$?
expect_match "beside another one's change none is begun" '^5 .*another program holds /run/rvx/writer.lock and alone changes this machine' \
    "$status $(grep ^rvxctl: /tmp/said)"
exec 9>&-
expect_eq "behind it one is" md_d0 "$(make raid1 - "$free" "$second")"

kill -TERM "$follower"
wait "$follower" || true
