#include <functional>
#include <memory>

#include "simulator/SimulatedSystem.h"
#include "simulator/SimulatorApi.h"
#include "simulator/description/DescriptionFile.h"
#include "system/TheSystem.h"

using namespace Simulation;

namespace {

std::unique_ptr<CSimulatedSystem> s_Machine;
bool s_InUse = false;

void Load(const std::string& description) {
  if (s_InUse) throw CMachineError("the machine is in use already");
  s_Machine = std::make_unique<CSimulatedSystem>(description, CSimulatedSystem::EClock::Real);
}

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

OS::COperatingSystem& OS::TheSystem() {
  if (s_Machine == nullptr) Load(CSimulatedSystem::DemoDescription());
  s_InUse = true;
  return *s_Machine;
}

const char* rvxLoadMachine(const char* file) {
  return Answer([file] {
    if (file == nullptr) return Load(CSimulatedSystem::DemoDescription());
    const std::string description = ReadDescription(file);
    try {
      Load(description);
    } catch (const CMachineError& error) {
      throw CMachineError(std::string(file) + ": " + error.what());
    }
  });
}

const char* rvxSaveMachine(const char* file) {
  return Answer([file] {
    if (s_Machine == nullptr) throw CMachineError("no machine is loaded");
    ReplaceDescription(file, s_Machine->Describe());
  });
}
