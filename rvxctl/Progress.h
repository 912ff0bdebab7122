#pragma once
/// @file
/// Following what runs.

#include <string>

#include "rvxctl/Context.h"

namespace Host {

/// A run's line on a terminal of `columns` columns, 0 for no limit: one that is longer would be left behind,
/// a copy at each look. The bar shrinks first; then the time that is left goes, then the bar itself.
std::string BarLine(const std::string& what, int percent, const std::string& left, std::size_t columns);

/// Whether a run is shown as it goes on.
enum class EProgress { SHOWN, HIDDEN };

/// Follows the rebuild or resync of an array, which any address names, to its end: a bar on a terminal, a
/// line per 5 % elsewhere. EXIT_DONE when the work completed or none was running, EXIT_PLUGIN_ERROR when it
/// was aborted; throws CError when the array went away.
int FollowRun(CContext& context, const std::string& array, EProgress progress);

}  // namespace Host
