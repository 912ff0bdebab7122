#pragma once
/// @file
/// How the machine is, told from its arrays, disks, activity and SMART figures: the plug-in's own word for
/// the adapter is always "In order".

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/Inventory.h"
#include "host/JsonView.h"

namespace Host {

/// The worse, the greater; the numbers are exit statuses of `check`, as monitoring plug-ins have them.
enum class EHealth : int { OK = 0, WARNING = 1, CRITICAL = 2, UNKNOWN = 3 };
/// "ok", "warning", "critical", "unknown".
const char* WordOf(EHealth health);

struct SProblem {
  EHealth m_Health;
  std::string m_Kind;    ///< counted under this in the headline: "array degraded"
  std::string m_Object;  ///< "md_d0"
  std::string m_Text;    ///< "1 of 2 members works; sdb has failed"
  std::string m_Next;    ///< what to do; empty: nothing
  /// In milliseconds since 1970, where that is known; else since it was found.
  std::optional<std::uint64_t> m_Since{};

  /// The kind as programs have it: "array-degraded".
  std::string Word() const;
};

/// What SMART warnings begin at.
struct SSmartLimits {
  long m_Wear{95};    ///< percent of its life that a solid-state disk has used; more is a warning
  long m_Reserve{9};  ///< percent of its spare blocks that are left; as many or fewer are a warning
};

struct SHealth {
  EHealth m_Health{EHealth::OK};
  /// "1 array degraded, 1 disk failed"; "all in order".
  std::string m_Headline;
  std::vector<SProblem> m_Problems;  ///< the worst first
  std::vector<std::string> m_Notes;  ///< what goes on without being a problem: "md_d1: Resyncing 12%"

  /// Whether a problem is about this disk or array.
  bool Concerns(const PI::CObject& object) const;
  Json ToJson() const;
};

/// How many members the array's level can do without.
unsigned int ToleranceOf(const SArrayEntry& array);
/// Whether its data cannot be reached: it does not run, or more members are lost than its level can do
/// without.
bool HasFailed(const SArrayEntry& array);
/// How many more members may fail, whichever they are, before data is lost. Nothing for one that has failed.
std::optional<unsigned int> CanLose(const SArrayEntry& array);

/// Of the arrays alone. What to do next depends on what md answers: this asks the machine.
SHealth ArrayHealthOf(const CInventory& inventory);
/// The same with the disks, and the headline of it all.
SHealth HealthOf(const CInventory& inventory, SHealth arrays, const SSmartLimits& limits = {});

/// How many arrays and disks there are, and how many are how: "arrays", "disks_failed".
using Figures = std::vector<std::pair<const char*, long>>;
Figures FiguresOf(const CInventory& inventory, const SHealth& health);

}  // namespace Host
