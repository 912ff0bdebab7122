#pragma once
/// @file
/// A change of the machine, as every command makes one: the plan first, then the person's yes, then the
/// change, where the plan holds still.

#include <optional>
#include <string>

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

/// What came of it. None after a dry run; throws CError when nothing was executed.
std::optional<SOutcome> CarryOut(CContext& context, SRequest request, const SConsent& consent);

}  // namespace Host
