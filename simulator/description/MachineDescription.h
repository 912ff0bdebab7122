#pragma once
/// @file
/// Machines as JSON text. simulator/README.md tells what a description may say.

#include "simulator/machine/MachineState.h"

namespace Simulation {

/// Throws CMachineError that names the line or the value.
SMachine ReadMachine(const std::string& text);
/// The present state in the form that ReadMachine takes.
std::string WriteMachine(const SMachine& machine);

}  // namespace Simulation
