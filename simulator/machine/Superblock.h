#pragma once
/// @file
/// md superblocks of version 1.0 as the kernel reads and writes them.

#include "simulator/machine/MachineState.h"

namespace Simulation {

/// A superblock as it lies on a device.
struct SSuperblock {
  mdp_superblock_1& Head() { return reinterpret_cast<mdp_superblock_1&>(m_Page); }
  const mdp_superblock_1& Head() const { return reinterpret_cast<const mdp_superblock_1&>(m_Page); }
  /// MD_DISK_ROLE_SPARE, also of numbers that there is no room for, MD_DISK_ROLE_FAULTY or a slot.
  std::uint16_t Role(int number) const;

  alignas(mdp_superblock_1) std::array<char, 4096> m_Page{};
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
int StoreSuperblock(const SBlock& block, SSuperblock superblock);

}  // namespace Simulation
