#!/bin/bash
# What the plug-in says of disks and arrays, held against sysfs and mdadm.
source "$RVX_SOURCE/tests/vm/lib.sh"

# A partition over all of the disk but its first MiB, through the one entry of a boot record.
partition() {
    printf '\0\0\0\0\xfd\0\0\0\0\x08\0\0\0\xf0\x01\0' | dd of="/dev/$1" bs=1 seek=446 conv=notrunc status=none
    printf '\x55\xaa' | dd of="/dev/$1" bs=1 seek=510 conv=notrunc status=none
    # udev may be looking at the disk; then the kernel says that it is busy.
    wait_for 20 "blockdev --rereadpt /dev/$1 2>/dev/null && udevadm settle && [ -b /dev/${1}1 ]"
}

# make_array NUMBER ARGUMENT...
make_array() {
    check "mdadm makes md$1" mdadm --create "/dev/md$1" --run "${@:2}"
}

make_arrays() {
    local name
    declare -A dev=()
    for name in "${!disk[@]}"; do dev[$name]=/dev/${disk[$name]}; done
    for name in SAS-4 SAS-5 AHCI2-4; do partition "${disk[$name]}"; done
    make_array 0 --level=0 --metadata=1.2 --chunk=32 --raid-devices=2 "${dev[SAS-1]}" "${dev[SAS-2]}"
    make_array 1 --level=1 --metadata=1.0 --raid-devices=2 --spare-devices=1 --assume-clean "${dev[AHCI2-1]}" \
        "${dev[AHCI2-2]}" "${dev[AHCI2-3]}"
    make_array 5 --level=5 --metadata=1.2 --raid-devices=3 --assume-clean "${dev[SAS-4]}1" "${dev[SAS-5]}1" \
        "${dev[AHCI2-4]}1"
    make_array 6 --level=1 --metadata=1.2 --raid-devices=2 "${dev[AHCI2-5]}" missing
    make_array 7 --level=1 --metadata=1.2 --raid-devices=2 --assume-clean "${dev[SAS-6]}" "${dev[VIRTIO-0]}"
    # As slow as can be told from standing still: a tenth of the disk in the time that this script takes.
    echo 100 >/proc/sys/dev/raid/speed_limit_min
    make_array 2 --level=1 --metadata=1.2 --raid-devices=2 "${dev[PIIX-0]}" "${dev[SAS-3]}"
    echo 200 >/sys/block/md2/md/sync_speed_max
}

# expect_disks: driver, vendor, model, attachment and medium of the table; size and medium in sysfs.
expect_disks() {
    local serial driver rest name function managed
    while read -r serial driver rest; do
        name=${disk[$serial]}
        function=$(readlink -f "/sys/block/$name/device" | grep -oE '^.*/[0-9a-f]{4}:[0-9a-f]{2}:[0-9a-f]{2}\.[0-9]')
        expect_eq "$serial hangs on $driver" "$driver" "$(basename "$(readlink "$function/driver")")"
        expect_eq "$serial is what it says" \
            "$rest $((40293 - $(<"/sys/block/$name/queue/rotational"))) $(($(<"/sys/block/$name/size") / 2048))" \
            "$(listed "$name" 30003 30063 30056 30320 30320 30059)"
    done <<'END'
PIIX-0 ata_piix Seagate ST64 40002 40292
PIIX-1 ata_piix Crucial CT64M 40002 40293
AHCI2-0 ahci Intel SSDSC2BA200G3 40002 40293
AHCI2-5 ahci WD 96 40002 40292
SAS-1 mptsas SEAGATE ST64 40174 40292
SAS-4 mptsas HITACHI HUC 64 40174 40292
SAS-6 mptsas LSILOGIC Not A Volume 40174 40292
END
    mapfile -t managed < <(printf '%s\n' "${disk[@]}" |
        grep -vxe "${disk[VIRTIO-0]}" -e "${disk[VSCSI-0]}" -e "${disk[SAS-0]}")
    expect_eq "a virtual disk, one on virtio-scsi and a RAID volume are left out, all others are shown" \
        "$(sorted "${managed[@]}" md0 md1 md2 md5 md6 md7)" "$(listed adapter)"
    expect_eq "a disk that nothing uses is ready" 40099 "$(listed "${disk[SAS-7]}" 30017)"
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

# expect_array NUMBER LEVEL STRIPE: level, size, status and members as mdadm tells them now.
expect_array() {
    local detail members=() member path status=40093 activity=40102
    detail=$(mdadm --detail "/dev/md$1")
    [[ $(field State "$detail") != *degraded* ]] || status=40094
    [[ $(field State "$detail") != *resyncing* ]] || activity=40103
    while read -r path member; do
        path=${path#/dev/} path=${path%1}
        [ "$path" != "${disk[VIRTIO-0]}" ] || continue
        members+=("$path")
        expect_eq "$path's status in md$1" "$(member_status "$member")" "$(listed "$path" 30017)"
    done < <(sed -nE 's/^ +[0-9]+ +[0-9]+ +[0-9]+ +[0-9-]+ +(.*[^ ]) +(\/dev\/[^ ]+)$/\2 \1/p' <<<"$detail")
    expect_eq "md$1 is what mdadm says" \
        "$2 ${3-} $status $activity $1 $(($(field 'Array Size' "$detail" | cut -d' ' -f1) / 1024)) $(sorted "${members[@]}")" \
        "$(listed "md$1" 30045 30046 30017 30054 30126 30090)"
}

percent_of_md2() {
    mdadm --detail /dev/md2 | sed -nE 's/^ *Resync Status : ([0-9]+)% complete/\1/p'
}

# Power-on hours, read past the plug-in: raw value of attribute 9.
smart_hours() {
    perl -e 'open my $disk, "<", $ARGV[0] or die; my $data = pack "C4 x512", 0xB0, 0, 0xD0, 1;
        ioctl $disk, 0x031F, $data or die "HDIO_DRIVE_CMD: $!";
        for (0 .. 29) { my @entry = unpack "C12", substr $data, 6 + 12 * $_, 12;
            print $entry[5] + 256 * $entry[6], "\n" if $entry[0] == 9 }' "/dev/$1"
}

make_arrays
wait_for 60 '[ "$(percent_of_md2)" -ge 1 ]' || true
before=$(percent_of_md2)
read_topology
after=$(percent_of_md2)
check "the topology is one valid document" jq -e '.schema.name == "rvxctl.topology" and .errors == []' /tmp/topology
expect_disks
# The configuration that is built with the first scan gives every stripe as 64 KiB.
while read -r number level stripe; do
    expect_array "$number" "$level" "$stripe"
done <<'END'
0 40007 40053
1 40009
2 40009
5 40014
6 40009
7 40009
END
seen=$(listed md2 30132 | cut -d' ' -f1)
check "md2's progress is mdadm's: $seen% is from ${before:=0} to ${after:=0}" \
    eval '[ "$seen" -ge "$before" ] && [ "$seen" -le "$after" ] && [ "$after" -gt 0 ]'
# A device that came long behind its array did not come with it.
expect_eq "md2 synchronises for the first time" true "$(rvx --json array show md2 | jq .data.firstSync)"
check "its first device is gone" mdadm --stop /dev/md2
sleep 12
check "it is started again" mdadm --assemble --run /dev/md2 "/dev/${disk[PIIX-0]}" "/dev/${disk[SAS-3]}"
expect_match "md goes on" 'resync' "$(</proc/mdstat)"
expect_eq "that is not told as the first time" false "$(rvx --json array show md2 | jq .data.firstSync)"
# A known solid-state family on real ATA, whose emulation keeps the hours only.
hours=$(smart_hours "${disk[AHCI2-0]}")
check "the disk counts its power-on hours" [ "$hours" -gt 0 ]
expect_eq "power-on hours, and figures that this disk does not keep" "$hours    " \
    "$(listed "${disk[AHCI2-0]}" 30498 30483 30486 30490 30494)"
