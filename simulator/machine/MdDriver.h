#pragma once
/// @file
/// The requests that the md driver of a simulated machine answers.

#include "simulator/machine/MachineState.h"

namespace Simulation {

/// Carries out a request on an array's device; 0, the error, or minus an answer above 0: a concatenation that
/// does not start answers 1. `argument` as ioctl() takes it.
int MdIoctl(SMachine& machine, SArray& array, unsigned long request, void* argument);
/// Opening a number of one of md's majors makes the array's device when it is new. Other numbers are left
/// alone.
void OpenMdDevice(SMachine& machine, dev_t device);
/// Drops the devices that are empty and that nobody has open.
void DropEmptyArrays(SMachine& machine);

/// What the requests of these names do; 0 or the error.
int RunArray(SMachine& machine, SArray& array);
int StopArray(SMachine& machine, SArray& array, std::size_t openersAllowed);
int RemoveDisk(SMachine& machine, SArray& array, dev_t device);

}  // namespace Simulation
