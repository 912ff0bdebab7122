// The adapter's properties and operations, the operations that the objects offer, and what the traces say.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/Arrays.h"
#include "tests/support/TraceCapture.h"

using namespace NAMESPACE_piRVX;
using testing::ElementsAre;
using testing::IsEmpty;
using ECall = CFaultyMachine::ECall;

namespace {

std::vector<PI::CProperty> Properties(SRig& rig, unsigned int which = PI::PROP_ALL) {
  std::vector<PI::CProperty> out(2, PI::CProperty(PI::PROP_NONE));  // does not stay
  EXPECT_EQ(
      rig.m_Plugin.GetAdapterProperties(rig.m_Plugin.m_Adapter, out, static_cast<PI::_PROPERTY_ID>(which)),
      0U);
  return out;
}

TEST(Adapter, ShowsItsPropertiesInOrder) {
  using TValue = decltype(PI::CProperty::m_Value);
  const auto text = [](const char* value) { return TValue(std::string(value)); };
  const auto number = [](unsigned long value) { return TValue(value); };
  const TValue choice;  // looked at below
  const unsigned int alone = PI::CProperty::NO_GROUP;
  const struct {
    unsigned int m_ID;
    TValue m_Value;
    unsigned int m_DisplayKind;
    unsigned int m_Group;
    unsigned int m_Label;
  } expected[] = {{30007, text("Description"), 0, alone, 23081},
                  {30003, text("Linux"), 0, alone, 23144},
                  {30063, text("Name"), 0, alone, 23102},
                  {30056, text("Name"), 0, 0, 0},
                  {30158, choice, 0, 0, 0},
                  {30120, number(0), 35023, alone, 23003},
                  {30479, number(0), 35039, 0, 23134},
                  {30037, number(11), 35016, 0, 23132},
                  {30038, number(22), 35020, 0, 23133},
                  {30039, number(33), 35022, 0, 23135},
                  {30137, text("Prefix"), 0, 0, 0},
                  {30266, text("md"), 0, alone, 23041},
                  {30018, text("Extra"), 0, alone, 23042},
                  {30075, number(88), 35028, 1, 23138},
                  {30076, number(99), 35025, 1, 23136},
                  {30273, number(8), 35028, 1, 23138},
                  {30274, number(2), 35025, 1, 23136},
                  {30277, text("8/88"), 35028, 2, 23138},
                  {30278, text("2/99"), 35025, 2, 23136},
                  {30017, choice, 0, alone, 23127},
                  {30165, choice, 0, alone, 23004}};
  SRig rig;
  CRVXAdapter& adapter = rig.m_Plugin.m_Adapter;
  adapter.m_Description = "Description";
  adapter.m_Name = "Name";
  adapter.m_DeviceKeyPrefix = "Prefix";
  adapter.m_ExtraText = "Extra";
  std::tie(adapter.m_Location1, adapter.m_Location2, adapter.m_Location3) = std::tuple(11, 22, 33);
  adapter.m_MaxPhysicalDrives = 88;
  adapter.m_MaxLogicalDrives = 99;
  adapter.m_AttributeList = {9, 10};
  const auto properties = Properties(rig);
  ASSERT_EQ(properties.size(), std::size(expected));
  for (std::size_t at = 0; at < properties.size(); ++at) {
    const PI::CProperty& property = properties[at];
    SCOPED_TRACE(expected[at].m_ID);
    EXPECT_EQ(property.m_ID, expected[at].m_ID);
    EXPECT_EQ(property.m_DisplayKind, expected[at].m_DisplayKind);
    EXPECT_EQ(property.m_Group, expected[at].m_Group);
    EXPECT_EQ(property.m_LabelTextID, expected[at].m_Label);
    EXPECT_FALSE(property.m_Writable);
    if (const auto* value = std::get_if<std::string>(&expected[at].m_Value)) {
      EXPECT_EQ(std::get<std::string>(property.m_Value), *value);
    }
    if (const auto* value = std::get_if<unsigned long>(&expected[at].m_Value)) {
      EXPECT_EQ(std::get<unsigned long>(property.m_Value), *value);
    }
    EXPECT_EQ(Properties(rig, expected[at].m_ID).size(), 1U);
  }
  EXPECT_THAT(std::get<PI::SChoice>(properties[4].m_Value).m_Choices, ElementsAre(40278));
  EXPECT_THAT(std::get<PI::SNumberLists>(properties[20].m_Value).m_Values, ElementsAre(9, 10));
  EXPECT_THAT(Properties(rig, 30046), IsEmpty());
  adapter.m_ExtraText.clear();
  adapter.m_AttributeList.clear();
  EXPECT_THAT(Properties(rig, PI::PROP_ADAPTER_EXTRA_TEXT), IsEmpty());
  EXPECT_EQ(Properties(rig).size(), std::size(expected) - 2);
  for (const auto& [status, label] :
       {std::pair(40095U, 24001U), {40150U, 24002U}, {40024U, 24000U}, {7U, 24000U}}) {
    adapter.m_Status = status;
    const PI::CProperty property = Properties(rig, PI::PROP_STATUS).at(0);
    EXPECT_EQ(property.m_ValueTextID, label);
    EXPECT_EQ(std::get<PI::SChoice>(property.m_Value).m_Selected, static_cast<int>(status));
    EXPECT_THAT(std::get<PI::SChoice>(property.m_Value).m_Choices, ElementsAre(40024, 40150, 40095));
  }
}

TEST(Objects, TakeOrRefuseASetProperty) {
  SRig rig;
  PI::CProperty property(PI::PROP_NAME);
  EXPECT_EQ(rig.m_Plugin.Execute(PI::CMD_SET_PROPERTY, rig.m_Plugin.m_Adapter.m_ID, &property), PI::OK);
  for (const unsigned long id : {rig.m_Plugin.Drive("sda").m_ID, rig.m_Plugin.Array("md_d0").m_ID})
    EXPECT_EQ(rig.m_Plugin.Execute(PI::CMD_SET_PROPERTY, id, &property), PI::ERR_PROPERTY_NOT_SETTABLE);
}

TEST(Objects, OfferTheirOperationsAsFrontEndsKnowThem) {
  const unsigned int ALL = 0xFFFFFFFF;
  using TRow = std::vector<unsigned int>;
  const std::vector<TRow> expected[] = {{{50007, 1, 2, 1, 1, 0, ALL, 1, 1},
                                         {50000, 3, 2, 1, 7, 0, 18, 3, 22001},
                                         {50051, 1, 2, 1, 8, 0, ALL, 3, 22003},
                                         {50052, 1, 2, 1, 8, 0, ALL, 3, 22005},
                                         {50003, 4, 1, 1, 1, 0, 0, 1, 1}},
                                        {{50036, 2, 2, 1, 1, 0, 2, 2, 22026},
                                         {50038, 2, 2, 1, 1, 0, 2, 2, 22032},
                                         {50073, 2, 2, 1, 1, 0, 1, 2, 22058},
                                         {50073, 2, 2, 1, 1, 0, 2, 2, 22073},
                                         {50089, 3, 1, 1, 1, 0, 0, 1, 1}},
                                        {{50054, 1, 2, 2, 2, 0, ALL, 1, 1},
                                         {50057, 1, 2, 1, 3, 0, ALL, 2, 22017},
                                         {50050, 1, 2, 1, 8, 0, ALL, 3, 22000},
                                         {50005, 3, 1, 1, 1, 0, 0, 1, 1}}};
  SRig rig;
  const unsigned long ids[] = {rig.m_Plugin.m_Adapter.m_ID, rig.m_Plugin.Drive("sda").m_ID,
                               rig.m_Plugin.Array("md_d0").m_ID};
  for (std::size_t object = 0; object < std::size(ids); ++object) {
    std::vector<PI::COperation> operations(7);  // do not stay
    EXPECT_EQ(rig.m_Plugin.Execute(PI::CMD_GET_OPERATIONS, ids[object], &operations), PI::OK);
    std::vector<TRow> rows;
    for (const PI::COperation& operation : operations) {
      TRow& row = rows.emplace_back(TRow{operation.m_Code, operation.m_Category});
      row.insert(row.end(), operation.m_Attributes.begin(), operation.m_Attributes.end());
      row.push_back(operation.m_ConfirmationCode);
      EXPECT_EQ(operation.m_SecondCode, operation.m_Code);
      const bool takesArray = operation.m_Code == 50036 || operation.m_Code == 50073;
      ASSERT_EQ(operation.m_Parameters.size(), takesArray ? 1U : 0U) << operation.m_Code;
      if (!takesArray) continue;
      const PI::CProperty& parameter = operation.m_Parameters.front();
      EXPECT_EQ(parameter.m_ID, 30117U);
      EXPECT_TRUE(parameter.m_Writable);
      EXPECT_EQ(parameter.GetDataType(), PI::DATA_UNSIGNED);
    }
    EXPECT_EQ(rows, expected[object]);
  }
}

TEST(Adapter, TellsTheLevelsThatItCreates) {
  SRig rig;
  PI::COperation operation = Operation(PI::OP_GET_RAID_LEVEL_INFORMATION);
  operation.m_Levels.resize(5);  // is replaced
  EXPECT_EQ(rig.m_Plugin.Execute(PI::CMD_EXECUTE_OPERATION, rig.m_Plugin.m_Adapter.m_ID, &operation), PI::OK);
  const std::vector<unsigned int> expected[] = {
      {40007, 2, 384, 40053, 21006, 0, 0, 40049, 40050, 40051, 40052, 40053, 40054},
      {40009, 2, 2, 0, 21006, 0, 0},
      {40021, 2, 384, 40049, 21006, 0, 0, 40049}};
  ASSERT_EQ(operation.m_Levels.size(), std::size(expected));
  for (std::size_t at = 0; at < std::size(expected); ++at) {
    const PI::CLevel& level = operation.m_Levels[at];
    std::vector<unsigned int> shown = {
        level.m_Level, level.m_MinimumDrives, level.m_MaximumDrives, level.m_DefaultStripeSize,
        level.m_Unit,  level.m_MinimumSpans,  level.m_MaximumSpans};
    shown.insert(shown.end(), level.m_StripeSizes.begin(), level.m_StripeSizes.end());
    EXPECT_EQ(shown, expected[at]);
  }
  EXPECT_FALSE(Take(rig.m_Plugin.m_PrivateEvent));
}

TEST(Adapter, ARescanWakesTheWorkerAndIsAnnounced) {
  SRig rig;
  const unsigned long id = rig.m_Plugin.m_Adapter.m_ID;
  rig.m_Plugin.TakeEvents();
  EXPECT_EQ(Execute(rig.m_Plugin, id, Operation(PI::OP_RESCAN_ADAPTER)), PI::OK);
  EXPECT_TRUE(Take(rig.m_Plugin.m_ForceWorker));
  EXPECT_TRUE(Take(rig.m_Plugin.m_PrivateEvent));
  EXPECT_FALSE(rig.m_Plugin.m_Adapter.m_Busy);
  const auto events = rig.m_Plugin.TakeEvents();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].m_Code, 10132U);
  EXPECT_EQ(events[0].m_Severity, 2U);
  EXPECT_EQ(events[0].m_ObjectID, id);
  EXPECT_EQ(events[0].m_PlaceHolder1, rig.m_Plugin.m_Adapter.m_Name);
  EXPECT_EQ(events[0].m_Time, rig.m_Machine.Now());
  for (const unsigned int code : {0U, 50001U, 50004U, 50036U, 50050U}) {
    EXPECT_EQ(Check(rig.m_Plugin, id, Operation(code)), PI::OK);
    EXPECT_EQ(Execute(rig.m_Plugin, id, Operation(code)), PI::ERR_OPERATION_NOT_SUPPORTED);
  }
  EXPECT_FALSE(Take(rig.m_Plugin.m_ForceWorker) || Take(rig.m_Plugin.m_PrivateEvent));
}

TEST(Trace, OperationsKeepTheSpellingsThatLogsAreSearchedFor) {
  const std::string adapter = "Src/piRVXAdapter";
  const std::string physical = "Src/piRVXPhysicalDrive";
  const std::string logical = "Src/piRVXLogicalDrive";
  const std::string machine =
      DisksOf({300000, 300000, 300000, 300000},
              R"("arrays": [{"name": "md_d0", "level": "raid1", "members": ["sda", "sdb"]}])");
  const auto create = [](SRig& rig, std::uint32_t level, const std::vector<std::string>& disks) {
    Create(rig.m_Plugin, level, PI::STRIPE_64K, disks);
  };
  const auto fail = [](SRig& rig, ECall call, std::uint64_t n) { rig.m_Door.FailAt(call, n, EIO); };
  const struct {
    unsigned int m_Class;
    std::string m_Source;
    const char* m_Text;
    std::function<void(SRig&)> m_Act;
  } lines[] = {
      {2, adapter, "LEAVE CreateLogicalDrive() -> excactly 2 drives have to be specified",
       [&](SRig& rig) { create(rig, PI::LEVEL_RAID1, {"sdc"}); }},
      {2, adapter, "LEAVE CreateLogicalDrive() -> at least 2 drive has to be specified",
       [&](SRig& rig) { create(rig, PI::LEVEL_RAID0, {"sdc"}); }},
      {2, adapter, "LEAVE CreateLogicalDrive() -> unsupported RAID level",
       [&](SRig& rig) { create(rig, PI::LEVEL_RAID10, {"sdc"}); }},
      {2, adapter, "LEAVE CreateLogicalDrive() -> disk ID (8/0) is not free",
       [&](SRig& rig) {
         create(rig, PI::LEVEL_RAID1, {"sda", "sdc"});
       }},
      {2, adapter, "LEAVE CreateLogicalDrive () -> disk ID (8/32) must be unique",
       [&](SRig& rig) {
         create(rig, PI::LEVEL_RAID1, {"sdc", "sdc"});
       }},
      {4, adapter, "CreateLogicalDrive() name=md_d1 level=0 num=2 stripe=64 size=0 d1=8/32 d2=8/48",
       [&](SRig& rig) {
         create(rig, PI::LEVEL_RAID0, {"sdc", "sdd"});
       }},
      {4, adapter, "CreateLogicalDrive()  major=8 minor=48",
       [&](SRig& rig) {
         create(rig, PI::LEVEL_RAID0, {"sdc", "sdd"});
       }},
      {4, adapter, "CreateLogicalDrive() can't start array, Input/output error",
       [&](SRig& rig) {
         fail(rig, ECall::Ioctl, 4);
         create(rig, PI::LEVEL_RAID0, {"sdc", "sdd"});
       }},
      {4, adapter, "WriteSuperBlock1() /dev/sdc superblock at 299992",
       [&](SRig& rig) {
         create(rig, PI::LEVEL_RAID0, {"sdc", "sdd"});
       }},
      {2, adapter, "WriteSuperBlock1() can't open /dev/sdc, Input/output error",
       [&](SRig& rig) {
         fail(rig, ECall::Open, 5);
         create(rig, PI::LEVEL_RAID0, {"sdc", "sdd"});
       }},
      {2, adapter, "CreateSuperBlock1 ret = 20029",
       [&](SRig& rig) {
         fail(rig, ECall::Open, 3);
         create(rig, PI::LEVEL_RAID0, {"sdc", "sdd"});
       }},
      {2, adapter, "GetUnusedArrayName() create device /dev/md_d1 with minor 64",
       [&](SRig& rig) {
         create(rig, PI::LEVEL_RAID0, {"sdc", "sdd"});
       }},
      {2, adapter, "GetUnusedArrayName() C libraray too old for more than 4 mdp devices",
       [&](SRig& rig) {
         rig.m_Plugin.m_MdMajor = -1;  // a kernel without such devices
         create(rig, PI::LEVEL_RAID0, {"sdc", "sdd"});
       }},
      {2, adapter, "LEAVE AdapterExecuteOperation() -> 20005",
       [&](SRig& rig) { Execute(rig.m_Plugin, rig.m_Plugin.m_Adapter.m_ID, Operation(1)); }},
      {2, adapter, "ExecuteAdapterOperation() OP_DELETE_ALL_LOGICAL_DRIVE array (md_d0) deleted",
       [&](SRig& rig) {
         Execute(rig.m_Plugin, rig.m_Plugin.m_Adapter.m_ID, Operation(PI::OP_DELETE_ALL_LOGICAL_DRIVES));
       }},
      {4, adapter, "CheckLogicalDriveOperation() leave successfully for md_d0",
       [&](SRig& rig) {
         Check(rig.m_Plugin, rig.m_Plugin.m_Adapter.m_ID, Operation(PI::OP_DELETE_LAST_LOGICAL_DRIVE));
       }},
      {2, physical, "CheckPhysicalDriveOperation() drive sda connot be configured",
       [&](SRig& rig) {
         Check(rig.m_Plugin, rig.m_Plugin.Drive("sda").m_ID, Operation(PI::OP_CREATE_DEDICATED_HOTSPARE));
       }},
      {4, physical, "CheckPhysicalDriveOperation() check for hot spare deletion(40263, 40093, 0)",
       [&](SRig& rig) {
         Check(rig.m_Plugin, rig.m_Plugin.Drive("sda").m_ID, Operation(PI::OP_DELETE_DEDICATED_HOTSPARE));
       }},
      {2, physical, "CreateMissingDrive() can't add spare disk, Invalid argument",  // a mirror without chunks
       [&](SRig& rig) { rig.m_Plugin.CreateMissingDrive(rig.m_Plugin.Drive("sdc"), 0); }},
      {4, physical, "CreateDedicatedHotSpare() add spare disk to slot 2",
       [&](SRig& rig) { rig.m_Plugin.CreateDedicatedHotSpare(rig.m_Plugin.Drive("sdc"), 0); }},
      {2, logical, "ExecuteLogicalDriveOperation() array (md_d0) is busy",
       [&](SRig& rig) {
         rig.m_Plugin.m_PendingOperation = 1;
         Execute(rig.m_Plugin, rig.m_Plugin.Array("md_d0").m_ID, Operation(PI::OP_DELETE_LOGICAL_DRIVE));
       }},
      {2, logical, "LEAVE FindRebuildingPhysicalDrive() failed -> INVALID_OBJECT_ID or COMMAND_ERROR",
       [&](SRig& rig) {
         int diskID = 0;
         rig.m_Plugin.FindRebuildingPhysicalDrive(0, diskID);
       }}};
  for (const auto& line : lines) {
    for (const unsigned int traced : {2U, 4U}) {
      SRig rig(machine);
      const CTraceCapture trace(traced);
      line.m_Act(rig);
      EXPECT_EQ(trace.Shows(line.m_Source, line.m_Text), traced == line.m_Class)
          << line.m_Text << " with classes " << traced << "\n"
          << trace.Text();
    }
  }
}

}  // namespace
