// The merge of a scan into the model.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/TestInstance.h"

using namespace NAMESPACE_piRVX;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// A model with two drives and an array, and a scan equal to it, to be changed by the tests.
struct UpdateTest : public testing::Test, public SBareRig<> {
  UpdateTest() : SBareRig("{}") {
    for (unsigned int number = 0; number < 2; ++number) {
      CRVXPhysicalDrive drive;
      drive.m_ID = 100 + number;
      drive.m_MajorNumber = 8;
      drive.m_MinorNumber = 16 * number;
      drive.m_KernelName = number == 0 ? "sda" : "sdb";
      m_Drives.push_back(drive);
    }
    CRVXLogicalDrive array;
    array.m_ID = 200;
    array.m_ArrayNumber = 3;
    array.m_KernelName = "md3";
    array.m_Children = {100, 101};
    array.m_Configuration.SetDoc("<LogicalDriveConfiguration Size=\"0\"/>");
    m_Arrays.push_back(array);
    m_Adapter.m_ID = 1;
    m_Adapter.m_Children = {100, 101, 200};
    m_Plugin.m_Adapter = m_Adapter;
    m_Plugin.m_PhysicalDrives = m_Drives;
    m_Plugin.m_LogicalDrives = m_Arrays;
  }

  unsigned int Merge() { return m_Plugin.UpdateSystem(m_Adapter, m_Drives, m_Arrays); }
  unsigned long Counters() const {
    unsigned long sum = m_Plugin.m_Adapter.m_UpdateCounter;
    for (const auto& drive : m_Plugin.m_PhysicalDrives) sum += drive.m_UpdateCounter;
    for (const auto& array : m_Plugin.m_LogicalDrives) sum += array.m_UpdateCounter;
    return sum;
  }

  CRVXAdapter m_Adapter;
  std::vector<CRVXPhysicalDrive> m_Drives;
  std::vector<CRVXLogicalDrive> m_Arrays;
};

TEST_F(UpdateTest, EveryScannedFieldIsComparedAndTakenOver) {
  const std::pair<const char*, std::function<void(UpdateTest&)>> changes[] = {
      {"adapter description", [](UpdateTest& t) { t.m_Adapter.m_Description = "x"; }},
      {"adapter progress watch", [](UpdateTest& t) { t.m_Adapter.m_ProgressWatch = true; }},
      {"size", [](UpdateTest& t) { t.m_Drives[0].m_Size = 7; }},
      {"drive's status", [](UpdateTest& t) { t.m_Drives[0].m_Status = PI::STATUS_FAILED; }},
      {"membership", [](UpdateTest& t) { t.m_Drives[0].m_IsMemberOf = 3; }},
      {"level", [](UpdateTest& t) { t.m_Arrays[0].m_RaidLevel = PI::LEVEL_RAID5; }},
      {"array's status", [](UpdateTest& t) { t.m_Arrays[0].m_Status = PI::STATUS_DEGRADED; }},
      {"progress", [](UpdateTest& t) { t.m_Arrays[0].m_Progress = 7; }},
      {"members", [](UpdateTest& t) { t.m_Arrays[0].m_Children = {100}; }},
      {"document",
       [](UpdateTest& t) { t.m_Arrays[0].m_Configuration.SetDoc("<LogicalDriveConfiguration/>"); }},
  };
  const auto drives = m_Drives;
  const auto arrays = m_Arrays;
  const CRVXAdapter adapter = m_Adapter;
  for (const auto& [what, change] : changes) {
    SCOPED_TRACE(what);
    m_Adapter = m_Plugin.m_Adapter = adapter;
    m_Drives = m_Plugin.m_PhysicalDrives = drives;
    m_Arrays = m_Plugin.m_LogicalDrives = arrays;
    // Identifiers are no part of the comparison.
    m_Drives[0].m_ID = m_Arrays[0].m_ID = m_Adapter.m_ID = 999;
    m_Adapter.m_Children.clear();
    EXPECT_EQ(Merge(), PI::ERR_GENERAL) << "an equal scan changes nothing";
    change(*this);
    EXPECT_EQ(Merge(), PI::OK);
    EXPECT_EQ(Counters(), 1U);  // one object, once
    EXPECT_EQ(m_Plugin.m_PhysicalDrives[0].m_ID, 100U);
    EXPECT_EQ(m_Plugin.m_LogicalDrives[0].m_ID, 200U);
    EXPECT_EQ(Merge(), PI::ERR_GENERAL) << "the second merge of the same scan found a difference";
    EXPECT_THAT(m_Plugin.TakeEvents(), IsEmpty());
  }
}

TEST_F(UpdateTest, WhatVanishedLeavesWithItsEvent) {
  m_Plugin.m_Adapter.m_Children = {100, 101, 200, 100};  // only the first of equal ones goes
  m_Drives.erase(m_Drives.begin());
  m_Arrays.clear();
  EXPECT_EQ(Merge(), PI::OK);
  ASSERT_EQ(m_Plugin.m_PhysicalDrives.size(), 1U);
  EXPECT_EQ(m_Plugin.m_PhysicalDrives[0].m_ID, 101U);
  EXPECT_THAT(m_Plugin.m_LogicalDrives, IsEmpty());
  EXPECT_THAT(m_Plugin.m_Adapter.m_Children, ElementsAre(101U, 100U));
  EXPECT_EQ(m_Plugin.m_Adapter.m_UpdateCounter, 2U);
  const auto events = m_Plugin.TakeEvents();
  ASSERT_EQ(events.size(), 2U);
  EXPECT_EQ(events[0].m_Code, PI::EVT_PHYSICALDRIVE_REMOVED);
  EXPECT_EQ(events[0].m_ObjectID, 100U);
  EXPECT_EQ(events[0].m_Severity, PI::SEV_WARNING);
  EXPECT_EQ(events[0].m_PlaceHolder1 + ", " + events[0].m_PlaceHolder2, "sda, sda 8:0");
  EXPECT_EQ(events[1].m_Code, PI::EVT_LOGICALDRIVE_DELETED);
  EXPECT_EQ(events[1].m_ObjectID, 3U) << "the number, until the next pass";
  EXPECT_EQ(events[1].m_PlaceHolder1 + ", " + events[1].m_PlaceHolder2, "md3, 3");
}

TEST_F(UpdateTest, MissingDriveIsAnnouncedOnceAndLeavesSilently) {
  m_Drives[1].m_Status = PI::STATUS_MISSING;
  EXPECT_EQ(Merge(), PI::OK);
  const auto events = m_Plugin.TakeEvents();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].m_PlaceHolder1 + ", " + events[0].m_PlaceHolder2, "sdb, 8:16");
  EXPECT_EQ(Merge(), PI::ERR_GENERAL);
  m_Drives.pop_back();
  EXPECT_EQ(Merge(), PI::OK);
  EXPECT_THAT(m_Plugin.TakeEvents(), IsEmpty());
}

TEST_F(UpdateTest, NewObjectsJoinSilently) {
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
  EXPECT_THAT(m_Plugin.TakeEvents(), IsEmpty());
}

}  // namespace
