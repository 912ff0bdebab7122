#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/hdreg.h>
#include <linux/major.h>
#include <linux/raid/md_u.h>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>

#include <atomic>
#include <thread>

#include "KVT/Threading.h"
#include "simulator/SimulatedMachine.h"
#include "system/Descriptor.h"

namespace NAMESPACE_piRVX {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr const char* MACHINE = R"({
  "sync_speed": 1000, "sdparm": true, "process": "/opt/server/serve",
  "controllers": [{"name": "sata", "pci": "0000:00:1f.2", "driver": "ahci"}],
  "disks": [
    {"name": "sda", "controller": "sata", "size": 10144},
    {"name": "sdb", "controller": "sata", "size": 10144},
    {"name": "sdc", "controller": "sata", "size": 10144},
    {"name": "sdd", "controller": "sata", "size": 10144, "partitions": [{"size": 4000}, {"size": 4000}]},
    {"name": "sde", "controller": "sata", "size": 10144},
    {"name": "sdf", "controller": "sata", "size": 10144, "asleep": true}],
  "arrays": [{"name": "md0", "level": "raid1", "size": 10000, "members": ["sda", "sdb"], "resync": {}}],
  "script": [{"at": 200000, "hold_disk": "sdd"}, {"at": 200001, "remove_disk": "sdd"},
             {"at": 200002, "fail_member": {"array": "md0", "disk": "sda"}}]})";

class SimulatedMachine : public testing::Test {
 protected:
  std::string MdStat() { return *ReadText(m_Machine, "/proc/mdstat"); }
  int OpenError(const std::string& path) {
    const CDescriptor file(m_Machine, path, O_RDONLY | O_EXCL);
    return file.IsOpen() ? 0 : errno;
  }

  CSimulatedMachine m_Machine{MACHINE};
};

TEST_F(SimulatedMachine, ProgressFollowsTheClockAndTheSpeed) {
  const std::tuple<std::uint64_t, std::uint64_t, const char*> cases[] = {
      {0, 1000, "[>....................]  resync =  0.0% (0/10000) finish=0.1min speed=1000K/sec"},
      {499, 1000, "[>....................]  resync =  0.0% (499/10000) finish="},
      {1001, 1000, "[==>..................]  resync = 10.0% (1500/10000) finish="},
      {100000, 0, "(1500/10000)"},
      {1214, 7000, "[===================>.]  resync = 95.0% (9998/10000) finish="}};
  for (const auto& [step, speed, line] : cases) {
    m_Machine.Apply(R"({"sync_speed": {"md0": )" + std::to_string(speed) + "}}");
    m_Machine.Sleep(step);
    EXPECT_THAT(MdStat(), HasSubstr(line)) << step;
  }
  m_Machine.Advance(1);
  EXPECT_THAT(MdStat(), HasSubstr("      10000 blocks super 1.0 [2/2] [UU]\n      \nunused"));
  m_Machine.Apply(R"({"stop_array": "md0"})");
  m_Machine.Advance(200000);
  EXPECT_FALSE(ReadText(m_Machine, "/sys/block/sdd/size")) << "the script has taken it";
  EXPECT_THAT(MdStat(), Not(HasSubstr("md0"))) << "the member that was to fail is gone with its array";
}

TEST_F(SimulatedMachine, ArraysOnOneDiskSyncOneAfterTheOther) {
  m_Machine.Apply(
      R"({"add_array": {"name": "md1", "level": "raid1", "members": ["sdd1", "sdc"], "resync": {}}})");
  m_Machine.Apply(
      R"({"add_array": {"name": "md2", "level": "raid1", "members": ["sdd2", null], "speed": 4000}})");
  m_Machine.Apply(R"({"add_member": {"array": "md2", "disk": "sde"}})");
  EXPECT_THAT(MdStat(), HasSubstr("[2/1] [U_]\n      \tresync=DELAYED\n      \n"));
  m_Machine.Advance(3864);
  EXPECT_THAT(MdStat(), HasSubstr("recovery =  0.0%"));
  m_Machine.Advance(10000);
  EXPECT_THAT(MdStat(), Not(HasSubstr("[U_]")));
}

TEST_F(SimulatedMachine, WhatIsInUseCannotBeClaimed) {
  EXPECT_EQ(OpenError("/dev/sda"), EBUSY) << "a member";
  EXPECT_EQ(OpenError("/dev/sdd"), 0);
  m_Machine.Apply(R"({"mount": {"device": "sdd1", "at": "/mnt"}})");
  EXPECT_EQ(OpenError("/dev/sdd"), EBUSY) << "a partition of it is mounted";
  EXPECT_EQ(OpenError("/dev/sdd2"), 0);
  m_Machine.Apply(R"({"unmount": "sdd1"})");
  m_Machine.Apply(R"({"hold_disk": "sdd"})");
  EXPECT_EQ(OpenError("/dev/sdd2"), EBUSY) << "its whole disk is held";
  m_Machine.Apply(R"({"release_disk": "sdd"})");
  EXPECT_EQ(OpenError("/dev/sdd2"), 0);
  m_Machine.Apply(R"({"disk_state": {"sde": "offline"}})");
  EXPECT_EQ(OpenError("/dev/sde"), ENXIO);
}

TEST_F(SimulatedMachine, MdNoticesAMissingDiskWhenItUsesIt) {
  m_Machine.Apply(R"({"remove_disk": "sdb"})");
  EXPECT_THAT(MdStat(), HasSubstr("sdb[1](F) sda[0]\n      10000 blocks super 1.0 [2/1] [U_]\n"))
      << "a resync was running";
  m_Machine.Apply(R"({"add_array": {"name": "md1", "level": "raid1", "members": ["sdc", "sdd"]}})");
  m_Machine.Apply(R"({"rename_disk": {"from": "sde", "to": "sdz"}})");
  m_Machine.Apply(R"({"remove_disk": "sdd"})");
  EXPECT_THAT(MdStat(), HasSubstr("md1 : active raid1 sdd[1] sdc[0]\n"));
  m_Machine.Apply(R"({"add_member": {"array": "md1", "disk": "sdz"}})");
  EXPECT_THAT(MdStat(), HasSubstr("md1 : active raid1 sdz[2] sdd[1](F) sdc[0]\n"))
      << "superblocks were written";
}

TEST_F(SimulatedMachine, EveryLevelShowsItsGeometry) {
  m_Machine.Apply(R"({"stop_array": "md0"})");
  const std::pair<const char*, const char*> cases[] = {
      {R"("raid4")", "19968 blocks super 1.0 level 4, 64k chunk, algorithm 0 [3/3] [UUU]"},
      {R"("raid5")", "19968 blocks super 1.0 level 5, 64k chunk, algorithm 2 [3/3] [UUU]"},
      {R"("raid6", "spares": ["sde"])", "9984 blocks super 1.0 level 6, 64k chunk, algorithm 2 [3/3] [UUU]"},
      {R"("raid10")", "14976 blocks super 1.0 64K chunks 2 near-copies [3/3] [UUU]"},
      {R"("raid0", "metadata": "0.90")", "29952 blocks 64k chunks"}};
  for (const auto& [level, line] : cases) {
    m_Machine.Apply(
        R"({"add_array": {"name": "md3", "size": 9984, "members": ["sda", "sdb", "sdc"], "level": )" +
        std::string(level) + "}}");
    EXPECT_THAT(MdStat(), HasSubstr(std::string("      ") + line + "\n      \n"));
    m_Machine.Apply(R"({"stop_array": "md3"})");
  }
}

TEST_F(SimulatedMachine, ChangesShowWhereLinuxShowsThem) {
  m_Machine.Advance(20000);
  m_Machine.Apply(R"({"start_resync": "md0"})");
  EXPECT_THAT(MdStat(), HasSubstr("resync =  0.0%"));
  m_Machine.Apply(R"({"array_state": {"md0": "dirty"}})");
  mdu_array_info_t info{};
  info.state = 77;
  EXPECT_EQ(m_Machine.Ioctl(CDescriptor(m_Machine, "/dev/md0", O_RDONLY).Get(), GET_ARRAY_INFO, &info), 0);
  EXPECT_EQ(info.state, 0);
  m_Machine.Apply(R"({"smart": {"sda": {"attributes": [{"id": 9, "raw": 4660}]}}})");
  std::array<unsigned char, 516> command{WIN_SMART, 0, 0xD0, 1};
  EXPECT_EQ(
      m_Machine.Ioctl(CDescriptor(m_Machine, "/dev/sda", O_RDONLY).Get(), HDIO_DRIVE_CMD, command.data()), 0);
  EXPECT_EQ((std::array{command[6], command[11], command[12]}),
            (std::array<unsigned char, 3>{9, 0x34, 0x12}));
  EXPECT_EQ(m_Machine.IoctlCount(HDIO_DRIVE_CMD), 1U);
}

TEST_F(SimulatedMachine, ASleepingDiskWantsToBeStarted) {
  const std::string tool = "/opt/server/bin/sdparm";
  const CDescriptor disk(m_Machine, "/dev/sdf", O_RDWR);
  EXPECT_EQ(m_Machine.Write(disk.Get(), "x", 1), -1);
  EXPECT_EQ(errno, EIO);
  std::vector<std::string> lines;
  m_Machine.ExecuteCommand(tool, "--all /dev/sdf 2>&1", lines);
  EXPECT_THAT(lines, Contains(HasSubstr("device not ready")));
  EXPECT_EQ(m_Machine.ExecuteCommand(tool, "--command=start /dev/sdf 2>&1", lines), 1);
  m_Machine.ExecuteCommand(tool, "--all /dev/sdf 2>&1", lines);
  EXPECT_THAT(lines, Not(Contains(HasSubstr("device not ready"))));
  EXPECT_EQ(m_Machine.Write(disk.Get(), "x", 1), 1);
  EXPECT_EQ(m_Machine.CommandCount("sdparm"), 3U);
}

TEST_F(SimulatedMachine, TestsPutWhatTheyLikeInPlaceOfFilesAndOutputs) {
  m_Machine.SetFile("/proc/partitions", "junk");
  EXPECT_EQ(*ReadText(m_Machine, "/proc/partitions"), "junk");
  m_Machine.SetFile("/proc/mdstat", std::nullopt);
  EXPECT_EQ(OpenError("/proc/mdstat"), ENOENT);
  std::vector<std::string> lines;
  const std::string arguments = "info -q all -n /dev/sda";
  m_Machine.SetOutput("udevadm " + arguments, "P: /devices/here\nN: sda\n");
  EXPECT_EQ(m_Machine.ExecuteCommand("/usr/bin/udevadm", arguments, lines), 1);
  EXPECT_THAT(lines, ElementsAre("P: /devices/here", "N: sda"));
  m_Machine.SetOutput("udevadm " + arguments, std::nullopt);
  EXPECT_EQ(m_Machine.ExecuteCommand("/usr/bin/udevadm", arguments, lines), 2);
}

TEST_F(SimulatedMachine, PartitionsTellTheirMountPoints) {
  m_Machine.Apply(R"({"add_array": {"name": "md_d1", "level": "raid0", "members": ["sdc"]}})");
  m_Machine.Apply(
      R"({"partition": {"device": "md_d1", "partitions": [{"size": 100}, {"size": 100, "mount": "/home"}]}})");
  m_Machine.Apply(R"({"mount": {"device": "md_d1p1", "at": "/mnt"}})");
  std::string mounts;
  for (const KVTX::CPartition& partition : m_Machine.GetPartitions("/dev/md_d1"))
    mounts += partition.m_Device + " " + partition.m_MountPoint + "; ";
  EXPECT_EQ(mounts, "/dev/md_d1p1 /mnt; /dev/md_d1p2 /home; ");
  EXPECT_THAT(*ReadText(m_Machine, "/proc/partitions"), HasSubstr(" 253       66        100 md_d1p2\n"));
}

TEST_F(SimulatedMachine, AnEmptyArrayGoesWithItsLastUser) {
  const std::string path = "/dev/md_d5";
  ASSERT_EQ(m_Machine.MakeNode(path, S_IFBLK | 0666, makedev(253, 5 * 64)), 0);
  EXPECT_FALSE(ReadText(m_Machine, "/sys/block/md_d5/size"));
  EXPECT_EQ(OpenError(path), 0);
  EXPECT_TRUE(ReadText(m_Machine, "/sys/block/md_d5/size")) << "opening alone makes it, and makes it stay";
  {
    const CDescriptor array(m_Machine, path, O_RDONLY);
    EXPECT_EQ(m_Machine.Ioctl(array.Get(), STOP_ARRAY, nullptr), 0);
    EXPECT_TRUE(ReadText(m_Machine, "/sys/block/md_d5/size"));
  }
  EXPECT_FALSE(ReadText(m_Machine, "/sys/block/md_d5/size"));
}

TEST_F(SimulatedMachine, AWaiterWakesWhenTheClockIsMovedAndCanBeCancelled) {
  const CDescriptor file(m_Machine, "/proc/mdstat", O_RDONLY);
  std::atomic<int> result = -2;
  std::thread waiter([&] { result = m_Machine.WaitExceptional(file.Get(), 60000); });
  m_Machine.Advance(9999);
  EXPECT_EQ(m_Machine.WaitExceptional(file.Get(), 0), 0) << "progress alone is no event";
  m_Machine.Advance(1);
  waiter.join();
  EXPECT_EQ(result, 1);
  MdStat();
  EXPECT_EQ(m_Machine.WaitExceptional(file.Get(), 0), 1) << "another reader's reading does not count";
  char byte = 0;
  m_Machine.Read(file.Get(), &byte, 1);
  const auto thread =
      KVT::Threading::CThread::Create([&] { m_Machine.WaitExceptional(file.Get(), 60000); }, 0);
  thread->Cancel();
  EXPECT_EQ(thread->Wait(30000), KVT::Threading::WAIT_OK) << "well before its time";
  EXPECT_FALSE(MdStat().empty()) << "the machine is not left locked";
}

}  // namespace
}  // namespace NAMESPACE_piRVX
