// The superblock: layout, sizes, placement, checksum.

#include <gtest/gtest.h>

#include <bit>
#include <boost/endian/conversion.hpp>
#include <random>

#include "Src/piRVXAdapterSuperBlock.h"
#include "Src/piRVXTrace.h"

using namespace NAMESPACE_piRVX;

namespace {

using TBytes = std::array<unsigned char, 1024>;

constexpr std::array<unsigned char, 16> UUID = {0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f, 0x60, 0x71,
                                                0x82, 0x93, 0xa4, 0xb5, 0xc6, 0xd7, 0xe8, 0xf9};

TEST(SuperBlock, LiesOnTheDiskWordByWord) {
  mdu_array_info_s info{};
  info.level = -1;
  info.layout = 0x01020304;
  info.size = 976768;
  info.chunk_size = 131072;
  info.raid_disks = 3;
  info.state = 2;
  Md::md_superblock1 record = Md::NewSuperBlock(info, "md_d0", UUID, 0x0000000512345678);
  record.data_size = 0x2132435465768798;
  // Little-endian; fields of four bytes come in pairs. Of the rest, the head is 0 and the roles are spare.
  std::string words;
  const auto bytes = std::bit_cast<TBytes>(record);
  for (std::size_t at = 0; at < bytes.size(); at += 8)
    if (const auto word = boost::endian::load_little_u64(&bytes[at]);
        word != (at < 256 ? 0 : ~std::uint64_t{0}))
      words += Text("%d: %x, ", at, word);
  EXPECT_EQ(words,
            "0: 1a92b4efc, 16: 71605f4e3d2c1b0a, 24: f9e8d7c6b5a49382, 32: 30645f646d, 64: 512345678, "
            "72: 1020304ffffffff, 80: 1dcf00, 88: 300000100, 136: 2132435465768798, 192: 512345678, 200: 1, "
            "216: 18000000000, 256: ffff000200010000, ");
  info.state = 1;
  EXPECT_EQ(Md::NewSuperBlock(info, "", UUID, 0).resync_offset, ~std::uint64_t{0}) << "clean: in sync";
  std::string text = "UUID ";
  UUID2String(UUID.data(), text);
  EXPECT_EQ(text, "UUID 0a1b2c3d:4e5f6071:8293a4b5:c6d7e8f9");
}

TEST(SuperBlock, DoublesTheSizeIn32BitsAndKeepsThirtyOneCharactersOfTheName) {
  mdu_array_info_s info{};
  info.size = 0x40000000;
  const Md::md_superblock1 record = Md::NewSuperBlock(info, std::string(40, 'n'), UUID, 0);
  EXPECT_EQ(record.size, 0xFFFFFFFF80000000) << "1 TiB and above come out wrong";
  EXPECT_EQ(std::string(record.set_name), std::string(31, 'n'));
  EXPECT_EQ(record.ctime, 0U) << "the name runs over";
}

TEST(SuperBlock, WriterAndReaderAgreeOnThePlaceForEverySize) {
  for (int bit = 10; bit < 54; ++bit)
    for (std::uint64_t more = 0; more < 1000; ++more) {
      const std::uint64_t size = (std::uint64_t{1} << bit) + more;
      // 8 to 12 KiB before the end on a 4 KiB boundary, and the room for data in front of it.
      const std::uint64_t position = (size * 1024 - 8192) / 4096 * 4096;
      ASSERT_TRUE(Md::SuperOffset(size) * 512 == position && Md::SuperPosition(size) == position) << size;
      ASSERT_EQ(Md::UsableSize(size), position / 1024 - 128) << size;
    }
  EXPECT_EQ(Md::DataSize(1999984, 128), 1999616U) << "whole chunks";
  EXPECT_EQ(Md::DataSize((std::uint64_t{1} << 33) + 264, 128), std::uint64_t{1} << 33) << "beyond 2 TiB";
}

TEST(SuperBlock, ChecksumFollowsTheNumberOfRolesWithinTheRecord) {
  std::mt19937_64 random(7);
  TBytes bytes;
  for (unsigned char& byte : bytes) byte = static_cast<unsigned char>(random());
  for (const auto& [roles, length] : {std::pair{1U, 258U}, {2U, 260U}, {384U, 1024U}, {385U, 1024U}}) {
    auto record = std::bit_cast<Md::md_superblock1>(bytes);
    record.max_dev = roles;
    const std::uint32_t checksum = Md::SuperBlockChecksum(record);
    record.sb_csum = 0;
    // The rule in other words: little-endian words, carries folded in once.
    std::uint64_t sum = 0;
    for (std::size_t at = 0; at < length; ++at)
      sum += std::uint64_t{std::bit_cast<TBytes>(record)[at]} << (8 * (at % 4));
    EXPECT_EQ(checksum, static_cast<std::uint32_t>((sum & 0xFFFFFFFF) + (sum >> 32))) << roles;
  }
}

}  // namespace
