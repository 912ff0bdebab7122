#pragma once
/// @file
/// A change of the machine, as every command makes one: the plug-in's own check first, then the plan and the
/// person's consent, then the plug-in does it.

#include <functional>
#include <string>
#include <vector>

#include "host/Context.h"
#include "host/Plan.h"

namespace rvxctl {

/// How a person agrees to a change.
struct SConsent {
  bool m_Yes{false};
  bool m_DryRun{false};
  bool m_Wait{false};
};

/// Which operation of which object, and what to tell before.
struct SChange {
  std::string m_What;  ///< "create a raid1 array of sdb and sdc"
  const CTopology& m_Topology;
  const PI::CObject& m_Object;
  PI::_OPERATION_CODE m_Code;
  std::vector<SDiskPlan> m_Disks{};
  std::string m_Loss{};                                  ///< empty: nothing is lost, and nobody is asked
  std::string m_Level{};                                 ///< md's name of the level, for hints
  std::function<void(PI::COperation&)> m_Complete = {};  ///< fills in what the caller of an operation gives
};

/// Check, plan, consent, execution. False after a dry run; throws CError when it is refused.
bool CarryOut(CContext& context, const SChange& change, const SConsent& consent);

}  // namespace rvxctl
