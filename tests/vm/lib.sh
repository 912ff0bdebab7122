# shellcheck shell=bash disable=SC2034
# What a guest's test script sources: assertions that print "ok - NAME" or "not ok - NAME: why" and count themselves, and
# ways to look at disks and arrays. When the script ends, for whatever reason, the counts are printed and decide its exit
# status.
#
#   source "$RVX_SOURCE/tests/vm/lib.sh"
#   check "the array is assembled" test -b /dev/md0
#   expect_eq "it has two members" 2 "$(< /sys/block/md0/md/raid_disks)"
set -euo pipefail

passed_count=0 failed_count=0

# verdict STATUS NAME WHY: why, cut to a length that a list of results can show, is told when the status is not 0.
verdict() {
    local why=${3//$'\n'/ | }
    if [ "$1" = 0 ]; then
        passed_count=$((passed_count + 1))
        echo "ok - $2"
    else
        failed_count=$((failed_count + 1))
        echo "not ok - $2: ${why:0:300}"
    fi
}

# check NAME COMMAND...: the command succeeds. Its output is shown only when it does not.
check() {
    local name=$1 output status=0
    shift
    output=$("$@" 2>&1) || status=$?
    verdict "$status" "$name" "exit status $status: $* | $output"
}

# expect_eq NAME WANT GOT
expect_eq() {
    local status=0
    [ "$2" = "$3" ] || status=1
    verdict "$status" "$1" "want '$2', got '$3'"
}

# expect_match NAME REGEX TEXT: an extended regular expression that matches somewhere in the text.
expect_match() {
    local status=0
    [[ $3 =~ $2 ]] || status=1
    verdict "$status" "$1" "nothing matches '$2' in '$3'"
}

finish() {
    verdict "$?" "the script runs to its end" "it ended before"
    trap - EXIT
    echo "# $passed_count passed, $failed_count failed"
    exit $((failed_count > 0))
}
trap finish EXIT
trap 'exit 143' TERM # out of time

# wait_for SECONDS CONDITION: polls the condition, a piece of shell, until it holds; fails when the time is up.
wait_for() {
    local deadline=$((${EPOCHREALTIME/./} + $1 * 1000000))
    until eval "$2"; do
        [ "${EPOCHREALTIME/./}" -lt "$deadline" ] || return 1
        sleep 0.05
    done
}

# disk[SERIAL]: the kernel's names of the disks, from udev's records. Names follow the order of probing, which changes
# from boot to boot; serial numbers do not.
declare -A disk=()
find_disks() {
    local record path serial
    for record in /run/udev/data/b*; do
        path=/sys/dev/block/${record##*/b}
        serial=$(sed -nE 's/^E:ID_(SCSI_SERIAL|SERIAL_SHORT|SERIAL)=([A-Z0-9]+-[0-9]+)$/\2/p' "$record" | head -n1)
        [ -z "$serial" ] || [ ! -e "$path" ] || [ -e "$path/partition" ] ||
            disk[$serial]=$(basename "$(readlink "$path")")
    done
}
find_disks

rvx() { "$RVX_BUILD/bin/rvxctl" "$@"; }

sorted() { printf '%s\n' "$@" | sort | xargs; }

# field NAME TEXT: the rest of the line "NAME : ...", as mdadm prints them.
field() { sed -nE "s/^ *$1 : *//p" <<<"$2"; }

# arrays: the names that md knows, one a line.
arrays() { sed -n 's/^\(md[^ ]*\) : .*/\1/p' /proc/mdstat; }

# make LEVEL STRIPE DISK...: rvxctl's new array, in the state that a dry run saw; prints its name. A stripe size of "-"
# is none.
make() {
    local level=$1 stripe=(--stripe "$2") token
    [ "$2" != - ] || stripe=()
    shift 2
    token=$(rvx --json array create --level "$level" "${stripe[@]}" --dry-run "$@" | jq -r .data.token) || return 1
    rvx --json array create --level "$level" "${stripe[@]}" --yes --if-unchanged "$token" "$@" 2>/tmp/said | jq -r .data.array
}

wait_for_sync() {
    check "the first synchronisation ends" wait_for 60 "! grep -qE 'resync|PENDING' /proc/mdstat"
}

# expect_no_array DISK...: neither mdadm nor blkid finds an array on them.
expect_no_array() {
    local member
    for member; do
        expect_match "mdadm finds no array on $member" 'No md superblock' \
            "$(mdadm --examine "/dev/$member" 2>&1 || true)"
        expect_eq "blkid finds no array on $member" "" "$(blkid -p "/dev/$member" | grep raid || true)"
    done
}

# read_topology: keeps the plug-in's list for listed().
read_topology() { rvx --json topology >/tmp/topology; }

# listed NAME PROPERTY...: values of an object in the list, then its children's names.
listed() {
    jq -r '(.data.objects | map({key: .id, value: .name}) | from_entries) as $names
        | .data.objects[] | select(.name == $ARGS.positional[0])
        | (.properties | map({key: "\(.id)", value: .value}) | from_entries) as $value
        | [$value[$ARGS.positional[1:][]], (.children | map($names[.]) | sort | .[])] | join(" ")' \
        /tmp/topology --args "$@"
}

# fingerprint DISK...: a line a disk that changes with any byte of it.
fingerprint() {
    local name
    for name; do
        echo "$name $(dd "if=/dev/$name" bs=64K iflag=direct status=none | md5sum)"
    done
}
