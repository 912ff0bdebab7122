#include <cstring>

#include "simulator/SimulatedSystem.h"
#include "tests/contract/Contract.h"

namespace NAMESPACE_piRVX {

SContractMachine MakeContractMachine() {
  constexpr const char* MACHINE = R"({
    "sync_speed": 30000,
    "controllers": [{"name": "sata", "pci": "0000:00:1f.2", "driver": "ahci"}],
    "disks": [
      {"name": "sda", "controller": "sata", "size": 10240, "smart": {"attributes": [{"id": 9, "raw": 77}]}},
      {"name": "sdb", "controller": "sata", "size": 10240},
      {"name": "sdc", "controller": "sata", "size": 12288}]})";
  return {std::make_unique<Simulation::CSimulatedSystem>(MACHINE, Simulation::CSimulatedSystem::EClock::Real),
          {"sda", "sdb", "sdc"}};
}

/// Linux is not asked: what it does with some of them costs it a lot of memory.
TEST_F(CContract, SuperblocksThatMakeNoArrayAreRefused) {
  const char* const half = "inactive 1[1](S) 0[0](S)";
  // What of the second record is what, the answers to adding and running it, and what md shows.
  const std::tuple<std::size_t, std::uint32_t, int, int, const char*> cases[] = {
      {92, 0, 0, EINVAL, half},                            // disks
      {92, 1921, 0, EINVAL, half},                         //
      {72, 77, EINVAL, 0, "active raid1 0[0]"},            // level
      {80, 30000, 0, EINVAL, "inactive 1[1] 0[0]"},        // size, larger than the disk
      {84, 0xffffffff, 0, EINVAL, "inactive 1[1] 0[0]"},   // and below zero, as mirrors above 1 TiB get it
      {258, 0xffff0000, 0, EINVAL, "inactive 1[1] 0[0]"},  // slot 0 a second time
      {220, 0, 0, 0, "active raid1 1[1] 0[0]"},            // room for no roles
      {160, 1920, EBUSY, 0, "active raid1 0[0]"}};         // the member's number
  for (const auto& [offset, value, adding, running, line] : cases) {
    SCOPED_TRACE(std::to_string(offset) + ": " + std::to_string(value));
    OpenArray();
    ASSERT_EQ(SetArrayInfo(), 0);
    WriteSuper(0, Superblock(0, {.m_Size = 2048}));
    ASSERT_EQ(AddDisk(0), 0);
    Md::md_superblock1 record = Changed(1, {.m_Size = 2048, .m_Events = 2}, offset, value);
    if (offset == 220) std::memset(record.dev_roles, 0, sizeof(record.dev_roles));
    WriteSuper(1, record);
    EXPECT_EQ(AddDisk(1), adding);
    EXPECT_EQ(Request(RUN_ARRAY), running);
    EXPECT_EQ(MdStat().substr(0, MdStat().find('|')), line);
    EXPECT_NO_THROW(
        Simulation::CSimulatedSystem(dynamic_cast<Simulation::CSimulatedSystem&>(Os()).Describe()));
  }
}

}  // namespace NAMESPACE_piRVX
