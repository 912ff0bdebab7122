#pragma once
/// @file
/// RAID levels and stripe sizes: the framework's choices beside md's numbers.

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <optional>
#include <vector>

#include "PI/Numbers.h"

namespace NAMESPACE_piRVX {

struct SStripeSize {
  std::uint32_t m_Choice;
  int m_KiB;
};
/// In the order in which front ends list them.
inline constexpr SStripeSize STRIPE_SIZES[] = {{PI::STRIPE_4K, 4},   {PI::STRIPE_8K, 8},
                                               {PI::STRIPE_16K, 16}, {PI::STRIPE_32K, 32},
                                               {PI::STRIPE_64K, 64}, {PI::STRIPE_128K, 128}};

struct SRaidLevel {
  std::uint32_t m_Choice;
  int m_MdLevel;
  bool m_Redundant;
  bool m_Striped;  ///< its arrays show a stripe size
  /// Of the arrays that the plug-in makes of it; with 0 disks it makes none. They may have the first
  /// m_StripeSizes of STRIPE_SIZES.
  unsigned int m_MostDisks{0};
  std::size_t m_StripeSizes{0};
  std::uint32_t m_DefaultStripe{0};
  bool m_SameSize{false};  ///< md is told how much of each member it uses
};
/// Of every array that the plug-in makes.
inline constexpr std::size_t MIN_DISKS = 2;
/// In the order in which front ends list them. Of the levels that are striped two show it (oddity 3).
inline constexpr SRaidLevel RAID_LEVELS[] = {
    {PI::LEVEL_RAID0, 0, false, true, 384, std::size(STRIPE_SIZES), PI::STRIPE_64K},
    {PI::LEVEL_RAID1, 1, true, false, 2, 0, 0, true},
    {PI::LEVEL_RAID10, 10, true, true},
    {PI::LEVEL_RAID4, 4, true, false},
    {PI::LEVEL_RAID5, 5, true, false},
    {PI::LEVEL_RAID6, 6, true, false},
    {PI::LEVEL_CONCATENATION, -1, false, false, 384, 1, PI::STRIPE_4K}};

/// The level of a choice; null for a number that is none.
inline const SRaidLevel* FindRaidLevel(std::uint32_t choice) {
  const auto* const found = std::ranges::find(RAID_LEVELS, choice, &SRaidLevel::m_Choice);
  return found == std::end(RAID_LEVELS) ? nullptr : found;
}

/// The choice of an md level; concatenation for those that have none.
inline std::uint32_t RaidLevelOf(int mdLevel) {
  const auto* const found = std::ranges::find(RAID_LEVELS, mdLevel, &SRaidLevel::m_MdLevel);
  return found == std::end(RAID_LEVELS) ? PI::LEVEL_CONCATENATION : found->m_Choice;
}

/// The choice of a stripe size in bytes; 64 KiB for sizes that have none.
inline std::uint32_t StripeOf(int bytes) {
  const auto* const found =
      std::ranges::find(STRIPE_SIZES, bytes, [](const SStripeSize& size) { return size.m_KiB * 1024; });
  return found == std::end(STRIPE_SIZES) ? PI::STRIPE_64K : found->m_Choice;
}

/// Chunk in KiB for a level and a stripe-size choice; the level's default where that is none. 64 KiB is
/// nothing but the striped levels' default: a concatenation asked for it gets its own, too.
inline int ChunkOf(std::uint32_t level, std::uint32_t stripeSize) {
  const auto* const found = std::ranges::find(STRIPE_SIZES, stripeSize, &SStripeSize::m_Choice);
  if (found != std::end(STRIPE_SIZES) && stripeSize != PI::STRIPE_64K) return found->m_KiB;
  return level == PI::LEVEL_CONCATENATION ? 4 : 64;
}

/// All of a table's choices.
template <class TRow, std::size_t COUNT>
std::vector<int> ChoicesOf(const TRow (&rows)[COUNT]) {
  std::vector<int> choices;
  for (const TRow& row : rows) choices.push_back(static_cast<int>(row.m_Choice));
  return choices;
}

}  // namespace NAMESPACE_piRVX
