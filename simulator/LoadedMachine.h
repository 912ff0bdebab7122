#pragma once
/// @file
/// The machine of the simulated build.

#include "simulator/SimulatedSystem.h"

namespace Simulation {

/// The machine that was loaded; null before.
CSimulatedSystem* LoadedMachine();
/// Loads a machine with a real clock. Throws CMachineError, also when the one before is in use.
void LoadMachine(const std::string& description);

}  // namespace Simulation
