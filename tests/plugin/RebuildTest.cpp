// What an array tells of itself, start and cancellation of its rebuild, and the two lookups.

#include "tests/support/Arrays.h"

using namespace NAMESPACE_piRVX;

namespace {

TEST(Configuration, IsOneSpanOfTheMembersWithTheSparesBeside) {
  SMdRig rig(DisksOf({300000, 200000, 300000}, MirrorOfTwo("md_d1", R"("chunk": 128, "spares": ["sdc"])")));
  CRVXLogicalDrive& array = rig.m_Plugin.Array("md_d1");
  const unsigned long first = rig.m_Plugin.Drive("sda").m_ID;
  EXPECT_EQ(array.m_Configuration.GetDoc(),
            Text(R"(<LogicalDriveConfiguration Size="0" Units="0" SpanCount="1" SpanSize="2"><Containers>)"
                 R"(<Container><Drive ObjectID="%d" StartAddress="0" UsedSize="0"/><Drive ObjectID="%d" )"
                 R"(StartAddress="0" UsedSize="0"/></Container></Containers><DedicatedHotSpares>)"
                 R"(<Drive ObjectID="%d"/></DedicatedHotSpares></LogicalDriveConfiguration>)",
                 first, first + 1, first + 2));
  rig.m_Own.m_Array = [](mdu_array_info_t& info) { info.level = 10; };
  PI::CLogicalDrive description;
  array.m_RaidLevel = array.m_StripeSize = 0;
  EXPECT_EQ(rig.m_Plugin.GetLogicalDriveConfiguration(array, description, rig.m_Plugin.m_PhysicalDrives), 0U);
  EXPECT_EQ(array.m_RaidLevel, PI::LEVEL_RAID10);
  EXPECT_EQ(array.m_StripeSize, PI::STRIPE_64K) << "whatever the chunk is";
  EXPECT_EQ(array.m_LogicalSize, 800000U);
  std::vector<CRVXPhysicalDrive> drives;
  for (const std::size_t count : {0U, 3U, 400U}) {
    drives.resize(count);
    rig.m_Own.m_DiskQueries = 0;
    rig.m_Plugin.GetLogicalDriveConfiguration(array, description, drives);
    EXPECT_EQ(rig.m_Own.m_DiskQueries, std::min<std::size_t>(count, 384)) << "one for each drive";
  }
  EXPECT_EQ(description.m_Containers.size(), 4U) << "one without drives is a container too";
}

TEST(Estimates, OfAnArrayThatIsIdleAreGoneToTheLast) {
  SRig rig(DisksOf({300000, 300000}, MirrorOfTwo("md_d1")));
  CRVXLogicalDrive& array = rig.m_Plugin.Array("md_d1");
  array.m_Activity = PI::ACTIVITY_REBUILDING;
  rig.m_Plugin.Properties(array.m_ID);
  auto& estimators = rig.m_Plugin.m_Estimators;
  ASSERT_EQ(estimators.at(0).m_ID, array.m_ID);
  estimators.resize(3, estimators[0]);
  array.m_Activity = PI::ACTIVITY_NONE;
  rig.m_Plugin.Properties(array.m_ID);
  EXPECT_EQ(estimators.size(), 0U);
}

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
