#!/bin/bash
# A mirror keeps its files while a spare takes a failed member's place and the failed one comes back as the next spare.
source "$RVX_SOURCE/tests/vm/lib.sh"

first=${disk[AHCI-0]} second=${disk[SAS-1]} spare=${disk[AHCI-1]}

# expect_files WHEN
expect_files() {
    sync
    echo 3 >/proc/sys/vm/drop_caches
    check "the files are whole $1" env -C /mnt sha256sum --quiet --check SUMS
}

# add_file NAME
add_file() {
    head -c 512K /dev/urandom >"/mnt/$1"
    (cd /mnt && sha256sum "$1" >>SUMS)
}

# expect_places NAME LINE...: md says this of the members, a line each: name, slot, state.
expect_places() {
    local member
    expect_eq "$1" "$(printf '%s\n' "${@:2}" | sort)" "$(for member in /sys/block/md_d0/md/dev-*; do
        echo "${member##*-} $(<"$member/slot") $(<"$member/state")"
    done | sort)"
}

expect_eq "a mirror is made" md_d0 "$(make raid1 - "$first" "$second")"
wait_for_sync
mkfs.ext4 -q /dev/md_d0
mount /dev/md_d0 /mnt
for number in 1 2 3 4; do add_file "$number"; done

check "a spare is added" rvx spare add "$spare" md_d0 --yes
expect_places "md has the spare" "$first 0 in_sync" "$second 1 in_sync" "$spare none spare"
said=$(mdadm --examine "/dev/$spare")
expect_match "mdadm reads the spare's superblock" '- correct, spare$' "$(field Checksum "$said"), $(
    field 'Device Role' "$said")"

mdadm --manage /dev/md_d0 --fail "/dev/$second"
add_file late
check "the recovery ends" wait_for 60 "mdadm --wait-clean /dev/md_d0; grep -q '\[UU\]' /proc/mdstat"
wait_for 10 '[ "$(<"/sys/block/md_d0/md/dev-$spare/state")" = in_sync ]' || true
expect_places "md rebuilt onto the spare" "$first 0 in_sync" "$second none faulty" "$spare 1 in_sync"
expect_files "after the recovery"
read_topology
expect_eq "the plug-in tells the failed member and that the spare is at work" "40095 40093" \
    "$(listed "$second" 30017) $(listed "$spare" 30017)"

check "the failed member is released" rvx spare release "$second" --yes
expect_places "md let it go" "$first 0 in_sync" "$spare 1 in_sync"
expect_no_array "$second"
check "it is added again" rvx spare add "$second" md_d0 --yes
expect_places "md has it as a spare" "$first 0 in_sync" "$second none spare" "$spare 1 in_sync"
read_topology
expect_eq "the plug-in tells that it is a spare, and lists all three" \
    "40098 40093 $(sorted "$first" "$second" "$spare")" "$(listed "$second" 30017) $(listed md_d0 30017)"
expect_files "with the new spare"

umount /mnt
echo check >/sys/block/md_d0/md/sync_action
check "the halves are compared" wait_for 60 '[ "$(</sys/block/md_d0/md/sync_action)" = idle ]'
expect_eq "they do not differ" 0 "$(</sys/block/md_d0/md/mismatch_cnt)"
