#include "simulator/LoadedMachine.h"
#include "system/TheMachine.h"

namespace NAMESPACE_piRVX {
namespace {

std::unique_ptr<CSimulatedMachine> s_Machine;
bool s_InUse = false;

}  // namespace

CSimulatedMachine* LoadedMachine() { return s_Machine.get(); }

void LoadMachine(const std::string& description) {
  if (s_InUse) throw CMachineError("the machine is in use already");
  s_Machine = std::make_unique<CSimulatedMachine>(description, CSimulatedMachine::EClock::Real);
}

COperatingSystem& TheMachine() {
  if (!s_Machine) LoadMachine(CSimulatedMachine::DemoDescription());
  s_InUse = true;
  return *s_Machine;
}

}  // namespace NAMESPACE_piRVX
