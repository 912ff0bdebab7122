// Start and cancellation of a rebuild, and the two lookups.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/Arrays.h"

using namespace NAMESPACE_piRVX;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr std::uintptr_t OWN_NUMBER = 253 << 8 | 64;  // of /dev/md_d1

/// A mirror md_d1 with a failed member.
struct SRebuildRig : public SMdRig {
  SRebuildRig()
      : SRigOf(DisksOf({300000, 300000}, R"("arrays": [{"name": "md_d1", "level": "raid1",
                                                  "raid_disks": 2, "members": ["sda"], "faulty": ["sdb"]}])")) {
  }
  unsigned int Run(unsigned int code) {
    return Execute(m_Plugin, m_Plugin.Array("md_d1").m_ID, Operation(code));
  }
  unsigned int Start() { return Run(PI::OP_START_REBUILD); }
  unsigned int Cancel() { return Run(PI::OP_CANCEL_REBUILD); }
};

using TChanges = std::vector<std::pair<unsigned long, std::uintptr_t>>;

TEST(Rebuild, HandsTheArraysOwnNumberToMdWhichRefusesIt) {
  SRebuildRig rig;
  EXPECT_EQ(rig.Start(), PI::ERR_DEVICE_IO);
  EXPECT_EQ(rig.m_Own.m_Changes, (TChanges{{HOT_REMOVE_DISK, OWN_NUMBER}}));
  rig.m_Own.m_Changes.clear();
  rig.m_Own.m_Disks[0] = {0, 8, 16, 1, 0};  // a member that is being rebuilt
  EXPECT_EQ(rig.Cancel(), PI::ERR_DEVICE_IO);
  EXPECT_EQ(rig.m_Own.m_Changes, (TChanges{{SET_DISK_FAULTY, OWN_NUMBER}}));
  EXPECT_THAT(rig.m_Door.OpenedForWriting(), IsEmpty());
}

TEST(Rebuild, LooksForTheMemberAmongWhatMdTells) {
  const struct {
    const char* m_What;
    std::vector<mdu_disk_info_t> m_Disks;
    int m_Started;  ///< number of the disk that is added back; -1: none
    bool m_Cancelled;
    int m_Rebuilding;  ///< what the lookups find; -1: none
    int m_Needing;
  } cases[] = {{"a faulty one", {{0, 8, 0, 0, 6}, {1, 8, 16, 1, 1}}, 1, true, 8 << 8 | 16, 8 << 8 | 16},
               {"a faulty spare", {{0, 8, 0, 0, 6}, {1, 8, 16, -1, 1}}, 1, false, -1, 8 << 8 | 16},
               {"the first of two", {{0, 8, 32, 0, 1}, {1, 8, 16, 1, 1}}, 0, true, 8 << 8 | 32, 8 << 8 | 32},
               {"one that is rebuilt", {{0, 8, 0, 0, 6}, {1, 8, 16, 1, 0}}, -1, true, 8 << 8 | 16, -1},
               {"beyond the count", {{0, 8, 0, 0, 6}, {1, 8, 16, 1, 6}, {2, 8, 32, 2, 1}}, -1, false, -1, -1},
               {"a removed one", {{0, 8, 0, -1, 9}, {1, 8, 0, 0, 6}, {2, 8, 16, 1, 1}}, 2, true, -1, 8 << 8},
               {"the last number", {{383, 8, 16, 0, 1}}, 383, true, -1, -1},
               {"a number too far", {{384, 8, 16, 0, 1}}, -1, false, -1, -1},
               {"a slot beyond the array", {{0, 8, 16, 5, 0}}, -1, true, -1, -1}};
  for (const auto& entry : cases) {
    SCOPED_TRACE(entry.m_What);
    SRebuildRig rig;
    for (const mdu_disk_info_t& disk : entry.m_Disks) rig.m_Own.m_Disks[disk.number] = disk;
    for (const unsigned long request :
         std::vector<unsigned long>{HOT_REMOVE_DISK, SET_DISK_FAULTY, ADD_NEW_DISK})
      rig.m_Own.m_Answers[request] = 0;  // a kernel that takes the requests
    EXPECT_EQ(rig.Start(), entry.m_Started < 0 ? 20003U : 0U);
    EXPECT_EQ(rig.m_Own.m_Changes.size(), entry.m_Started < 0 ? 0U : 2U);
    if (entry.m_Started >= 0) {
      const mdu_disk_info_t& wanted = rig.m_Own.m_Disks.at(entry.m_Started);
      const mdu_disk_info_t& added = rig.m_Own.m_Added.at(0);
      EXPECT_THAT((std::vector{added.number, added.major, added.minor, added.raid_disk, added.state}),
                  ElementsAre(wanted.number, wanted.major, wanted.minor, wanted.raid_disk, 2));
    }
    rig.m_Own.m_Changes.clear();
    EXPECT_EQ(rig.Cancel(), entry.m_Cancelled ? 0U : 20003U);
    EXPECT_EQ(rig.m_Own.m_Changes.size(), entry.m_Cancelled ? 1U : 0U);
    int diskID = -1;
    EXPECT_EQ(rig.m_Plugin.FindRebuildingPhysicalDrive(1, diskID), entry.m_Rebuilding < 0 ? 20008U : 0U);
    EXPECT_EQ(diskID, entry.m_Rebuilding);
    diskID = -1;
    EXPECT_EQ(rig.m_Plugin.FindPhysicalDriveForRebuild(1, diskID), entry.m_Needing < 0 ? 20008U : 0U);
    EXPECT_EQ(diskID, entry.m_Needing);
    EXPECT_EQ(rig.m_Plugin.FindPhysicalDriveForRebuild(2, diskID), PI::INVALID_OBJECT_ID);
  }
}

TEST(Rebuild, IsAllowedWhereThereIsSomethingToRebuild) {
  const struct {
    std::uint32_t m_Level;
    std::uint32_t m_Activity;
    std::uint32_t m_Status;
    unsigned int m_Start;
    unsigned int m_Cancel;
  } cases[] = {{40009, 40102, 40094, 0, 20025},     {40014, 40102, 40095, 0, 20025},
               {40009, 40102, 40093, 20024, 20025}, {40009, 40103, 40094, 20020, 20025},
               {40009, 40096, 40094, 20020, 0},     {40007, 40102, 40094, 20023, 20025},
               {40021, 40096, 40095, 20023, 0}};
  SRebuildRig rig;
  CRVXLogicalDrive& array = rig.m_Plugin.Array("md_d1");
  for (const auto& entry : cases) {
    SCOPED_TRACE(testing::Message() << entry.m_Level << " " << entry.m_Activity << " " << entry.m_Status);
    array.m_RaidLevel = entry.m_Level;
    array.m_Activity = entry.m_Activity;
    array.m_Status = entry.m_Status;
    PI::COperation operation = Operation(PI::OP_START_REBUILD);
    EXPECT_EQ(rig.m_Plugin.Execute(PI::CMD_CHECK_OPERATION, array.m_ID, &operation), entry.m_Start);
    EXPECT_EQ(operation.m_ConfirmationCode, entry.m_Start == 0 ? 1U : 0U);
    EXPECT_EQ(operation.m_Attributes[5], entry.m_Start == 0 ? 1U : 0U);
    EXPECT_EQ(Check(rig.m_Plugin, array.m_ID, Operation(PI::OP_CANCEL_REBUILD)), entry.m_Cancel);
  }
  EXPECT_EQ(Check(rig.m_Plugin, array.m_ID, Operation(50000)), PI::OK) << "the execution refuses it";
  EXPECT_EQ(rig.Run(50000), PI::ERR_OPERATION_NOT_SUPPORTED);
}

}  // namespace
