#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "simulator/SimulatedMachine.h"
#include "system/Descriptor.h"

namespace NAMESPACE_piRVX {
namespace {

using testing::HasSubstr;

/// Two disks on one controller, and what a test adds to the second of them and to the machine.
std::string Machine(const std::string& disk, const std::string& more = "") {
  return R"({"controllers": [{"name": "sata", "pci": "0000:00:1f.2", "driver": "ahci"}], "disks": [
    {"name": "sda", "controller": "sata", "size": 65536}, {"name": "sdb", "controller": "sata", "size": 65536)" +
         disk + "}]" + more + "}";
}

std::string Array(const std::string& keys) { return Machine("", ", \"arrays\": [{" + keys + "}]"); }

std::string WhatIsWrong(const std::string& description) {
  try {
    const CSimulatedMachine machine(description);
  } catch (const CMachineError& error) {
    return error.what();
  }
  return "(none)";
}

TEST(MachineDescription, ComplaintsNameThePlace) {
  const std::pair<std::string, const char*> cases[] = {
      {"{\n\"disks\": [\n1,\n}", "line 4, column 1"},
      {"[]", "the description: is not an object"},
      {R"({"disk": []})", "disk: this key is unknown"},
      {R"({"disks": {}})", "disks: is not a list"},
      {R"({"clock": 1.5})", "clock: is not a whole number"},
      {R"({"mdp_major": 4096})", "mdp_major: is not from 10 to 4095"},
      {R"({"controllers": [{}]})", "controllers[0]: the key \"name\" is missing"},
      {Machine(R"(, "partitions": [{"size": 65536}])"), "disks[1].partitions[0]: ends behind the device"},
      {Machine(R"(, "data": [{"at": 0, "bytes": "A*AA"}])"), "disks[1].data[0].bytes: is not base64"},
      {Array(R"("name": "md01")"), "arrays[0].name: is neither \"md0\""},
      {Array(R"("name": "md0", "level": "raid1", "members": ["sda", "sda"])"),
       "arrays[0].members[1]: sda is in use"},
      {Machine("", R"(, "script": [{"at": 2, "remove_disk": "sdz"}])"),
       "script, at 2.remove_disk: there is no disk \"sdz\""},
      {Machine("", R"(, "script": [{"at": 2, "hold_disk": "sdb", "remove_disk": "sdb"}])"),
       "one entry makes one change"},
  };
  for (const auto& [description, complaint] : cases)
    EXPECT_THAT(WhatIsWrong(description), HasSubstr(complaint)) << description;
}

TEST(MachineDescription, DisksHaveTheKernelsNumbersAndPlaces) {
  CSimulatedMachine machine(R"({"controllers": [{"name": "ide", "pci": "0000:00:01.1", "driver": "ata_piix"},
                                                {"name": "sas", "pci": "0000:03:00.0", "driver": "mpt3sas"}],
    "disks": [{"name": "sda", "controller": "ide", "size": 64}, {"name": "sdp", "controller": "ide", "size": 64},
              {"name": "sdq", "controller": "ide", "size": 64}, {"name": "hdd", "controller": "sas", "size": 64},
              {"name": "sdiv", "controller": "sas", "size": 64}]})");
  // A channel of the one controller takes two disks, a host of the other one many.
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"sda", "   8        0", "0000:00:01.1/ata1/host0/target0:0:0/0:0:0:0"},
      {"sdp", "   8      240", "0000:00:01.1/ata1/host0/target0:0:1/0:0:1:0"},
      {"sdq", "  65        0", "0000:00:01.1/ata2/host1/target1:0:0/1:0:0:0"},
      {"hdd", "  22       64", "0000:00:1c.0/0000:03:00.0/host2/port-2:0/end_device-2:0/target2:0:0/2:0:0:0"},
      {"sdiv", " 135      240",
       "0000:00:1c.0/0000:03:00.0/host2/port-2:1/end_device-2:1/target2:0:1/2:0:1:0"}};
  const std::string partitions = *ReadText(machine, "/proc/partitions");
  for (const auto& [name, number, place] : cases) {
    EXPECT_THAT(partitions, HasSubstr(std::string("\n") + number + "         64 " + name + "\n"));
    std::vector<std::string> lines;
    machine.ExecuteCommand("/usr/bin/udevadm", std::string("info -q all -n /dev/") + name, lines);
    EXPECT_EQ(lines.at(0), std::string("P: /devices/pci0000:00/") + place + "/block/" + name);
  }
}

TEST(MachineDescription, AnEqualMachineComesBack) {
  const std::string cases[] = {
      CSimulatedMachine::DemoDescription(),
      Array(R"("name": "md0", "level": "raid1", "members": ["sda", null], "spares": ["sdb"], "speed": 0)"),
      Array(R"("name": "md_d2", "level": "raid0", "members": ["sda", "sdb"], "mount": "/data",
               "partitions": [{"size": 1000}, {"size": 2000, "mount": "/home"}])"),
      Array(R"("name": "md5", "level": "raid1", "metadata": "0.90", "clean": false, "members": ["sda"],
               "faulty": ["sdb"])"),
      Machine("", R"(, "nodes": [{"path": "/dev/md_d3", "device": "253:192"}],
                      "script": [{"at": 100, "disk_state": {"sda": "offline"}}, {"at": 900, "remove_disk": "sdb"}])")};
  for (const std::string& description : cases) {
    CSimulatedMachine first(description);
    if (const CDescriptor disk(first, "/dev/sdb", O_WRONLY); disk.IsOpen()) {
      first.Seek(disk.Get(), 4090);
      first.Write(disk.Get(), "over the edge of two blocks", 27);
    }
    first.Advance(700);
    CSimulatedMachine second(first.Describe());
    EXPECT_EQ(second.DiskBytes("sdb", 4090, 27), first.DiskBytes("sdb", 4090, 27));
    for (const char* file : {"/proc/partitions", "/proc/mdstat"})
      EXPECT_EQ(ReadText(first, file), ReadText(second, file));
    EXPECT_EQ(first.Now(), second.Now());
    first.Advance(1000000);
    second.Advance(1000000);
    EXPECT_EQ(first.Describe(), second.Describe()) << "and goes on as the first one does";
  }
}

}  // namespace
}  // namespace NAMESPACE_piRVX
