// Start and cancellation of its rebuild, and the two lookups.

#include "tests/support/Arrays.h"

using namespace NAMESPACE_piRVX;

namespace {

/// A mirror md_d1 with a failed member.
struct SRebuildRig : public SMdRig {
  SRebuildRig()
      : SRigOf(DisksOf({300000, 300000}, R"("arrays": [{"name": "md_d1", "level": "raid1",
                                                  "raid_disks": 2, "members": ["sda"], "faulty": ["sdb"]}])")) {
  }
  unsigned int Run(unsigned int code) {
    m_Own.m_Changes.clear();
    return Execute(m_Plugin, m_Plugin.Array("md_d1").m_ID, Operation(code));
  }
  using TLookup = unsigned int (IPLUGINAPI_IMPL::*)(int, int&);
  /// -1: none.
  int Look(TLookup lookup) {
    int diskID = -1;
    const unsigned int status = (m_Plugin.*lookup)(1, diskID);
    EXPECT_EQ(status, diskID < 0 ? 20008U : 0U);
    return diskID;
  }
};

TEST(Rebuild, LooksForTheMemberAmongWhatMdTellsAndHandsTheArraysOwnNumberToMd) {
  using TLines = std::vector<std::string>;
  // What md tells, the record that is added back, whether a rebuild is cancelled, what the two lookups find.
  const std::tuple<const char*, std::vector<mdu_disk_info_t>, std::string, bool, int, int> cases[] = {
      {"a faulty one", {{0, 8, 0, 0, 6}, {1, 8, 16, 1, 1}}, "add 1 8 16 1 2", true, 2064, 2064},
      {"a faulty spare", {{0, 8, 0, 0, 6}, {1, 8, 16, -1, 1}}, "add 1 8 16 -1 2", false, -1, 2064},
      {"the first of two", {{0, 8, 32, 0, 1}, {1, 8, 16, 1, 1}}, "add 0 8 32 0 2", true, 2080, 2080},
      {"one that is rebuilt", {{0, 8, 0, 0, 6}, {1, 8, 16, 1, 0}}, "", true, 2064, -1},
      {"beyond the count", {{0, 8, 0, 0, 6}, {1, 8, 16, 1, 6}, {2, 8, 32, 2, 1}}, "", false, -1, -1},
      {"a removed one",
       {{0, 8, 0, -1, 9}, {1, 8, 0, 0, 6}, {2, 8, 16, 1, 1}},
       "add 2 8 16 1 2",
       true,
       -1,
       2048},
      {"removed with a slot", {{0, 8, 0, 0, 8}, {1, 8, 16, 1, 6}}, "", false, -1, -1},
      {"the last number", {{383, 8, 16, 0, 1}}, "add 383 8 16 0 2", true, -1, -1},
      {"a number too far", {{384, 8, 16, 0, 1}}, "", false, -1, -1},
      {"a slot beyond the array", {{0, 8, 16, 5, 0}}, "", true, -1, -1}};
  for (const auto& [what, disks, added, cancelled, rebuilding, needing] : cases) {
    SCOPED_TRACE(what);
    SRebuildRig rig;
    for (const mdu_disk_info_t& disk : disks) rig.m_Own.m_Disks[disk.number] = disk;
    rig.m_Own.m_Answers = {{HOT_REMOVE_DISK, 0}, {SET_DISK_FAULTY, 0}, {ADD_NEW_DISK, 0}};  // all taken
    EXPECT_EQ(rig.Run(PI::OP_START_REBUILD), added.empty() ? 20003U : 0U);
    EXPECT_EQ(rig.m_Own.m_Changes, added.empty() ? TLines{} : (TLines{"remove 64832", added}));  // 253:64
    EXPECT_EQ(rig.Run(PI::OP_CANCEL_REBUILD), cancelled ? 0U : 20003U);
    EXPECT_EQ(rig.m_Own.m_Changes, cancelled ? TLines{"fail 64832"} : TLines{});
    EXPECT_EQ(rig.Look(&IPLUGINAPI_IMPL::FindRebuildingPhysicalDrive), rebuilding);
    EXPECT_EQ(rig.Look(&IPLUGINAPI_IMPL::FindPhysicalDriveForRebuild), needing);
  }
}

TEST(Rebuild, IsAllowedWhereThereIsSomethingToRebuild) {
  const std::array<unsigned int, 5> cases[] = {
      // level, activity, status; answers to start and cancellation
      {40009, 40102, 40094, 0, 20025},     {40014, 40102, 40095, 0, 20025},
      {40009, 40102, 40093, 20024, 20025}, {40009, 40103, 40094, 20020, 20025},
      {40009, 40096, 40094, 20020, 0},     {40007, 40102, 40094, 20023, 20025},
      {40021, 40096, 40095, 20023, 0}};
  SRebuildRig rig;
  CRVXLogicalDrive& array = rig.m_Plugin.Array("md_d1");
  for (const auto& [level, activity, status, start, cancel] : cases) {
    SCOPED_TRACE(testing::Message() << level << " " << activity << " " << status);
    std::tie(array.m_RaidLevel, array.m_Activity, array.m_Status) = std::tuple(level, activity, status);
    PI::COperation operation = Operation(PI::OP_START_REBUILD);
    EXPECT_EQ(rig.m_Plugin.Execute(PI::CMD_CHECK_OPERATION, array.m_ID, &operation), start);
    EXPECT_EQ(operation.m_ConfirmationCode, start == 0 ? 1U : 0U);
    EXPECT_EQ(operation.m_Attributes[5], start == 0 ? 1U : 0U);
    EXPECT_EQ(Check(rig.m_Plugin, array.m_ID, Operation(PI::OP_CANCEL_REBUILD)), cancel);
  }
  EXPECT_EQ(Check(rig.m_Plugin, array.m_ID, Operation(50000)), PI::OK) << "the execution refuses it";
  EXPECT_EQ(rig.Run(50000), PI::ERR_OPERATION_NOT_SUPPORTED);
}

}  // namespace
