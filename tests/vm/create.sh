#!/bin/bash
# Arrays of every kind that the plug-in makes, as md and mdadm see them, and what is left of them after their deletion.
set -euo pipefail
source "$RVX_SOURCE/tests/vm/changes_lib.sh"

declare -A choice=([raid0]=40007 [raid1]=40009 [linear]=40021)

# data_sectors DISK CHUNK_KIB: what a member holds in front of its superblock, in whole chunks.
data_sectors() {
    local end=$((($(<"/sys/block/$1/size") - 16) & ~7))
    echo $(((end - 256) & -($2 * 2)))
}

# array_sectors LEVEL CHUNK_KIB DISK...
array_sectors() {
    local level=$1 chunk=$2 member sectors total=0 smallest=0
    shift 2
    for member; do
        sectors=$(data_sectors "$member" "$chunk")
        total=$((total + sectors))
        [ "$smallest" != 0 ] && [ "$smallest" -le "$sectors" ] || smallest=$sectors
    done
    if [ "$level" = raid1 ]; then echo "$smallest"; else echo "$total"; fi
}

# expect_array ARRAY LEVEL CHUNK_KIB DISK...
expect_array() {
    local array=$1 level=$2 chunk=$3 detail uuid sectors number=0 member said what
    shift 3
    what="$array ($level, $chunk KiB, $# disks)"
    detail=$(mdadm --detail "/dev/$array")
    uuid=$(field UUID "$detail") sectors=$(array_sectors "$level" "$chunk" "$@")
    expect_match "$what has a UUID" '^[0-9a-f]{8}(:[0-9a-f]{8}){3}$' "$uuid"
    expect_eq "$what: detail" "1.0 $level $# $# 0 $array" "$(field Version "$detail") $(field 'Raid Level' "$detail") $(
        field 'Raid Devices' "$detail") $(field 'Working Devices' "$detail") $(field 'Failed Devices' "$detail") $(
        field Name "$detail" | cut -d' ' -f1)"
    expect_eq "$what: size and chunk in the kernel" "$sectors $((chunk * 1024))" \
        "$(<"/sys/block/$array/size") $(<"/sys/block/$array/md/chunk_size")"
    for member; do
        said=$(mdadm --examine "/dev/$member")
        expect_match "$what: $member's checksum" ' - correct$' "$(field Checksum "$said")"
        expect_eq "$what: $member's superblock" "1.0 $level $# $array $uuid" "$(field Version "$said") $(
            field 'Raid Level' "$said") $(field 'Raid Devices' "$said") $(field Name "$said" | cut -d' ' -f1) $(
            field 'Array UUID' "$said")"
        expect_eq "$what: $member's place" "$number $number" \
            "$(field 'Device Role' "$said" | sed 's/Active device //') $(<"/sys/block/$array/md/dev-$member/slot")"
        expect_match "$what: $member's room" "^$(data_sectors "$member" "$chunk") " "$(field 'Avail Dev Size' "$said")"
        # A mirror has no chunks that mdadm would tell of.
        [ "$level" = raid1 ] || expect_eq "$what: $member's chunk" "${chunk}K" \
            "$(field '(Chunk Size|Rounding)' "$said")"
        number=$((number + 1))
    done
    expect_eq "$what: the plug-in lists it" \
        "${choice[$level]} ${array#md_d} $((sectors / 2048)) $(printf '%s\n' "$@" | sort | xargs)" \
        "$(listed "$array" 30045 30126 30090)"
}

# Before udev has seen it, a node must be closed to others already: its reader has all the data of the array's disks.
udevadm control --stop-exec-queue
umask 0
expect_eq "an array is made with an open umask" md_d0 "$(make raid0 - "${disk[AHCI-0]}" "${disk[AHCI-1]}")"
expect_eq "its node is for owner and group" "660 root" "$(stat -c '%a %U' /dev/md_d0)"
umask 022
udevadm control --start-exec-queue
udevadm settle --timeout=30
check "it is deleted" rvx array delete md_d0 --yes

# A line is an array on either controller: level, stripe size asked for, the chunk that follows, how many disks.
while read -r level1 stripe1 chunk1 count1 level2 stripe2 chunk2 count2; do
    first=() second=()
    for ((i = 0; i < count1; ++i)); do first+=("${disk[AHCI-$i]}"); done
    for ((i = 0; i < count2; ++i)); do second+=("${disk[SAS-$i]}"); done
    names="$(make "$level1" "$stripe1" "${first[@]}") $(make "$level2" "$stripe2" "${second[@]}")"
    expect_eq "$level1 and $level2 take the lowest numbers" "md_d0 md_d1" "$names"
    read_topology
    expect_array md_d0 "$level1" "$chunk1" "${first[@]}"
    expect_array md_d1 "$level2" "$chunk2" "${second[@]}"
    wait_for_sync
    check "both are deleted" rvx array delete --all --yes
    expect_eq "md holds nothing" "" "$(arrays)"
    expect_no_array "${first[@]}" "${second[@]}"
done <<'END'
raid0  4   4   2   raid0  8   8   3
raid0  16  16  3   raid0  32  32  2
raid0  64  64  2   raid0  128 128 3
raid1  -   64  2   linear 4   4   3
linear -   4   3   raid1  -   64  2
linear 128 128 2   linear 8   8   2
END
