#!/bin/bash
# A disk that fails in the middle of a change: its reads, writes or flushes end with an error. The change says so and names
# the disk, no other disk is written to, and once the disk works the operator's guide leads back to where the change began.
source "$RVX_SOURCE/tests/vm/lib.sh"

first=${disk[SAS-0]} second=${disk[AHCI-0]} spare=${disk[SAS-1]} other=${disk[AHCI-1]}
ports=(/dev/vport*)
exec 3<>"${ports[1]}"

# qmp COMMAND [ARGUMENTS]: QEMU's monitor does it.
qmp() {
    local answer
    jq -nc --arg command "$1" --argjson arguments "${2-null}" \
        '{execute: $command} + if $arguments == null then {} else {arguments: $arguments} end' >&3
    while read -r -t 20 answer <&3; do
        case $answer in
            '{"return":'*) return 0 ;;
            '{"error":'*) return 1 ;;
        esac
    done
    return 1
}

# node DISK: QEMU's name of it.
node() {
    local serial
    for serial in "${!disk[@]}"; do
        [ "${disk[$serial]}" != "$1" ] || echo "${serial,,}" | tr - _
    done
}

# fail DISK WHAT: from here on each read, write or flush fails; of flushes a dozen, which is more than the kernel tries.
fail() {
    local name
    name=$(node "$1")
    qmp blockdev-add "$(jq -n --arg image "${name}_file" --arg what "$2" '{driver: "blkdebug", "node-name": "fault", $image,
        "inject-error": [range(if $what == "flush" then 12 else 1 end) | {event: "none", iotype: $what, errno: 5, once: ($what == "flush")}]}')"
    qmp blockdev-reopen "{\"options\": [{\"driver\": \"raw\", \"node-name\": \"$name\", \"file\": \"fault\"}]}"
    [ "$2" != read ] || blockdev --flushbufs "/dev/$1" # what was read before would hide it
}

# heal DISK: QEMU flushes it first, which fails as often as is left of that.
heal() {
    local name
    name=$(node "$1")
    until qmp blockdev-reopen "{\"options\": [{\"driver\": \"raw\", \"node-name\": \"$name\", \"file\": \"${name}_file\"}]}"; do :; done
    qmp blockdev-del '{"node-name": "fault"}'
}


# broken DISK WHAT STATUS WORDS ARGUMENT...: the change ends with the status and the words, and no other disk is written to.
broken() {
    local what status=0
    what="$5 $6 while each $2 of $(node "$1") fails"
    fail "$1" "$2"
    timeout 60 "$RVX_BUILD/bin/rvxctl" "${@:5}" >/tmp/said 2>&1 || status=$?
    expect_eq "$what: the status" "$3" "$status"
    expect_match "$what: the words" "$4" "$(tr '\n' ' ' </tmp/said)"
    heal "$1"
    expect_eq "$what: other disks" "$others" "$(fingerprint "${bystanders[@]}")"
    udevadm settle --timeout=30
}

# free DISK...: what the words say: nothing holds them after that, and they are members of nothing.
free() {
    local array
    for array in $(arrays); do
        grep -q "^$array : active" /proc/mdstat || check "$array can be stopped" mdadm --stop "/dev/$array"
    done
    check "the superblocks can be wiped" mdadm --zero-superblock "${@/#//dev/}"
    expect_no_array "$@"
}

qmp qmp_capabilities
for name in "$first" "$second" "$spare" "$other"; do
    head -c 16M /dev/urandom >"/dev/$name"
done
sync

fail "$first" read
check "a disk that cannot be read holds nobody up" timeout 60 "$RVX_BUILD/bin/rvxctl" status
heal "$first"

create=(array create --level raid1 --yes "$first" "$second")
bystanders=("$spare" "$other")
others=$(fingerprint "${bystanders[@]}")
broken "$second" read 6 "$second cannot be read, and so not be written to safely" "${create[@]}"
expect_no_array "$first" "$second"
broken "$first" write 1 '20018 ERR_WRITE_FAILED' "${create[@]}"
free "$first" "$second"
broken "$second" write 1 "20018 .*half-built.*mdadm --stop /dev/md_d0.*superblock now: $first\." "${create[@]}"
free "$first" "$second"
broken "$first" flush 1 "20018 .*superblock now: $first\..*mdadm --stop.*mdadm --zero-superblock" "${create[@]}"
free "$first" "$second"
check "then it can be made" rvx "${create[@]}"
wait_for_sync

bystanders=("$other")
others=$(fingerprint "${bystanders[@]}")
add=(spare add "$spare" md_d0 --yes)
broken "$spare" write 1 '20018 ERR_WRITE_FAILED: The superblock could not be written in full\. *$' "${add[@]}"
broken "$spare" flush 1 "20018 .*superblock now: $spare\." "${add[@]}"
free "$spare"
broken "$first" read 1 "20003 .*where a member's superblock cannot be read" "${add[@]}"
expect_no_array "$spare"
expect_match "the mirror is whole all the while" '\[UU\]' "$(grep -A1 '^md_d0' /proc/mdstat)"
check "then it is added" rvx "${add[@]}"

broken "$spare" write 1 "$spare is released; $spare still has its superblock, or cannot be read" spare release "$spare" --yes
free "$spare"
broken "$second" write 1 "$second still has its superblock, or cannot be read.* Deleted: md_d0" array delete md_d0 --yes
free "$first" "$second"
expect_eq "it is made once more" md_d0 "$(make raid1 - "$first" "$second")"

# The spare that a rebuild fills fails in the middle of it: both are told, both are let go, and what works goes on.
wait_for_sync
check "a spare stands by" rvx spare add "$spare" md_d0 --yes
others=$(fingerprint "$other")
echo 100 >/proc/sys/dev/raid/speed_limit_min
echo 200 >/proc/sys/dev/raid/speed_limit_max
mdadm --fail /dev/md_d0 "/dev/$second"
check "the rebuild runs" wait_for 20 'grep -q recovery /proc/mdstat'
fail "$spare" write
echo 200000 >/proc/sys/dev/raid/speed_limit_max
check "md gives the spare up" wait_for 30 "grep -q '$spare\[[0-9]*\](F)' /proc/mdstat"
expect_match "rvxctl tells both" "md_d0 +1 of 2 members works; failed: ($second|$spare), ($second|$spare)" "$(rvx status)"
for name in "$spare" "$second"; do
    rvx spare release "$name" --yes >/tmp/said 2>&1 || true # one still has its superblock
    expect_match "$name is let go" "$name is released" "$(tr '\n' ' ' </tmp/said)"
done
heal "$spare"
expect_eq "the other disk" "$others" "$(fingerprint "$other")"
free "$spare" "$second"
check "the same spare is added again" rvx spare add "$spare" md_d0 --yes
check "and takes the member's place" wait_for 60 "grep -A1 '^md_d0' /proc/mdstat | grep -q '\[UU\]'"
