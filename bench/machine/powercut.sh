#!/bin/bash
# One boot of powercut.py: what the last cut left is mended as the operator's guide says, and the next change is begun, in
# the middle of which the power goes.
#
# RVX_CUT_DONE and RVX_CUT_NEXT: the change that was cut, the one to begin, each create, spare, rebuild, delete or nothing;
# RVX_CUT_WAY: how the next one is asked for, direct or rvxd. RVX_CUT_DISKS: serial numbers of the first member, the second
# and the spare at the cut; RVX_CUT_SUM: checksum of what was on the array; RVX_CUT_BEGUN: how many operations rvxd must know,
# since disks were written to.
source "$RVX_SOURCE/tests/vm/lib.sh"

read -r -a serials <<<"${RVX_CUT_DISKS:-AHCI-0 AHCI-1 SAS-0}"
first=${disk[${serials[0]}]} second=${disk[${serials[1]}]} spare=${disk[${serials[2]}]} server=

holder() { sed -nE "s/^(md[^ ]*) : .* $1\[.*/\1/p" /proc/mdstat; }
# place DISK: in_sync, spare, faulty ..., nothing where md does not hold it.
place() {
    local array
    array=$(holder "$1")
    [ -z "$array" ] || cat "/sys/block/$array/md/dev-$1/state"
}
speed() { echo "$1" >/proc/sys/dev/raid/speed_limit_max; }
idle() { wait_for 60 "! grep -qE 'resync|recovery|PENDING|DELAYED' /proc/mdstat"; }
sum() { dd "if=/dev/$1" bs=64K iflag=direct status=none | md5sum | cut -d' ' -f1; }

start_server() {
    mkdir -p /var/lib/rvx /run/rvx
    mount "/dev/${disk[VIRTIO-0]}" /var/lib/rvx
    "$RVX_BUILD/sbin/rvxd" >/tmp/rvxd.log 2>&1 &
    server=$!
    check "rvxd serves" wait_for 60 'rvx api GET /v1/health >/dev/null 2>&1'
}

# expect_known: nothing is wrong that the guide does not know, and no operation goes on.
expect_known() {
    local kind
    for kind in $(rvx api GET /v1/conditions | jq -r '.conditions[].kind'); do
        check "the guide knows $kind" grep -q "\`$kind\`" "$RVX_SOURCE/docs/operator.md"
    done
    expect_eq "no operation goes on" "" "$(rvx api GET /v1/operations |
        jq -r '.operations[] | select(.state | IN("done", "interrupted", "failed") | not) | .id')"
    check "rvxd knows what had begun" [ "$(rvx api GET /v1/operations | jq '.operations | length')" -ge "${RVX_CUT_BEGUN:-0}" ]
}

# free: the guide's steps for disks that an interrupted creation or deletion left in no whole array.
free() {
    local array member left=("$first" "$second")
    [ "$RVX_CUT_DONE" = create ] || left+=("$spare")
    for array in $(for member in "${left[@]}"; do holder "$member"; done | sort -u); do
        check "$array can be stopped" mdadm --stop "/dev/$array"
    done
    check "the superblocks can be wiped" mdadm --zero-superblock "${left[@]/#//dev/}"
    expect_eq "they are free" "" "$(for member in "${left[@]}"; do holder "$member"; done)"
    expect_no_array "${left[@]}"
}

mend_mirror() {
    local array member
    array=$(holder "$first")
    if [ -n "$array" ] && grep -q "^$array : inactive" /proc/mdstat; then
        expect_match "rvxctl says how it is started" "'mdadm --run /dev/$array'" "$(rvx status --only-problems)"
        check "it can be started" mdadm --run "/dev/$array"
    fi
    check "what runs comes to its end" idle
    for member in "$second" "$spare"; do
        [ "$(place "$member")" != faulty ] || check "$member is released" rvx spare release "$member" --yes
    done
    for member in "$second" "$spare"; do
        [ -n "$(place "$member")" ] || check "$member is added" rvx spare add "$member" "$array" --yes
        check "it is built in" wait_for 30 "[[ \$(place $member) =~ in_sync|spare ]]"
        idle
    done
    check "the array is whole, with a spare" wait_for 20 "[ '3 2' = \"\$(for member in $first $second $spare; do place \$member; done |
        awk '/in_sync/ { ++whole } { ++all } END { print all, whole }')\" ]"
    expect_eq "what was on it is on it" "$RVX_CUT_SUM" "$(sum "$array")"
}

mend() {
    local array
    udevadm settle --timeout=60
    array=$(holder "$first")
    echo "# after the cut: $(grep '^md' /proc/mdstat | xargs)"
    expect_known
    # md puts off what is to be synchronised until somebody writes.
    if [ -n "$array" ] && grep -q "^$array : active (auto-read-only)" /proc/mdstat; then
        if grep -q PENDING /proc/mdstat || { grep -q 1 "/sys/block/$array/md/degraded" && grep -q spare "/sys/block/$array/md/"dev-*/state; }; then
            # A rebuild is wanted, and status says how; a resync is no problem, and check notes it.
            check "rvxctl says what lets it begin" wait_for 20 "[[ \$(rvx status; rvx check) == *'mdadm --readwrite /dev/$array'* ]]"
        fi
        check "it takes writes" mdadm --readwrite "/dev/$array"
    fi
    case $RVX_CUT_DONE in
        spare | rebuild) mend_mirror ;;
        *)
            if [ "$(place "$first") $(place "$second")" != "in_sync in_sync" ] || ! grep -q "^$array : active" /proc/mdstat; then
                free
            fi
            ;;
    esac
    array=$(holder "$first")
    [ -n "$array" ] || return 0
    check "what runs comes to its end" idle
    echo check >"/sys/block/$array/md/sync_action"
    check "the halves are compared" wait_for 60 "[ \"\$(</sys/block/$array/md/sync_action)\" = idle ]"
    expect_eq "they do not differ" 0 "$(<"/sys/block/$array/md/mismatch_cnt")"
    check "rvxctl finds nothing wrong" wait_for 20 "rvx check >/dev/null"
}

# roles: the members by their slots, and who is left.
roles() {
    local array name
    local -a slots
    array=$(holder "$first")
    [ -n "$array" ] || return 0
    for name in "$first" "$second" "$spare"; do
        case $(cat "/sys/block/$array/md/dev-$name/slot" 2>/dev/null) in
            0) slots[0]=$name ;;
            1) slots[1]=$name ;;
            *) slots[2]=$name ;;
        esac
    done
    first=${slots[0]} second=${slots[1]} spare=${slots[2]}
}

# prepare: what the next change needs.
prepare() {
    local array
    roles
    array=$(holder "$first")
    if [ "$RVX_CUT_NEXT" = create ]; then
        [ -z "$array" ] || check "the array is deleted" rvx array delete "$array" --yes
        array=
    elif [ -z "$array" ]; then
        array=$(make raid1 - "$first" "$second")
        check "it is synchronised" idle
    fi
    case $RVX_CUT_NEXT:$(place "$spare") in
        rebuild:) check "a spare is added" rvx spare add "$spare" "$array" --yes ;;
        spare:?*) check "the spare is released" rvx spare release "$spare" --yes ;;
    esac
    roles
}

# change: the one that is cut. Each of its calls is in a file that the host looks at, before it is made.
change() {
    local call=(rvx) array
    array=$(holder "$first")
    export RVX_KILL_LOG=/run/guest/calls
    [ "$RVX_CUT_WAY" = rvxd ] || call=(env "LD_PRELOAD=$RVX_BUILD/tests/vm/librvx_kill_at.so" "$RVX_BUILD/bin/rvxctl")
    case $RVX_CUT_NEXT in
        create) "${call[@]}" array create --level raid1 --yes "$first" "$second" && idle ;;
        spare) "${call[@]}" spare add "$spare" "$array" --yes ;;
        rebuild) mdadm --manage "/dev/$array" --fail "/dev/$second" && sleep 0.3 && idle ;;
        delete) "${call[@]}" array delete "$array" --yes ;;
    esac
}

if [ -z "$RVX_CUT_DONE" ]; then
    mkfs.ext4 -q "/dev/${disk[VIRTIO-0]}"
    check "another mirror is made" mdadm --create /dev/md9 --run --assume-clean --level=1 --raid-devices=2 --metadata=1.0 \
        --bitmap=none "/dev/${disk[AHCI-2]}" "/dev/${disk[SAS-1]}"
fi
speed 200000
start_server
mend
[ -n "$RVX_CUT_NEXT" ] || exit 0
prepare
operations=$(rvx api GET /v1/operations | jq '.operations | length')
kill "$server"
wait "$server" || true
export LD_PRELOAD=
if [ "$RVX_CUT_WAY" = rvxd ]; then
    RVX_KILL_LOG=/run/guest/calls LD_PRELOAD=$RVX_BUILD/tests/vm/librvx_kill_at.so "$RVX_BUILD/sbin/rvxd" >/tmp/rvxd.log 2>&1 &
    check "rvxd serves" wait_for 60 'rvx api GET /v1/health >/dev/null 2>&1'
fi
array=$(holder "$first")
udevadm settle --timeout=60
check "md is at rest" wait_for 60 "! grep -L -E '^(clean|active-idle|read-auto)' /sys/block/md*/md/array_state | grep -q ."
sync
speed 4000
echo "disks $(for name in "$first" "$second" "$spare"; do for serial in "${!disk[@]}"; do
    [ "${disk[$serial]}" != "$name" ] || echo "$serial"
done; done | xargs)"
echo "ready $([ -z "$array" ] || sum "$array") $operations"
wait_for 60 '[ -e /run/guest/go ]'
echo start
status=0
change >/tmp/said 2>&1 || status=$?
echo "end $status $(tail -n1 /tmp/said)"
sleep 600
