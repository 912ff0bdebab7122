// The merge of a scan into the model.

#include "tests/support/TestInstance.h"

using namespace NAMESPACE_piRVX;

namespace {

/// A model with drives of two majors and an array, and a scan equal to it, to be changed by the tests.
struct UpdateTest : public testing::Test, public SBareRig<> {
  UpdateTest() : SBareRig("{}") {
    for (const auto& [name, major, minor] :
         {std::tuple{"sda", 8U, 0U}, {"sdb", 8U, 16U}, {"sdc", 8U, 32U}, {"sdq", 65U, 0U}}) {
      CRVXPhysicalDrive& drive = m_Drives.emplace_back();
      drive.m_ID = 99 + m_Drives.size();
      drive.m_MajorNumber = major;
      drive.m_MinorNumber = minor;
      drive.m_KernelName = name;
    }
    CRVXLogicalDrive& array = m_Arrays.emplace_back();
    array.m_ID = 200;
    array.m_ArrayNumber = 3;
    array.m_KernelName = "md3";
    m_Adapter.m_ID = 1;
    m_Adapter.m_Children = {100, 101, 102, 103, 200, 100};
    m_Plugin.m_Adapter = m_Adapter;
    m_Plugin.m_PhysicalDrives = m_Drives;
    m_Plugin.m_LogicalDrives = m_Arrays;
  }

  unsigned int Merge() { return m_Plugin.UpdateSystem(m_Adapter, m_Drives, m_Arrays); }
  /// Changes each field in the scan. `keys`: scanned fields that say which object it is.
  template <class... TFields>
  void ExpectTakenOver(auto model, auto scanned, std::size_t keys, TFields... fields) {
    EXPECT_EQ(std::tuple_size_v<decltype(model().ScannedFields())>, keys + sizeof...(fields));
    scanned().m_ID = 999;  // no part of the comparison
    const auto expect = [&](auto field) {
      EXPECT_EQ(Merge(), PI::ERR_GENERAL) << "an equal scan changes nothing";
      const unsigned long counter = model().m_UpdateCounter;
      auto& value = scanned().*field;
      if constexpr (std::is_same_v<decltype(value), bool&>)
        value = !value;
      else if constexpr (requires { value.push_back(7); })
        value.push_back(7);
      else
        ++value;
      EXPECT_EQ(Merge(), PI::OK);
      EXPECT_EQ(model().*field, value);
      EXPECT_EQ(model().m_UpdateCounter, counter + 1);
      EXPECT_NE(model().m_ID, 999U);
    };
    (expect(fields), ...);
  }

  CRVXAdapter m_Adapter;
  std::vector<CRVXPhysicalDrive> m_Drives;
  std::vector<CRVXLogicalDrive> m_Arrays;
};

TEST_F(UpdateTest, EveryScannedFieldIsComparedAndTakenOver) {
  m_Adapter.m_Children.clear();
  using A = CRVXAdapter;
  ExpectTakenOver(
      [&]() -> auto& { return m_Plugin.m_Adapter; }, [&]() -> auto& { return m_Adapter; }, 0, &A::m_Name,
      &A::m_Description, &A::m_DeviceKeyPrefix, &A::m_ExtraText, &A::m_MaxPhysicalDrives,
      &A::m_MaxLogicalDrives, &A::m_Status, &A::m_Attribute, &A::m_AttributeList, &A::m_ProgressWatch);
  using D = CRVXPhysicalDrive;
  ExpectTakenOver(
      [&]() -> auto& { return m_Plugin.m_PhysicalDrives[1]; }, [&]() -> auto& { return m_Drives[1]; }, 2,
      &D::m_DriveNumber, &D::m_Vendor, &D::m_Model, &D::m_DisplayName, &D::m_KernelName, &D::m_DeviceKey,
      &D::m_Size, &D::m_UsableSize, &D::m_Status, &D::m_Activity, &D::m_SpareState, &D::m_IsMemberOf,
      &D::m_Attachment, &D::m_Medium);
  using L = CRVXLogicalDrive;
  const auto array = [&]() -> auto& { return m_Plugin.m_LogicalDrives[0]; };
  ExpectTakenOver(
      array, [&]() -> auto& { return m_Arrays[0]; }, 1, &L::m_KernelName, &L::m_DeviceKey, &L::m_PhysicalSize,
      &L::m_LogicalSize, &L::m_RaidLevel, &L::m_StripeSize, &L::m_Status, &L::m_Activity, &L::m_Progress,
      &L::m_Children);
  m_Arrays[0].m_Configuration.SetDoc("<LogicalDriveConfiguration/>");
  EXPECT_EQ(Merge(), PI::OK);
  EXPECT_EQ(array().m_Configuration.GetDoc(), "<LogicalDriveConfiguration/>");
  EXPECT_EQ(Merge(), PI::ERR_GENERAL);
  EXPECT_EQ(m_Plugin.m_Adapter.m_Children.size(), 6U);
  EXPECT_EQ(m_Plugin.TakeEventText(0), "");
}

TEST_F(UpdateTest, WhatVanishedLeavesWithItsEventAndWhatIsNewJoinsSilently) {
  m_Drives.push_back(m_Drives[0]);
  m_Drives.back().m_MinorNumber = 48;
  m_Drives.back().m_ID = 300;
  m_Drives.push_back(m_Drives.back());  // the kernel lists none twice; it would be one disk all the same
  m_Drives.erase(m_Drives.begin(), m_Drives.begin() + 2);
  m_Arrays[0].m_ArrayNumber = 4;
  m_Arrays[0].m_ID = 301;
  EXPECT_EQ(Merge(), PI::OK);
  EXPECT_EQ(m_Plugin.m_PhysicalDrives.at(0).m_ID, 102U);
  EXPECT_EQ(m_Plugin.m_PhysicalDrives.at(2).m_ID, 300U);
  EXPECT_EQ(m_Plugin.m_PhysicalDrives.size(), 3U);
  ASSERT_EQ(m_Plugin.m_LogicalDrives.size(), 1U);
  EXPECT_EQ(m_Plugin.m_LogicalDrives[0].m_ID, 301U);
  EXPECT_THAT(m_Plugin.m_Adapter.m_Children, testing::ElementsAre(102U, 103U, 100U, 300U, 301U))
      << "the first of equal ones goes";
  EXPECT_EQ(m_Plugin.m_Adapter.m_UpdateCounter, 5U);
  EXPECT_EQ(
      m_Plugin.TakeEventText(100),
      "10033/3 sda,sda 8:0 of 101 10033/3 sdb,sdb 8:16 of 3 10081/2 md3,3 ");  // of its number, not yet named
}

TEST_F(UpdateTest, MissingDriveIsAnnouncedOnceAndLeavesSilently) {
  m_Drives[3].m_Status = PI::STATUS_MISSING;
  EXPECT_EQ(Merge(), PI::OK);
  EXPECT_EQ(m_Plugin.TakeEventText(103), "10033/3 sdq,65:0 ");
  m_Drives[3].m_Size = 7;
  EXPECT_EQ(Merge(), PI::OK);
  m_Drives.pop_back();
  EXPECT_EQ(Merge(), PI::OK);
  EXPECT_EQ(m_Plugin.TakeEventText(0), "");
}

}  // namespace
