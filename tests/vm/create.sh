#!/bin/bash
# Arrays of every kind that the plug-in makes, as md and mdadm see them, and what is left of them after their deletion.
source "$RVX_SOURCE/tests/vm/lib.sh"

declare -A choice=([raid0]=40007 [raid1]=40009 [linear]=40021)

# expect_array ARRAY LEVEL CHUNK_KIB DISK...
expect_array() {
    local array=$1 level=$2 chunk=$3 detail uuid number=0 member said room sectors=0 what=$1
    shift 3
    detail=$(mdadm --detail "/dev/$array")
    uuid=$(field UUID "$detail")
    expect_match "$what has a UUID" '^[0-9a-f]{8}(:[0-9a-f]{8}){3}$' "$uuid"
    expect_eq "$what: detail" "1.0 $level $# $# 0 $array" "$(for name in Version 'Raid Level' 'Raid Devices' \
        'Working Devices' 'Failed Devices' Name; do field "$name" "$detail"; done | cut -d' ' -f1 | xargs)"
    for member; do
        said=$(mdadm --examine "/dev/$member")
        expect_match "$what: $member's checksum" ' - correct$' "$(field Checksum "$said")"
        # A mirror has no chunks that mdadm would tell of.
        expect_eq "$what: $member's superblock" "1.0 $uuid $array $level $# Active device $number" \
            "$(for name in Version 'Array UUID' Name 'Raid Level' 'Raid Devices'; do field "$name" "$said"; done |
                cut -d' ' -f1 | xargs) $(field 'Device Role' "$said")"
        [ "$level" = raid1 ] || expect_eq "$what: $member's chunk" "${chunk}K" "$(field '(Chunk Size|Rounding)' "$said")"
        expect_eq "$what: $member's place" "$number" "$(<"/sys/block/$array/md/dev-$member/slot")"
        room=$(field 'Avail Dev Size' "$said" | cut -d' ' -f1)
        if [ "$level" != raid1 ]; then
            sectors=$((sectors + room))
        elif [ "$sectors" = 0 ] || [ "$room" -lt "$sectors" ]; then
            sectors=$room
        fi
        number=$((number + 1))
    done
    expect_eq "$what: size and chunk in the kernel" "$sectors $((chunk * 1024))" \
        "$(<"/sys/block/$array/size") $(<"/sys/block/$array/md/chunk_size")"
    expect_eq "$what: the plug-in lists it" "${choice[$level]} ${array#md_d} $((sectors / 2048)) $(sorted "$@")" \
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
    expect_eq "$level1 and $level2 take the lowest numbers" "md_d0 md_d1" \
        "$(make "$level1" "$stripe1" "${first[@]}") $(make "$level2" "$stripe2" "${second[@]}")"
    read_topology
    expect_array md_d0 "$level1" "$chunk1" "${first[@]}"
    expect_array md_d1 "$level2" "$chunk2" "${second[@]}"
    wait_for_sync
    check "both are deleted" rvx array delete --all --yes
    expect_eq "md holds nothing" "" "$(arrays)"
    expect_no_array "${first[@]}" "${second[@]}"
done <<'END'
raid0  4   4   2   raid0  128 128 3
raid1  -   64  2   linear -   4   3
END
