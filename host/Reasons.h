#pragma once
/// @file
/// Refusals in words: what in the present state is behind one, and what can be done about it.

#include <optional>
#include <string>

#include "host/Topology.h"

namespace Host {

/// What of the objects' state makes the plug-in refuse an operation; empty when the status says it all.
std::string ReasonOf(const CTopology& topology, const PI::CObject& object, unsigned int operation,
                     unsigned int status);

/// The status in words, with the reason in brackets where one is known.
std::string RefusalText(const CTopology& topology, const PI::CObject& object, unsigned int operation,
                        unsigned int status);

/// What a person can do about a refusal by the check, beside what md says now (none: md is not in the
/// kernel); empty when that is not known.
std::string HintForCheck(const std::optional<std::string>& mdstat, unsigned int status);
/// The same about an execution that failed. `level` is md's name of the level that was asked for, or empty.
std::string HintForExecution(const std::optional<std::string>& mdstat, unsigned int operation,
                             unsigned int status, const std::string& level);

}  // namespace Host
