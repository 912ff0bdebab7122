#pragma once
/// @file
/// What md tells of an array's disks, and the walks over it that decide what operations do. Nothing here asks
/// md: the walks go over any range of its answers.

#include <linux/raid/md_p.h>
#include <linux/raid/md_u.h>

#include <iterator>
#include <optional>

namespace Md {

/// Bits of mdu_disk_info_s::state.
inline constexpr int DISK_FAULTY = 1 << MD_DISK_FAULTY;
inline constexpr int DISK_ACTIVE = 1 << MD_DISK_ACTIVE;
inline constexpr int DISK_SYNC = 1 << MD_DISK_SYNC;
inline constexpr int DISK_REMOVED = 1 << MD_DISK_REMOVED;
/// Bit of mdu_array_info_s::state.
inline constexpr int ARRAY_CLEAN = 1 << MD_SB_CLEAN;
/// Disk numbers of an array run from 0 to one less than this.
inline constexpr int MAX_MEMBERS = 384;

/// md's record of one disk number; none where md refuses it. The walks below go over a range of them, from
/// number 0 on, and look at none that they do not need.
using TDisk = std::optional<mdu_disk_info_s>;

inline bool HasDevice(const mdu_disk_info_s& disk) { return disk.major != 0 || disk.minor != 0; }
inline bool IsFaulty(const mdu_disk_info_s& disk) { return (disk.state & DISK_FAULTY) != 0; }
inline bool IsRemoved(const mdu_disk_info_s& disk) { return (disk.state & DISK_REMOVED) != 0; }
/// A faulty one or a spare may be among them: who asks looks at the slot.
inline bool IsBeingRebuilt(const mdu_disk_info_s& disk) {
  return (disk.state & (DISK_ACTIVE | DISK_SYNC | DISK_REMOVED)) == 0;
}

/// The first wanted one among the first `most` members; `look` sees each member.
template <class TDisks, class TIsMember, class TIsWanted, class TLook>
TDisk FindAmongMembers(const TDisks& disks, int most, TIsMember isMember, TIsWanted isWanted, TLook look) {
  int members = 0;
  for (auto at = std::begin(disks); members < most && at != std::end(disks); ++at) {
    const TDisk disk = *at;
    if (!disk || !isMember(*disk)) continue;
    ++members;
    look(*disk);
    if (isWanted(*disk)) return disk;
  }
  return std::nullopt;
}

/// The member that a rebuild begins with: the first faulty one. Empty and removed numbers are no members.
template <class TDisks, class TLook>
TDisk FindFaultyMember(const TDisks& disks, int raidDisks, TLook look) {
  const auto isThere = [](const mdu_disk_info_s& disk) { return HasDevice(disk) && !IsRemoved(disk); };
  return FindAmongMembers(disks, raidDisks, isThere, IsFaulty, look);
}

/// The member whose rebuild can be cancelled. Whoever has a slot is a member.
template <class TDisks, class TLook>
TDisk FindRebuildingMember(const TDisks& disks, int raidDisks, TLook look) {
  const auto hasSlot = [](const mdu_disk_info_s& disk) { return disk.raid_disk != -1; };
  return FindAmongMembers(disks, raidDisks, hasSlot, IsBeingRebuilt, look);
}

/// A member whose superblock a spare can be given: one that is active and in sync, and nothing else. A walk
/// that ends by its count on a member that is not takes that one.
template <class TDisks>
TDisk FindWorkingMember(const TDisks& disks, int raidDisks) {
  mdu_disk_info_s last{};
  last.raid_disk = -1;
  auto at = std::begin(disks);
  for (int members = 0; members < raidDisks && at != std::end(disks); ++at) {
    const TDisk disk = *at;
    if (!disk) continue;
    last = *disk;
    if (last.raid_disk >= 0) ++members;
    if (HasDevice(last) && last.state == (DISK_ACTIVE | DISK_SYNC)) break;
  }
  if (at == std::end(disks) || last.raid_disk < 0) return std::nullopt;
  return last;
}

/// The first number that md has no use for: refused, empty or removed; none when all are in use.
template <class TDisks>
std::optional<int> FindFreeNumber(const TDisks& disks) {
  int number = 0;
  for (auto at = std::begin(disks); at != std::end(disks); ++at, ++number) {
    const TDisk disk = *at;
    if (!disk || !HasDevice(*disk) || IsRemoved(*disk)) return number;
  }
  return std::nullopt;
}

/// Whether md calls the device a spare, or a faulty member: the first number that has it and is not removed
/// is without a slot.
template <class TDisks>
bool IsWithoutSlot(const TDisks& disks, unsigned int major, unsigned int minor) {
  for (auto at = std::begin(disks); at != std::end(disks); ++at) {
    const TDisk disk = *at;
    if (!disk || IsRemoved(*disk)) continue;
    if (static_cast<unsigned int>(disk->major) == major && static_cast<unsigned int>(disk->minor) == minor)
      return disk->raid_disk < 0;
  }
  return false;
}

}  // namespace Md
