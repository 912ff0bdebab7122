# shellcheck shell=bash disable=SC2034
# What the scripts on the machine "changes" share, beside lib.sh.
source "$RVX_SOURCE/tests/vm/lib.sh"

rvx() { "$RVX_BUILD/bin/rvxctl" "$@"; }

declare -A disk=()
for serial in AHCI-{0..3} SAS-{0..2} VIRTIO-0; do
    disk[$serial]=$(disk_by_serial "$serial")
done

# field NAME TEXT: the rest of the line "NAME : ...", as mdadm prints them.
field() { sed -nE "s/^ *$1 : *//p" <<<"$2"; }

# make LEVEL STRIPE DISK...: prints the new array's name; a stripe size of "-" is none.
make() {
    local level=$1 stripe=(--stripe "$2")
    [ "$2" != - ] || stripe=()
    shift 2
    rvx --json array create --level "$level" "${stripe[@]}" --yes "$@" 2>/tmp/said | jq -r .data.array
}

wait_for_sync() {
    check "the first synchronisation ends" wait_for 60 "! grep -qE 'resync|PENDING' /proc/mdstat"
}

# arrays: the names that md knows, one a line.
arrays() { sed -n 's/^\(md[^ ]*\) : .*/\1/p' /proc/mdstat; }

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
read_topology() {
    rvx --json topology >/tmp/topology
}

# listed NAME PROPERTY...: values of an object in the list, then its children's names.
listed() {
    jq -r '(.data.objects | map({key: .id, value: .name}) | from_entries) as $names
        | .data.objects[] | select(.name == $ARGS.positional[0])
        | (.properties | map({key: "\(.id)", value: .value}) | from_entries) as $value
        | [$value[$ARGS.positional[1:][]], (.children | map($names[.]) | sort | .[])] | join(" ")' \
        /tmp/topology --args "$@"
}

# fingerprint DISK...: a line a disk that changes with any byte of it but the last 64 KiB of a disk named -NAME, where
# superblocks lie.
fingerprint() {
    local name bytes
    for name; do
        bytes=$(($(<"/sys/block/${name#-}/size") * 512))
        [ "$name" = "${name#-}" ] || bytes=$((bytes - 65536))
        echo "$name $(dd "if=/dev/${name#-}" bs=64K iflag=direct,count_bytes count="$bytes" status=none | md5sum)"
    done
}
