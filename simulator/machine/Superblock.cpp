#include "simulator/machine/Superblock.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstddef>
#include <cstring>

namespace Simulation {
namespace {

constexpr std::size_t PAGE = 4096;
constexpr std::size_t HEAD = 256;
constexpr std::uint32_t MOST_DEVICES = (PAGE - HEAD) / 2;
constexpr std::uint64_t SMALLEST_DATA = 10;
constexpr std::uint64_t SMALLEST_DEVICE = 16;  // KiB

static_assert(std::endian::native == std::endian::little, "the records are used as they are on disk");
static_assert(sizeof(SSuperblockHead) == HEAD && offsetof(mdp_superblock_1, dev_roles) == HEAD);
#define RVX_SAME_PLACE(field) \
  static_assert(offsetof(SSuperblockHead, field) == offsetof(mdp_superblock_1, field))
RVX_SAME_PLACE(set_uuid);
RVX_SAME_PLACE(ctime);
RVX_SAME_PLACE(size);
RVX_SAME_PLACE(reshape_position);
RVX_SAME_PLACE(data_offset);
RVX_SAME_PLACE(recovery_offset);
RVX_SAME_PLACE(dev_number);
RVX_SAME_PLACE(bblog_offset);
RVX_SAME_PLACE(resync_offset);
RVX_SAME_PLACE(max_dev);
#undef RVX_SAME_PLACE

std::size_t ByteSize(const SSuperblock& superblock) {
  return HEAD + std::size_t{2} * superblock.m_Head.max_dev;
}

std::uint32_t Checksum(const std::string& bytes) {
  std::uint64_t sum = 0;
  for (std::size_t i = 0; i < bytes.size(); i += sizeof(std::uint32_t)) {
    std::uint32_t word = 0;
    std::memcpy(&word, bytes.data() + i, std::min(sizeof(word), bytes.size() - i));
    sum += word;
  }
  return static_cast<std::uint32_t>(sum + (sum >> 32));
}

/// The record as it is written, but with no checksum.
std::string Encode(const SSuperblock& superblock) {
  std::string bytes(ByteSize(superblock), '\0');
  std::memcpy(bytes.data(), &superblock.m_Head, HEAD);
  std::memset(bytes.data() + offsetof(SSuperblockHead, sb_csum), 0, sizeof(superblock.m_Head.sb_csum));
  const std::size_t roles = std::min<std::size_t>(superblock.m_Head.max_dev, superblock.m_Roles.size());
  if (roles != 0) std::memcpy(bytes.data() + HEAD, superblock.m_Roles.data(), 2 * roles);
  return bytes;
}

bool IsSound(const SSuperblockHead& head, std::uint64_t sector) {
  const auto isZero = [](unsigned char byte) { return byte == 0; };
  return head.magic == MD_SB_MAGIC && head.major_version == 1 && head.max_dev <= MOST_DEVICES &&
         head.super_offset == sector && (head.feature_map & ~std::uint32_t{MD_FEATURE_ALL}) == 0 &&
         head.data_size >= SMALLEST_DATA && head.data_size <= sector && head.pad0 == 0 &&
         std::all_of(head.pad3.begin(), head.pad3.end(), isZero);
}

}  // namespace

std::uint16_t SSuperblock::Role(int number) const {
  const auto index = static_cast<std::size_t>(number);
  return number >= 0 && index < m_Roles.size() ? m_Roles[index] : std::uint16_t{MD_DISK_ROLE_SPARE};
}

std::uint64_t SuperblockSector(std::uint64_t size) {
  return size < SMALLEST_DEVICE ? 0 : (size * 2 - 16) & ~std::uint64_t{7};
}

SLoaded LoadSuperblock(const SBlock& block) {
  const std::uint64_t sector = SuperblockSector(block.m_Size);
  if (block.m_Size < SMALLEST_DEVICE) return {EINVAL, {}};
  std::string bytes;
  if (const int error = ReadBlock(block, sector * SECTOR, PAGE, bytes)) return {error, {}};
  SLoaded loaded;
  std::memcpy(&loaded.m_Superblock.m_Head, bytes.data(), HEAD);
  if (!IsSound(loaded.m_Superblock.m_Head, sector)) return {EINVAL, {}};
  std::vector<std::uint16_t>& roles = loaded.m_Superblock.m_Roles;
  roles.resize(loaded.m_Superblock.m_Head.max_dev);
  if (!roles.empty()) std::memcpy(roles.data(), bytes.data() + HEAD, 2 * roles.size());
  if (Checksum(Encode(loaded.m_Superblock)) != loaded.m_Superblock.m_Head.sb_csum) return {EINVAL, {}};
  return loaded;
}

int StoreSuperblock(const SBlock& block, const SSuperblock& superblock) {
  if (block.m_Size < SMALLEST_DEVICE) return ENOSPC;
  std::string bytes = Encode(superblock);
  const std::uint32_t checksum = Checksum(bytes);
  std::memcpy(bytes.data() + offsetof(SSuperblockHead, sb_csum), &checksum, sizeof(checksum));
  return WriteBlock(block, superblock.m_Head.super_offset * SECTOR, bytes.data(), bytes.size());
}

SSuperblock ComposeSuperblock(const SArray& array, const SMember& member, const SBlock& block) {
  SLoaded old = LoadSuperblock(block);
  SSuperblock superblock = old.m_Error == 0 ? std::move(old.m_Superblock) : SSuperblock{};
  SSuperblockHead& head = superblock.m_Head;
  head.magic = MD_SB_MAGIC;
  head.major_version = 1;
  head.feature_map = array.m_Level == 0 && array.m_Layout > 0 ? MD_FEATURE_RAID0_LAYOUT : 0;
  head.set_uuid = array.m_Uuid;
  head.set_name.fill('\0');
  std::copy_n(array.m_SetName.begin(), std::min(array.m_SetName.size(), head.set_name.size()),
              head.set_name.begin());
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
  head.max_dev = std::max(head.max_dev, head.dev_number + 1);
  for (const SMember& other : array.m_Members) {
    head.max_dev = std::max(head.max_dev, static_cast<std::uint32_t>(other.m_Number + 1));
  }
  superblock.m_Roles.assign(head.max_dev, std::uint16_t{MD_DISK_ROLE_SPARE});
  for (const SMember& other : array.m_Members) {
    std::uint16_t& role = superblock.m_Roles[static_cast<std::size_t>(other.m_Number)];
    if (other.m_Slot >= 0) role = static_cast<std::uint16_t>(other.m_Slot);
    if (other.m_Faulty) role = MD_DISK_ROLE_FAULTY;
  }
  return superblock;
}

}  // namespace Simulation
