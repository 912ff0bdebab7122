// Start and cancellation of a rebuild, and the two lookups.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/Arrays.h"

using namespace NAMESPACE_piRVX;
using testing::ElementsAre;
using testing::IsEmpty;
using ECall = CFaultyMachine::ECall;

namespace {

/// A mirror md_d1 with a failed member, and stripes md_d0.
const std::string DEGRADED =
    DisksOf({300000, 300000, 300000, 300000},
            R"("arrays": [{"name": "md_d0", "level": "raid0", "members": ["sdc", "sdd"]},
                  {"name": "md_d1", "level": "raid1", "raid_disks": 2, "members": ["sda"], "faulty": ["sdb"]}])");

constexpr std::uintptr_t OWN_NUMBER = 253 << 8 | 64;  // of /dev/md_d1

constexpr unsigned long CHANGES[] = {HOT_REMOVE_DISK, SET_DISK_FAULTY, ADD_NEW_DISK};

unsigned int Start(CTestInstance& plugin) {
  return Execute(plugin, plugin.Array("md_d1").m_ID, Operation(PI::OP_START_REBUILD));
}
unsigned int Cancel(CTestInstance& plugin) {
  return Execute(plugin, plugin.Array("md_d1").m_ID, Operation(PI::OP_CANCEL_REBUILD));
}

using TChanges = std::vector<std::pair<unsigned long, std::uintptr_t>>;

TEST(Rebuild, HandsTheArraysOwnNumberToMdWhichRefusesIt) {
  SMdRig rig(DEGRADED);
  EXPECT_EQ(Start(rig.m_Plugin), PI::ERR_DEVICE_IO);
  EXPECT_EQ(rig.m_Md.m_Changes, (TChanges{{HOT_REMOVE_DISK, OWN_NUMBER}}));
  rig.m_Md.m_Changes.clear();
  rig.m_Md.m_Disks[0] = {0, 8, 16, 1, 0};  // a member that is being rebuilt
  EXPECT_EQ(Cancel(rig.m_Plugin), PI::ERR_DEVICE_IO);
  EXPECT_EQ(rig.m_Md.m_Changes, (TChanges{{SET_DISK_FAULTY, OWN_NUMBER}}));
  EXPECT_THAT(rig.m_Door.OpenedForWriting(), IsEmpty());
  EXPECT_EQ(rig.m_Machine.OpenDescriptors(), 0U);
}

TEST(Rebuild, LooksForTheMemberAmongWhatMdTells) {
  const struct {
    const char* m_What;
    std::vector<mdu_disk_info_t> m_Disks;
    int m_RaidDisks;
    int m_Started;  ///< number of the disk that is added back; -1: none
    bool m_Cancelled;
    int m_Rebuilding;  ///< what the lookups find; -1: none
    int m_Needing;
  } cases[] = {
      {"a faulty one", {{0, 8, 0, 0, 6}, {1, 8, 16, 1, 1}}, 2, 1, true, 8 << 8 | 16, 8 << 8 | 16},
      {"a faulty spare", {{0, 8, 0, 0, 6}, {1, 8, 16, -1, 1}}, 2, 1, false, -1, 8 << 8 | 16},
      {"the first of two", {{0, 8, 32, 0, 1}, {1, 8, 16, 1, 1}}, 2, 0, true, 8 << 8 | 32, 8 << 8 | 32},
      {"one that is rebuilt", {{0, 8, 0, 0, 6}, {1, 8, 16, 1, 0}}, 2, -1, true, 8 << 8 | 16, -1},
      {"all in sync", {{0, 8, 0, 0, 6}, {1, 8, 16, 1, 6}}, 2, -1, false, -1, -1},
      {"beyond the count", {{0, 8, 0, 0, 6}, {1, 8, 16, 1, 6}, {2, 8, 32, 2, 1}}, 2, -1, false, -1, -1},
      {"empty slots are no members",
       {{0, 0, 0, -1, 8}, {1, 8, 0, 0, 6}, {2, 8, 16, -1, 1}},
       2,
       2,
       false,
       -1,
       -1},
      {"removed ones are no members",
       {{0, 8, 0, -1, 9}, {1, 8, 0, 0, 6}, {2, 8, 16, 1, 1}},
       2,
       2,
       true,
       -1,
       8 << 8},
      {"a gap", {{0, 8, 0, 0, 6}, {7, 8, 16, 1, 1}}, 2, 7, true, -1, -1},
      {"the last number", {{383, 8, 16, 0, 1}}, 2, 383, true, -1, -1},
      {"a number too far", {{384, 8, 16, 0, 1}}, 2, -1, false, -1, -1},
      {"a slot beyond the array", {{0, 8, 16, 5, 0}}, 2, -1, true, -1, -1},
      {"no disks", {{0, 8, 16, 0, 1}}, -1, -1, false, -1, -1}};
  for (const auto& entry : cases) {
    SCOPED_TRACE(entry.m_What);
    SMdRig rig(DEGRADED);
    for (const mdu_disk_info_t& disk : entry.m_Disks) rig.m_Md.m_Disks[disk.number] = disk;
    rig.m_Md.m_RaidDisks = entry.m_RaidDisks;
    for (const unsigned long request : CHANGES) rig.m_Md.m_Answers[request] = 0;
    EXPECT_EQ(Start(rig.m_Plugin), entry.m_Started < 0 ? 20003U : 0U);
    EXPECT_EQ(rig.m_Md.m_Changes.size(), entry.m_Started < 0 ? 0U : 2U);
    if (entry.m_Started >= 0) {
      mdu_disk_info_t expected = rig.m_Md.m_Disks.at(entry.m_Started);
      const mdu_disk_info_t& added = rig.m_Md.m_Added.at(0);
      EXPECT_THAT((std::vector{added.number, added.major, added.minor, added.raid_disk, added.state}),
                  ElementsAre(expected.number, expected.major, expected.minor, expected.raid_disk, 2));
    }
    rig.m_Md.m_Changes.clear();
    EXPECT_EQ(Cancel(rig.m_Plugin), entry.m_Cancelled ? 0U : 20003U);
    EXPECT_EQ(rig.m_Md.m_Changes.size(), entry.m_Cancelled ? 1U : 0U);
    int diskID = -1;
    EXPECT_EQ(rig.m_Plugin.FindRebuildingPhysicalDrive(1, diskID), entry.m_Rebuilding < 0 ? 20008U : 0U);
    EXPECT_EQ(diskID, entry.m_Rebuilding);
    diskID = -1;
    EXPECT_EQ(rig.m_Plugin.FindPhysicalDriveForRebuild(1, diskID), entry.m_Needing < 0 ? 20008U : 0U);
    EXPECT_EQ(diskID, entry.m_Needing);
    EXPECT_EQ(rig.m_Plugin.FindPhysicalDriveForRebuild(2, diskID), PI::INVALID_OBJECT_ID);
    EXPECT_EQ(rig.m_Machine.OpenDescriptors(), 0U);
  }
}

TEST(Rebuild, EachStepThatFailsHasItsStatus) {
  const struct {
    const char* m_What;
    ECall m_Call;
    std::uint64_t m_N;
    std::uint64_t m_More;
    unsigned int m_Start;
    unsigned int m_Cancel;
    unsigned int m_Lookup;
  } steps[] = {{"nothing", ECall::Sync, 1, 0, 0, 0, 0},
               {"open", ECall::Open, 1, 0, 20003, 20003, 20008},
               {"GET_ARRAY_INFO", ECall::Ioctl, 1, 0, 20003, 20003, 20008},
               {"the node is asked by its path", ECall::Open, 2, 0, 0, 0, 0},
               {"no device number", ECall::Status, 1, 0, 20000, 20000, 0},
               {"first change", ECall::Ioctl, 3, 0, 20003, 20003, 0},
               {"second change", ECall::Ioctl, 4, 0, 20003, 0, 0}};
  for (const auto& step : steps) {
    SCOPED_TRACE(step.m_What);
    for (const bool start : {true, false}) {
      SMdRig rig(DEGRADED);
      rig.m_Md.m_Disks[0] = {0, 8, 16, 1, 1};
      for (const unsigned long request : CHANGES) rig.m_Md.m_Answers[request] = 0;
      rig.m_Door.FailAt(step.m_Call, step.m_N, EIO, step.m_More);
      EXPECT_EQ(start ? Start(rig.m_Plugin) : Cancel(rig.m_Plugin), start ? step.m_Start : step.m_Cancel);
      rig.m_Door.FailAt(step.m_Call, step.m_N, EIO, step.m_More);
      int diskID = 0;
      EXPECT_EQ(start ? rig.m_Plugin.FindPhysicalDriveForRebuild(1, diskID)
                      : rig.m_Plugin.FindRebuildingPhysicalDrive(1, diskID),
                step.m_Lookup);
      EXPECT_EQ(rig.m_Machine.OpenDescriptors(), 0U);
      EXPECT_FALSE(Take(rig.m_Plugin.m_PrivateEvent) || Take(rig.m_Plugin.m_ForceWorker));
    }
  }
}

TEST(ArrayCheck, AllowsARebuildWhereThereIsSomethingToRebuild) {
  const struct {
    std::uint32_t m_Level;
    std::uint32_t m_Activity;
    std::uint32_t m_Status;
    unsigned int m_Start;
    unsigned int m_Cancel;
  } cases[] = {{40009, 40102, 40094, 0, 20025},     {40009, 40102, 40095, 0, 20025},
               {40009, 40102, 40093, 20024, 20025}, {40009, 40103, 40094, 20020, 20025},
               {40009, 40096, 40094, 20020, 0},     {40009, 40025, 40093, 20020, 20025},
               {40007, 40102, 40094, 20023, 20025}, {40021, 40096, 40095, 20023, 0},
               {40018, 40102, 40094, 0, 20025},     {40014, 40102, 40094, 0, 20025}};
  SRig rig(DEGRADED);
  CRVXLogicalDrive& array = rig.m_Plugin.Array("md_d1");
  for (const auto& entry : cases) {
    array.m_RaidLevel = entry.m_Level;
    array.m_Activity = entry.m_Activity;
    array.m_Status = entry.m_Status;
    PI::COperation operation = Operation(PI::OP_START_REBUILD);
    EXPECT_EQ(rig.m_Plugin.Execute(PI::CMD_CHECK_OPERATION, array.m_ID, &operation), entry.m_Start)
        << entry.m_Level << " " << entry.m_Activity << " " << entry.m_Status;
    EXPECT_EQ(operation.m_ConfirmationCode, entry.m_Start == 0 ? 1U : 0U);
    EXPECT_EQ(operation.m_Attributes[5], entry.m_Start == 0 ? 1U : 0U);
    EXPECT_EQ(Check(rig.m_Plugin, array.m_ID, Operation(PI::OP_CANCEL_REBUILD)), entry.m_Cancel);
    for (const unsigned int code : {50005U, 0U, 50000U})
      EXPECT_EQ(Check(rig.m_Plugin, array.m_ID, Operation(code)), PI::OK)
          << "the execution refuses what is unknown";
  }
  EXPECT_EQ(Execute(rig.m_Plugin, array.m_ID, Operation(50000)), PI::ERR_OPERATION_NOT_SUPPORTED);
}

}  // namespace
