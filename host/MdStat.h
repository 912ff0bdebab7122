#pragma once
/// @file
/// What /proc/mdstat says of each array, for what the plug-in's own states do not tell apart.

#include <optional>
#include <string>
#include <vector>

namespace Host {

/// "sdb[1](F)"
struct SMdMember {
  std::string m_Name;
  int m_Number;
  /// 'F' faulty, 'S' spare, 'J' journal, 'R' replacement of a member that still works; 0: none of these.
  char m_Mark{0};
};

/// A resync, recovery, check or reshape.
struct SMdRun {
  std::string m_Action;               ///< "resync"
  std::string m_Waiting;              ///< "PENDING", "DELAYED", "REMOTE"; empty while it runs
  std::optional<double> m_Percent{};  ///< none while it waits
  std::optional<double> m_Minutes{};  ///< that md reckons with until the end
  std::optional<unsigned long> m_KiBPerSecond{};
};

struct SMdArray {
  std::string m_Name;
  bool m_Active{false};
  bool m_Broken{false};    ///< it runs, but has lost more than its level can
  std::string m_ReadOnly;  ///< "read-only", "auto-read-only"; empty: it takes writes
  std::string m_Level;     ///< "raid1"; empty of an inactive one
  std::vector<SMdMember> m_Members;
  std::string m_Metadata;  ///< "1.0", "external:..."; version 0.90 is not named: empty
  /// Slots, and those that work; none of a level without redundancy.
  std::optional<unsigned int> m_Slots{};
  std::optional<unsigned int> m_Working{};
  std::optional<SMdRun> m_Run{};
};

/// The arrays in the kernel's order; what is not understood is left out.
std::vector<SMdArray> ParseMdStat(const std::string& mdstat);
/// The array of that name; null when there is none.
const SMdArray* FindArray(const std::vector<SMdArray>& arrays, const std::string& name);

}  // namespace Host
