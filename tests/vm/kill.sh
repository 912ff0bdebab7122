#!/bin/bash
# The process killed before each of md's ioctls and each write of a creation and of a deletion: what it had not named
# keeps every byte, and what it left can be found and removed as the operator's guide says.
source "$RVX_SOURCE/tests/vm/lib.sh"

first=${disk[AHCI-1]} second=${disk[SAS-1]} others=()
for serial in AHCI-0 AHCI-2 AHCI-3 SAS-0 SAS-2 VIRTIO-0; do
    head -c "$(blockdev --getsize64 "/dev/${disk[$serial]}")" /dev/urandom >"/dev/${disk[$serial]}"
    others+=("${disk[$serial]}")
done
untouched=$(fingerprint "${others[@]}")

# watched N ARGUMENT...: rvxctl, killed right before the n-th of its calls that change md or a disk (0: of none); the
# calls' names stand in /tmp/calls then.
watched() {
    rm -f /tmp/calls
    LD_PRELOAD=$RVX_BUILD/tests/vm/librvx_kill_at.so RVX_KILL_AT=$1 RVX_KILL_LOG=/tmp/calls rvx "${@:2}" >/tmp/said 2>&1
}

superblocks() {
    local count=0 member
    for member in "$first" "$second"; do
        ! mdadm --examine "/dev/$member" >/dev/null 2>&1 || count=$((count + 1))
    done
    echo "$count"
}

# clean_up: the steps of the operator's guide. udev may have taken a written member for an array of its own by then.
clean_up() {
    local array
    udevadm settle --timeout=30
    for array in $(arrays); do
        check "$array can be stopped" mdadm --stop "/dev/$array"
    done
    check "the superblocks can be wiped" mdadm --zero-superblock "/dev/$first" "/dev/$second"
    expect_eq "md holds nothing" "" "$(arrays)"
    expect_no_array "$first" "$second"
}

# kill_at N CALL SUPERBLOCKS ARGUMENT...: dies there, with as many members that carry a superblock.
kill_at() {
    local what="killed before call $1 ($2) of array $5" status=0
    watched "$1" "${@:4}" || status=$?
    expect_eq "$what: it died there" "137 $1 $2" "$status $(wc -l </tmp/calls) $(tail -n1 /tmp/calls)"
    expect_eq "$what: members with a superblock" "$3" "$(superblocks)"
    expect_eq "$what: disks that it did not name" "$untouched" "$(fingerprint "${others[@]}")"
}

create=(array create --level raid1 --yes "$first" "$second")
delete=(array delete md_d0 --yes)

# Members that carry a superblock when a process dies before the call.
creation=(SET_ARRAY_INFO write ADD_NEW_DISK write ADD_NEW_DISK RUN_ARRAY) written=(0 0 1 1 2 2)
deletion=(STOP_ARRAY write write) left=(2 2 1)

check "a creation that is watched succeeds" watched 0 "${create[@]}"
expect_eq "its calls" "${creation[*]}" "$(xargs </tmp/calls)"
wait_for_sync
check "a deletion that is watched succeeds" watched 0 "${delete[@]}"
expect_eq "its calls" "${deletion[*]}" "$(xargs </tmp/calls)"

for i in "${!creation[@]}"; do
    kill_at $((i + 1)) "${creation[$i]}" "${written[$i]}" "${create[@]}"
    clean_up
done
for i in "${!deletion[@]}"; do
    expect_eq "a creation afterwards works" md_d0 "$(make raid1 - "$first" "$second")"
    wait_for_sync
    kill_at $((i + 1)) "${deletion[$i]}" "${left[$i]}" "${delete[@]}"
    clean_up
done
