#include <fcntl.h>
#include <gmock/gmock.h>

#include "simulator/SimulatedSystem.h"
#include "simulator/description/DescriptionFile.h"
#include "system/Descriptor.h"
#include "tests/support/TemporaryFolder.h"

namespace {

/// Two disks on one controller, and what a test adds to the second of them and to the machine.
std::string Machine(const std::string& disk, const std::string& more = "") {
  return R"({"controllers": [{"name": "sata", "pci": "0000:00:1f.2", "driver": "ahci"}], "disks": [
    {"name": "sda", "controller": "sata", "size": 65536}, {"name": "sdb", "controller": "sata", "size": 65536)" +
         disk + "}]" + more + "}";
}

std::string Array(const std::string& keys) { return Machine("", ", \"arrays\": [{" + keys + "}]"); }
std::string Script(const std::string& entries) { return Machine("", ", \"script\": [" + entries + "]"); }

/// A call that ends with the error whose message has this text.
auto Complains(const char* text) {
  return testing::ThrowsMessage<Simulation::CMachineError>(testing::HasSubstr(text));
}

TEST(MachineDescription, ComplaintsNameThePlace) {
  const std::pair<std::string, const char*> cases[] = {
      {"{\n\"disks\": [\n1,\n}", "line 4, column 1"},
      {Script("{\"at\": 1, \"mount\":\n" + std::string(100000, '[')), "line 3: more than 64"},
      {R"({"disk": []})", "(/disk) this key is unknown"},
      {R"({"process": 4})", "(/process) type must be string"},
      {R"({"mdp_major": 4096})", "(/mdp_major) is no whole number from 10 to 4095"},
      {Machine(R"(, "partitions": [{"size": 65536}])"), "(/disks/1/partitions/0) ends behind the device"},
      {Machine(R"(, "device": "8:0")"), "(/disks/1) the number of sdb is that of sda"},
      {Machine(R"(, "instance": 1)"), "(/disks/1) the instance of sdb is another device's"},
      {Machine(R"(, "wwn": "0x5000C500A1B2C3D4")"), "(/disks/1/wwn) is not 0x and"},
      {Array(R"("name": "md0", "level": "raid1")"),
       "(/arrays/0) an array that runs needs \"members\" or \"raid_disks\""},
      {Array(R"("name": "md0", "level": "raid1", "members": ["sda", "sda"])"),
       "(/arrays/0/members/1) sda is in use"},
      {Array(R"("name": "md0", "level": "raid1", "members": [null], "mount": "/mnt")"),
       "(/arrays/0/mount) the array has no size"},
      {Script(R"({"at": 2, "remove_disk": "sdz"})"), "script, at 2: (/remove_disk) there is no disk \"sdz\""},
      {Script(R"({"at": 2, "hold_disk": "sdb", "remove_disk": "sdb"})"), "one entry makes one change"},
  };
  for (const auto& [description, complaint] : cases)
    EXPECT_THAT([text = description] { Simulation::CSimulatedSystem machine(text); }, Complains(complaint));
}

TEST(MachineDescription, AnEqualMachineComesBack) {
  const std::string everyKey =
      Simulation::ReadDescription(RVX_SOURCE_DIR "/tests/fuzz/corpus/Machine/every_key.json");
  // A member may be left without room for data.
  const std::string noRoom = Array(R"("name": "md0", "level": "linear",
      "members": ["sda", {"disk": "sdb", "number": 1, "slot": 1, "sectors": 0}])");
  for (const std::string& description : {Simulation::CSimulatedSystem::DemoDescription(), everyKey, noRoom}) {
    Simulation::CSimulatedSystem first(description);
    first.Apply(R"({"remove_disk": "sdb"})");  // what is scripted for it is impossible from now on
    first.Advance(3);
    Simulation::CSimulatedSystem second(first.Describe());
    for (const char* file : {"/proc/mdstat", "/proc/partitions"})
      EXPECT_EQ(*OS::ReadText(first, file), *OS::ReadText(second, file));
    first.Advance(1000000);
    second.Advance(1000000);
    EXPECT_EQ(first.Describe(), second.Describe()) << "and goes on as the first one does";
  }
}

TEST(MachineDescription, ADiskIsToldFromALaterOneOfItsName) {
  const std::string second =
      R"({"name": "sdb", "controller": "sata", "size": 65536, "serial": "S 2", "wwn": "0x5000c500a1b2c3d4"})";
  Simulation::CSimulatedSystem machine(Machine(""));
  const auto record = [](OS::COperatingSystem& os) {
    std::vector<std::string> lines;
    os.ExecuteCommand("/usr/bin/udevadm", "info -q all -n /dev/sdb", lines);
    return lines;
  };
  EXPECT_THAT(record(machine), testing::IsSupersetOf({"E: DISKSEQ=2", "S: disk/by-id/ata-DISK_RVX00002"}));
  machine.Apply(R"({"remove_disk": "sdb"})");
  machine.Apply(R"({"add_disk": )" + second + "}");
  EXPECT_THAT(record(machine),
              testing::IsSupersetOf({"E: DISKSEQ=3", "E: ID_SERIAL_SHORT=S_2", "E: ID_WWN=0x5000c500a1b2c3d4",
                                     "S: disk/by-id/wwn-0x5000c500a1b2c3d4"}));
  machine.Apply(R"({"remove_disk": "sda"})");
  Simulation::CSimulatedSystem saved(machine.Describe());
  EXPECT_EQ(record(saved), record(machine));
}

TEST(MachineDescription, IsReadFromRegularFilesOnly) {
  const CTemporaryFolder folder;
  ASSERT_EQ(::mkfifo(folder.Path("pipe").c_str(), 0600), 0);
  ASSERT_EQ(::truncate(folder.Write("large", "").c_str(), 64L * 1024 * 1024 + 1), 0);
  for (const auto& [file, complaint] : {std::pair{folder.Path("pipe"), "pipe: is no regular file"},
                                        {folder.Path(), ": is no regular file"},
                                        {folder.Path("large"), "large: is larger than 64 MiB"},
                                        {folder.Path("none"), "none: No such file or directory"}})
    EXPECT_THAT([name = file] { Simulation::ReadDescription(name); }, Complains(complaint));
}

TEST(MachineDescription, IsSavedForItsOwnerAloneAndBehindLinks) {
  const CTemporaryFolder folder;
  Simulation::ReplaceDescription(folder.Path("real"), "old");
  EXPECT_EQ(std::filesystem::status(folder.Path("real")).permissions(), std::filesystem::perms{0600});
  std::filesystem::create_symlink("real", folder.Path("link"));
  Simulation::ReplaceDescription(folder.Path("link"), "new");
  EXPECT_EQ(folder.Read("real"), "new");
}

}  // namespace
