#pragma once
/// @file
/// Following what runs.

#include <string>

#include "rvxctl/Context.h"

namespace Host {

/// Waits until a pass of the plug-in's worker has moved the plug-in's counter on from `before`; false when
/// none did within 30 s.
bool AwaitPass(CSession& session, unsigned long before);

/// A run's line on a terminal of `columns` columns, 0 for no limit: one that is longer would be left behind,
/// a copy at each look. The bar shrinks first; then the time that is left goes, then the bar itself.
std::string BarLine(const std::string& what, int percent, const std::string& left, std::size_t columns);

/// Whether a run is shown as it goes on.
enum class EProgress { SHOWN, HIDDEN };

/// Follows the rebuild or resync of an array to its end: a bar on a terminal, a line per 5 % elsewhere. The
/// plug-in's threads must run. EXIT_DONE when the work completed or none was running, EXIT_PLUGIN_ERROR when
/// it was aborted; throws CError when the array went away.
int FollowRun(CContext& context, unsigned long arrayID, EProgress progress);

}  // namespace Host
