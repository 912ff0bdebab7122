#pragma once
/// @file
/// md's records and numbers as the plug-in uses them.

#include <asm/byteorder.h>
#include <linux/ioctl.h>
#include <linux/major.h>
#include <linux/raid/md_p.h>
#include <linux/raid/md_u.h>
#include <linux/types.h>

#include <cstdint>
#include <vector>

#include "Src/piRVXObjects.h"

namespace NAMESPACE_piRVX {

static_assert(sizeof(mdu_array_info_s) == 72 && sizeof(mdu_disk_info_s) == 20);
static_assert(GET_ARRAY_INFO == 0x80480911 && GET_DISK_INFO == 0x80140912 && SET_ARRAY_INFO == 0x40480923 &&
              ADD_NEW_DISK == 0x40140921 && RUN_ARRAY == 0x400c0930 && STOP_ARRAY == 0x0932 &&
              HOT_REMOVE_DISK == 0x0922 && SET_DISK_FAULTY == 0x0929);

/// Bits of mdu_disk_info_s::state.
inline constexpr int DISK_FAULTY = 1 << MD_DISK_FAULTY;
inline constexpr int DISK_ACTIVE = 1 << MD_DISK_ACTIVE;
inline constexpr int DISK_SYNC = 1 << MD_DISK_SYNC;
inline constexpr int DISK_REMOVED = 1 << MD_DISK_REMOVED;
/// Bit of mdu_array_info_s::state.
inline constexpr int ARRAY_CLEAN = 1 << MD_SB_CLEAN;
/// Disk numbers of an array run from 0 to one less than this.
inline constexpr int MAX_MEMBERS = 384;

/// A device number as md's ioctls take it in place of a pointer: the kernel's 32-bit form.
inline void* DeviceArgument(dev_t device) {
  return reinterpret_cast<void*>(static_cast<std::uintptr_t>(static_cast<std::uint32_t>(device)));
}

/// The choice value of an md level.
inline std::uint32_t RaidLevelOf(int level) {
  switch (level) {
    case 0:
      return PI::LEVEL_RAID0;
    case 1:
      return PI::LEVEL_RAID1;
    case 4:
      return PI::LEVEL_RAID4;
    case 5:
      return PI::LEVEL_RAID5;
    case 6:
      return PI::LEVEL_RAID6;
    case 10:
      return PI::LEVEL_RAID10;
    default:
      return PI::LEVEL_CONCATENATION;
  }
}

/// The choice value of a stripe size in bytes; 64 KiB for sizes that have none.
inline std::uint32_t StripeOf(int bytes) {
  switch (bytes) {
    case 4096:
      return PI::STRIPE_4K;
    case 8192:
      return PI::STRIPE_8K;
    case 16384:
      return PI::STRIPE_16K;
    case 32768:
      return PI::STRIPE_32K;
    case 131072:
      return PI::STRIPE_128K;
    default:
      return PI::STRIPE_64K;
  }
}

/// The first drive that a member lies on: a partition counts as its whole disk, 16 minors each. Null when
/// none does.
inline CRVXPhysicalDrive* FindMemberDrive(std::vector<CRVXPhysicalDrive>& drives,
                                          const mdu_disk_info_s& disk) {
  // An empty slot, as most are in a walk over all disk numbers: no drive needs to be looked at.
  if (disk.major == 0 && disk.minor == 0) return nullptr;
  const auto major = static_cast<std::uint32_t>(disk.major);
  const auto minor = static_cast<std::uint32_t>(disk.minor / 16 * 16);
  for (CRVXPhysicalDrive& drive : drives)
    if (drive.m_MajorNumber == major && drive.m_MinorNumber == minor) return &drive;
  return nullptr;
}

}  // namespace NAMESPACE_piRVX
