// Properties and configuration of arrays.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Src/piRVXTrace.h"
#include "tests/support/Arrays.h"

using namespace NAMESPACE_piRVX;
using testing::ElementsAre;
using testing::IsEmpty;
using ECall = CFaultyMachine::ECall;

namespace {

/// The demo machine: md_d0 of stripes, and md_d1, a mirror with a spare that resyncs at 12 percent.
struct LogicalDriveTest : public testing::Test, public SRig {
  std::vector<PI::CProperty> Properties(CRVXLogicalDrive& array, unsigned int which = PI::PROP_ALL) {
    std::vector<PI::CProperty> out(2, PI::CProperty(PI::PROP_NONE));  // does not stay
    EXPECT_EQ(m_Plugin.GetLogicalDriveProperties(array, out, static_cast<PI::_PROPERTY_ID>(which)), PI::OK);
    return out;
  }
  std::string TimeRemaining() {
    return std::get<std::string>(Properties(m_Mirror, PI::PROP_TIME_REMAINING).at(0).m_Value);
  }

  CRVXLogicalDrive& m_Stripes{m_Plugin.Array("md_d0")};
  CRVXLogicalDrive& m_Mirror{m_Plugin.Array("md_d1")};
};

TEST_F(LogicalDriveTest, ShowsItsPropertiesInOrder) {
  const unsigned int SHOWN = PI::CProperty::SHOWN;
  const struct {
    unsigned int m_ID;
    unsigned int m_Label;
    unsigned int m_Unit;
    unsigned int m_DisplayKind;
    unsigned int m_Attribute;
    bool m_Volatile;
    std::vector<int> m_Choices;
  } expected[] = {{30007, 23232, 0, 0, SHOWN, false, {}},
                  {30126, 23233, 0, 0, SHOWN, false, {}},
                  {30137, 0, 0, 0, 0, false, {}},
                  {30045, 23244, 0, 35044, SHOWN, false, {40007, 40009, 40018, 40013, 40014, 40017, 40021}},
                  {30046, 23243, 0, 0, SHOWN, false, {40049, 40050, 40051, 40052, 40053, 40054}},
                  {30090, 23230, 21002, 0, SHOWN, false, {}},
                  {30059, 23235, 21002, 0, SHOWN, false, {}},
                  {30247, 23234, 0, 0, SHOWN, false, {}},
                  {30054, 23215, 0, 0, SHOWN, false, {40102, 40103, 40096, 40025}},
                  {30017, 23242, 0, 0, SHOWN, false, {40093, 40094, 40095}},
                  {30132, 0, 21010, 35032, 0, true, {}},
                  {30136, 0, 21010, 35032, 0, true, {}},
                  {30240, 23215, 21016, 0, 0, true, {}},
                  {30496, 0, 0, 0, 0, false, {}}};
  const auto properties = Properties(m_Stripes);
  ASSERT_EQ(properties.size(), std::size(expected));
  for (std::size_t at = 0; at < properties.size(); ++at) {
    const PI::CProperty& property = properties[at];
    SCOPED_TRACE(expected[at].m_ID);
    EXPECT_EQ(property.m_ID, expected[at].m_ID);
    EXPECT_EQ(property.m_LabelTextID, expected[at].m_Label);
    EXPECT_EQ(property.m_UnitTextID, expected[at].m_Unit);
    EXPECT_EQ(property.m_DisplayKind, expected[at].m_DisplayKind);
    EXPECT_EQ(property.m_AttributeWord, expected[at].m_Attribute);
    EXPECT_EQ(property.m_TrailingFlags == 0, expected[at].m_Volatile);
    EXPECT_FALSE(property.m_Writable);
    if (!expected[at].m_Choices.empty()) {
      EXPECT_EQ(std::get<PI::SChoice>(property.m_Value).m_Choices, expected[at].m_Choices);
    }
    EXPECT_EQ(Properties(m_Stripes, property.m_ID).size(), 1U);
  }
  EXPECT_EQ(std::get<std::string>(Find(properties, PI::PROP_DEVICE_PATH)->m_Value), "/dev/md_d0");
  EXPECT_EQ(std::get<unsigned long>(Find(properties, PI::PROP_CAPACITY)->m_Value), 16384U);  // of the members

  m_Stripes.m_KernelName.clear();
  m_Stripes.m_Configuration = {};
  m_Stripes.m_ArrayNumber = 0xFFFFFFFE;
  EXPECT_EQ(Properties(m_Stripes).size(), std::size(expected) - 2) << "neither path nor document";
  EXPECT_EQ(std::get<unsigned long>(Properties(m_Stripes, PI::PROP_ARRAY_NUMBER)[0].m_Value),
            0xFFFFFFFFFFFFFFFE);
  for (const std::uint32_t level : {40007U, 40009U, 40018U, 40013U, 40014U, 40017U, 40021U}) {
    m_Stripes.m_RaidLevel = level;
    EXPECT_EQ(Properties(m_Stripes, PI::PROP_STRIPE_SIZE).size(), level == 40007 || level == 40018 ? 1U : 0U)
        << level;
  }
  for (const auto& [status, text] :
       {std::pair(40094U, 24063U), {40095U, 24050U}, {40093U, 24054U}, {0U, 24054U}}) {
    m_Stripes.m_Status = status;
    EXPECT_EQ(Properties(m_Stripes, PI::PROP_STATUS)[0].m_ValueTextID, text);
  }
}

TEST_F(LogicalDriveTest, ReadingTheProgressFeedsTheEstimateAndNothingElseDoes) {
  ASSERT_EQ(m_Mirror.m_Activity, PI::ACTIVITY_RESYNCING);
  EXPECT_EQ(TimeRemaining(), "");
  EXPECT_THAT(m_Plugin.m_Estimators, IsEmpty());
  for (const auto& [activity, running, other] :
       {std::tuple(PI::ACTIVITY_RESYNCING, PI::PROP_RESYNC_PROGRESS, PI::PROP_REBUILD_PROGRESS),
        {PI::ACTIVITY_REBUILDING, PI::PROP_REBUILD_PROGRESS, PI::PROP_RESYNC_PROGRESS}}) {
    m_Plugin.m_Estimators.clear();
    m_Mirror.m_Activity = activity;
    m_Mirror.m_Progress = 10;
    const PI::CProperty idle = Properties(m_Mirror, other).at(0);
    EXPECT_EQ(std::get<PI::SRange>(idle.m_Value).m_Value, 0);
    EXPECT_EQ(idle.m_AttributeWord, 0U);
    EXPECT_THAT(m_Plugin.m_Estimators, IsEmpty());
    const PI::CProperty shown = Properties(m_Mirror, running).at(0);
    const auto& range = std::get<PI::SRange>(shown.m_Value);
    EXPECT_THAT(
        (std::vector{range.m_Value, range.m_Minimum, range.m_Maximum, static_cast<int>(range.m_Step)}),
        ElementsAre(10, 0, 100, 1));
    EXPECT_EQ(shown.m_AttributeWord, PI::CProperty::SHOWN);
    EXPECT_EQ(shown.m_TrailingFlags, 0U);
    ASSERT_EQ(m_Plugin.m_Estimators.size(), 1U);
    EXPECT_EQ(m_Plugin.m_Estimators[0].m_ID, m_Mirror.m_ID);
    EXPECT_EQ(m_Plugin.m_Estimators[0].m_Start, m_Machine.Now());
    EXPECT_EQ(TimeRemaining(), "01:30:00") << "a minute a percent";
  }
  // A list of all shows the time of the progress that it has just read.
  m_Machine.Advance(120000);
  m_Mirror.m_Progress = 11;
  EXPECT_EQ(std::get<std::string>(Find(Properties(m_Mirror), PI::PROP_TIME_REMAINING)->m_Value), "02:58:00");

  PI::CETR foreign;
  foreign.m_ID = m_Stripes.m_ID;
  m_Plugin.m_Estimators.insert(m_Plugin.m_Estimators.begin(), foreign);
  m_Plugin.m_Estimators.push_back(m_Plugin.m_Estimators.back());  // a second one of the mirror
  for (const std::uint32_t activity : {PI::ACTIVITY_VERIFYING, PI::ACTIVITY_NONE}) {
    m_Mirror.m_Activity = activity;
    EXPECT_EQ(TimeRemaining(), "");
    ASSERT_EQ(m_Plugin.m_Estimators.size(), 1U) << "all of the mirror's are gone";
    EXPECT_EQ(m_Plugin.m_Estimators[0].m_ID, m_Stripes.m_ID);
  }
}

TEST_F(LogicalDriveTest, RemainingTimeReadsInHoursMinutesAndSeconds) {
  const std::pair<std::uint64_t, const char*> cases[] = {{0, ""},
                                                         {999, ""},
                                                         {1000, "00:00:01"},
                                                         {59999, "00:00:59"},
                                                         {60000, "00:01:00"},
                                                         {3599999, "00:59:59"},
                                                         {3600000, "01:00:00"},
                                                         {359999999, "99:59:59"},
                                                         {360000000, "> 99:59:59"},
                                                         {0xFFFFFFFFFFFFFFFF, "> 99:59:59"}};
  PI::CETR estimator;
  estimator.m_ID = m_Mirror.m_ID;
  m_Plugin.m_Estimators = {estimator};
  for (const auto& [remaining, text] : cases) {
    m_Plugin.m_Estimators[0].m_Remaining = remaining;
    EXPECT_EQ(TimeRemaining(), text) << remaining;
    EXPECT_EQ(Properties(m_Mirror, PI::PROP_TIME_REMAINING)[0].m_AttributeWord, PI::CProperty::SHOWN);
  }
}

TEST_F(LogicalDriveTest, ConfigurationIsHandedOutAsItsDocumentSays) {
  PI::COperation operation = Operation(PI::OP_GET_CONFIGURATION);
  operation.m_LogicalDrives.resize(3);  // is emptied
  EXPECT_EQ(m_Plugin.Execute(PI::CMD_EXECUTE_OPERATION, m_Mirror.m_ID, &operation), PI::OK);
  ASSERT_EQ(operation.m_LogicalDrives.size(), 1U);
  const PI::CLogicalDrive& description = operation.m_LogicalDrives[0];
  ASSERT_EQ(description.m_Containers.size(), 1U);
  std::vector<unsigned long> members;
  for (const PI::CDrive& drive : description.m_Containers[0].m_Drives) members.push_back(drive.m_ObjectID);
  EXPECT_THAT(members, ElementsAre(m_Plugin.Drive("sdc").m_ID, m_Plugin.Drive("sdd").m_ID));
  EXPECT_THAT(description.m_DedicatedHotSpares, ElementsAre(m_Plugin.Drive("sde").m_ID));
  EXPECT_EQ(description.m_SpanCount, 1U);
  EXPECT_EQ(description.m_SpanSize, 2U);
}

TEST_F(LogicalDriveTest, ConfigurationQueryChangesNothingBeforeMdAnswers) {
  for (const auto& [call, status] : {std::pair(ECall::Open, 20029U), {ECall::Ioctl, 20003U}}) {
    m_Mirror.m_LogicalSize = 4711;
    m_Mirror.m_RaidLevel = m_Mirror.m_StripeSize = 1;
    PI::CLogicalDrive description;
    m_Door.FailAt(call, 1, EIO);
    EXPECT_EQ(m_Plugin.GetLogicalDriveConfiguration(m_Mirror, description, m_Plugin.m_PhysicalDrives),
              status);
    EXPECT_EQ(description.m_SpanCount, 0U);
    EXPECT_THAT(description.m_Containers, IsEmpty());
    EXPECT_EQ(m_Mirror.m_LogicalSize, 4711U);
    EXPECT_EQ(m_Mirror.m_RaidLevel, 1U);
    EXPECT_EQ(m_Mirror.m_StripeSize, 1U);
    EXPECT_EQ(m_Machine.OpenDescriptors(), 0U);
  }
}

/// The lists of a description: members, then spares.
std::vector<std::vector<unsigned long>> Lists(const PI::CLogicalDrive& description) {
  std::vector<std::vector<unsigned long>> lists(1);
  for (const PI::CDrive& drive : description.m_Containers.at(0).m_Drives)
    lists[0].push_back(drive.m_ObjectID);
  lists.push_back(description.m_DedicatedHotSpares);
  return lists;
}

TEST(Configuration, TakesLevelAndMembersFromMdAndStatesFromTheModel) {
  const std::pair<const char*, std::uint32_t> levels[] = {
      {"raid0", 40007}, {"raid1", 40009}, {"raid10", 40018}, {"raid4", 40013},
      {"raid5", 40014}, {"raid6", 40017}, {"linear", 40021}};
  for (const auto& [name, level] : levels) {
    SCOPED_TRACE(name);
    SMdRig rig(DisksOf({300000, 200000, 300000, 300000},
                       Text(R"("arrays": [{"name": "md_d5", "level": "%s", "chunk": 128,
                                           "members": ["sda", "sdb", "sdc", "sdd"]}])",
                            name)));
    auto& drives = rig.m_Plugin.m_PhysicalDrives;
    CRVXLogicalDrive& array = rig.m_Plugin.Array("md_d5");
    EXPECT_EQ(array.m_StripeSize, PI::STRIPE_64K) << "the query looks at the level, not at the chunk";
    EXPECT_EQ(array.m_RaidLevel, level);
    // A failed drive is a spare only where md gives it no slot; partitions count as their disk.
    rig.m_Md.m_Disks = {
        {0, {0, 8, 3, -1, 1}}, {1, {1, 8, 16, 1, 6}}, {2, {2, 8, 47, 2, 6}}, {3, {3, 9, 48, 3, 6}}};
    drives[0].m_Status = PI::STATUS_FAILED;
    drives[1].m_Status = PI::STATUS_FAILED;
    drives[2].m_Status = PI::STATUS_SPARE;
    for (auto& drive : drives) drive.m_IsMemberOf = CRVXPhysicalDrive::NO_ARRAY;
    PI::CLogicalDrive description;
    EXPECT_EQ(rig.m_Plugin.GetLogicalDriveConfiguration(array, description, drives), PI::OK);
    EXPECT_THAT(Lists(description),
                ElementsAre(ElementsAre(drives[1].m_ID), ElementsAre(drives[0].m_ID, drives[2].m_ID)));
    EXPECT_EQ(description.m_SpanSize, 1U);
    EXPECT_EQ(array.m_LogicalSize, 800000U);
    EXPECT_EQ(drives[2].m_IsMemberOf, 5);
    EXPECT_EQ(drives[3].m_IsMemberOf, CRVXPhysicalDrive::NO_ARRAY);

    rig.m_Md.m_Disks = {{0, {0, 7, 0, 0, 6}}};  // nobody known: the empty container is there
    description = {};
    EXPECT_EQ(rig.m_Plugin.GetLogicalDriveConfiguration(array, description, drives), PI::OK);
    EXPECT_THAT(Lists(description), ElementsAre(IsEmpty(), IsEmpty()));
    EXPECT_EQ(array.m_LogicalSize, 0U);
  }
}

TEST(Configuration, AsksForAsManyMembersAsThereAreDrivesUpTo384) {
  SMdRig rig(DisksOf({300000, 300000},
                     R"("arrays": [{"name": "md0", "level": "raid0", "members": ["sda", "sdb"]}])"));
  for (const std::size_t count : {0U, 1U, 3U, 384U, 400U}) {
    std::vector<CRVXPhysicalDrive> drives(count, rig.m_Plugin.Drive("sda"));
    rig.m_Md.m_DiskQueries = 0;
    PI::CLogicalDrive description;
    EXPECT_EQ(rig.m_Plugin.GetLogicalDriveConfiguration(rig.m_Plugin.Array("md0"), description, drives),
              PI::OK);
    EXPECT_EQ(rig.m_Md.m_DiskQueries, std::min<std::size_t>(count, 384));
    EXPECT_EQ(description.m_SpanSize, count == 0 ? 0U : 1U) << "the first of equal drives alone";
  }
}

}  // namespace
