#include "simulator/SimulatedMachine.h"
#include "tests/support/Contract.h"

namespace NAMESPACE_piRVX {

SContractMachine MakeContractMachine() {
  constexpr const char* MACHINE = R"({
    "sync_speed": 30000,
    "controllers": [{"name": "sata", "pci": "0000:00:1f.2", "driver": "ahci"}],
    "disks": [
      {"name": "sda", "controller": "sata", "size": 10240, "smart": {"attributes": [{"id": 9, "raw": 77}]}},
      {"name": "sdb", "controller": "sata", "size": 10240},
      {"name": "sdc", "controller": "sata", "size": 12288}]})";
  return {std::make_unique<CSimulatedMachine>(MACHINE, CSimulatedMachine::EClock::Real),
          {"sda", "sdb", "sdc"}};
}

}  // namespace NAMESPACE_piRVX
