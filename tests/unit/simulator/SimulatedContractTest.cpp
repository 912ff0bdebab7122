#include "simulator/SimulatedMachine.h"
#include "tests/support/Contract.h"

namespace NAMESPACE_piRVX {
namespace {

constexpr const char* SCRATCH_MACHINE = R"({
  "sync_speed": 30000,
  "controllers": [{"name": "sata", "pci": "0000:00:1f.2", "driver": "ahci"}],
  "disks": [
    {"name": "sda", "controller": "sata", "size": 10240, "smart": {"attributes": [{"id": 9, "raw": 77}]}},
    {"name": "sdb", "controller": "sata", "size": 10240},
    {"name": "sdc", "controller": "sata", "size": 12288}]})";

const SContractMachine SIMULATED = {
    "Machine",
    [] { return std::make_unique<CSimulatedMachine>(SCRATCH_MACHINE, CSimulatedMachine::EClock::Real); },
    {"sda", "sdb", "sdc"}};

}  // namespace

INSTANTIATE_TEST_SUITE_P(Simulated, CContract, testing::Values(SIMULATED),
                         [](const auto& machine) { return machine.param.m_Name; });

}  // namespace NAMESPACE_piRVX
