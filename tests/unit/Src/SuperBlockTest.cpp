// The superblock: layout, sizes, placement, checksum.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "Src/piRVXAdapterCreate.h"
#include "Src/piRVXAdapterSuperBlock.h"
#include "Src/piRVXObjects.h"

using namespace NAMESPACE_piRVX;

namespace {

using TBytes = std::array<unsigned char, 1024>;

TBytes Bytes(const md_superblock1& record) {
  TBytes bytes;
  std::memcpy(bytes.data(), &record, sizeof(record));
  return bytes;
}

md_superblock1 Record(const TBytes& bytes) {
  md_superblock1 record;
  std::memcpy(&record, bytes.data(), bytes.size());
  return record;
}

std::uint64_t Little(const TBytes& bytes, std::size_t offset, std::size_t size) {
  std::uint64_t value = 0;
  for (std::size_t at = size; at-- > 0;) value = value << 8 | bytes[offset + at];
  return value;
}

constexpr std::array<unsigned char, 16> UUID = {0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f, 0x60, 0x71,
                                                0x82, 0x93, 0xa4, 0xb5, 0xc6, 0xd7, 0xe8, 0xf9};

TEST(SuperBlock, LiesOnTheDiskByteByByte) {
  mdu_array_info_s info{};
  info.level = -1;
  info.layout = 0x01020304;
  info.size = 976768;
  info.chunk_size = 131072;
  info.raid_disks = 3;
  md_superblock1 record = NewSuperBlock(info, "md_d0", UUID, 0x0000000512345678);
  record.data_size = 0x2132435465768798;
  const struct {
    std::size_t m_Offset;
    std::size_t m_Size;
    std::uint64_t m_Value;
  } fields[] = {{0, 4, 0xa92b4efc},
                {4, 4, 1},
                {16, 8, 0x71605f4e3d2c1b0a},
                {24, 8, 0xf9e8d7c6b5a49382},
                {32, 8, 0x30645f646d},  // "md_d0"
                {64, 8, 0x512345678},
                {72, 4, 0xFFFFFFFF},
                {76, 4, 0x01020304},
                {80, 8, 1953536},
                {88, 4, 256},
                {92, 4, 3},
                {136, 8, 0x2132435465768798},
                {192, 8, 0x512345678},
                {200, 8, 1},
                {208, 8, 0},  // not clean: a full resync follows
                {220, 4, 384},
                {256, 2, 0},
                {258, 2, 1},
                {260, 2, 2}};
  TBytes bytes = Bytes(record);
  for (const auto& field : fields) {
    EXPECT_EQ(Little(bytes, field.m_Offset, field.m_Size), field.m_Value) << "at " << field.m_Offset;
    std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>(field.m_Offset), field.m_Size, 0);
  }
  TBytes rest{};
  std::fill(rest.begin() + 262, rest.end(), 0xFF);  // all other roles are spare
  EXPECT_EQ(bytes, rest) << "a byte is set that has no meaning";

  info.state = 1;
  EXPECT_EQ(NewSuperBlock(info, "", UUID, 0).resync_offset, ~std::uint64_t{0}) << "clean: in sync";
  info.state = 2;
  EXPECT_EQ(NewSuperBlock(info, "", UUID, 0).resync_offset, 0U);
}

TEST(SuperBlock, DoublesTheSizeIn32Bits) {
  const std::pair<int, std::uint64_t> cases[] = {
      {0x3FFFFFFF, 0x7FFFFFFE},
      {0x40000000, 0xFFFFFFFF80000000},  // 1 TiB and above come out wrong
      {-1, 0xFFFFFFFFFFFFFFFE}};
  for (const auto& [size, sectors] : cases) {
    mdu_array_info_s info{};
    info.size = size;
    EXPECT_EQ(NewSuperBlock(info, "", UUID, 0).size, sectors) << size;
  }
}

TEST(SuperBlock, KeepsThirtyOneCharactersOfTheName) {
  for (const std::size_t length : {31U, 32U, 40U}) {
    const md_superblock1 record = NewSuperBlock({}, std::string(length, 'n'), UUID, 0);
    EXPECT_EQ(std::string(record.set_name), std::string(31, 'n'));
    EXPECT_EQ(record.ctime, 0U) << "the name runs over";
  }
}

TEST(SuperBlock, WriterAndReaderAgreeOnThePlaceForEverySize) {
  for (std::uint64_t size = 0 - std::uint64_t{5000}; size != 136; ++size)  // wraps around
    ASSERT_EQ(SuperOffset(size) * 512, SuperPosition(size)) << size;
  for (int bit = 10; bit < 54; ++bit)
    for (std::uint64_t size = std::uint64_t{1} << bit; size < (std::uint64_t{1} << bit) + 1000; ++size) {
      const std::uint64_t position = SuperPosition(size);
      ASSERT_EQ(SuperOffset(size) * 512, position) << size;
      // 8 to 12 KiB before the end on a 4 KiB boundary, and the room for data in front of it.
      ASSERT_EQ(position % 4096, 0U) << size;
      ASSERT_LE(position + 8192, size * 1024) << size;
      ASSERT_GT(position + 12288, size * 1024) << size;
      ASSERT_EQ(UsableSize(size), position / 1024 - 128) << size;
    }
}

TEST(SuperBlock, DataTakesWholeChunksOfTheSmallestMember) {
  EXPECT_EQ(DataSize(1999984, 128), 1999616U);
  EXPECT_EQ(DataSize(1999984, 0), 0U);
  EXPECT_EQ(DataSize((std::uint64_t{1} << 33) + 264, 128), std::uint64_t{1} << 33) << "beyond 2 TiB";
  EXPECT_EQ(MirrorSize({976773, 1000000}, 64), 976768U);
  EXPECT_EQ(MirrorSize({1000000, 976770}, 4), 976768U);
  EXPECT_EQ(MirrorSize({127, 128}, 128), 0U);
}

/// The rule in other words: little-endian words, carries folded in once.
std::uint32_t ChecksumOf(TBytes bytes, std::size_t length) {
  std::fill_n(bytes.begin() + 216, 4, 0);
  std::uint64_t sum = 0;
  for (std::size_t at = 0; at < length; ++at) sum += std::uint64_t{bytes[at]} << (8 * (at % 4));
  return static_cast<std::uint32_t>((sum & 0xFFFFFFFF) + (sum >> 32));
}

TEST(SuperBlockChecksum, FollowsTheNumberOfRolesWithinTheRecord) {
  std::mt19937_64 random(7);
  TBytes bytes;
  for (unsigned char& byte : bytes) byte = static_cast<unsigned char>(random());
  const std::pair<std::uint32_t, std::size_t> cases[] = {{0, 256},    {1, 258},    {2, 260},
                                                         {384, 1024}, {385, 1024}, {0xFFFFFFFF, 1024}};
  for (const auto& [roles, length] : cases) {
    md_superblock1 record = Record(bytes);
    record.max_dev = roles;
    EXPECT_EQ(SuperBlockChecksum(record), ChecksumOf(Bytes(record), length)) << roles;
  }
}

TEST(SuperBlockChecksum, NoticesEveryFlippedByte) {
  std::mt19937_64 random(11);
  for (int round = 0; round < 20; ++round) {
    mdu_array_info_s info{};
    info.level = static_cast<int>(random() % 3) - 1;
    info.size = static_cast<int>(random());
    info.chunk_size = static_cast<int>(4096U << random() % 6);
    info.raid_disks = static_cast<int>(random() % 385);
    md_superblock1 record = NewSuperBlock(info, "md_d" + std::to_string(random() % 256), UUID, random());
    record.super_offset = SuperOffset(random());
    record.dev_number = static_cast<std::uint32_t>(random() % 384);
    for (std::uint8_t& byte : record.device_uuid) byte = static_cast<std::uint8_t>(random());
    record.sb_csum = SuperBlockChecksum(record);
    for (std::size_t at = 0; at < sizeof(record); ++at) {
      TBytes bytes = Bytes(record);
      bytes[at] = static_cast<unsigned char>(bytes[at] ^ (1 + random() % 255));
      const md_superblock1 flipped = Record(bytes);
      EXPECT_NE(SuperBlockChecksum(flipped), flipped.sb_csum) << "byte " << at;
    }
  }
}

}  // namespace
