# shellcheck shell=bash
# What a guest's test script sources: assertions that print "ok - NAME", "not ok - NAME: why" or "skip - NAME: why" and
# count themselves. When the script ends, for whatever reason, the counts are printed and decide its exit status.
#
#   source "$RVX_SOURCE/tests/vm/lib.sh"
#   check "the array is assembled" test -b /dev/md0
#   expect_eq "it has two members" 2 "$(< /sys/block/md0/md/raid_disks)"

passed=0 failed=0 skipped=0

pass() {
    passed=$((passed + 1))
    echo "ok - $1"
}

# not_ok NAME WHY
not_ok() {
    failed=$((failed + 1))
    echo "not ok - $1: $2"
}

# skip NAME WHY
skip() {
    skipped=$((skipped + 1))
    echo "skip - $1: $2"
}

# One line, cut to a length that a list of results can show.
one_line() {
    local text=${*//$'\n'/ | }
    echo "${text:0:300}"
}

# check NAME COMMAND...: the command succeeds. Its output is shown only when it does not.
check() {
    local name=$1 output status=0
    shift
    output=$("$@" 2>&1) || status=$?
    if [ "$status" = 0 ]; then pass "$name"; else not_ok "$name" "$(one_line "exit status $status: $* | $output")"; fi
}

# check_fails NAME COMMAND...: the command fails by itself, and not because it cannot be found or was killed.
check_fails() {
    local name=$1 output status=0
    shift
    output=$("$@" 2>&1) || status=$?
    if [ "$status" -gt 0 ] && [ "$status" -lt 126 ]; then
        pass "$name"
    else
        not_ok "$name" "$(one_line "exit status $status: $* | $output")"
    fi
}

# expect_eq NAME WANT GOT
expect_eq() {
    if [ "$2" = "$3" ]; then pass "$1"; else not_ok "$1" "$(one_line "want '$2', got '$3'")"; fi
}

# expect_match NAME REGEX TEXT: an extended regular expression that matches somewhere in the text.
expect_match() {
    if [[ $3 =~ $2 ]]; then pass "$1"; else not_ok "$1" "$(one_line "nothing matches '$2' in '$3'")"; fi
}

# wait_for SECONDS CONDITION: polls the condition, a piece of shell, until it holds; fails when the time is up.
wait_for() {
    local deadline=$((${EPOCHREALTIME/./} + $1 * 1000000))
    until eval "$2"; do
        [ "${EPOCHREALTIME/./}" -lt "$deadline" ] || return 1
        sleep 0.05
    done
}

# disk_by_serial SERIAL: the kernel's name of the disk, from udev's records. Names follow the order of probing, which
# changes from boot to boot; serial numbers do not.
disk_by_serial() {
    local record
    while read -r record; do
        record=/sys/dev/block/${record##*/b}
        [ -e "$record/partition" ] || { basename "$(readlink "$record")" && return; }
    done < <(grep -lxE "E:ID_(SCSI_SERIAL|SERIAL_SHORT|SERIAL)=$1" /run/udev/data/b*)
    echo "there is no disk with serial number $1" >&2
    return 1
}

# driver_of DISK: the driver of the PCI function that the disk hangs on.
driver_of() {
    local device
    device=$(readlink -f "/sys/block/$1/device")
    while [ "$device" != /sys ]; do
        if [ "$device/subsystem" -ef /sys/bus/pci ]; then
            basename "$(readlink "$device/driver")"
            return
        fi
        device=${device%/*}
    done
    return 1
}

# elapsed WHAT COMMAND...: runs the command and prints how long it took.
elapsed() {
    local what=$1 started=${EPOCHREALTIME/./} status=0
    shift
    "$@" || status=$?
    started=$((${EPOCHREALTIME/./} - started))
    printf '# %s took %d.%03d s\n' "$what" $((started / 1000000)) $((started / 1000 % 1000))
    return "$status"
}

# monitor COMMAND: tells the emulated machine's monitor something, such as "drive_del sas_0", after which all input and
# output of that disk fails.
monitor() {
    echo "$1" >"$RVX_MONITOR"
}

finish() {
    local status=$?
    trap - EXIT
    [ "$status" = 0 ] || not_ok "the script runs to its end" "exit status $status"
    [ $((passed + failed + skipped)) != 0 ] || not_ok "the script asserts something" "no assertion was reached"
    echo "# $passed passed, $failed failed, $skipped skipped"
    [ "$failed" = 0 ] || exit 1
    exit 0
}
trap finish EXIT
trap 'exit 143' TERM # out of time
