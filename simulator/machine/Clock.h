#pragma once
/// @file
/// The passing of time on a machine.

#include "simulator/machine/MachineState.h"

namespace Simulation {

/// Machine time at which something happens by itself next; EVERYTHING: never.
std::uint64_t NextHappening(const SMachine& machine);
/// Moves the machine's time, and makes everything happen that falls into it. A scripted change that is not
/// possible any more (the disk it removes is gone) is left out, unless `strict`: then it throws
/// CMachineError.
void AdvanceTo(SMachine& machine, std::uint64_t time, bool strict = false);

}  // namespace Simulation
