#include "simulator/machine/Superblock.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <utility>

namespace Simulation {
namespace {

constexpr std::uint32_t MOST_DEVICES = (sizeof(SSuperblock) - sizeof(mdp_superblock_1)) / 2;
constexpr std::uint64_t SMALLEST_DATA = 10;
constexpr std::uint64_t SMALLEST_DEVICE = 16;  // KiB

static_assert(std::endian::native == std::endian::little, "the records are used as they are on disk");

std::size_t ByteSize(const SSuperblock& superblock) {
  return sizeof(mdp_superblock_1) + std::size_t{2} * superblock.Head().max_dev;
}

std::uint32_t Checksum(SSuperblock superblock) {
  superblock.Head().sb_csum = 0;
  std::uint64_t sum = 0;
  for (std::size_t i = 0; i < ByteSize(superblock); i += sizeof(std::uint32_t)) {
    std::uint32_t word = 0;
    std::memcpy(&word, superblock.m_Page.data() + i, std::min(sizeof(word), ByteSize(superblock) - i));
    sum += word;
  }
  return static_cast<std::uint32_t>(sum + (sum >> 32));
}

bool IsSound(const mdp_superblock_1& head, std::uint64_t sector) {
  const auto isZero = [](unsigned char byte) { return byte == 0; };
  return head.magic == MD_SB_MAGIC && head.major_version == 1 && head.max_dev <= MOST_DEVICES &&
         head.super_offset == sector && (head.feature_map & ~std::uint32_t{MD_FEATURE_ALL}) == 0 &&
         head.data_size >= SMALLEST_DATA && head.data_size <= sector && head.pad0 == 0 &&
         std::all_of(std::begin(head.pad3), std::end(head.pad3), isZero);
}

}  // namespace

std::uint16_t SSuperblock::Role(int number) const {
  return number >= 0 && std::cmp_less(number, Head().max_dev) ? Head().dev_roles[number] : MD_DISK_ROLE_SPARE;
}

std::uint64_t SuperblockSector(std::uint64_t size) {
  return size < SMALLEST_DEVICE ? 0 : (size * 2 - 16) & ~std::uint64_t{7};
}

SLoaded LoadSuperblock(const SBlock& block) {
  if (block.m_Size < SMALLEST_DEVICE) return {EINVAL, {}};
  const std::uint64_t sector = SuperblockSector(block.m_Size);
  SLoaded loaded;
  SSuperblock& superblock = loaded.m_Superblock;
  std::string bytes;
  if (const int error = ReadBlock(block, sector * SECTOR, superblock.m_Page.size(), bytes))
    return {error, {}};
  std::copy(bytes.begin(), bytes.end(), superblock.m_Page.begin());
  const bool good = IsSound(superblock.Head(), sector) && Checksum(superblock) == superblock.Head().sb_csum;
  return good ? loaded : SLoaded{EINVAL, {}};
}

int StoreSuperblock(const SBlock& block, SSuperblock superblock) {
  if (block.m_Size < SMALLEST_DEVICE) return ENOSPC;
  superblock.Head().sb_csum = Checksum(superblock);
  return WriteBlock(block, superblock.Head().super_offset * SECTOR, superblock.m_Page.data(),
                    ByteSize(superblock));
}

SSuperblock ComposeSuperblock(const SArray& array, const SMember& member, const SBlock& block) {
  SSuperblock superblock = LoadSuperblock(block).m_Superblock;
  mdp_superblock_1& head = superblock.Head();
  head.magic = MD_SB_MAGIC;
  head.major_version = 1;
  head.feature_map = array.m_Level == 0 && array.m_Layout > 0 ? MD_FEATURE_RAID0_LAYOUT : 0;
  std::copy(array.m_Uuid.begin(), array.m_Uuid.end(), head.set_uuid);
  std::fill(std::begin(head.set_name), std::end(head.set_name), '\0');
  array.m_SetName.copy(head.set_name, sizeof(head.set_name));
  head.ctime = array.m_Created;
  head.utime = array.m_Updated;
  head.level = static_cast<std::uint32_t>(array.m_Level);
  head.layout = static_cast<std::uint32_t>(array.m_Layout);
  head.size = array.m_DeviceSectors;
  head.chunksize = static_cast<std::uint32_t>(array.m_ChunkSectors);
  head.raid_disks = static_cast<std::uint32_t>(array.m_RaidDisks);
  head.data_size = member.m_Sectors;
  head.super_offset = SuperblockSector(block.m_Size);
  head.dev_number = static_cast<std::uint32_t>(member.m_Number);
  head.events = array.m_Events;
  head.resync_offset = array.m_Clean ? array.m_SyncedSectors : 0;
  head.recovery_offset = 0;
  if (member.m_Slot >= 0 && !member.m_InSync) {
    head.feature_map |= MD_FEATURE_RECOVERY_OFFSET;
    head.recovery_offset = member.m_RecoveredSectors;
  }
  for (const SMember& other : array.m_Members)
    head.max_dev = std::max(head.max_dev, static_cast<std::uint32_t>(other.m_Number + 1));
  std::fill_n(head.dev_roles, head.max_dev, std::uint16_t{MD_DISK_ROLE_SPARE});
  for (const SMember& other : array.m_Members) {
    std::uint16_t& role = head.dev_roles[other.m_Number];
    if (other.m_Slot >= 0) role = static_cast<std::uint16_t>(other.m_Slot);
    if (other.m_Faulty) role = MD_DISK_ROLE_FAULTY;
  }
  return superblock;
}

}  // namespace Simulation
