#pragma once
/// @file
/// md's superblock, version 1.0: one record of 1024 bytes at the end of every member, little-endian.

#include <linux/raid/md_u.h>

#include <array>
#include <boost/endian/arithmetic.hpp>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Md {

/// The record as it lies on the disk; see the kernel's struct mdp_superblock_1. Counts are 512-byte sectors
/// where nothing else is said.
struct md_superblock1 {
  using u16 = boost::endian::little_uint16_t;
  using u32 = boost::endian::little_uint32_t;
  using u64 = boost::endian::little_uint64_t;
  static constexpr std::size_t SIZE = 1024;
  static constexpr std::size_t HEADER_SIZE = 256;
  static constexpr std::uint32_t MAGIC = 0xa92b4efc;
  static constexpr std::uint16_t MAX_ROLES = 384;
  static constexpr std::uint16_t ROLE_SPARE = 0xFFFF;

  u32 magic;
  u32 major_version;
  u32 feature_map;
  u32 pad0;
  std::uint8_t set_uuid[16];
  char set_name[32];
  u64 ctime;  ///< seconds since 1970
  u32 level;
  u32 layout;
  u64 size;  ///< used of each member
  u32 chunksize;
  u32 raid_disks;
  u32 bitmap_offset;
  u32 new_level;
  u64 reshape_position;
  u32 delta_disks;
  u32 new_layout;
  u32 new_chunk;
  u32 new_offset;
  u64 data_offset;
  u64 data_size;
  u64 super_offset;
  u64 recovery_offset;
  u32 dev_number;
  u32 cnt_corrected_read;
  std::uint8_t device_uuid[16];
  std::uint8_t devflags;
  std::uint8_t bblog_shift;
  u16 bblog_size;
  u32 bblog_offset;
  u64 utime;  ///< seconds since 1970
  u64 events;
  u64 resync_offset;  ///< all ones: in sync
  u32 sb_csum;
  u32 max_dev;
  std::uint8_t pad3[32];
  u16 dev_roles[MAX_ROLES];
};
static_assert(sizeof(md_superblock1) == md_superblock1::SIZE);
static_assert(offsetof(md_superblock1, super_offset) == 144 && offsetof(md_superblock1, dev_number) == 160 &&
              offsetof(md_superblock1, device_uuid) == 168 &&
              offsetof(md_superblock1, resync_offset) == 208 && offsetof(md_superblock1, sb_csum) == 216 &&
              offsetof(md_superblock1, max_dev) == 220 &&
              offsetof(md_superblock1, dev_roles) == md_superblock1::HEADER_SIZE);

/// Sector of the superblock on a member of `size` KiB: 8 KiB before the end, rounded down to 4 KiB. Wraps
/// below 8 KiB.
constexpr std::uint64_t SuperOffset(std::uint64_t size) { return (2 * size - 16) & ~std::uint64_t{7}; }
/// The same place as the reader seeks it, in bytes.
constexpr std::uint64_t SuperPosition(std::uint64_t size) { return (size - 8) / 4 * 4096; }
/// KiB that md may use of a drive of `size` KiB: what lies in front of the superblock, which stands 8 KiB
/// before the end on a 4 KiB boundary, less a reserve of 128 KiB. Sizes below 136 wrap.
constexpr std::uint64_t UsableSize(std::uint64_t size) { return ((size - 8) & ~std::uint64_t{3}) - 128; }
/// Sectors for data in front of a superblock: 128 KiB stay free, whole chunks of `chunk` sectors; 0 for chunk
/// 0.
constexpr std::uint64_t DataSize(std::uint64_t superOffset, std::uint32_t chunk) {
  return (superOffset - 256) & (std::uint64_t{0} - chunk);
}
/// md's checksum of a record, whatever its sb_csum holds. Role counts beyond the record's end count as the
/// record's.
std::uint32_t SuperBlockChecksum(const md_superblock1& superBlock);
/// The record of an array at its creation: everything that all members share.
md_superblock1 NewSuperBlock(const mdu_array_info_s& info, std::string_view name,
                             const std::array<unsigned char, 16>& uuid, std::uint64_t seconds);

}  // namespace Md
