// Creation of arrays, their names, and superblocks on their way to and from the disks.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/sysmacros.h>

#include <set>

#include "Src/piRVXTrace.h"
#include "tests/support/Arrays.h"

using namespace NAMESPACE_piRVX;
using testing::ElementsAre;
using testing::IsEmpty;
using ECall = CFaultyMachine::ECall;

namespace {

const std::string THREE = DisksOf({1000000, 976773, 1100000});

std::string Uuid(const std::uint8_t* uuid) {
  std::string text;
  CTestInstance::UUID2String(uuid, text);
  return text;
}

TEST(Create, EveryLevelAndStripeAsMdRunsIt) {
  const std::pair<unsigned int, int> striped[] = {{40049, 4},  {40050, 8},  {40051, 16},
                                                  {40052, 32}, {40053, 64}, {40054, 128},
                                                  {40048, 64}, {0, 64},     {99999, 64}};
  const struct {
    std::uint32_t m_Level;
    int m_MdLevel;
    std::size_t m_Disks;
  } levels[] = {{PI::LEVEL_RAID0, 0, 3}, {PI::LEVEL_RAID1, 1, 2}, {PI::LEVEL_CONCATENATION, -1, 2}};
  for (const auto& level : levels) {
    for (auto [stripe, chunk] : striped) {
      if (level.m_MdLevel == -1 && chunk == 64) chunk = 4;  // its own default, also for 64 KiB
      SCOPED_TRACE(Text("level %d, stripe %d", level.m_MdLevel, stripe));
      SRig rig(THREE);
      std::vector<std::string> disks = {"sdb", "sdc", "sda"};
      disks.resize(level.m_Disks);
      ASSERT_EQ(Create(rig.m_Plugin, level.m_Level, stripe, disks), PI::OK);
      EXPECT_TRUE(rig.m_Plugin.Drive("sdb").m_Busy && rig.m_Plugin.m_Adapter.m_Busy);
      EXPECT_TRUE(Take(rig.m_Plugin.m_PrivateEvent));
      EXPECT_FALSE(Take(rig.m_Plugin.m_ForceWorker)) << "the next scan finds the array";
      EXPECT_THAT(rig.m_Plugin.m_LogicalDrives, IsEmpty()) << "the model is the scan's";

      const auto info = ArrayInfo(rig.m_Machine, "md_d0");
      EXPECT_EQ(info.level, level.m_MdLevel);
      EXPECT_EQ(info.chunk_size, chunk * 1024);
      EXPECT_EQ(info.raid_disks, static_cast<int>(disks.size()));
      // sdb, the smaller: 976772 - 8 = 976764 KiB in front of the superblock, less 128, in whole chunks.
      const int mirrored = level.m_MdLevel == 1 ? 976636 / chunk * chunk : 0;
      EXPECT_EQ(info.size, mirrored);

      std::set<std::string> sets;
      std::set<std::string> devices;
      std::vector<std::string> paths;
      for (std::size_t number = 0; number < disks.size(); ++number) {
        const CRVXPhysicalDrive& drive = rig.m_Plugin.Drive(disks[number]);
        const md_superblock1 record = SuperBlockOf(rig.m_Machine, drive);
        EXPECT_TRUE(IsSuperBlock(record)) << drive.m_KernelName;
        EXPECT_STREQ(record.set_name, "md_d0");
        EXPECT_EQ(record.dev_number, number);
        EXPECT_EQ(record.dev_roles[number], number);
        EXPECT_EQ(record.dev_roles[disks.size()], md_superblock1::ROLE_SPARE);
        EXPECT_EQ(record.super_offset, SuperOffset(drive.m_Size));
        EXPECT_EQ(record.size, static_cast<std::uint64_t>(mirrored) * 2);
        EXPECT_EQ(record.data_size, DataSize(record.super_offset, static_cast<std::uint32_t>(chunk * 2)));
        sets.insert(Uuid(record.set_uuid));
        devices.insert(Uuid(record.device_uuid));
        paths.push_back(drive.DevicePath());
      }
      EXPECT_EQ(sets.size(), 1U);
      EXPECT_EQ(devices.size(), disks.size());
      EXPECT_EQ(rig.m_Door.OpenedForWriting(), paths);

      rig.Pass();
      const CRVXLogicalDrive& array = rig.m_Plugin.Array("md_d0");
      EXPECT_EQ(array.m_RaidLevel, level.m_Level);
      EXPECT_EQ(array.m_Children.size(), disks.size());
      for (const std::string& disk : disks) EXPECT_EQ(rig.m_Plugin.Drive(disk).m_IsMemberOf, 0);
    }
  }
}

TEST(Create, MembersGoInActiveButNotInSyncIntoAnArrayWithoutDisks) {
  SMdRig rig(THREE);
  ASSERT_EQ(Create(rig.m_Plugin, PI::LEVEL_RAID1, 0, {"sdc", "sda"}), PI::OK);
  std::vector<unsigned long> requests;
  for (const auto& [request, argument] : rig.m_Own.m_Changes) requests.push_back(request);
  EXPECT_THAT(requests, ElementsAre(SET_ARRAY_INFO, ADD_NEW_DISK, ADD_NEW_DISK, RUN_ARRAY));
  for (int number = 0; number < 2; ++number) {
    const mdu_disk_info_t& disk = rig.m_Own.m_Added[static_cast<std::size_t>(number)];
    EXPECT_THAT((std::vector{disk.number, disk.major, disk.minor, disk.raid_disk, disk.state}),
                ElementsAre(number, 8, number == 0 ? 32 : 0, number, 2));
  }
}

TEST(Create, RefusesBeforeAnythingIsWritten) {
  using TDisks = std::vector<std::string>;
  const struct {
    const char* m_What;
    std::uint32_t m_Level;
    std::vector<TDisks> m_Containers;
    unsigned int m_Status;
    bool m_MakesNode;  ///< a name comes before the members
  } cases[] = {{"no container", PI::LEVEL_RAID1, {}, 20006, false},
               {"two containers", PI::LEVEL_RAID1, {{"sda", "sdb"}, {"sda", "sdb"}}, 20006, false},
               {"mirror of three", PI::LEVEL_RAID1, {{"sda", "sdb", "sde"}}, 20006, false},
               {"stripes of one", PI::LEVEL_RAID0, {{"sda"}}, 20006, false},
               {"RAID 10", PI::LEVEL_RAID10, {{"sda", "sdb"}}, 20006, false},
               {"unknown disk before a busy one", PI::LEVEL_RAID0, {{"sda", "?", "sdc"}}, 20008, true},
               {"member of another array", PI::LEVEL_RAID0, {{"sda", "sdc", "?"}}, 20006, true},
               {"spare of another array", PI::LEVEL_RAID0, {{"sda", "sdb", "sdf"}}, 20006, true},
               {"the first disk again at the end", PI::LEVEL_RAID0, {{"sda", "sdb", "sda"}}, 20006, true}};
  for (const auto& entry : cases) {
    SCOPED_TRACE(entry.m_What);
    SRig rig(DisksOf(
        {300000, 300000, 300000, 300000, 300000, 300000},
        R"("arrays": [{"name": "md_d0", "level": "raid1", "members": ["sdc", "sdd"], "spares": ["sdf"]}])"));
    PI::CLogicalDrive request = RequestOf(rig.m_Plugin, entry.m_Level, PI::STRIPE_64K, {});
    request.m_Containers.clear();
    for (const TDisks& disks : entry.m_Containers) {
      PI::CContainer& container = request.m_Containers.emplace_back();
      for (const std::string& disk : disks)
        container.m_Drives.emplace_back(disk == "?" ? 4711 : rig.m_Plugin.Drive(disk).m_ID);
    }
    PI::COperation operation = Operation(PI::OP_CREATE_LOGICAL_DRIVE);
    operation.m_pRequest = &request;
    EXPECT_EQ(Execute(rig.m_Plugin, rig.m_Plugin.m_Adapter.m_ID, operation), entry.m_Status);
    EXPECT_THAT(rig.m_Door.OpenedForWriting(), IsEmpty());
    EXPECT_EQ(rig.m_Door.NodesMade().size(), entry.m_MakesNode ? 1U : 0U);
    EXPECT_FALSE(rig.m_Plugin.m_Adapter.m_Busy);
    EXPECT_FALSE(Take(rig.m_Plugin.m_PrivateEvent));
    operation.m_pRequest = nullptr;
    EXPECT_EQ(Execute(rig.m_Plugin, rig.m_Plugin.m_Adapter.m_ID, operation), PI::ERR_INVALID_CONFIGURATION);
  }
}

TEST(Create, ALaterDiskNamedTwiceIsRefusedByMdAlone) {
  SRig rig(THREE);
  EXPECT_EQ(Create(rig.m_Plugin, PI::LEVEL_RAID0, PI::STRIPE_64K, {"sda", "sdb", "sdb"}), PI::ERR_DEVICE_IO);
  EXPECT_TRUE(IsSuperBlock(SuperBlockOf(rig.m_Machine, rig.m_Plugin.Drive("sda")))) << "nothing is undone";
}

// --- names -----------------------------------------------------------------------------------------------

CRVXLogicalDrive Array(std::uint32_t number, const std::string& key = "") {
  CRVXLogicalDrive array;
  array.m_ArrayNumber = number;
  array.m_KernelName = "md_d" + std::to_string(number);
  array.m_DeviceKey = key;
  return array;
}

TEST(ArrayName, IsTheLowestFreeNumber) {
  std::vector<std::uint32_t> all(256);
  for (std::uint32_t number = 0; number < 256; ++number) all[number] = 255 - number;
  const std::vector<std::uint32_t> allButTheLast(all.begin() + 1, all.end());
  const struct {
    std::vector<std::uint32_t> m_Used;
    const char* m_Name;  ///< empty: none is free
  } cases[] = {{{}, "md_d0"},           {{1, 0}, "md_d2"},          {{0, 2}, "md_d1"},
               {{4, 2, 0, 1}, "md_d3"}, {allButTheLast, "md_d255"}, {all, ""}};
  for (const auto& entry : cases) {
    SRig rig(THREE);
    for (const std::uint32_t number : entry.m_Used) rig.m_Plugin.m_LogicalDrives.push_back(Array(number));
    char name[30] = "";
    const bool free = *entry.m_Name != '\0';
    EXPECT_EQ(rig.m_Plugin.GetUnusedArrayName(name), free ? 0 : -1);
    EXPECT_STREQ(name, entry.m_Name);
    EXPECT_EQ(Create(rig.m_Plugin, PI::LEVEL_RAID0, 0, {"sda", "sdb"}), free ? 0U : PI::ERR_NOT_AVAILABLE);
  }
}

TEST(ArrayName, MakesTheNodeWhereThereIsNone) {
  const char* const node = R"("nodes": [{"path": "/dev/md_d1", "device": "253:64"}])";
  const struct {
    const char* m_What;
    const char* m_Node;  ///< that is there already
    const char* m_Key;   ///< of the array with number 0
    int m_Error;         ///< of mknod
    int m_Result;
    std::size_t m_Made;
  } cases[] = {{"no node", "", "MD&BLKDEV:Major=253&Minor=0", 0, 0, 1},
               {"a node, and its minor is taken", node, "MD&BLKDEV:Major=9&Minor=64", 0, 0, 0},
               {"minor taken", "", "MD&BLKDEV:Major=9&Minor=64", 0, -1, 0},
               {"longer minor", "", "MD&BLKDEV:Major=9&Minor=640", 0, 0, 1},
               {"no minor", "", "64", 0, 0, 1},
               {"mknod fails", "", "", EPERM, 0, 1}};
  for (const auto& entry : cases) {
    SCOPED_TRACE(entry.m_What);
    SRig rig(DisksOf({300000, 300000}, entry.m_Node));
    rig.m_Plugin.m_LogicalDrives.push_back(Array(0, entry.m_Key));
    if (entry.m_Error != 0) rig.m_Door.FailAt(ECall::MakeNode, 1, entry.m_Error);
    char name[30] = "";
    EXPECT_EQ(rig.m_Plugin.GetUnusedArrayName(name), entry.m_Result);
    EXPECT_EQ(rig.m_Door.NodesMade().size(), entry.m_Made);
    if (entry.m_Made == 0 || entry.m_Error != 0) continue;
    struct stat status {};
    ASSERT_EQ(rig.m_Machine.Status("/dev/md_d1", status), 0);
    EXPECT_TRUE(S_ISBLK(status.st_mode));
    EXPECT_EQ(status.st_rdev, makedev(253, 64));
  }
}

// --- superblocks on their way ----------------------------------------------------------------------------

TEST(SuperBlockDoor, WhatIsWrittenIsReadBack) {
  for (const std::uint64_t size : {200ULL, 201ULL, 202ULL, 203ULL, 976773ULL, 2147483648ULL, 8589934599ULL}) {
    SCOPED_TRACE(size);
    SRig rig(DisksOf({size}));
    mdu_array_info_s info{};
    info.level = 1;
    info.raid_disks = 2;
    md_superblock1 written{};
    EXPECT_EQ(rig.m_Plugin.CreateSuperBlock1(&info, nullptr, "md_d7", &written), PI::OK);
    EXPECT_EQ(rig.m_Plugin.WriteSuperBlock1(rig.m_Plugin.Drive("sda"), &written), PI::OK);
    md_superblock1 read{};
    EXPECT_EQ(rig.m_Plugin.GetSuperBlock1(8, 0, &read), PI::OK);
    EXPECT_EQ(std::memcmp(&read, &written, sizeof(read)), 0)
        << "the caller's record is what stands on the disk";
    EXPECT_TRUE(IsSuperBlock(read));
  }
}

TEST(SuperBlockDoor, ADiskThatSomebodyHoldsIsNotWrittenTo) {
  SRig rig(THREE);
  rig.m_Machine.Apply(R"({"hold_disk": "sda"})");
  md_superblock1 record{};
  EXPECT_EQ(rig.m_Plugin.WriteSuperBlock1(rig.m_Plugin.Drive("sda"), &record), PI::ERR_DEVICE_IO);
  rig.m_Door.ShortenAt(ECall::Write, 1, 1023);
  EXPECT_EQ(rig.m_Plugin.WriteSuperBlock1(rig.m_Plugin.Drive("sdb"), &record), PI::ERR_WRITE_FAILED);
}

TEST(SuperBlockDoor, ASleepingDiskIsStartedWhereTheServerHasTheTool) {
  const struct {
    const char* m_Machine;
    unsigned int m_Status;
    std::uint64_t m_Runs;
    std::uint64_t m_Slept;
  } cases[] = {{R"("asleep": true}], "sdparm": true)", 0, 2, 3000},
               {R"("asleep": false}], "sdparm": true)", 0, 1, 0},
               {R"("asleep": true}], "sdparm": false)", 20018, 0, 0}};
  for (const auto& entry : cases) {
    SCOPED_TRACE(entry.m_Machine);
    SRig rig(R"({"controllers": [{"name": "c", "pci": "0000:00:1f.2", "driver": "ahci"}],
                 "disks": [{"name": "sda", "controller": "c", "size": 300000, )" +
             std::string(entry.m_Machine) + "}");
    const std::uint64_t start = rig.m_Machine.Now();
    md_superblock1 record{};
    EXPECT_EQ(rig.m_Plugin.WriteSuperBlock1(rig.m_Plugin.Drive("sda"), &record), entry.m_Status);
    EXPECT_EQ(rig.m_Machine.CommandCount("sdparm"), entry.m_Runs);
    EXPECT_EQ(rig.m_Machine.Now() - start, entry.m_Slept);
  }
}

}  // namespace
