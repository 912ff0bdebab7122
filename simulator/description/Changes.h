#pragma once
/// @file
/// What people do to a machine while it runs: disks that fail or are pulled, members that are taken out.

#include "simulator/machine/MachineState.h"

namespace Simulation {

/// Makes one change: an object with one key, and "at" where it stands in a script. Throws CMachineError, and
/// the machine may be half changed then.
void ApplyChange(SMachine& machine, const std::string& change);

}  // namespace Simulation
