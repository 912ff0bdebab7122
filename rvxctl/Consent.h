#pragma once
/// @file
/// A change of the machine, as every command makes one: the rules that can be seen and the plug-in's own
/// check first, then the plan and the person's consent, then a second look, then the plug-in does it.

#include <optional>
#include <string>

#include "host/Proposals.h"
#include "rvxctl/Context.h"

namespace Host {

/// How a person agrees to a change.
struct SConsent {
  bool m_Yes{false};
  bool m_DryRun{false};
  bool m_Wait{false};
  ERules m_Rules{ERules::ALL};
  std::optional<std::string>
      m_IfUnchanged{};  ///< a plan's token: nothing is done where another would be given now
};

/// What came of the execution: the failure, none when it succeeded.
struct SExecution {
  std::optional<CError> m_Failure;
};

/// Rules, check, plan, consent, lock, second look, execution. None after a dry run; throws CError when
/// nothing was executed.
std::optional<SExecution> CarryOut(CContext& context, const Proposal& propose, const SConsent& consent);

}  // namespace Host
