// The merge of a scan into the model.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/TestInstance.h"

using namespace NAMESPACE_piRVX;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// A model with two drives and an array, and a scan equal to it, to be changed by the tests.
struct UpdateTest : public testing::Test {
  UpdateTest() {
    for (unsigned int number = 0; number < 2; ++number) {
      CRVXPhysicalDrive drive;
      drive.m_ID = 100 + number;
      drive.m_MajorNumber = 8;
      drive.m_MinorNumber = 16 * number;
      drive.m_KernelName = number == 0 ? "sda" : "sdb";
      m_Plugin.m_PhysicalDrives.push_back(drive);
    }
    CRVXLogicalDrive array;
    array.m_ID = 200;
    array.m_ArrayNumber = 3;
    array.m_KernelName = "md3";
    array.m_Children = {100, 101};
    array.m_Configuration.SetDoc("<LogicalDriveConfiguration Size=\"0\"/>");
    m_Plugin.m_LogicalDrives.push_back(array);
    m_Plugin.m_Adapter.m_ID = 1;
    m_Plugin.m_Adapter.m_Children = {100, 101, 200};
    m_Adapter = m_Plugin.m_Adapter;
    m_Drives = m_Plugin.m_PhysicalDrives;
    m_Arrays = m_Plugin.m_LogicalDrives;
  }

  unsigned int Merge() { return m_Plugin.UpdateSystem(m_Adapter, m_Drives, m_Arrays); }
  unsigned long Counters() const {
    unsigned long sum = m_Plugin.m_Adapter.m_UpdateCounter;
    for (const auto& drive : m_Plugin.m_PhysicalDrives) sum += drive.m_UpdateCounter;
    for (const auto& array : m_Plugin.m_LogicalDrives) sum += array.m_UpdateCounter;
    return sum;
  }

  CConfigFolder m_Config;
  CSimulatedMachine m_Machine{R"({"controllers":[],"disks":[]})"};
  CTestInstance m_Plugin{m_Machine};
  CRVXAdapter m_Adapter;
  std::vector<CRVXPhysicalDrive> m_Drives;
  std::vector<CRVXLogicalDrive> m_Arrays;
};

TEST_F(UpdateTest, EqualScanChangesNothing) {
  m_Drives[0].m_ID = 999;  // identifiers are no part of the comparison
  m_Arrays[0].m_ID = 998;
  m_Adapter.m_ID = 997;
  m_Adapter.m_Children.clear();
  EXPECT_EQ(Merge(), PI::ERR_GENERAL);
  EXPECT_EQ(Counters(), 0U);
  EXPECT_THAT(m_Plugin.TakeEvents(), IsEmpty());
}

TEST_F(UpdateTest, EveryScannedFieldIsComparedAndTakenOver) {
  const std::pair<const char*, std::function<void(UpdateTest&)>> changes[] = {
      {"adapter name", [](UpdateTest& t) { t.m_Adapter.m_Name = "x"; }},
      {"adapter description", [](UpdateTest& t) { t.m_Adapter.m_Description = "x"; }},
      {"adapter prefix", [](UpdateTest& t) { t.m_Adapter.m_DeviceKeyPrefix = "x"; }},
      {"adapter extra text", [](UpdateTest& t) { t.m_Adapter.m_ExtraText = "x"; }},
      {"adapter maximum", [](UpdateTest& t) { t.m_Adapter.m_MaxLogicalDrives = 7; }},
      {"adapter status", [](UpdateTest& t) { t.m_Adapter.m_Status = 7; }},
      {"adapter attribute", [](UpdateTest& t) { t.m_Adapter.m_Attribute = 7; }},
      {"adapter attribute list", [](UpdateTest& t) { t.m_Adapter.m_AttributeList = {7}; }},
      {"adapter progress watch", [](UpdateTest& t) { t.m_Adapter.m_ProgressWatch = true; }},
      {"drive number", [](UpdateTest& t) { t.m_Drives[0].m_DriveNumber = 7; }},
      {"vendor", [](UpdateTest& t) { t.m_Drives[0].m_Vendor = "x"; }},
      {"model", [](UpdateTest& t) { t.m_Drives[0].m_Model = "x"; }},
      {"display name", [](UpdateTest& t) { t.m_Drives[0].m_DisplayName = "x"; }},
      {"drive's kernel name", [](UpdateTest& t) { t.m_Drives[0].m_KernelName = "sdz"; }},
      {"drive's key", [](UpdateTest& t) { t.m_Drives[0].m_DeviceKey = "x"; }},
      {"size", [](UpdateTest& t) { t.m_Drives[0].m_Size = 7; }},
      {"usable size", [](UpdateTest& t) { t.m_Drives[0].m_UsableSize = 7; }},
      {"drive's status", [](UpdateTest& t) { t.m_Drives[0].m_Status = PI::STATUS_FAILED; }},
      {"drive's activity", [](UpdateTest& t) { t.m_Drives[0].m_Activity = PI::ACTIVITY_REBUILDING; }},
      {"spare state", [](UpdateTest& t) { t.m_Drives[0].m_SpareState = PI::SPARE_STATE_IN_USE; }},
      {"membership", [](UpdateTest& t) { t.m_Drives[0].m_IsMemberOf = 3; }},
      {"attachment", [](UpdateTest& t) { t.m_Drives[0].m_Attachment = PI::ATTACHMENT_ATA; }},
      {"medium", [](UpdateTest& t) { t.m_Drives[0].m_Medium = PI::MEDIUM_SOLID_STATE; }},
      {"array's name", [](UpdateTest& t) { t.m_Arrays[0].m_KernelName = "md_d3"; }},
      {"array's key", [](UpdateTest& t) { t.m_Arrays[0].m_DeviceKey = "x"; }},
      {"physical size", [](UpdateTest& t) { t.m_Arrays[0].m_PhysicalSize = 7; }},
      {"logical size", [](UpdateTest& t) { t.m_Arrays[0].m_LogicalSize = 7; }},
      {"level", [](UpdateTest& t) { t.m_Arrays[0].m_RaidLevel = PI::LEVEL_RAID5; }},
      {"stripe", [](UpdateTest& t) { t.m_Arrays[0].m_StripeSize = PI::STRIPE_4K; }},
      {"array's status", [](UpdateTest& t) { t.m_Arrays[0].m_Status = PI::STATUS_DEGRADED; }},
      {"array's activity", [](UpdateTest& t) { t.m_Arrays[0].m_Activity = PI::ACTIVITY_RESYNCING; }},
      {"progress", [](UpdateTest& t) { t.m_Arrays[0].m_Progress = 7; }},
      {"members", [](UpdateTest& t) { t.m_Arrays[0].m_Children = {100}; }},
      {"document",
       [](UpdateTest& t) { t.m_Arrays[0].m_Configuration.SetDoc("<LogicalDriveConfiguration/>"); }},
  };
  const CRVXAdapter adapter = m_Adapter;
  const auto drives = m_Drives;
  const auto arrays = m_Arrays;
  for (const auto& [what, change] : changes) {
    SCOPED_TRACE(what);
    m_Adapter = m_Plugin.m_Adapter = adapter;
    m_Drives = m_Plugin.m_PhysicalDrives = drives;
    m_Arrays = m_Plugin.m_LogicalDrives = arrays;
    change(*this);
    EXPECT_EQ(Merge(), PI::OK);
    EXPECT_EQ(Counters(), 1U);  // one object, once
    EXPECT_EQ(m_Plugin.m_PhysicalDrives[0].m_ID, 100U);
    EXPECT_EQ(m_Plugin.m_LogicalDrives[0].m_ID, 200U);
    EXPECT_EQ(Merge(), PI::ERR_GENERAL) << "the second merge of the same scan found a difference";
    EXPECT_THAT(m_Plugin.TakeEvents(), IsEmpty());
  }
}

TEST_F(UpdateTest, VanishedDriveLeavesWithItsEvent) {
  m_Plugin.m_Adapter.m_Children = {100, 101, 200, 100};  // only the first of equal ones goes
  m_Drives.erase(m_Drives.begin());
  EXPECT_EQ(Merge(), PI::OK);
  ASSERT_EQ(m_Plugin.m_PhysicalDrives.size(), 1U);
  EXPECT_EQ(m_Plugin.m_PhysicalDrives[0].m_ID, 101U);
  EXPECT_THAT(m_Plugin.m_Adapter.m_Children, ElementsAre(101U, 200U, 100U));
  EXPECT_EQ(m_Plugin.m_Adapter.m_UpdateCounter, 1U);
  const auto events = m_Plugin.TakeEvents();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].m_Code, PI::EVT_PHYSICALDRIVE_REMOVED);
  EXPECT_EQ(events[0].m_Severity, PI::SEV_WARNING);
  EXPECT_EQ(events[0].m_ObjectID, 100U);
  EXPECT_EQ(events[0].m_SourceID, 1U);
  EXPECT_EQ(events[0].m_PlaceHolder1, "sda");
  EXPECT_EQ(events[0].m_PlaceHolder2, "sda 8:0");
}

TEST_F(UpdateTest, NeighboursThatVanishTogetherAllLeave) {
  m_Drives.clear();
  EXPECT_EQ(Merge(), PI::OK);
  EXPECT_THAT(m_Plugin.m_PhysicalDrives, IsEmpty());
  EXPECT_THAT(m_Plugin.TakeEventCodes(),
              ElementsAre(PI::EVT_PHYSICALDRIVE_REMOVED, PI::EVT_PHYSICALDRIVE_REMOVED));
  EXPECT_THAT(m_Plugin.m_Adapter.m_Children, ElementsAre(200U));
}

TEST_F(UpdateTest, MissingDriveIsAnnouncedOnceAndLeavesSilently) {
  m_Drives[1].m_Status = PI::STATUS_MISSING;
  EXPECT_EQ(Merge(), PI::OK);
  auto events = m_Plugin.TakeEvents();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].m_PlaceHolder1, "sdb");
  EXPECT_EQ(events[0].m_PlaceHolder2, "8:16");
  EXPECT_EQ(Merge(), PI::ERR_GENERAL);
  m_Drives.pop_back();
  EXPECT_EQ(Merge(), PI::OK);
  EXPECT_THAT(m_Plugin.TakeEvents(), IsEmpty());
}

TEST_F(UpdateTest, VanishedArrayIsNamedByItsNumber) {
  m_Arrays.clear();
  EXPECT_EQ(Merge(), PI::OK);
  const auto events = m_Plugin.TakeEvents();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].m_Code, PI::EVT_LOGICALDRIVE_DELETED);
  EXPECT_EQ(events[0].m_ObjectID, 3U);
  EXPECT_EQ(events[0].m_SourceID, 1U);
  EXPECT_EQ(events[0].m_Severity, PI::SEV_DEFAULT);
  EXPECT_EQ(events[0].m_PlaceHolder1, "md3");
  EXPECT_EQ(events[0].m_PlaceHolder2, "3");
  EXPECT_THAT(m_Plugin.m_Adapter.m_Children, ElementsAre(100U, 101U));
}

TEST_F(UpdateTest, NewObjectsJoinSilentlyAndTheScanStaysAsItIs) {
  m_Drives.push_back(m_Drives[0]);
  m_Drives.back().m_MinorNumber = 32;
  m_Drives.back().m_ID = 300;
  m_Arrays.push_back(m_Arrays[0]);
  m_Arrays.back().m_ArrayNumber = 4;
  m_Arrays.back().m_ID = 301;
  EXPECT_EQ(Merge(), PI::OK);
  EXPECT_THAT(m_Plugin.m_Adapter.m_Children, ElementsAre(100U, 101U, 200U, 300U, 301U));
  EXPECT_EQ(m_Plugin.m_Adapter.m_UpdateCounter, 2U);
  EXPECT_EQ(m_Plugin.m_PhysicalDrives.back().m_ID, 300U);
  EXPECT_EQ(m_Plugin.m_LogicalDrives.back().m_ID, 301U);
  EXPECT_EQ(m_Drives.size(), 3U);
  EXPECT_THAT(m_Plugin.TakeEvents(), IsEmpty());
}

TEST_F(UpdateTest, DrivesOfOneNumberBothFollowTheFirstScanned) {
  m_Plugin.m_PhysicalDrives[1].m_MinorNumber = 0;
  m_Drives = {m_Drives[0], m_Drives[0]};
  m_Drives[0].m_Model = "first";
  m_Drives[1].m_Model = "second";
  EXPECT_EQ(Merge(), PI::OK);
  ASSERT_EQ(m_Plugin.m_PhysicalDrives.size(), 2U);
  EXPECT_EQ(m_Plugin.m_PhysicalDrives[0].m_Model, "first");
  EXPECT_EQ(m_Plugin.m_PhysicalDrives[1].m_Model, "first");
}

}  // namespace
