#pragma once
/// @file
/// What udev knows of a simulated machine's disks.

#include "simulator/machine/MachineState.h"

namespace Simulation {

/// The lines that "udevadm info -q all" prints of a device, as far as somebody asks for them.
/// @param devicePath where the whole device hangs, from "/devices" on
std::vector<std::string> UdevRecord(const SMachine& machine, const SBlock& block, std::string devicePath);

}  // namespace Simulation
