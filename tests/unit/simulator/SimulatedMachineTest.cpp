#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/hdreg.h>
#include <linux/major.h>
#include <linux/raid/md_u.h>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "KVT/Threading.h"
#include "simulator/SimulatedMachine.h"
#include "system/Descriptor.h"

namespace NAMESPACE_piRVX {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr const char* MACHINE = R"({
  "sync_speed": 1000, "sdparm": true, "process": "/opt/server/serve",
  "controllers": [{"name": "sata", "pci": "0000:00:1f.2", "driver": "ahci"},
                  {"name": "sas", "pci": "0000:03:00.0", "vendor": "0x1000", "driver": "mpt2sas"}],
  "disks": [
    {"name": "sda", "controller": "sata", "size": 10144},
    {"name": "sdb", "controller": "sata", "size": 10144},
    {"name": "sdc", "controller": "sas", "size": 10144},
    {"name": "sdd", "controller": "sas", "size": 10144, "partitions": [{"size": 4000}, {"size": 4000}]},
    {"name": "sde", "controller": "sata", "size": 10144, "mount": "/data"},
    {"name": "sdf", "controller": "sas", "size": 10144, "asleep": true}],
  "arrays": [{"name": "md0", "level": "raid1", "size": 10000, "members": ["sda", "sdb"], "resync": {}}]})";

class SimulatedMachine : public testing::Test {
 protected:
  std::string MdStat() { return *ReadText(m_Machine, "/proc/mdstat"); }
  int OpenError(const std::string& path, int flags) {
    const CDescriptor file(m_Machine, path, flags);
    return file.IsOpen() ? 0 : errno;
  }
  std::string Refusal(const std::string& change) {
    const std::string before = m_Machine.Describe();
    try {
      m_Machine.Apply(change);
    } catch (const CMachineError& error) {
      EXPECT_EQ(m_Machine.Describe(), before) << "a refused change changes nothing";
      return error.what();
    }
    return "(accepted)";
  }

  CSimulatedMachine m_Machine{MACHINE};
};

TEST_F(SimulatedMachine, ProgressFollowsTheClock) {
  const std::vector<std::pair<std::uint64_t, const char*>> cases = {
      {0, "[>....................]  resync =  0.0% (0/10000) finish=0.1min speed=1000K/sec"},
      {499, "[>....................]  resync =  0.0% (499/10000) finish="},
      {1, "[>....................]  resync =  0.0% (500/10000) finish="},
      {1000, "[==>..................]  resync = 10.0% (1500/10000) finish="},
      {8499, "[===================>.]  resync = 95.0% (9999/10000) finish="}};
  const std::uint64_t start = m_Machine.Now();
  std::uint64_t passed = 0;
  for (const auto& [step, line] : cases) {
    m_Machine.Sleep(step);
    passed += step;
    EXPECT_THAT(MdStat(), HasSubstr(std::string("      ") + line)) << passed;
    EXPECT_EQ(m_Machine.Now(), start + passed) << "sleeping moves the clock";
  }
  m_Machine.Advance(1);
  EXPECT_THAT(MdStat(), HasSubstr("      10000 blocks super 1.0 [2/2] [UU]\n      \nunused"));
}

TEST_F(SimulatedMachine, ArraysOnOneDiskSyncOneAfterTheOther) {
  m_Machine.Apply(
      R"({"add_array": {"name": "md1", "level": "raid1", "members": ["sdd1", "sdc"], "resync": {}}})");
  m_Machine.Apply(
      R"({"add_array": {"name": "md2", "level": "raid1", "members": ["sdd2", null], "speed": 4000}})");
  m_Machine.Apply(R"({"hold_disk": "sdf"})");
  m_Machine.Apply(R"({"release_disk": "sdf"})");
  m_Machine.Apply(R"({"disk_state": {"sdf": "running"}})");
  std::vector<std::string> lines;
  ASSERT_EQ(m_Machine.ExecuteCommand("/opt/server/bin/sdparm", "--command=start /dev/sdf 2>&1", lines), 1);
  m_Machine.Apply(R"({"add_member": {"array": "md2", "disk": "sdf"}})");
  EXPECT_THAT(MdStat(), HasSubstr("md2 : active raid1 sdf[2] sdd2[0]\n"));
  EXPECT_THAT(MdStat(), HasSubstr("[2/1] [U_]\n      \tresync=DELAYED\n      \n"));
  m_Machine.Advance(3864);
  EXPECT_THAT(MdStat(), HasSubstr("recovery =  0.0%"));
  m_Machine.Advance(10000);
  EXPECT_THAT(MdStat(), Not(HasSubstr("[U_]")));
}

TEST_F(SimulatedMachine, AChangeOfSpeedKeepsWhatIsDone) {
  m_Machine.Advance(3000);
  m_Machine.Apply(R"({"sync_speed": {"md0": 0}})");
  m_Machine.Advance(100000);
  EXPECT_THAT(MdStat(), HasSubstr("(3000/10000)"));
  m_Machine.Apply(R"({"sync_speed": {"md0": 7000}})");
  m_Machine.Advance(999);
  EXPECT_THAT(MdStat(), HasSubstr("(9993/10000)"));
}

TEST_F(SimulatedMachine, ChangesShowWhereLinuxShowsThem) {
  m_Machine.Apply(R"({"remove_disk": "sdc"})");
  EXPECT_THAT(*ReadText(m_Machine, "/proc/partitions"), Not(HasSubstr("sdc")));
  EXPECT_EQ(OpenError("/dev/sdc", O_RDONLY), ENOENT);
  EXPECT_FALSE(ReadText(m_Machine, "/sys/block/sdc/device/state"));
  m_Machine.Apply(
      R"({"add_disk": {"name": "sdc", "controller": "sas", "size": 5000, "vendor": "SEAGATE", "model": "ST5000"}})");
  EXPECT_THAT(*ReadText(m_Machine, "/proc/partitions"), HasSubstr("   8       32       5000 sdc\n"));
  EXPECT_EQ(*ReadText(m_Machine, "/sys/block/sdc/device/vendor"), "SEAGATE \n");
  EXPECT_EQ(*ReadText(m_Machine, "/sys/block/sdc/device/model"), "ST5000          \n");
  m_Machine.Apply(R"({"disk_state": {"sdc": "offline"}})");
  EXPECT_EQ(*ReadText(m_Machine, "/sys/block/sdc/device/state"), "offline\n");
  EXPECT_EQ(OpenError("/dev/sdc", O_RDONLY), ENXIO);
  m_Machine.Apply(R"({"rename_disk": {"from": "sdc", "to": "sdz"}})");
  EXPECT_THAT(*ReadText(m_Machine, "/proc/partitions"), HasSubstr("  65      144       5000 sdz\n"));
}

TEST_F(SimulatedMachine, WhatIsInUseCannotBeClaimed) {
  EXPECT_EQ(OpenError("/dev/sda", O_RDONLY | O_EXCL), EBUSY) << "a member";
  EXPECT_EQ(OpenError("/dev/sde", O_RDONLY | O_EXCL), EBUSY) << "mounted";
  EXPECT_EQ(OpenError("/dev/sdd", O_RDONLY | O_EXCL), 0);
  m_Machine.Apply(R"({"mount": {"device": "sdd1", "at": "/mnt"}})");
  EXPECT_EQ(OpenError("/dev/sdd", O_RDONLY | O_EXCL), EBUSY) << "a partition of it is mounted";
  EXPECT_EQ(OpenError("/dev/sdd1", O_RDONLY | O_EXCL), EBUSY);
  EXPECT_EQ(OpenError("/dev/sdd2", O_RDONLY | O_EXCL), 0);
  m_Machine.Apply(R"({"unmount": "sdd1"})");
  m_Machine.Apply(R"({"hold_disk": "sdd"})");
  EXPECT_EQ(OpenError("/dev/sdd2", O_RDONLY | O_EXCL), EBUSY) << "its whole disk is held";
  m_Machine.Apply(R"({"release_disk": "sdd"})");
  const CDescriptor whole(m_Machine, "/dev/sdd", O_RDONLY | O_EXCL);
  EXPECT_EQ(OpenError("/dev/sdd2", O_RDONLY | O_EXCL), EBUSY);
  EXPECT_EQ(m_Machine.OpenDescriptors(), 1U);
}

TEST_F(SimulatedMachine, ImpossibleChangesAreRefused) {
  const std::vector<std::pair<const char*, const char*>> cases = {
      {"{", "line 1"},
      {"{}", "no change is given"},
      {R"({"remove_disk": "sda", "hold_disk": "sdb"})", "one entry makes one change"},
      {R"({"remove_disk": "sdq"})", "there is no disk"},
      {R"({"remove_disk": 1})", "is not a text"},
      {R"({"add_disk": {"name": "sda", "controller": "sata", "size": 9}})", "there is another sda"},
      {R"({"add_disk": {"name": "sdg", "device": "8:49", "controller": "sata", "size": 9}})",
       "number is that of sdd1"},
      {R"({"rename_disk": {"from": "sda", "to": "sdq"}})", "sda is in use"},
      {R"({"rename_disk": {"from": "sdc", "to": "sdb"}})", "there is another sdb"},
      {R"({"hold_disk": "sda"})", "is in use"},
      {R"({"mount": {"device": "sde", "at": "/x"}})", "sde is in use"},
      {R"({"mount": {"device": "sdc", "at": ""}})", "is empty"},
      {R"({"partition": {"device": "sdd1", "partitions": []}})", "takes no partitions"},
      {R"({"add_array": {"name": "md0", "level": "raid0", "members": ["sdc"]}})", "there is another md0"},
      {R"({"stop_array": "md7"})", "there is no running array"},
      {R"({"array_state": {"md0": "dusty"}})", "is neither"},
      {R"({"start_resync": "md0"})", "cannot resync now"},
      {R"({"fail_member": {"array": "md0", "disk": "sdc"}})", "sdc is no member of md0"},
      {R"({"remove_member": {"array": "md0", "disk": "sda"}})",
       "the kernel refuses: Device or resource busy"},
      {R"({"add_member": {"array": "md0", "disk": "sde"}})", "sde is in use"}};
  for (const auto& [change, complaint] : cases) EXPECT_THAT(Refusal(change), HasSubstr(complaint)) << change;
  m_Machine.Apply(R"({"mount": {"device": "md0", "at": "/srv"}})");
  EXPECT_THAT(Refusal(R"({"stop_array": "md0"})"), HasSubstr("the kernel refuses"));
}

TEST_F(SimulatedMachine, AScriptTakesItsTimeAndOutlivesSurprises) {
  std::string description = MACHINE;
  description.insert(description.rfind('}'), R"(, "script": [{"at": 50, "hold_disk": "sdc"},
    {"at": 100, "remove_disk": "sdc"}, {"at": 200, "fail_member": {"array": "md0", "disk": "sda"}}])");
  CSimulatedMachine machine(description);
  machine.Advance(99);
  EXPECT_TRUE(ReadText(machine, "/sys/block/sdc/size"));
  machine.Advance(1);
  EXPECT_FALSE(ReadText(machine, "/sys/block/sdc/size"));
  machine.Apply(R"({"stop_array": "md0"})");
  machine.Advance(1000);  // the member that was to fail is gone with its array
  EXPECT_EQ(
      *ReadText(machine, "/proc/mdstat"),
      "Personalities : [raid0] [raid1] [linear] [raid10] [raid6] [raid5] [raid4] \nunused devices: <none>\n");
}

TEST_F(SimulatedMachine, MdNoticesAMissingDiskWhenItUsesIt) {
  m_Machine.Apply(R"({"remove_disk": "sdb"})");
  EXPECT_THAT(MdStat(), HasSubstr("sdb[1](F) sda[0]\n      10000 blocks super 1.0 [2/1] [U_]\n"))
      << "a resync was running";
  m_Machine.Apply(R"({"add_array": {"name": "md1", "level": "raid1", "members": ["sdc", "sdd"]}})");
  m_Machine.Apply(R"({"remove_disk": "sdd"})");
  EXPECT_THAT(MdStat(), HasSubstr("md1 : active raid1 sdd[1] sdc[0]\n"));
  m_Machine.Apply(R"({"add_disk": {"name": "sdg", "controller": "sas", "size": 10144}})");
  m_Machine.Apply(R"({"add_member": {"array": "md1", "disk": "sdg"}})");
  EXPECT_THAT(MdStat(), HasSubstr("md1 : active raid1 sdg[2] sdd[1](F) sdc[0]\n"))
      << "superblocks were written";
}

TEST_F(SimulatedMachine, EveryLevelShowsItsGeometry) {
  const std::vector<std::tuple<const char*, const char*, const char*>> cases = {
      {"raid4", "", "19968 blocks super 1.0 level 4, 64k chunk, algorithm 0 [3/3] [UUU]"},
      {"raid5", "", "19968 blocks super 1.0 level 5, 64k chunk, algorithm 2 [3/3] [UUU]"},
      {"raid6", R"(, "spares": ["sdd"])",
       "9984 blocks super 1.0 level 6, 64k chunk, algorithm 2 [3/3] [UUU]"},
      {"raid10", "", "14976 blocks super 1.0 64K chunks 2 near-copies [3/3] [UUU]"},
      {"raid0", R"(, "metadata": "0.90")", "29952 blocks 64k chunks"},
      {"linear", R"(, "metadata": "1.2", "chunk": 4)", "30000 blocks super 1.2 4k rounding"}};
  for (const auto& [level, more, line] : cases) {
    CSimulatedMachine machine(
        std::string(R"({"controllers": [{"name": "c", "pci": "0000:00:1f.2", "driver": "ahci"}], "disks": [
      {"name": "sda", "controller": "c", "size": 10136}, {"name": "sdb", "controller": "c", "size": 10136},
      {"name": "sdc", "controller": "c", "size": 10136}, {"name": "sdd", "controller": "c", "size": 10136}],
      "arrays": [{"name": "md3", "size": 9984, "members": ["sda", "sdb", "sdc"], "level": ")") +
        level + "\"" + more + "}]}");
    EXPECT_THAT(*ReadText(machine, "/proc/mdstat"), HasSubstr(std::string("      ") + line + "\n      \n"))
        << level;
  }
}

TEST_F(SimulatedMachine, OnlyAtaDisksAnswerSmartCommands) {
  m_Machine.Apply(R"({"smart": {"sda": {"attributes": [{"id": 9, "value": 97, "raw": 4660}]}}})");
  const auto read = [&](const char* path, unsigned char feature) {
    std::array<unsigned char, 516> command{WIN_SMART, 0, feature, 1};
    const CDescriptor disk(m_Machine, path, O_RDONLY);
    const int error = m_Machine.Ioctl(disk.Get(), HDIO_DRIVE_CMD, command.data()) == 0 ? 0 : errno;
    return std::pair(error, std::vector<int>(command.begin() + 6, command.begin() + 13));
  };
  EXPECT_EQ(read("/dev/sda", 0xD0), std::pair(0, std::vector{9, 0x32, 0, 97, 97, 0x34, 0x12}));
  EXPECT_EQ(read("/dev/sda", 0xD1).first, EIO) << "another command";
  EXPECT_EQ(read("/dev/sdb", 0xD0).first, EIO) << "a disk without SMART";
  EXPECT_EQ(read("/dev/sdc", 0xD0).first, EINVAL) << "a SAS controller";
  EXPECT_EQ(m_Machine.IoctlCount(HDIO_DRIVE_CMD), 4U);
}

TEST_F(SimulatedMachine, ASleepingDiskWantsToBeStarted) {
  const std::string tool = m_Machine.ReadLink("/proc/self/exe").value();
  EXPECT_EQ(tool, "/opt/server/serve");
  const CDescriptor disk(m_Machine, "/dev/sdf", O_RDWR);
  EXPECT_EQ(m_Machine.Write(disk.Get(), "x", 1), -1);
  EXPECT_EQ(errno, EIO);
  std::vector<std::string> lines;
  m_Machine.ExecuteCommand("/opt/server/bin/sdparm", "--all /dev/sdf 2>&1", lines);
  EXPECT_THAT(lines, testing::Contains(HasSubstr("device not ready")));
  EXPECT_EQ(m_Machine.ExecuteCommand("/opt/server/bin/sdparm", "--command=start /dev/sdf 2>&1", lines), 1);
  EXPECT_EQ(m_Machine.ExecuteCommand("/opt/server/bin/sdparm", "--all /dev/sdf 2>&1", lines), 1);
  EXPECT_THAT(lines, Not(testing::Contains(HasSubstr("device not ready"))));
  EXPECT_EQ(m_Machine.Write(disk.Get(), "x", 1), 1);
  EXPECT_EQ(m_Machine.CommandCount("sdparm"), 3U);
  EXPECT_EQ(m_Machine.ExecuteCommand("/usr/bin/sdparm", "", lines), 0);
}

TEST_F(SimulatedMachine, TestsPutWhatTheyLikeInPlaceOfFiles) {
  m_Machine.SetFile("/proc/partitions", "junk");
  EXPECT_EQ(*ReadText(m_Machine, "/proc/partitions"), "junk");
  m_Machine.SetFile("/proc/mdstat", std::nullopt);
  EXPECT_EQ(OpenError("/proc/mdstat", O_RDONLY), ENOENT);
  const std::string driver = "/sys/devices/pci0000:00/0000:00:1f.2/driver";
  EXPECT_EQ(m_Machine.ReadLink(driver), "../../../bus/pci/drivers/ahci");
  m_Machine.SetFile(driver, "a file");
  EXPECT_FALSE(m_Machine.ReadLink(driver));
  std::vector<std::string> lines;
  m_Machine.SetOutput("udevadm info -q all -n /dev/sda", "P: /devices/here\nN: sda\n");
  EXPECT_EQ(m_Machine.ExecuteCommand("/usr/bin/udevadm", "info -q all -n /dev/sda", lines), 1);
  EXPECT_THAT(lines, ElementsAre("P: /devices/here", "N: sda"));
  m_Machine.SetOutput("udevadm info -q all -n /dev/sda", std::nullopt);
  EXPECT_EQ(m_Machine.ExecuteCommand("/usr/bin/udevadm", "info -q all -n /dev/sda", lines), 2);
  m_Machine.SetFile("/usr/bin/udevadm", std::nullopt);
  boost::filesystem::path path;
  EXPECT_EQ(m_Machine.GetCommandPath("udevadm", path), 0);
}

TEST_F(SimulatedMachine, PartitionsTellTheirMountPoints) {
  m_Machine.Apply(R"({"add_array": {"name": "md_d1", "level": "raid0", "members": ["sdc"]}})");
  const auto mounts = [&](const char* device) {
    std::vector<std::string> found;
    for (const KVTX::CPartition& partition : m_Machine.GetPartitions(device)) {
      found.push_back(partition.m_Device + " " + partition.m_MountPoint);
    }
    return found;
  };
  EXPECT_THAT(mounts("/dev/md_d1"), ElementsAre());
  m_Machine.Apply(
      R"({"partition": {"device": "md_d1", "partitions": [{"size": 100}, {"size": 100, "mount": "/home"}]}})");
  EXPECT_THAT(mounts("/dev/md_d1"), ElementsAre("/dev/md_d1p1 ", "/dev/md_d1p2 /home"));
  EXPECT_THAT(mounts("/dev/sde"), ElementsAre("/dev/sde /data"));
  EXPECT_THAT(mounts("/dev/none"), ElementsAre());
  EXPECT_THAT(*ReadText(m_Machine, "/proc/partitions"), HasSubstr(" 253       66        100 md_d1p2\n"));
}

TEST_F(SimulatedMachine, AnEmptyArrayGoesWithItsLastUser) {
  const std::string path = "/dev/md_d5";
  ASSERT_EQ(m_Machine.MakeNode(path, S_IFBLK | 0666, makedev(253, 5 * 64)), 0);
  struct stat status {};
  ASSERT_EQ(m_Machine.Status(path, status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0644U) << "the umask applies";
  EXPECT_FALSE(ReadText(m_Machine, "/sys/block/md_d5/size"));
  {
    const CDescriptor array(m_Machine, path, O_RDONLY);
    ASSERT_TRUE(array.IsOpen());
  }
  EXPECT_TRUE(ReadText(m_Machine, "/sys/block/md_d5/size")) << "opening alone makes it, and makes it stay";
  {
    const CDescriptor array(m_Machine, path, O_RDONLY);
    EXPECT_EQ(m_Machine.Ioctl(array.Get(), STOP_ARRAY, nullptr), 0);
    EXPECT_TRUE(ReadText(m_Machine, "/sys/block/md_d5/size"));
  }
  EXPECT_FALSE(ReadText(m_Machine, "/sys/block/md_d5/size"));
}

TEST_F(SimulatedMachine, BadDescriptorsAreRefusedEverywhere) {
  char byte = 0;
  struct stat status {};
  const std::vector<std::function<std::int64_t()>> calls = {
      [&] { return m_Machine.Close(3); },
      [&] { return m_Machine.Read(3, &byte, 1); },
      [&] { return m_Machine.Write(3, &byte, 1); },
      [&] { return m_Machine.Seek(3, 0); },
      [&] { return m_Machine.Sync(3); },
      [&] { return m_Machine.Ioctl(3, STOP_ARRAY, nullptr); },
      [&] { return m_Machine.Status(3, status); },
      [&] { return m_Machine.WaitExceptional(3, 0); }};
  for (const auto& call : calls) {
    errno = 0;
    EXPECT_EQ(call(), -1);
    EXPECT_EQ(errno, EBADF);
  }
}

TEST_F(SimulatedMachine, AWaiterWakesWhenTheClockIsMoved) {
  const CDescriptor file(m_Machine, "/proc/mdstat", O_RDONLY);
  std::atomic<int> result = -2;
  std::thread waiter([&] { result = m_Machine.WaitExceptional(file.Get(), 60000); });
  m_Machine.Advance(9999);
  EXPECT_EQ(m_Machine.WaitExceptional(file.Get(), 0), 0) << "progress alone is no event";
  m_Machine.Advance(1);
  waiter.join();
  EXPECT_EQ(result, 1);
  EXPECT_EQ(m_Machine.WaitExceptional(file.Get(), 0), 1);
  MdStat();
  EXPECT_EQ(m_Machine.WaitExceptional(file.Get(), 0), 1) << "another reader's reading does not count";
  char byte = 0;
  m_Machine.Read(file.Get(), &byte, 1);
  EXPECT_EQ(m_Machine.WaitExceptional(file.Get(), 0), 0);
}

TEST_F(SimulatedMachine, AWaiterCanBeCancelled) {
  const CDescriptor file(m_Machine, "/proc/mdstat", O_RDONLY);
  const auto waiter =
      KVT::Threading::CThread::Create([&] { m_Machine.WaitExceptional(file.Get(), 60000); }, 0);
  waiter->Cancel();
  EXPECT_EQ(waiter->Wait(30000), KVT::Threading::WAIT_OK) << "well before its time";
  EXPECT_FALSE(MdStat().empty()) << "the machine is not left locked";
}

TEST(RealClock, ChangesHappenByThemselves) {
  std::string description = MACHINE;
  description.insert(description.rfind('}'), R"(, "script": [{"at": 30, "remove_disk": "sdc"}])");
  CSimulatedMachine machine(description, CSimulatedMachine::EClock::Real);
  const std::uint64_t before = machine.Now();
  const CDescriptor file(machine, "/proc/mdstat", O_RDONLY);
  machine.Apply(R"({"sync_speed": {"md0": 200000}})");
  EXPECT_EQ(machine.WaitExceptional(file.Get(), 60000), 1) << "the resync ends after 50 ms";
  machine.Sleep(1);
  EXPECT_GT(machine.Now(), before);
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (ReadText(machine, "/sys/block/sdc/size") && std::chrono::steady_clock::now() < end) machine.Sleep(1);
  EXPECT_FALSE(ReadText(machine, "/sys/block/sdc/size"));
}

TEST(DemoMachine, HasWhatItIsSaidToHave) {
  CSimulatedMachine machine(CSimulatedMachine::DemoDescription());
  const std::string mdstat = *ReadText(machine, "/proc/mdstat");
  EXPECT_THAT(mdstat, HasSubstr("md_d0 : active raid0 sdb[1] sda[0]\n"));
  EXPECT_THAT(mdstat, HasSubstr("md_d1 : active raid1 sde[2](S) sdd[1] sdc[0]\n"));
  EXPECT_THAT(mdstat, HasSubstr("resync = 12.5%"));
  EXPECT_EQ(*ReadText(machine, "/sys/block/sdh/queue/rotational"), "0\n");
  EXPECT_EQ(*ReadText(machine, "/sys/block/sdh/device/model"), "INTEL SSDSC2BB48\n");
  for (const char* free : {"/dev/sdf", "/dev/sdg", "/dev/sdh"}) {
    const CDescriptor disk(machine, free, O_RDWR | O_EXCL);
    EXPECT_TRUE(disk.IsOpen()) << free;
  }
}

}  // namespace
}  // namespace NAMESPACE_piRVX
