#pragma once
/// @file
/// The files that md has for each array in sysfs.

#include "simulator/machine/MachineState.h"

namespace Simulation {

/// What stands in /sys/block/ARRAY/md/`name`; none when there is no such file.
std::optional<std::string> MdAttribute(const SMachine& machine, const SArray& array, const std::string& name);

}  // namespace Simulation
