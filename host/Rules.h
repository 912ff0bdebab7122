#pragma once
/// @file
/// What rvxctl sees by itself that a change would be refused for, or would hurt: told before the plan and the
/// question, with the rule and the disk. The plug-in's own check follows behind these.

#include <optional>
#include <string>
#include <vector>

#include "host/Error.h"
#include "host/Inventory.h"
#include "host/Plan.h"

namespace Host::Rules {

/// A new array as it was asked for.
struct SNewArray {
  PI::CLevel m_Level;
  std::string m_Word;                    ///< of the level: "raid1"
  std::optional<unsigned int> m_Stripe;  ///< the choice; none: the level's default
  std::vector<const PI::CObject*> m_Disks;
  std::vector<std::string> m_Addresses;  ///< how each disk was named

  unsigned int ChunkKiB() const;
};

/// The smallest disk of the request.
std::uint64_t SmallestKiB(const CInventory& inventory, const SNewArray& wanted);
/// The size that a mirror of these disks comes out with; none: md refuses it. Above 1 TiB it is not what the
/// disks have (the superblock's size is doubled in 32 bits).
std::optional<std::uint64_t> MirrorKiB(const CInventory& inventory, const SNewArray& wanted);

/// Each throws CError: EXIT_USAGE for a wrong request, EXIT_NOT_ALLOWED for one that the present state
/// forbids.
void RequireCreatable(const CInventory& inventory, const SNewArray& wanted);
/// Whether the array takes any spare at all.
void RequireTakesSpare(const CInventory& inventory, const PI::CObject& array);
void RequireSpare(const CInventory& inventory, const PI::CObject& disk, const PI::CObject& array);
void RequireRelease(const CInventory& inventory, const PI::CObject& disk);
/// md's kernel interface takes neither start nor cancellation as the plug-in asks for it.
void RequireRebuild(const CInventory& inventory, const PI::CObject& array, bool start);
/// `partitionMembers`: the person knows that members are partitions, and that the last sectors of their disks
/// are written to.
void RequireDeletable(const CInventory& inventory, const PI::CObject& array, bool partitionMembers);

/// What one of these throws, as a sentence; empty when it throws nothing.
template <class TRule>
std::string WhyNot(TRule rule) {
  try {
    rule();
    return {};
  } catch (const CError& error) {
    return error.what();
  }
}

}  // namespace Host::Rules
