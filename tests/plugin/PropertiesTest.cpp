// Properties and operations of the adapter, the physical drives and the arrays, and what is behind them:
// SMART data, time estimates and configurations.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/hdreg.h>

#include "Src/piRVXTrace.h"
#include "tests/support/Arrays.h"

using namespace NAMESPACE_piRVX;
using testing::ElementsAre;
using testing::IsEmpty;
using ECall = CFaultyMachine::ECall;

namespace {

/// The demo machine: sdh is a solid-state disk that tells its figures, md_d0 of stripes, and md_d1 a mirror
/// with a spare that resyncs at 12 percent.
struct PropertiesTest : public testing::Test, public SRig {
  PropertiesTest() {
    gSmartData.clear();  // the cache outlives instances
  }
  std::string TimeRemaining() { return Shown(m_Plugin.Property(m_Mirror.m_ID, PI::PROP_TIME_REMAINING)); }
  PI::CProperty OfDrive(PI::_PROPERTY_ID which) { return m_Plugin.Property(m_Drive.m_ID, which); }
  void SetSmart(const std::string& attributes) {
    m_Machine.Apply(R"({"smart": {"sdh": {"attributes": [)" + attributes + "]}}}");
  }
  std::uint64_t SmartCommands() const { return m_Machine.IoctlCount(HDIO_DRIVE_CMD); }

  CRVXPhysicalDrive& m_Drive{m_Plugin.Drive("sdh")};
  CRVXLogicalDrive& m_Stripes{m_Plugin.Array("md_d0")};
  CRVXLogicalDrive& m_Mirror{m_Plugin.Array("md_d1")};
};

TEST_F(PropertiesTest, OfTheAdapterFollowTheModelAndEmptyOnesAreLeftOut) {
  CRVXAdapter& adapter = m_Plugin.m_Adapter;
  const auto properties = m_Plugin.Properties(adapter.m_ID);
  EXPECT_EQ(Find(properties, PI::PROP_ADAPTER_EXTRA_TEXT), nullptr);
  EXPECT_EQ(Shown(*Find(properties, PI::PROP_PHYSICAL_DRIVES_OF_MAX)), "8/1024");
  EXPECT_EQ(Shown(*Find(properties, PI::PROP_LOGICAL_DRIVES)), "2");
  EXPECT_EQ(properties.back().m_ID, PI::PROP_STATUS) << "the order of the front ends";
  adapter.m_ExtraText = "Extra";
  adapter.m_AttributeList = {9, 10};
  EXPECT_EQ(m_Plugin.Properties(adapter.m_ID).size(), properties.size() + 2);
  EXPECT_EQ(Shown(m_Plugin.Property(adapter.m_ID, PI::PROP_ADAPTER_EXTRA_TEXT)), "Extra");
  for (const auto& [status, label] : {std::pair(40095U, 24001U), {40150U, 24002U}, {7U, 24000U}}) {
    adapter.m_Status = status;
    EXPECT_EQ(m_Plugin.Property(adapter.m_ID, PI::PROP_STATUS).m_ValueTextID, label);
  }
}

TEST_F(PropertiesTest, ARescanWakesTheWorkerAndIsAnnounced) {
  const unsigned long id = m_Plugin.m_Adapter.m_ID;
  m_Plugin.TakeEvents();
  EXPECT_EQ(Execute(m_Plugin, id, Operation(PI::OP_RESCAN_ADAPTER)), PI::OK);
  EXPECT_TRUE(Take(m_Plugin.m_ForceWorker));
  EXPECT_TRUE(Take(m_Plugin.m_PrivateEvent));
  const auto events = m_Plugin.TakeEvents();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].m_Code, PI::EVT_RESCAN_REQUESTED);
  EXPECT_EQ(events[0].m_ObjectID, id);
  EXPECT_EQ(Check(m_Plugin, id, Operation(50050)), PI::OK) << "lax: the execution refuses it";
  EXPECT_EQ(Execute(m_Plugin, id, Operation(50050)), PI::ERR_OPERATION_NOT_SUPPORTED);
  EXPECT_FALSE(Take(m_Plugin.m_ForceWorker) || Take(m_Plugin.m_PrivateEvent));
}

// --- physical drives -------------------------------------------------------------------------------------

TEST_F(PropertiesTest, SmartFiguresAreShownAndHiddenWhereThereAreNone) {
  const struct {
    PI::_PROPERTY_ID m_ID;
    const char* m_Known;
    const char* m_Unknown;
  } expected[] = {// 8760 hours for 7 percent leave 116382 hours from 2024-01-01 on.
                  {PI::PROP_END_OF_LIFE, "2037-04-11", ""},
                  {PI::PROP_SMART_RESERVE, "99 of 0 to 100 by 1", "0 of 0 to 100 by 1"},
                  {PI::PROP_SMART_WEAR, "7 of 0 to 100 by 1", "0 of 0 to 100 by 1"},
                  {PI::PROP_SMART_BYTES_WRITTEN, "20.000000", "0.000000"},
                  {PI::PROP_SMART_POWER_ON_HOURS, "8760", "0"}};
  const auto known = m_Plugin.Properties(m_Drive.m_ID);
  EXPECT_EQ(SmartCommands(), 1U) << "one command serves all";
  EXPECT_EQ(known.back().m_ID, PI::PROP_SMART_POWER_ON_HOURS) << "the order of the front ends";
  const struct {
    std::uint32_t m_Attachment;
    std::uint32_t m_Medium;
    const char* m_Vendor;
  } others[] = {{40174, 40293, "INTEL"}, {40002, 40292, "INTEL"}, {40002, 40293, "ACME"}};
  for (const auto& other : others) {
    gSmartData.clear();
    m_Drive.m_Attachment = other.m_Attachment;
    m_Drive.m_Medium = other.m_Medium;
    m_Drive.m_Vendor = other.m_Vendor;
    const auto unknown = m_Plugin.Properties(m_Drive.m_ID);
    EXPECT_EQ(SmartCommands(), 1U) << "neither attached by ATA, rotating nor of an unknown model";
    for (const auto& entry : expected) {
      SCOPED_TRACE(entry.m_ID);
      EXPECT_EQ(Shown(*Find(known, entry.m_ID)), entry.m_Known);
      EXPECT_EQ(Find(known, entry.m_ID)->m_AttributeWord, PI::CProperty::SHOWN);
      EXPECT_EQ(Shown(*Find(unknown, entry.m_ID)), entry.m_Unknown);
      EXPECT_EQ(Find(unknown, entry.m_ID)->m_AttributeWord, 0U);
    }
  }
}

TEST_F(PropertiesTest, ASmartBlockServesFiveMinutes) {
  PI::_IDE_SMART_DATA data{};
  const auto read = [&] { return m_Plugin.GetSmartData("/dev/sdh", data); };
  ASSERT_EQ(read(), PI::OK);
  const auto first = data.m_Bytes;
  EXPECT_EQ(first[0], 16) << "the sector itself, without the command's header";
  SetSmart(R"({"id": 9, "raw": 9999})");
  m_Machine.Advance(300000);
  EXPECT_EQ(read(), PI::OK);
  EXPECT_EQ(data.m_Bytes, first);
  m_Machine.Advance(1);
  EXPECT_EQ(read(), PI::OK);
  EXPECT_EQ(SmartCommands(), 2U);
  const auto second = data.m_Bytes;
  EXPECT_NE(second, first);
  m_Machine.Advance(300001);
  for (const ECall failing : {ECall::Open, ECall::Ioctl}) {
    m_Door.FailAt(failing, 1, EIO);
    data = {};
    EXPECT_EQ(read(), PI::ERR_GENERAL);
    EXPECT_EQ(data.m_Bytes, second) << "the caller gets the old block and the failure";
  }
  EXPECT_EQ(read(), PI::OK) << "and the next one tries again";
  EXPECT_EQ(m_Plugin.GetSmartData("/dev/sda", data), PI::ERR_GENERAL) << "a disk that refuses the command";
  EXPECT_EQ(gSmartData.size(), 1U);
}

TEST_F(PropertiesTest, AMissingDriveHidesItsIdentityAlsoInWhatWasThere) {
  for (const auto& [medium, text] : {std::pair(40293U, 24201U), {40292U, 24093U}}) {
    m_Drive.m_Status = PI::STATUS_OK;
    m_Drive.m_Medium = medium;
    EXPECT_EQ(OfDrive(PI::PROP_STATUS).m_ValueTextID, text);
  }
  m_Drive.m_UsableSize = 0;  // a spare's, which does not count
  EXPECT_EQ(Shown(OfDrive(PI::PROP_USABLE_CAPACITY)), "16383");
  for (const bool missing : {false, true}) {
    m_Drive.m_Status = missing ? PI::STATUS_MISSING : PI::STATUS_READY;
    std::vector<PI::CProperty> out;
    for (unsigned int id = 30000; id < 30330; ++id) out.emplace_back(static_cast<PI::_PROPERTY_ID>(id));
    m_Plugin.GetPhysicalDriveProperties(m_Drive, out, PI::PROP_CAPACITY);
    EXPECT_EQ(out.size(), 331U) << "what was there stays";
    const auto isHidden = [](const PI::CProperty& property) { return property.m_AttributeWord == 0; };
    EXPECT_EQ(std::count_if(out.begin(), out.end(), isHidden), missing ? 24 : 0) << "one of 23 twice";
  }
}

// --- arrays ----------------------------------------------------------------------------------------------

TEST_F(PropertiesTest, OfAnArrayFollowTheModelAndEmptyOnesAreLeftOut) {
  const auto properties = m_Plugin.Properties(m_Stripes.m_ID);
  EXPECT_EQ(Shown(*Find(properties, PI::PROP_DEVICE_PATH)), "/dev/md_d0");
  EXPECT_EQ(Shown(*Find(properties, PI::PROP_CAPACITY)), "16384") << "of the members";
  EXPECT_EQ(properties.back().m_ID, PI::PROP_CONFIGURATION) << "the order of the front ends";
  m_Stripes.m_KernelName.clear();
  m_Stripes.m_Configuration = {};
  EXPECT_EQ(m_Plugin.Properties(m_Stripes.m_ID).size(), properties.size() - 2) << "neither path nor document";
  EXPECT_EQ(Find(m_Plugin.Properties(m_Mirror.m_ID), PI::PROP_STRIPE_SIZE), nullptr)
      << "only stripes have it";
  for (const auto& [status, text] : {std::pair(40094U, 24063U), {40095U, 24050U}, {0U, 24054U}}) {
    m_Stripes.m_Status = status;
    EXPECT_EQ(m_Plugin.Property(m_Stripes.m_ID, PI::PROP_STATUS).m_ValueTextID, text);
  }
}

TEST_F(PropertiesTest, ReadingTheProgressFeedsTheEstimateAndNothingElseDoes) {
  ASSERT_EQ(m_Mirror.m_Activity, PI::ACTIVITY_RESYNCING);
  EXPECT_EQ(TimeRemaining(), "");
  for (const auto& [activity, running, other] :
       {std::tuple(PI::ACTIVITY_RESYNCING, PI::PROP_RESYNC_PROGRESS, PI::PROP_REBUILD_PROGRESS),
        {PI::ACTIVITY_REBUILDING, PI::PROP_REBUILD_PROGRESS, PI::PROP_RESYNC_PROGRESS}}) {
    m_Plugin.m_Estimators.clear();
    m_Mirror.m_Activity = activity;
    m_Mirror.m_Progress = 10;
    const PI::CProperty idle = m_Plugin.Property(m_Mirror.m_ID, other);
    EXPECT_EQ(Shown(idle), "0 of 0 to 100 by 1");
    EXPECT_EQ(idle.m_AttributeWord, 0U);
    EXPECT_THAT(m_Plugin.m_Estimators, IsEmpty());
    const PI::CProperty shown = m_Plugin.Property(m_Mirror.m_ID, running);
    EXPECT_EQ(Shown(shown), "10 of 0 to 100 by 1");
    EXPECT_EQ(shown.m_AttributeWord, PI::CProperty::SHOWN);
    EXPECT_EQ(TimeRemaining(), "01:30:00") << "a minute a percent";
  }
  // A list of all shows the time of the progress that it has just read.
  m_Machine.Advance(120000);
  m_Mirror.m_Progress = 11;
  EXPECT_EQ(Shown(*Find(m_Plugin.Properties(m_Mirror.m_ID), PI::PROP_TIME_REMAINING)), "02:58:00");
  for (const auto& [remaining, text] :
       {std::pair(999U, ""), {59999U, "00:00:59"}, {359999999U, "99:59:59"}, {360000000U, "> 99:59:59"}}) {
    m_Plugin.m_Estimators.front().m_Remaining = remaining;
    EXPECT_EQ(TimeRemaining(), text) << remaining;
  }
  PI::CETR foreign;
  foreign.m_ID = m_Stripes.m_ID;
  m_Plugin.m_Estimators.push_back(foreign);
  m_Mirror.m_Activity = PI::ACTIVITY_NONE;
  EXPECT_EQ(TimeRemaining(), "");
  ASSERT_EQ(m_Plugin.m_Estimators.size(), 1U) << "the mirror's is gone";
  EXPECT_EQ(m_Plugin.m_Estimators[0].m_ID, m_Stripes.m_ID);
}

/// The lists of a description: members, then spares.
std::vector<std::vector<unsigned long>> Lists(const PI::CLogicalDrive& description) {
  std::vector<std::vector<unsigned long>> lists(1);
  for (const PI::CDrive& drive : description.m_Containers.at(0).m_Drives)
    lists[0].push_back(drive.m_ObjectID);
  lists.push_back(description.m_DedicatedHotSpares);
  return lists;
}

TEST_F(PropertiesTest, ConfigurationIsHandedOutAsItsDocumentSays) {
  PI::COperation operation = Operation(PI::OP_GET_CONFIGURATION);
  operation.m_LogicalDrives.resize(3);  // is emptied
  EXPECT_EQ(m_Plugin.Execute(PI::CMD_EXECUTE_OPERATION, m_Mirror.m_ID, &operation), PI::OK);
  ASSERT_EQ(operation.m_LogicalDrives.size(), 1U);
  EXPECT_THAT(Lists(operation.m_LogicalDrives[0]),
              ElementsAre(ElementsAre(m_Plugin.Drive("sdc").m_ID, m_Plugin.Drive("sdd").m_ID),
                          ElementsAre(m_Plugin.Drive("sde").m_ID)));
  for (const auto& [call, status] : {std::pair(ECall::Open, 20029U), {ECall::Ioctl, 20003U}}) {
    const std::uint64_t size = m_Mirror.m_LogicalSize;
    PI::CLogicalDrive description;
    m_Door.FailAt(call, 1, EIO);
    EXPECT_EQ(m_Plugin.GetLogicalDriveConfiguration(m_Mirror, description, m_Plugin.m_PhysicalDrives),
              status);
    EXPECT_THAT(description.m_Containers, IsEmpty());
    EXPECT_EQ(m_Mirror.m_LogicalSize, size) << "nothing changes before md answers";
  }
}

TEST(Configuration, TakesLevelAndMembersFromMdAndStatesFromTheModel) {
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
  PI::CLogicalDrive description;
  EXPECT_EQ(rig.m_Plugin.GetLogicalDriveConfiguration(array, description, drives), PI::OK);
  EXPECT_THAT(Lists(description),
              ElementsAre(ElementsAre(drives[1].m_ID), ElementsAre(drives[0].m_ID, drives[2].m_ID)));
  EXPECT_EQ(array.m_LogicalSize, 800000U);
  EXPECT_EQ(drives[2].m_IsMemberOf, 5);
  EXPECT_EQ(drives[3].m_IsMemberOf, CRVXPhysicalDrive::NO_ARRAY);
  for (const std::size_t count : {0U, 3U, 400U}) {
    std::vector<CRVXPhysicalDrive> scanned(count, drives[0]);
    rig.m_Own.m_DiskQueries = 0;
    EXPECT_EQ(rig.m_Plugin.GetLogicalDriveConfiguration(array, description, scanned), PI::OK);
    EXPECT_EQ(rig.m_Own.m_DiskQueries, std::min<std::size_t>(count, 384)) << "one for each drive";
  }
}

}  // namespace
