#include "Src/md/Superblock.h"

#include <linux/raid/md_p.h>

#include <algorithm>
#include <boost/endian/conversion.hpp>

#include "Src/md/Members.h"

namespace Md {

static_assert(offsetof(md_superblock1, set_name) == offsetof(mdp_superblock_1, set_name));
static_assert(offsetof(md_superblock1, super_offset) == offsetof(mdp_superblock_1, super_offset));
static_assert(offsetof(md_superblock1, device_uuid) == offsetof(mdp_superblock_1, device_uuid));
static_assert(offsetof(md_superblock1, sb_csum) == offsetof(mdp_superblock_1, sb_csum));
static_assert(offsetof(md_superblock1, dev_roles) == offsetof(mdp_superblock_1, dev_roles));
static_assert(md_superblock1::MAGIC == MD_SB_MAGIC);

std::uint32_t SuperBlockChecksum(const md_superblock1& superBlock) {
  md_superblock1 record = superBlock;
  record.sb_csum = 0;
  const std::size_t roles = std::min<std::size_t>(record.max_dev, md_superblock1::MAX_ROLES);
  const std::size_t length = md_superblock1::HEADER_SIZE + 2 * roles;
  const auto* const bytes = reinterpret_cast<const unsigned char*>(&record);
  std::uint64_t sum = 0;
  std::size_t position = 0;
  for (; position + 4 <= length; position += 4) sum += boost::endian::load_little_u32(bytes + position);
  if (position < length) sum += boost::endian::load_little_u16(bytes + position);
  return static_cast<std::uint32_t>(sum + (sum >> 32));
}

md_superblock1 NewSuperBlock(const mdu_array_info_s& info, std::string_view name,
                             const std::array<unsigned char, 16>& uuid, std::uint64_t seconds) {
  md_superblock1 record{};
  record.magic = md_superblock1::MAGIC;
  record.major_version = 1;
  std::copy(uuid.begin(), uuid.end(), record.set_uuid);
  name.copy(record.set_name, sizeof(record.set_name) - 1);
  record.ctime = record.utime = seconds;
  record.level = static_cast<std::uint32_t>(info.level);
  record.layout = static_cast<std::uint32_t>(info.layout);
  // Doubled in 32 bits and then sign-extended: wrong from 1 TiB on (oddity 18).
  record.size = static_cast<std::uint64_t>(
      static_cast<std::int64_t>(static_cast<std::int32_t>(static_cast<std::uint32_t>(info.size) * 2U)));
  record.chunksize = static_cast<std::uint32_t>(info.chunk_size >> 9);
  record.raid_disks = static_cast<std::uint32_t>(info.raid_disks);
  record.events = 1;
  record.resync_offset = (info.state & ARRAY_CLEAN) != 0 ? ~std::uint64_t{0} : std::uint64_t{0};
  record.max_dev = md_superblock1::MAX_ROLES;
  for (std::uint16_t slot = 0; slot < md_superblock1::MAX_ROLES; ++slot)
    record.dev_roles[slot] = slot < info.raid_disks ? slot : md_superblock1::ROLE_SPARE;
  return record;
}

}  // namespace Md
