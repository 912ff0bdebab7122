// Dedicated hot spares: making, releasing, and when neither is allowed.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Src/piRVXTrace.h"
#include "tests/support/Arrays.h"

using namespace NAMESPACE_piRVX;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// A mirror md_d3 of sda and sdb, in chunks as this plug-in makes them; sdc and the small sdd are free.
const std::string MIRROR = DisksOf({300000, 300000, 300000, 200000}, MirrorOfTwo("md_d3", R"("chunk": 64)"));
/// The same with a spare sdc.
const std::string WITH_SPARE =
    DisksOf({300000, 300000, 300000, 300000}, MirrorOfTwo("md_d3", R"("chunk": 64, "spares": ["sdc"])"));

unsigned int Make(CTestInstance& plugin, const std::string& disk, unsigned long array = 3) {
  return Execute(plugin, plugin.Drive(disk).m_ID, Operation(PI::OP_CREATE_DEDICATED_HOTSPARE, array));
}
unsigned int Release(CTestInstance& plugin, const std::string& disk) {
  return Execute(plugin, plugin.Drive(disk).m_ID, Operation(PI::OP_DELETE_DEDICATED_HOTSPARE));
}

/// What the operations change in the model.
std::vector<unsigned long> Model(const CTestInstance& plugin, const CRVXPhysicalDrive& drive) {
  const CRVXLogicalDrive& array = plugin.m_LogicalDrives.front();
  return {drive.m_UpdateCounter,
          drive.m_Status,
          drive.m_SpareState,
          drive.m_UsableSize,
          static_cast<unsigned long>(drive.m_IsMemberOf),
          drive.m_Busy,
          array.m_UpdateCounter,
          array.m_Busy};
}

TEST(Spare, IsMadeAndReleased) {
  SMdRig rig(MIRROR);
  CRVXPhysicalDrive& drive = rig.m_Plugin.Drive("sdc");
  ASSERT_EQ(Make(rig.m_Plugin, "sdc"), PI::OK);
  EXPECT_THAT(Model(rig.m_Plugin, drive),
              ElementsAre(1, PI::STATUS_SPARE, PI::SPARE_STATE_IN_USE, 0, 3, true, 1, false));
  EXPECT_TRUE(Take(rig.m_Plugin.m_PrivateEvent));
  EXPECT_THAT(rig.m_Door.OpenedForWriting(), ElementsAre("/dev/sdc"));
  ASSERT_EQ(rig.m_Own.m_Added.size(), 1U);
  const mdu_disk_info_t& added = rig.m_Own.m_Added.front();
  EXPECT_THAT((std::vector{added.number, added.major, added.minor, added.raid_disk, added.state}),
              ElementsAre(2, 8, 32, -1, 0));
  const md_superblock1 record = SuperBlockOf(rig.m_Machine, drive);
  EXPECT_TRUE(IsSuperBlock(record));
  EXPECT_EQ(record.dev_number, 2U);
  EXPECT_EQ(ArrayInfo(rig.m_Machine, "md_d3").spare_disks, 1);

  drive.m_Busy = false;
  ASSERT_EQ(Release(rig.m_Plugin, "sdc"), PI::OK);
  EXPECT_THAT(Model(rig.m_Plugin, drive), ElementsAre(2, PI::STATUS_READY, PI::SPARE_STATE_FREE, 299864,
                                                      static_cast<unsigned long>(-1), true, 2, false));
  EXPECT_TRUE(Take(rig.m_Plugin.m_PrivateEvent));
  EXPECT_EQ(ArrayInfo(rig.m_Machine, "md_d3").spare_disks, 0);
  EXPECT_EQ(SuperBlockOf(rig.m_Machine, drive).magic, 0U);
  EXPECT_EQ(rig.m_Own.m_Changes.back(), (std::pair<unsigned long, std::uintptr_t>(HOT_REMOVE_DISK, 0x820)));
}

TEST(Spare, OfADegradedMirrorIsBuiltIn) {
  SRig rig(MIRROR);
  rig.m_Machine.Apply(R"({"fail_member": {"array": "md_d3", "disk": "sda"}})");
  rig.Pass();
  EXPECT_EQ(rig.m_Plugin.Array("md_d3").m_Status, PI::STATUS_DEGRADED);
  ASSERT_EQ(Make(rig.m_Plugin, "sdc"), PI::OK);
  rig.Pass();
  EXPECT_EQ(rig.m_Plugin.Array("md_d3").m_Activity, PI::ACTIVITY_REBUILDING);
  EXPECT_EQ(Check(rig.m_Plugin, rig.m_Plugin.Drive("sdd").m_ID, Operation(PI::OP_CREATE_DEDICATED_HOTSPARE)),
            PI::ERR_BUSY);
  rig.m_Machine.Advance(3600000);
  rig.Pass();
  EXPECT_EQ(rig.m_Plugin.Array("md_d3").m_Status, PI::STATUS_OK);
  EXPECT_EQ(rig.m_Plugin.Drive("sdc").m_Status, PI::STATUS_OK);
  EXPECT_EQ(Release(rig.m_Plugin, "sda"), PI::OK) << "the failed member";
  rig.Pass();
  EXPECT_EQ(rig.m_Plugin.Drive("sda").m_Status, PI::STATUS_READY);
  EXPECT_EQ(Make(rig.m_Plugin, "sda"), PI::OK) << "and back as the new spare";
}

TEST(Spare, WhatMdRefusesIsWipedAndTheModelStays) {
  const struct {
    const char* m_What;
    const char* m_Disk;
    int m_Chunk;
  } cases[] = {{"the disk is too small", "sdd", 64},
               // A mirror of another maker has no chunks, and whole chunks of nothing are no room for data.
               {"a mirror without chunks", "sdc", 0}};
  for (const auto& entry : cases) {
    SCOPED_TRACE(entry.m_What);
    SRig rig(DisksOf({300000, 300000, 300000, 200000},
                     MirrorOfTwo("md_d3", Text(R"("chunk": %d)", entry.m_Chunk))));
    CRVXPhysicalDrive& drive = rig.m_Plugin.Drive(entry.m_Disk);
    const auto before = Model(rig.m_Plugin, drive);
    EXPECT_EQ(Make(rig.m_Plugin, entry.m_Disk), PI::ERR_DEVICE_IO);
    EXPECT_EQ(Model(rig.m_Plugin, drive), before);
    EXPECT_FALSE(Take(rig.m_Plugin.m_PrivateEvent));
    EXPECT_THAT(rig.m_Door.OpenedForWriting(), ElementsAre(drive.DevicePath(), drive.DevicePath()));
    const md_superblock1 record = SuperBlockOf(rig.m_Machine, drive);
    EXPECT_EQ(record.magic, 0U);
    EXPECT_EQ(record.max_dev, 0U);
  }
}

TEST(Spare, FindsAWorkingMemberAndAFreeSlotInWhatMdTells) {
  const struct {
    const char* m_What;
    std::vector<mdu_disk_info_t> m_Disks;
    int m_RaidDisks;
    unsigned int m_Status;
    int m_Slot;
  } cases[] = {{"the first", {{0, 8, 0, 0, 6}, {1, 8, 16, 1, 6}}, 2, 0, 2},
               {"a write-mostly member is passed over", {{0, 8, 176, 0, 6 + 512}, {1, 8, 16, 1, 6}}, 2, 0, 2},
               {"spares do not count", {{0, 8, 176, -1, 0}, {1, 8, 176, -1, 0}, {2, 8, 0, 0, 6}}, 1, 0, 3},
               {"a removed one is free", {{0, 8, 0, 0, 6}, {1, 8, 16, -1, 8}}, 2, 0, 1},
               {"a faulty one is not", {{0, 8, 0, 0, 6}, {1, 8, 16, -1, 1}}, 2, 0, 2},
               {"the count ends on a member that is not in sync", {{0, 8, 16, 0, 0}}, 1, 0, 1},
               {"the count ends on one that is gone", {{0, 8, 176, 0, 0}}, 1, 20032, -1},
               {"in sync without a number", {{0, 0, 0, 0, 6}}, 2, 20000, -1},
               {"in sync without a slot", {{0, 8, 0, -1, 6}}, 2, 20000, -1},
               {"the last number", {{383, 8, 0, 0, 6}}, 2, 0, 0},
               {"a number too far", {{384, 8, 0, 0, 6}}, 2, 20000, -1}};
  for (const auto& entry : cases) {
    SCOPED_TRACE(entry.m_What);
    SMdRig rig(MIRROR);
    for (const mdu_disk_info_t& disk : entry.m_Disks) rig.m_Own.m_Disks[disk.number] = disk;
    rig.m_Own.m_Array = [&](mdu_array_info_t& info) { info.raid_disks = entry.m_RaidDisks; };
    rig.m_Own.m_Answers[ADD_NEW_DISK] = 0;
    EXPECT_EQ(Make(rig.m_Plugin, "sdc"), entry.m_Status);
    EXPECT_EQ(rig.m_Door.OpenedForWriting().size(), entry.m_Status == 0 ? 1U : 0U);
    if (entry.m_Status != 0) continue;
    EXPECT_EQ(rig.m_Own.m_Added.front().number, entry.m_Slot);
    const md_superblock1 record = SuperBlockOf(rig.m_Machine, rig.m_Plugin.Drive("sdc"));
    EXPECT_EQ(record.dev_number, static_cast<std::uint32_t>(entry.m_Slot));
    EXPECT_EQ(record.dev_roles[entry.m_Slot], md_superblock1::ROLE_SPARE);
  }
  SMdRig rig(MIRROR);  // every slot in use
  for (int number = 0; number < 384; ++number) rig.m_Own.m_Disks[number] = {number, 8, 16, 1, 6};
  EXPECT_EQ(Make(rig.m_Plugin, "sdc"), PI::ERR_NO_FREE_SLOT);
  EXPECT_THAT(rig.m_Door.OpenedForWriting(), IsEmpty());
}

TEST(Spare, TakesOneArrayNumber) {
  const unsigned long high = 0x100000000;
  SRig rig(MIRROR);
  const unsigned long id = rig.m_Plugin.Drive("sdc").m_ID;
  PI::COperation operation = Operation(PI::OP_CREATE_DEDICATED_HOTSPARE);
  EXPECT_EQ(Execute(rig.m_Plugin, id, operation), PI::ERR_INVALID_CONFIGURATION);
  operation = Operation(PI::OP_CREATE_DEDICATED_HOTSPARE, 3);
  operation.m_Parameters.front().SetValue("3");
  EXPECT_EQ(Execute(rig.m_Plugin, id, operation), PI::ERR_WRONG_PARAMETER_TYPE);
  for (const unsigned long unknown : {4UL, 0xFFFFFFFFUL})
    EXPECT_EQ(Make(rig.m_Plugin, "sdc", unknown), PI::ERR_NOT_AVAILABLE) << unknown;
  EXPECT_THAT(rig.m_Door.OpenedForWriting(), IsEmpty());
  EXPECT_EQ(Make(rig.m_Plugin, "sdc", high + 3), PI::OK) << "read as 64 bits, used as 32";
  EXPECT_EQ(rig.m_Plugin.CreateMissingDrive(rig.m_Plugin.Drive("sdd"), 4), PI::ERR_NOT_AVAILABLE);
}

TEST(SpareRelease, GoesByWhatMdSaysOfTheDisk) {
  const struct {
    const char* m_What;
    std::vector<mdu_disk_info_t> m_Disks;
    int m_RemoveError;
    unsigned int m_Status;
  } cases[] = {{"a spare", {{0, 8, 0, 0, 6}, {2, 8, 32, -1, 0}}, 0, 0},
               {"a faulty one", {{0, 8, 32, -1, 1}}, 0, 0},
               {"md does not let go", {{2, 8, 32, -1, 0}}, EBUSY, 0},
               {"an active member", {{0, 8, 32, 0, 6}}, 0, 20000},
               {"the first answer counts", {{0, 8, 32, 0, 6}, {1, 8, 32, -1, 0}}, 0, 20000},
               {"a removed answer does not", {{0, 8, 32, 0, 8}, {1, 8, 32, -1, 0}}, 0, 0},
               {"a partition of it", {{0, 8, 33, -1, 0}}, 0, 20000},
               {"the last number", {{383, 8, 32, -1, 0}}, 0, 0},
               {"a number too far", {{384, 8, 32, -1, 0}}, 0, 20000}};
  for (const auto& entry : cases) {
    SCOPED_TRACE(entry.m_What);
    SMdRig rig(WITH_SPARE);
    rig.m_Machine.Apply(R"({"remove_member": {"array": "md_d3", "disk": "sdc"}})");
    for (const mdu_disk_info_t& disk : entry.m_Disks) rig.m_Own.m_Disks[disk.number] = disk;
    rig.m_Own.m_Answers[HOT_REMOVE_DISK] = entry.m_RemoveError;
    EXPECT_EQ(Release(rig.m_Plugin, "sdc"), entry.m_Status);
    const CRVXPhysicalDrive& drive = rig.m_Plugin.Drive("sdc");
    EXPECT_EQ(drive.m_Status, entry.m_Status == 0 ? PI::STATUS_READY : PI::STATUS_SPARE);
    EXPECT_EQ(SuperBlockOf(rig.m_Machine, drive).magic == 0, entry.m_Status == 0);
  }
  SRig rig(MIRROR);
  EXPECT_EQ(Release(rig.m_Plugin, "sdd"), PI::ERR_NOT_AVAILABLE) << "a free disk is no spare";
}

TEST(SpareCheck, AllowsWhatTheModelAllows) {
  const unsigned int CREATE = PI::OP_CREATE_DEDICATED_HOTSPARE;
  const unsigned int RELEASE = PI::OP_DELETE_DEDICATED_HOTSPARE;
  const unsigned int REPLACE = PI::OP_REPLACE_MISSING_DRIVE;
  const struct {
    unsigned int m_Code;
    std::uint32_t m_SpareState;
    std::int32_t m_IsMemberOf;
    std::uint32_t m_Status;
    unsigned int m_Answer;
  } cases[] = {{CREATE, 40262, -1, 40099, 0},      {CREATE, 40262, 0, 40099, 20005},
               {CREATE, 40263, -1, 40099, 20005},  {RELEASE, 40263, 3, 40098, 0},
               {RELEASE, 40264, 0, 40095, 0},      {RELEASE, 40262, 3, 40098, 20005},
               {RELEASE, 40263, -1, 40098, 20005}, {RELEASE, 40263, 3, 40093, 20005},
               {REPLACE, 40262, -1, 40099, 20000}, {REPLACE, 40264, -1, 40099, 20117},
               {REPLACE, 40263, -1, 40099, 20118}, {50089, 40262, -1, 40099, 20005}};
  SRig rig(MIRROR);
  CRVXPhysicalDrive& drive = rig.m_Plugin.Drive("sdc");
  for (const auto& entry : cases)
    for (const auto activity : {PI::ACTIVITY_RESYNCING, PI::ACTIVITY_REBUILDING}) {
      rig.m_Plugin.m_LogicalDrives.front().m_Activity = activity;
      drive.m_SpareState = entry.m_SpareState;
      drive.m_IsMemberOf = entry.m_IsMemberOf;
      drive.m_Status = entry.m_Status;
      EXPECT_EQ(Check(rig.m_Plugin, drive.m_ID, Operation(entry.m_Code)),
                activity == PI::ACTIVITY_REBUILDING ? 20020 : entry.m_Answer)
          << entry.m_Code << " " << entry.m_SpareState;
    }
  rig.m_Plugin.m_LogicalDrives.clear();
  EXPECT_EQ(Check(rig.m_Plugin, drive.m_ID, Operation(CREATE)), PI::ERR_NOT_AVAILABLE);
  EXPECT_EQ(Execute(rig.m_Plugin, drive.m_ID, Operation(REPLACE)), PI::ERR_OPERATION_NOT_SUPPORTED);
}

}  // namespace
