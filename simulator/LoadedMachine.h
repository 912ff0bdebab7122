#pragma once
/// @file
/// The machine of the simulated build.

#include "simulator/SimulatedMachine.h"

namespace NAMESPACE_piRVX {

/// The machine that was loaded; null before.
CSimulatedMachine* LoadedMachine();
/// Loads a machine with a real clock. Throws CMachineError, also when the one before is in use.
void LoadMachine(const std::string& description);

}  // namespace NAMESPACE_piRVX
