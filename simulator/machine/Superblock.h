#pragma once
/// @file
/// md superblocks of version 1.0 as the kernel reads and writes them.

#include "simulator/machine/MachineState.h"

namespace Simulation {

/// The fixed part of `mdp_superblock_1`; the kernel's own record ends in an array without a size and cannot
/// be a member.
struct SSuperblockHead {
  std::uint32_t magic, major_version, feature_map, pad0;
  std::array<std::uint8_t, 16> set_uuid;
  std::array<char, 32> set_name;
  std::uint64_t ctime;
  std::uint32_t level, layout;
  std::uint64_t size;  ///< sectors of each member that are used
  std::uint32_t chunksize, raid_disks, bitmap_offset, new_level;
  std::uint64_t reshape_position;
  std::uint32_t delta_disks, new_layout, new_chunk, new_offset;
  std::uint64_t data_offset, data_size, super_offset, recovery_offset;
  std::uint32_t dev_number, cnt_corrected_read;
  std::array<std::uint8_t, 16> device_uuid;
  std::uint8_t devflags, bblog_shift;
  std::uint16_t bblog_size;
  std::uint32_t bblog_offset;
  std::uint64_t utime, events, resync_offset;
  std::uint32_t sb_csum, max_dev;
  std::array<std::uint8_t, 32> pad3;
};

struct SSuperblock {
  SSuperblockHead m_Head{};
  std::vector<std::uint16_t>
      m_Roles;  ///< by device number; MD_DISK_ROLE_SPARE, MD_DISK_ROLE_FAULTY or a slot

  std::uint16_t Role(int number) const;
};

struct SLoaded {
  int m_Error{};  ///< 0, or why the kernel does not take the device
  SSuperblock m_Superblock;
};

/// First sector of a superblock on a device of that many KiB: 8 to 12 KiB from its end, at a multiple of 4
/// KiB. 0 for a device that is too small to have one.
std::uint64_t SuperblockSector(std::uint64_t size);
/// What is on the device, with the checks that md makes when a device is handed to it.
SLoaded LoadSuperblock(const SBlock& block);
/// The superblock that a member of the array gets. What is constant for the device is kept from the one it
/// has.
SSuperblock ComposeSuperblock(const SArray& array, const SMember& member, const SBlock& block);
/// Writes the superblock with its checksum. 0 or the medium's error.
int StoreSuperblock(const SBlock& block, const SSuperblock& superblock);

}  // namespace Simulation
