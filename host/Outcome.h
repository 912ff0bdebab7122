#pragma once
/// @file
/// What came of a change, as later looks at the machine show it: the plug-in's answer does not say.

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "host/Proposals.h"

namespace Host {

struct SOutcome {
  std::string m_Text;  ///< what was done: "Created md_d0: 1.0 GiB."
  Json m_Data{};       ///< the same for programs, with the text as "done"; null: nothing was done
  std::optional<CError> m_Failure{};
};

/// Looks at the machine as it is after the change, at least once, until the question is answered with true or
/// the time is over; false then. May throw CError.
using Await =
    std::function<bool(const std::function<bool(const CInventory&)>& question, std::chrono::seconds limit)>;

/// @param request by kernel names
/// @param before the look that the change was executed on
/// @param failure of the execution
SOutcome OutcomeOf(const SRequest& request, const SLook& before, const std::optional<CError>& failure,
                   const Await& await);

/// What a disk is now to an array of EntryJson: "sdc is a hot spare of md_d0".
std::string RoleText(const Json& array, const std::string& disk);

/// Words and data of a change whose end could not be seen: "Created md_d0; ended by Interrupt".
SOutcome DoneBut(const std::string& done, const Json& data, const CError& error);

}  // namespace Host
