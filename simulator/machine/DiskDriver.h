#pragma once
/// @file
/// The requests that disks answer.

#include "simulator/machine/MachineState.h"

namespace Simulation {

/// 0 or the error; `argument` as ioctl() takes it.
int DiskIoctl(const SMachine& machine, const SDisk& disk, unsigned long request, void* argument);

}  // namespace Simulation
