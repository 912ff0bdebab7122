#pragma once
/// @file
/// A change of the machine, as every command makes one: the rules that can be seen and the plug-in's own
/// check first, then the plan and the person's consent, then a second look, then the plug-in does it.

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "host/Context.h"
#include "host/Inventory.h"
#include "host/Plan.h"

namespace rvxctl {

/// How a person agrees to a change.
struct SConsent {
  bool m_Yes{false};
  bool m_DryRun{false};
  bool m_Wait{false};
  bool m_PlugInAlone{false};  ///< no rules but the plug-in's and the kernel's
  std::optional<std::string>
      m_IfUnchanged{};  ///< a plan's token: nothing is done where another would be given now
};

/// Which operation of which object, and what to tell before.
struct SChange {
  std::string m_What;  ///< "create a raid1 array of sdb, sdc"
  const PI::CObject& m_Object;
  PI::_OPERATION_CODE m_Code;
  std::vector<SDiskPlan> m_Disks{};
  std::string m_Loss{};                                  ///< empty: nothing is lost, and nobody is asked
  std::string m_Level{};                                 ///< md's name of the level, for hints
  std::string m_Basis{};                                 ///< what else must be the same at the second look
  std::string m_Question{};                              ///< asked behind the first one
  std::function<void(PI::COperation&)> m_Complete = {};  ///< fills in what the caller of an operation gives
  std::string m_FirstQuestion{};                         ///< empty: the catalogue's
};

/// Makes the change of a look at the machine; it is made again of a second look, whose identifiers are other
/// ones. Throws CError when the request is wrong, or the state forbids it.
using Proposal = std::function<SChange(const CInventory&)>;

/// What came of the execution: the failure, none when it succeeded.
struct SExecution {
  std::optional<CError> m_Failure;
};

/// Rules, check, plan, consent, lock, second look, execution. None after a dry run; throws CError when
/// nothing was executed.
std::optional<SExecution> CarryOut(CContext& context, const Proposal& propose, const SConsent& consent);

}  // namespace rvxctl
