#!/bin/bash
# What the plug-in says of disks and arrays, held against sysfs and mdadm.
set -euo pipefail
source "$RVX_SOURCE/tests/vm/lib.sh"

declare -A value=() disk=()
for serial in PIIX-{0..1} AHCI2-{0..5} SAS-{0..7} VSCSI-0 VIRTIO-0; do
    disk[$serial]=$(disk_by_serial "$serial")
done

# value[NAME/PROPERTY], value[NAME/children] and value[KIND] (the objects' names) as the plug-in tells them now.
read_topology() {
    local key text
    value=()
    "$RVX_BUILD/bin/rvxctl" --json topology >/tmp/topology || return
    while IFS=$'\t' read -r key text; do
        value[$key]=$text
    done < <(jq -r '(.data.objects | map({key: .id, value: .name}) | from_entries) as $names | .data.objects
        | (group_by(.kind)[] | ["\(.[0].kind)", (map(.name) | sort | join(" "))]),
          (.[] | .name as $name | ["\($name)/children", (.children | map($names[.] // .) | sort | join(" "))],
          (.properties[] | ["\($name)/\(.id)", "\(.value)"])) | @tsv' /tmp/topology)
}

# expect_property OBJECT PROPERTY WHAT WANT
expect_property() {
    expect_eq "$1's $3" "$4" "${value[$1/$2]-not there}"
}

sorted() {
    printf '%s\n' "$@" | sort | xargs
}

# A partition over all of the disk but its first MiB, through the one entry of a boot record.
partition() {
    printf '\0\0\0\0\xfd\0\0\0\0\x08\0\0\0\xf0\x01\0' | dd of="/dev/$1" bs=1 seek=446 conv=notrunc status=none
    printf '\x55\xaa' | dd of="/dev/$1" bs=1 seek=510 conv=notrunc status=none
    # udev may be looking at the disk; then the kernel says that it is busy.
    wait_for 20 "blockdev --rereadpt /dev/$1 2>/dev/null && udevadm settle && [ -b /dev/${1}1 ]"
}

# make ARRAY SERIAL... -- ARGUMENT...: an array of the disks, which are named last to mdadm.
make() {
    local array=$1 members=()
    shift
    while [ "$1" != -- ]; do
        members+=("${disk[$1]-$1}") && shift
    done
    shift
    check "mdadm makes $array" mdadm --create "/dev/$array" --run "$@" "${members[@]/#/\/dev\/}"
}

make_arrays() {
    local member
    for member in SAS-4 SAS-5 AHCI2-4; do
        partition "${disk[$member]}"
    done
    make md0 SAS-1 SAS-2 -- --level=0 --metadata=1.2 --chunk=32 --raid-devices=2
    make md1 AHCI2-1 AHCI2-2 AHCI2-3 -- --level=1 --metadata=1.0 --raid-devices=2 --spare-devices=1 --assume-clean
    make md5 "${disk[SAS-4]}1" "${disk[SAS-5]}1" "${disk[AHCI2-4]}1" -- --level=5 --metadata=1.2 --chunk=64 \
        --raid-devices=3 --assume-clean
    check "mdadm makes md6" mdadm --create /dev/md6 --run --level=1 --metadata=1.2 --raid-devices=2 \
        "/dev/${disk[AHCI2-5]}" missing
    make md7 SAS-6 VIRTIO-0 -- --level=1 --metadata=1.2 --raid-devices=2 --assume-clean
    # As slow as can be told from standing still: a tenth of the disk in the time that this script takes.
    echo 100 >/proc/sys/dev/raid/speed_limit_min
    make md2 PIIX-0 SAS-3 -- --level=1 --metadata=1.2 --raid-devices=2
    echo 200 >/sys/block/md2/md/sync_speed_max
}

expect_disks() {
    local serial vendor model attachment medium driver name blocks
    while IFS=, read -r serial driver vendor model attachment medium; do
        name=${disk[$serial]}
        blocks=$(($(<"/sys/block/$name/size") / 2))
        expect_eq "$serial hangs on $driver" "$driver" "$(driver_of "$name")"
        expect_property "$name" 30003 vendor "$vendor"
        expect_property "$name" 30063 model "$model"
        expect_property "$name" 30056 attachment "$attachment"
        expect_property "$name" 30320 medium "$medium"
        expect_eq "$name's medium is sysfs's" $((40293 - $(<"/sys/block/$name/queue/rotational"))) \
            "${value[$name/30320]-}"
        expect_property "$name" 30247 path "/dev/$name"
        expect_property "$name" 30059 size $((blocks / 1024))
        expect_property "$name" 30060 "usable size" $(((((blocks - 8) & ~3) - 128) / 1024))
        expect_property "$name" 30007 name \
            "$vendor $model ($name $(tr : ' ' <"/sys/block/$name/dev" | xargs printf '%d:%d'))"
    done <<'END'
PIIX-0,ata_piix,Seagate,ST64,40002,40292
PIIX-1,ata_piix,Crucial,CT64M,40002,40293
AHCI2-0,ahci,Intel,SSDSC2BA200G3,40002,40293
AHCI2-1,ahci,WD,64,40002,40292
AHCI2-5,ahci,WD,96,40002,40292
SAS-1,mptsas,SEAGATE,ST64,40174,40292
SAS-4,mptsas,HITACHI,HUC 64,40174,40292
SAS-6,mptsas,LSILOGIC,Not A Volume,40174,40292
END
    for serial in PIIX-1 AHCI2-0 SAS-7; do
        expect_property "${disk[$serial]}" 30017 "status (ready)" 40099
    done
    local managed=()
    for serial in PIIX-{0..1} AHCI2-{0..5} SAS-{1..7}; do
        managed+=("${disk[$serial]}")
    done
    expect_eq "a virtual disk, one on virtio-scsi and a RAID volume are left out, all others are shown" \
        "$(sorted "${managed[@]}")" "${value[19018]-}"
}

# What mdadm says of a member, as a status of the plug-in.
member_status() {
    case $1 in
        *faulty*) echo 40095 ;;
        *"spare rebuilding"*) echo 40096 ;;
        *spare*) echo 40098 ;;
        *"active sync"*) echo 40093 ;;
        *) echo "unknown: $1" ;;
    esac
}

# expect_array ARRAY LEVEL STRIPE: level, sizes, status and members as mdadm tells them now.
expect_array() {
    local array=$1 detail state members=() member path space=0 status=40093 activity=40102
    detail=$(mdadm --detail "/dev/$array")
    state=$(sed -n 's/^ *State : //p' <<<"$detail")
    [[ $state != *degraded* ]] || status=40094
    [[ $state != *resyncing* ]] || activity=40103
    while read -r path member; do
        member=$(member_status "$member")
        path=${path#/dev/} path=${path%1}
        [[ " ${value[19018]} " == *" $path "* ]] || continue
        members+=("$path")
        space=$((space + $(<"/sys/block/$path/size") / 2))
        expect_property "$path" 30017 "status in $array" "$member"
    done < <(sed -nE 's/^ +[0-9]+ +[0-9]+ +[0-9]+ +[0-9-]+ +(.*[^ ]) +(\/dev\/[^ ]+)$/\2 \1/p' <<<"$detail")
    expect_property "$array" 30045 level "$2"
    expect_property "$array" 30046 "stripe size" "$3"
    expect_property "$array" 30017 "status ($state)" "$status"
    expect_property "$array" 30054 "activity ($state)" "$activity"
    expect_property "$array" 30126 number "${array#md}"
    expect_property "$array" 30090 size $(($(sed -nE 's/^ *Array Size : ([0-9]+).*/\1/p' <<<"$detail") / 1024))
    expect_property "$array" 30059 "members' space" $((space / 1024))
    expect_eq "$array's members" "$(sorted "${members[@]}")" "${value[$array/children]-}"
}

expect_arrays() {
    local array level stripe
    expect_eq "all arrays are shown" "md0 md1 md2 md5 md6 md7" "${value[19017]-}"
    # The configuration that is built with the first scan gives every stripe as 64 KiB.
    while read -r array level stripe; do
        expect_array "$array" "$level" "$stripe"
    done <<'END'
md0 40007 40053
md1 40009 not there
md2 40009 not there
md5 40014 not there
md6 40009 not there
md7 40009 not there
END
    expect_eq "md1 lists its spare" 3 "$(wc -w <<<"${value[md1/children]-}")"
    expect_eq "md5 lists whole disks" "$(sorted "${disk[SAS-4]}" "${disk[SAS-5]}" "${disk[AHCI2-4]}")" \
        "${value[md5/children]-}"
    expect_eq "md7 lists the member that is managed" "${disk[SAS-6]}" "${value[md7/children]-}"
}

percent_of_md2() {
    mdadm --detail /dev/md2 | sed -nE 's/^ *Resync Status : ([0-9]+)% complete/\1/p'
}

# expect_progress BEFORE AFTER: the resync's progress lies between what mdadm said before and after.
expect_progress() {
    local seen=${value[md2/30132]-}
    if [[ $seen =~ ^[0-9]+$ ]] && [ "$seen" -ge "$1" ] && [ "$seen" -le "$2" ] && [ "$2" -gt 0 ]; then
        pass "md2's progress is mdadm's ($seen%)"
    else
        not_ok "md2's progress is mdadm's" "$seen is not from $1 to $2"
    fi
}

# smart_hours DISK: power-on hours, read past the plug-in: raw value of attribute 9.
smart_hours() {
    perl -e 'open my $disk, "<", $ARGV[0] or die; my $data = pack "C4 x512", 0xB0, 0, 0xD0, 1;
        ioctl $disk, 0x031F, $data or die "HDIO_DRIVE_CMD: $!";
        for (0 .. 29) { my @entry = unpack "C12", substr $data, 6 + 12 * $_, 12;
            print $entry[5] + 256 * $entry[6], "\n" if $entry[0] == 9 }' "/dev/$1"
}

# A known solid-state family on real ATA, whose emulation keeps the hours only; a disk of no known family, and one that
# rotates, tell nothing.
expect_smart() {
    local solid=${disk[AHCI2-0]} id name
    expect_property "$solid" 30498 "power-on hours" "$(smart_hours "$solid")"
    expect_match "they are more than none" '^[1-9]' "${value[$solid/30498]-}"
    for id in 30483 30486 30490 30494; do
        expect_property "$solid" "$id" "figure $id, which this disk does not keep" null
    done
    for name in "${disk[PIIX-1]}" "${disk[AHCI2-1]}"; do
        expect_property "$name" 30498 "power-on hours" null
    done
}

expect_adapter() {
    local names
    read -ra names <<<"${value[19017]-} ${value[19018]-}"
    expect_property adapter 30063 name "Multiple Devices"
    expect_property adapter 30273 "number of disks" 15
    expect_property adapter 30274 "number of arrays" 6
    expect_eq "all of them are the adapter's children" "$(sorted "${names[@]}")" \
        "${value[adapter/children]-}"
    expect_property plugin 30005 "poll interval" 10
}

# An array that the plug-in makes is one that mdadm understands.
expect_superblocks() {
    local first=${disk[PIIX-1]} second=${disk[SAS-7]} name said
    check "rvxctl makes a RAID 0" "$RVX_BUILD/bin/rvxctl" array create --level raid0 --stripe 16 --yes \
        "$first" "$second"
    for name in "$first" "$second"; do
        said=$(mdadm --examine "/dev/$name" | tr -s ' ' || true)
        expect_match "$name's superblock is of version 1.0" ' Version : 1\.0' "$said"
        expect_match "$name's checksum is right" ' Checksum : [0-9a-f]+ - correct' "$said"
        expect_match "$name's level" ' Raid Level : raid0' "$said"
        expect_match "$name's chunk" ' Chunk Size : 16K' "$said"
        expect_match "$name has two members" ' Raid Devices : 2' "$said"
    done
    # md0 to md2 are there: the first number that no array has is 3.
    expect_match "mdadm sees the array at work" 'Active Devices : 2' "$(mdadm --detail /dev/md_d3)"
}

make_arrays
wait_for 60 '[ "$(percent_of_md2)" -ge 1 ]' || true
before=$(percent_of_md2)
elapsed "the topology" read_topology || not_ok "the topology is read" "exit status $?"
after=$(percent_of_md2)
check "the topology is one valid document" jq -e '.schema.name == "rvxctl.topology" and .errors == []' /tmp/topology
expect_disks
expect_arrays
expect_progress "${before:-0}" "${after:-0}"
expect_smart
expect_adapter
expect_superblocks
