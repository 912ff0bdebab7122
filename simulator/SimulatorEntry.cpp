#include <functional>

#include "simulator/LoadedMachine.h"
#include "simulator/SimulatorApi.h"
#include "simulator/description/DescriptionFile.h"

namespace Simulation {
namespace {

/// Runs a call of the C interface; the message is kept for the caller.
const char* Answer(const std::function<void()>& call) {
  static std::string message;
  try {
    call();
    return nullptr;
  } catch (const std::exception& error) {
    message = error.what();
    return message.c_str();
  }
}

}  // namespace
}  // namespace Simulation

using namespace Simulation;

const char* rvxLoadMachine(const char* file) {
  return Answer([file] {
    if (file == nullptr) return LoadMachine(CSimulatedSystem::DemoDescription());
    const std::string description = ReadDescription(file);
    try {
      LoadMachine(description);
    } catch (const CMachineError& error) {
      throw CMachineError(std::string(file) + ": " + error.what());
    }
  });
}

const char* rvxSaveMachine(const char* file) {
  return Answer([file] {
    if (LoadedMachine() == nullptr) throw CMachineError("no machine is loaded");
    ReplaceDescription(file, LoadedMachine()->Describe());
  });
}
