#pragma once
/// @file
/// What arrays can be made of: the levels and stripe sizes that the plug-in offers, as people write them.

#include <string>
#include <vector>

#include "host/Topology.h"

namespace Host {

/// The plug-in's answer about the levels of new arrays, which every topology carries.
std::vector<PI::CLevel> OfferedLevels(const CTopology& topology);

/// How a level or stripe size is written on the command line: "raid1", "64" (KiB); the number of one that has
/// no word.
std::string WordOf(unsigned int choice);

/// The level that is written so. Throws CError(EXIT_USAGE), which lists what is offered.
unsigned int LevelOf(const std::vector<PI::CLevel>& offered, const std::string& word);
/// The stripe size that is written so, of any level's: the plug-in takes each for every level. Throws
/// CError(EXIT_USAGE), which lists what is offered.
unsigned int StripeOf(const std::vector<PI::CLevel>& offered, const std::string& word);

}  // namespace Host
