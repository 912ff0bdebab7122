#pragma once
/// @file
/// What is wrong with a machine that a person described.

#include <stdexcept>

namespace Simulation {

/// A machine description, or a change, that cannot be used; what() names the line or the place and says what
/// is wrong.
class CMachineError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace Simulation
