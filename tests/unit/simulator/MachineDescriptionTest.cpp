#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/major.h>
#include <linux/raid/md_u.h>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>

#include "simulator/SimulatedMachine.h"
#include "system/Descriptor.h"

namespace NAMESPACE_piRVX {
namespace {

using testing::HasSubstr;

/// Two disks on one controller, and what a test adds to the machine.
std::string Machine(const std::string& more = "") {
  return R"({"controllers": [{"name": "sata", "pci": "0000:00:1f.2", "driver": "ahci"}],
"disks": [{"name": "sda", "controller": "sata", "size": 65536}, {"name": "sdb", "controller": "sata", "size": 65536}])" +
         more + "}";
}

std::string WhatIsWrong(const std::string& description) {
  try {
    const CSimulatedMachine machine(description);
  } catch (const CMachineError& error) {
    return error.what();
  }
  return "(nothing)";
}

std::string Disk(const std::string& more) {
  return R"({"controllers": [{"name": "sata", "pci": "0000:00:1f.2", "driver": "ahci"}], "disks": [{"name": "sda", "controller": "sata", "size": 65536)" +
         more + "}]}";
}

std::string Array(const std::string& keys) { return Machine(", \"arrays\": [{" + keys + "}]"); }

TEST(MachineDescription, ComplaintsNameThePlace) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"", "line 1, "},
      {"{\n\"disks\": [\n1,\n}", "line 4, column 1"},
      {"{\"disks\": []} {}", "line 1, column 15"},
      {"[]", "the description: is not an object"},
      {R"({"disk": []})", "disk: this key is unknown"},
      {R"({"disks": {}})", "disks: is not a list"},
      {R"({"clock": "now"})", "clock: is not a whole number"},
      {R"({"clock": -1})", "clock: is not from 0 to"},
      {R"({"clock": 1.5})", "clock: is not a whole number"},
      {R"({"mdp_major": 4096})", "mdp_major: is not from 10 to 4095"},
      {R"({"sdparm": 1})", "sdparm: is not true or false"},
      {R"({"controllers": [{}]})", "controllers[0]: the key \"name\" is missing"},
      {R"({"controllers": [{"name": "a", "driver": "ahci", "pci": "1f.2"}]})",
       "controllers[0].pci: is no PCI address"},
      {R"({"controllers": [{"name": "", "driver": "ahci", "pci": "0000:00:1f.2"}]})",
       "controllers[0].name: is empty"},
      {R"({"controllers": [{"name": "a", "driver": "x", "pci": "0000:00:1f.2"}, {"name": "b", "driver": "x", "pci": "0000:00:1f.2"}]})",
       "controllers[1].pci: is taken by a"},
      {R"({"disks": [{"name": "sda", "controller": "sas", "size": 1}]})",
       "disks[0].controller: there is no controller \"sas\""},
      {Disk(R"(, "sise": 1)"), "disks[0].sise: this key is unknown"},
      {Disk(R"(, "medium": "tape")"), "disks[0].medium: is neither"},
      {Disk(R"(, "state": "tired")"), "disks[0].state: is no state"},
      {Disk(R"(, "device": "8:x")"), "disks[0].device: is no device number"},
      {Disk(R"(, "partitions": [{"size": 65536}])"), "disks[0].partitions[0]: ends behind the device"},
      {Disk(R"(, "partitions": [{"size": 1}, {"size": 1, "number": 16}])"),
       "disks[0].partitions[1].number: is not from"},
      {Disk(R"(, "smart": {"block": "AAAA"})"), "disks[0].smart.block: does not hold 512 bytes"},
      {Disk(R"(, "smart": {"attributes": [{"id": 0}]})"),
       "disks[0].smart.attributes[0].id: is not from 1 to 255"},
      {Disk(R"(, "data": [{"at": 0, "bytes": "AAA"}])"), "disks[0].data[0].bytes: is not base64"},
      {Disk(R"(, "data": [{"at": 0, "bytes": "A*AA"}])"), "disks[0].data[0].bytes: is not base64"},
      {Disk(R"(, "data": [{"at": 67108863, "bytes": "AAAA"}])"), "disks[0].data[0]: ends behind the disk"},
      {R"({"controllers": [{"name": "a", "driver": "x", "pci": "0000:00:1f.2"}], "disks": [{"name": "nvme0n1", "controller": "a", "size": 1}]})",
       "disks[0].name: has no usual number"},
      {Array(R"("name": "raid")"), "arrays[0].name: is neither \"md0\""},
      {Array(R"("name": "md01")"), "arrays[0].name: is neither \"md0\""},
      {Array(R"("name": "md0")"), "arrays[0]: the key \"level\" is missing"},
      {Array(R"("name": "md0", "level": "raid7")"), "arrays[0].level: is none of"},
      {Array(R"("name": "md0", "level": "raid1", "metadata": "2.0")"), "arrays[0].metadata: is none of"},
      {Array(R"("name": "md0", "level": "raid1", "members": ["sda", "sdx"])"),
       "arrays[0].members[1]: there is no disk or partition \"sdx\""},
      {Array(R"("name": "md0", "level": "raid1", "members": ["sda", "sda"])"),
       "arrays[0].members[1]: sda is in use"},
      {Array(R"("name": "md0", "level": "raid0", "members": ["sda"], "resync": {})"),
       "arrays[0].resync: a level without"},
      {Array(R"("name": "md0", "level": "raid1", "members": ["sda", "sdb"], "recovery": {})"),
       "arrays[0].recovery: no member has the state"},
      {Machine(R"(, "script": [{"remove_disk": "sda"}])"), "script[0]: the key \"at\" is missing"},
      {Machine(R"(, "script": [{"at": 2, "remove_disk": "sda"}, {"at": 1, "remove_disk": "sdb"}])"),
       "script[1].at: lies before the entry above"},
      {Machine(R"(, "script": [{"at": 2, "remove_disk": "sdz"}])"),
       "script, at 2.remove_disk: there is no disk \"sdz\""},
      {Machine(R"(, "script": [{"at": 2, "explode": true}])"), "explode: this change is unknown"},
      {Machine(R"(, "script": [{"at": 2}])"), "script, at 2: no change is given"},
  };
  for (const auto& [description, complaint] : cases)
    EXPECT_THAT(WhatIsWrong(description), HasSubstr(complaint)) << description;
}

TEST(MachineDescription, DisksHaveTheKernelsNumbers) {
  std::string disks;
  const std::vector<std::pair<const char*, const char*>> cases = {
      {"sda", "   8        0"},  {"sdp", "   8      240"},  {"sdq", "  65        0"},
      {"sdaa", "  65      160"}, {"sddy", " 128        0"}, {"sdiv", " 135      240"},
      {"hda", "   3        0"},  {"hdd", "  22       64"},  {"vdb", " 254       16"}};
  for (const auto& [name, number] : cases) {
    disks +=
        std::string(disks.empty() ? "" : ",") + R"({"controller": "c", "size": 77, "name": ")" + name + "\"}";
  }
  CSimulatedMachine machine(
      R"({"controllers": [{"name": "c", "pci": "0000:00:1f.2", "driver": "ahci"}], "disks": [)" + disks +
      "]}");
  const std::string text = *ReadText(machine, "/proc/partitions");
  for (const auto& [name, number] : cases) {
    EXPECT_THAT(text, HasSubstr(std::string("\n") + number + "         77 " + name + "\n"));
  }
}

TEST(MachineDescription, ControllersDecideWhereDisksHang) {
  const std::vector<std::tuple<const char*, const char*, const char*>> cases = {
      {"ahci", "0000:00:1f.2",
       "P: /devices/pci0000:00/0000:00:1f.2/ata1/host0/target0:0:0/0:0:0:0/block/sda"},
      {"ata_piix", "0000:00:01.1",
       "P: /devices/pci0000:00/0000:00:01.1/ata1/host0/target0:0:0/0:0:0:0/block/sda"},
      {"mptsas", "0000:00:04.0",
       "P: /devices/pci0000:00/0000:00:04.0/host0/port-0:0/end_device-0:0/target0:0:0/0:0:0:0/block/sda"},
      {"mpt3sas", "0000:03:00.0",
       "P: "
       "/devices/pci0000:00/0000:00:1c.0/0000:03:00.0/host0/port-0:0/end_device-0:0/target0:0:0/0:0:0:0/"
       "block/sda"},
      {"virtio-pci", "0000:00:05.0",
       "P: /devices/pci0000:00/0000:00:05.0/virtio0/host0/target0:0:0/0:0:0:0/block/sda"},
      {"megaraid_sas", "0000:00:06.0",
       "P: /devices/pci0000:00/0000:00:06.0/host0/target0:0:0/0:0:0:0/block/sda"}};
  for (const auto& [driver, address, path] : cases) {
    CSimulatedMachine machine(std::string(R"({"controllers": [{"name": "c", "pci": ")") + address +
                              R"(", "driver": ")" + driver +
                              R"("}], "disks": [{"name": "sda", "controller": "c", "size": 64}]})");
    std::vector<std::string> lines;
    ASSERT_EQ(machine.ExecuteCommand("/usr/bin/udevadm", "info -q all -n /dev/sda", lines), 1);
    EXPECT_EQ(lines.at(0), path);
  }
}

TEST(MachineDescription, AChannelOfTwoAndAHostOfMany) {
  CSimulatedMachine machine(R"({"controllers": [{"name": "ide", "pci": "0000:00:01.1", "driver": "ata_piix"},
                                                {"name": "sas", "pci": "0000:00:04.0", "driver": "mptsas"}],
    "disks": [{"name": "sda", "controller": "ide", "size": 64}, {"name": "sdb", "controller": "ide", "size": 64},
              {"name": "sdc", "controller": "ide", "size": 64}, {"name": "sdd", "controller": "sas", "size": 64},
              {"name": "sde", "controller": "sas", "size": 64}]})");
  std::string addresses;
  for (const char* name : {"sda", "sdb", "sdc", "sdd", "sde"}) {
    addresses += *machine.ReadLink(std::string("/sys/block/") + name + "/device") + " ";
  }
  EXPECT_EQ(addresses,
            "../../../0:0:0:0 ../../../0:0:1:0 ../../../1:0:0:0 ../../../2:0:0:0 ../../../2:0:1:0 ");
}

TEST(MachineDescription, AnEqualMachineComesBack) {
  const std::vector<std::string> cases = {
      CSimulatedMachine::DemoDescription(),
      Array(R"("name": "md0", "level": "raid1", "members": ["sda", null], "spares": ["sdb"], "speed": 0)"),
      Array(R"("name": "md_d2", "level": "raid0", "members": ["sda", "sdb"], "mount": "/data",
               "partitions": [{"size": 1000}, {"size": 2000, "mount": "/home"}])"),
      Array(
          R"("name": "md5", "level": "raid1", "metadata": "0.90", "clean": false, "members": ["sda"], "faulty": ["sdb"])"),
      Array(R"("name": "md_d1", "running": false, "members": ["sda"])"),
      Machine(R"(, "nodes": [{"path": "/dev/md_d3", "device": "253:192"}],
                   "script": [{"at": 100, "disk_state": {"sda": "offline"}}, {"at": 900, "remove_disk": "sdb"}])")};
  for (const std::string& description : cases) {
    CSimulatedMachine first(description);
    first.Advance(700);
    const std::string saved = first.Describe();
    CSimulatedMachine second(saved);
    EXPECT_EQ(second.Describe(), saved);
    for (const char* file : {"/proc/partitions", "/proc/mdstat"})
      EXPECT_EQ(ReadText(first, file), ReadText(second, file));
    EXPECT_EQ(first.Now(), second.Now());
    first.Advance(1000000);
    second.Advance(1000000);
    EXPECT_EQ(first.Describe(), second.Describe()) << "and goes on as the first one does";
  }
}

TEST(MachineDescription, WrittenBytesAreKept) {
  CSimulatedMachine first(Machine());
  const std::string text = "over the edge of two blocks";
  {
    const CDescriptor disk(first, "/dev/sda", O_RDWR);
    first.Seek(disk.Get(), 67108864 - 100);
    first.Write(disk.Get(), text.data(), text.size());
    first.Seek(disk.Get(), 4090);
    first.Write(disk.Get(), text.data(), text.size());
  }
  CSimulatedMachine second(first.Describe());
  EXPECT_EQ(second.DiskBytes("sda", 4090, text.size()), text);
  EXPECT_EQ(second.DiskBytes("sda", 67108864 - 100, text.size()), text);
  EXPECT_EQ(second.DiskBytes("sdb", 4090, text.size()), std::string(text.size(), '\0'));
  EXPECT_THROW(second.DiskBytes("sdz", 0, 1), CMachineError);
}

TEST(MachineDescription, DescribedArraysCarrySuperblocksThatMdTakes) {
  CSimulatedMachine machine(Array(R"("name": "md_d1", "level": "raid1", "members": ["sda", "sdb"])"));
  machine.Apply(R"({"stop_array": "md_d1"})");
  ASSERT_EQ(machine.MakeNode("/dev/md_d9", S_IFBLK | 0666, makedev(253, 9 * 64)), 0);
  const CDescriptor array(machine, "/dev/md_d9", O_RDONLY);
  ASSERT_TRUE(array.IsOpen());
  mdu_array_info_t info{};
  info.major_version = 1;
  ASSERT_EQ(machine.Ioctl(array.Get(), SET_ARRAY_INFO, &info), 0);
  for (const int minorNumber : {0, 16}) {
    mdu_disk_info_t disk{};
    disk.major = 8;
    disk.minor = minorNumber;
    ASSERT_EQ(machine.Ioctl(array.Get(), ADD_NEW_DISK, &disk), 0) << minorNumber;
  }
  ASSERT_EQ(machine.Ioctl(array.Get(), RUN_ARRAY, nullptr), 0);
  EXPECT_THAT(*ReadText(machine, "/proc/mdstat"), HasSubstr("md_d9 : active raid1 sdb[1] sda[0]\n"));
}

}  // namespace
}  // namespace NAMESPACE_piRVX
