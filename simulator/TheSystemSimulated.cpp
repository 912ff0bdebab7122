#include "simulator/LoadedMachine.h"
#include "system/TheSystem.h"

namespace Simulation {
namespace {

std::unique_ptr<CSimulatedSystem> s_Machine;
bool s_InUse = false;

}  // namespace

CSimulatedSystem* LoadedMachine() { return s_Machine.get(); }

void LoadMachine(const std::string& description) {
  if (s_InUse) throw CMachineError("the machine is in use already");
  s_Machine = std::make_unique<CSimulatedSystem>(description, CSimulatedSystem::EClock::Real);
}

}  // namespace Simulation

OS::COperatingSystem& OS::TheSystem() {
  using namespace Simulation;
  if (LoadedMachine() == nullptr) LoadMachine(CSimulatedSystem::DemoDescription());
  s_InUse = true;
  return *LoadedMachine();
}
