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
  record.super_offset = 0x1122334455667788;
  record.data_size = 0x2132435465768798;
  record.dev_number = 2;
  record.sb_csum = 0xa1b2c3d4;
  record.device_uuid[0] = 0xEE;
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
                {144, 8, 0x1122334455667788},
                {160, 4, 2},
                {168, 1, 0xEE},
                {192, 8, 0x512345678},
                {200, 8, 1},
                {208, 8, 0},  // not clean: a full resync follows
                {216, 4, 0xa1b2c3d4},
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
      {0, 0},
      {1, 2},
      {0x3FFFFFFF, 0x7FFFFFFE},
      {0x40000000, 0xFFFFFFFF80000000},  // 1 TiB and above come out wrong
      {0x7FFFFFFF, 0xFFFFFFFFFFFFFFFE},
      {-1, 0xFFFFFFFFFFFFFFFE},
      {-0x40000000, 0xFFFFFFFF80000000},
      {-0x7FFFFFFF - 1, 0}};
  for (const auto& [size, sectors] : cases) {
    mdu_array_info_s info{};
    info.size = size;
    EXPECT_EQ(NewSuperBlock(info, "", UUID, 0).size, sectors) << size;
  }
}

TEST(SuperBlock, KeepsThirtyOneCharactersOfTheName) {
  for (const std::size_t length : {0U, 1U, 30U, 31U, 32U, 33U, 40U}) {
    const std::string name(length, 'n');
    const md_superblock1 record = NewSuperBlock({}, name, UUID, 0);
    EXPECT_EQ(std::string(record.set_name), name.substr(0, 31));
    EXPECT_EQ(record.set_name[31], '\0');
    EXPECT_EQ(record.ctime, 0U) << "the name runs over";
  }
}

TEST(SuperBlock, WriterAndReaderAgreeOnThePlaceForEverySize) {
  const auto agrees = [](std::uint64_t size) { return SuperOffset(size) * 512 == SuperPosition(size); };
  for (std::uint64_t size = 0; size < 5000; ++size) {
    ASSERT_TRUE(agrees(size)) << size;
    ASSERT_TRUE(agrees(0 - size)) << "minus " << size;
    for (int bit = 20; bit < 64; ++bit) ASSERT_TRUE(agrees((std::uint64_t{1} << bit) - 2500 + size)) << bit;
  }
  EXPECT_EQ(SuperOffset(1000000), 1999984U);
  EXPECT_EQ(SuperPosition(1000000), 1023991808U);
  // 8 to 12 KiB before the end on a 4 KiB boundary, and the room for data in front of it.
  std::mt19937_64 random(20261121);
  for (int round = 0; round < 10000; ++round) {
    const std::uint64_t size = 136 + random() % (std::uint64_t{1} << (10 + round % 40));
    const std::uint64_t position = SuperPosition(size);
    EXPECT_EQ(position % 4096, 0U);
    EXPECT_LE(position + 8192, size * 1024);
    EXPECT_GT(position + 12288, size * 1024);
    EXPECT_EQ(UsableSize(size), position / 1024 - 128);
  }
}

TEST(SuperBlock, DataTakesWholeChunks) {
  const struct {
    std::uint64_t m_SuperOffset;
    std::uint32_t m_Chunk;
    std::uint64_t m_Sectors;
  } cases[] = {{1999984, 128, 1999616},
               {1999984, 8, 1999728},
               {1999984, 256, 1999616},
               {1999984, 0, 0},
               {std::uint64_t{1} << 32, 128, 0xFFFFFF00},
               {(std::uint64_t{1} << 33) + 264, 128, std::uint64_t{1} << 33},  // beyond 2 TiB
               {(std::uint64_t{1} << 40) + 512, 256, (std::uint64_t{1} << 40) + 256}};
  for (const auto& entry : cases)
    EXPECT_EQ(DataSize(entry.m_SuperOffset, entry.m_Chunk), entry.m_Sectors)
        << entry.m_SuperOffset << " " << entry.m_Chunk;
}

TEST(SuperBlock, MirrorTakesTheSmallestMemberInWholeChunks) {
  EXPECT_EQ(MirrorSize({1000000, 976773}, 128), 976768U);
  EXPECT_EQ(MirrorSize({976773, 1000000}, 64), 976768U);
  EXPECT_EQ(MirrorSize({976773, 976770}, 4), 976768U);
  EXPECT_EQ(MirrorSize({128, 128}, 128), 128U);
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
  md_superblock1 simple{};
  simple.magic = md_superblock1::MAGIC;
  simple.max_dev = 384;
  EXPECT_EQ(SuperBlockChecksum(simple), 0xa92b507cU);

  std::mt19937_64 random(7);
  TBytes bytes;
  for (unsigned char& byte : bytes) byte = static_cast<unsigned char>(random());
  const std::pair<std::uint32_t, std::size_t> cases[] = {
      {0, 256}, {1, 258}, {2, 260}, {383, 1022}, {384, 1024}, {385, 1024}, {1920, 1024}, {0xFFFFFFFF, 1024}};
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
