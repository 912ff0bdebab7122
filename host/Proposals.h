#pragma once
/// @file
/// The changes that can be asked for, each as a look at the machine makes it: what is done to which object,
/// which disks it means, what is lost. Addresses are those of CInventory::FindForChange.

#include <optional>
#include <string>
#include <vector>

#include "host/Change.h"

namespace Host {

/// PLUGIN_ALONE: no rules but the plug-in's and the kernel's, for tests of theirs.
enum class ERules { ALL, PLUGIN_ALONE };

namespace Proposals {

struct SCreation {
  std::string m_Level;                  ///< "raid1"
  std::optional<std::string> m_Stripe;  ///< KiB, "64"; none: the level's default
  std::vector<std::string> m_Disks;     ///< in the order of their slots
};

/// One array, or the last of the plug-in's, or all.
struct SDeletion {
  std::string m_Array;
  bool m_Last{false};
  bool m_All{false};
  bool m_PartitionMembers{false};  ///< the ends of whole disks may be overwritten
};

/// Each throws CError when the request is wrong, or the state forbids it.
SChange Creation(const CInventory& inventory, const SCreation& wanted, ERules rules);
/// The arrays that a deletion means.
std::vector<const PI::CObject*> ArraysOf(const CInventory& inventory, const SDeletion& wanted, ERules rules);
SChange Deletion(const CInventory& inventory, const SDeletion& wanted, ERules rules);
SChange SpareAddition(const CInventory& inventory, const std::string& diskAddress,
                      const std::string& arrayAddress, ERules rules);
SChange Release(const CInventory& inventory, const std::string& address, ERules rules);
SChange Rebuild(const CInventory& inventory, const std::string& address, bool start, ERules rules);

}  // namespace Proposals

}  // namespace Host
