#pragma once
/// @file
/// The text of /proc/mdstat.

#include "simulator/machine/MachineState.h"

namespace Simulation {

std::string MdStat(const SMachine& machine);

}  // namespace Simulation
