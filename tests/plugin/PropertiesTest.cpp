// What is behind the properties: the rescan, SMART data, time estimates and configurations.

#include <linux/hdreg.h>

#include "Src/piRVXPhysicalDriveSmart.h"
#include "tests/support/Arrays.h"

using namespace NAMESPACE_piRVX;

namespace {

/// The demo machine: sdh is a solid-state disk that tells its figures, md_d1 a mirror that resyncs.
struct PropertiesTest : public testing::Test, public SRig {
  PropertiesTest() { gSmartData.clear(); }  // it outlives instances
  std::string TimeRemaining() { return Shown(m_Plugin.Property(m_Mirror.m_ID, PI::PROP_TIME_REMAINING)); }
  std::uint64_t SmartCommands() const { return m_Machine.IoctlCount(HDIO_DRIVE_CMD); }

  CRVXLogicalDrive& m_Mirror{m_Plugin.Array("md_d1")};
};

TEST_F(PropertiesTest, ARescanWakesTheWorkerAndIsAnnounced) {
  const unsigned long id = m_Plugin.m_Adapter.m_ID;
  m_Plugin.TakeEvents();
  EXPECT_EQ(Execute(m_Plugin, id, Operation(PI::OP_RESCAN_ADAPTER)), PI::OK);
  EXPECT_TRUE(Take(m_Plugin.m_ForceWorker) && Take(m_Plugin.m_PrivateEvent));
  EXPECT_EQ(m_Plugin.TakeEventText(id), "10132/2 Multiple Devices, ");
}

TEST_F(PropertiesTest, OnlyKnownSolidStateDisksOnAtaAreAskedForTheirFigures) {
  const std::tuple<std::uint32_t, std::uint32_t, const char*> cases[] = {
      {40002, 40293, "INTEL"}, {40174, 40293, "INTEL"}, {40002, 40292, "INTEL"}, {40002, 40293, "ACME"}};
  CRVXPhysicalDrive& drive = m_Plugin.Drive("sdh");
  for (const auto& entry : cases) {
    gSmartData.clear();
    std::tie(drive.m_Attachment, drive.m_Medium, drive.m_Vendor) = entry;
    const auto properties = m_Plugin.Properties(drive.m_ID);
    EXPECT_EQ(Find(properties, PI::PROP_SMART_WEAR)->m_AttributeWord != 0, &entry == cases);
    EXPECT_EQ(SmartCommands(), 1U) << "one command to the first serves all its figures";
  }
}

TEST_F(PropertiesTest, ASmartBlockServesFiveMinutes) {
  PI::_IDE_SMART_DATA data{};
  const auto read = [&](std::uint64_t later) {
    m_Machine.Advance(later);
    return GetSmartData(m_System, "/dev/sdh", data);
  };
  ASSERT_EQ(read(0), PI::OK);
  const auto first = data.m_Bytes;
  EXPECT_EQ(first[0], 16) << "the sector itself, without the command's header";
  m_Machine.Apply(R"({"smart": {"sdh": {"attributes": [{"id": 9, "raw": 9999}]}}})");
  EXPECT_EQ(read(300000), PI::OK);
  EXPECT_EQ(data.m_Bytes, first);
  EXPECT_EQ(read(1), PI::OK);
  const auto second = data.m_Bytes;
  EXPECT_NE(second, first);
  EXPECT_EQ(read(300000), PI::OK) << "five minutes from the second reading";
  EXPECT_EQ(SmartCommands(), 2U);
  for (const OS::ECall failing : {OS::ECall::Open, OS::ECall::Ioctl}) {
    m_System.FailAt(failing, 1, EIO);
    data = {};
    EXPECT_EQ(read(1), PI::ERR_GENERAL);
    EXPECT_EQ(data.m_Bytes, second) << "the caller gets the old block and the failure";
  }
  EXPECT_EQ(read(0), PI::OK) << "and the next one tries again";
  EXPECT_EQ(GetSmartData(m_System, "/dev/sda", data), PI::ERR_GENERAL) << "a disk that refuses the command";
}

TEST(SmartBlocks, MayMoveWhileADiskIsAsked) {
  gSmartData.clear();
  SRigOf<CHookedSystem> rig;
  rig.m_Own.m_Hook = [](const std::string& call) {
    if (call == "ioctl") gSmartData.resize(100);  // as another instance's readings do
    return CHookedSystem::TAnswer();
  };
  PI::_IDE_SMART_DATA data{};
  EXPECT_EQ(GetSmartData(rig.m_System, "/dev/sdh", data), PI::OK);
  EXPECT_EQ(gSmartData.size(), 101U);
}

TEST_F(PropertiesTest, ReadingTheProgressFeedsTheEstimateAndNothingElseDoes) {
  EXPECT_EQ(TimeRemaining(), "");
  for (const auto& [activity, running, other] :
       {std::tuple(PI::ACTIVITY_RESYNCING, PI::PROP_RESYNC_PROGRESS, PI::PROP_REBUILD_PROGRESS),
        {PI::ACTIVITY_REBUILDING, PI::PROP_REBUILD_PROGRESS, PI::PROP_RESYNC_PROGRESS}}) {
    m_Plugin.m_Estimators.clear();
    m_Mirror.m_Activity = activity;
    m_Mirror.m_Progress = 10;
    EXPECT_EQ(Shown(m_Plugin.Property(m_Mirror.m_ID, other)), "0 of 0 to 100 by 1");
    EXPECT_EQ(m_Plugin.m_Estimators.size(), 0U);
    EXPECT_EQ(Shown(m_Plugin.Property(m_Mirror.m_ID, running)), "10 of 0 to 100 by 1");
    EXPECT_EQ(TimeRemaining(), "01:30:00") << "a minute a percent";
  }
  // A list of all shows the time of the progress that it has just read.
  m_Machine.Advance(120000);
  m_Mirror.m_Progress = 11;
  EXPECT_EQ(Shown(*Find(m_Plugin.Properties(m_Mirror.m_ID), PI::PROP_TIME_REMAINING)), "02:58:00");
  const std::pair<std::uint64_t, const char*> times[] = {
      {999, ""}, {59999, "00:00:59"}, {359999999, "99:59:59"}, {360000000, "> 99:59:59"}};
  for (const auto& [remaining, text] : times) {
    m_Plugin.m_Estimators.front().m_Remaining = remaining;
    EXPECT_EQ(TimeRemaining(), text) << remaining;
  }
  m_Plugin.m_Estimators.resize(2, m_Plugin.m_Estimators.front());
  m_Plugin.m_Estimators.emplace_back().m_ID = 4711;
  m_Mirror.m_Activity = PI::ACTIVITY_NONE;
  EXPECT_EQ(TimeRemaining(), "");
  ASSERT_EQ(m_Plugin.m_Estimators.size(), 1U) << "all of the mirror's are gone";
  EXPECT_EQ(m_Plugin.m_Estimators[0].m_ID, 4711U);
}

TEST_F(PropertiesTest, ConfigurationIsHandedOutAsItsDocumentSays) {
  PI::COperation operation = Operation(PI::OP_GET_CONFIGURATION);
  operation.m_LogicalDrives.resize(3);  // is emptied
  EXPECT_EQ(m_Plugin.Execute(PI::CMD_EXECUTE_OPERATION, m_Mirror.m_ID, &operation), PI::OK);
  ASSERT_EQ(operation.m_LogicalDrives.size(), 1U);
  EXPECT_EQ(operation.m_LogicalDrives[0].ToDocument().GetDoc(), m_Mirror.m_Configuration.GetDoc());
  const std::uint64_t size = m_Mirror.m_LogicalSize;
  PI::CLogicalDrive description;
  m_System.FailAt(OS::ECall::Ioctl, 1, EIO);
  EXPECT_EQ(m_Plugin.GetLogicalDriveConfiguration(m_Mirror, description, m_Plugin.m_PhysicalDrives), 20003U);
  EXPECT_EQ(m_Mirror.m_LogicalSize, size) << "nothing changes before md answers";
}

TEST(Configuration, TakesMembersFromMdAndStatesFromTheModel) {
  SMdRig rig(DisksOf({300000, 200000, 300000, 300000}, R"("arrays": [{"name": "md_d5", "level": "raid10",
    "chunk": 128, "members": ["sda", "sdb", "sdc", "sdd"]}])"));
  auto& drives = rig.m_Plugin.m_PhysicalDrives;
  CRVXLogicalDrive& array = rig.m_Plugin.Array("md_d5");
  EXPECT_EQ(array.m_StripeSize, PI::STRIPE_64K) << "the query looks at the level, not at the chunk";
  // A failed drive is a spare only where md gives it no slot; partitions count as their disk.
  rig.m_Own.m_Disks = {
      {0, {0, 8, 3, -1, 1}}, {1, {1, 8, 16, 1, 6}}, {2, {2, 8, 47, 2, 6}}, {3, {3, 9, 48, 3, 6}}};
  drives[0].m_Status = drives[1].m_Status = PI::STATUS_FAILED;
  drives[2].m_Status = PI::STATUS_SPARE;
  for (auto& drive : drives) drive.m_IsMemberOf = CRVXPhysicalDrive::NO_ARRAY;
  array.m_RaidLevel = 0;
  PI::CLogicalDrive description;
  EXPECT_EQ(rig.m_Plugin.GetLogicalDriveConfiguration(array, description, drives), PI::OK);
  ASSERT_EQ(description.m_Containers.at(0).m_Drives.size(), 1U);
  EXPECT_EQ(description.m_Containers[0].m_Drives[0].m_ObjectID, drives[1].m_ID);
  EXPECT_THAT(description.m_DedicatedHotSpares, testing::ElementsAre(drives[0].m_ID, drives[2].m_ID));
  EXPECT_EQ(array.m_RaidLevel, PI::LEVEL_RAID10);
  EXPECT_EQ(Text("%d %d %d", array.m_LogicalSize, drives[2].m_IsMemberOf, drives[3].m_IsMemberOf),
            "800000 5 -1");
  drives.clear();
  EXPECT_EQ(rig.m_Plugin.GetLogicalDriveConfiguration(array, description, drives), PI::OK);
  EXPECT_EQ(description.m_Containers.size(), 2U) << "one without drives is a container too";
}

}  // namespace
