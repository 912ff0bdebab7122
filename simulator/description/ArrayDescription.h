#pragma once
/// @file
/// Arrays and their members in a description.

#include "simulator/description/Json.h"

namespace Simulation {

const TKeys<SArray>& ArrayKeys();
void AddArrayFrom(SMachine& machine, const TJson& json);

}  // namespace Simulation
