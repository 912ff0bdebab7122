// The topology, the plug-in object, events, identifiers and busy marks.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Src/piRVXTrace.h"
#include "tests/support/TestInstance.h"

using namespace NAMESPACE_piRVX;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

std::vector<PI::CObject> Topology(CTestInstance& plugin) {
  std::vector<PI::CObject> objects(3);  // what was in it does not stay
  EXPECT_EQ(plugin.Execute(PI::CMD_GET_TOPOLOGY, 0, &objects), PI::OK);
  return objects;
}

std::vector<unsigned int> IDs(const std::vector<PI::CProperty>& properties) {
  std::vector<unsigned int> ids;
  for (const PI::CProperty& property : properties) ids.push_back(property.m_ID);
  return ids;
}

TEST(Topology, OfAMachineWithoutDisksHasTwoObjects) {
  SRig rig("{}");
  const auto objects = Topology(rig.m_Plugin);
  ASSERT_EQ(objects.size(), 2U);
  EXPECT_EQ(objects[0].m_Kind, PI::OBJ_PLUGIN);
  EXPECT_EQ(objects[1].m_Kind, PI::OBJ_ADAPTER);
}

TEST(Topology, ListsEveryObjectWithWhatTheRequestsGive) {
  SRig rig;
  rig.m_Plugin.LockObjects(0, 8, 16, -1);
  const auto counters = [&] {
    unsigned long sum = rig.m_Plugin.m_Plugin.m_UpdateCounter + rig.m_Plugin.m_Adapter.m_UpdateCounter;
    for (const auto& drive : rig.m_Plugin.m_PhysicalDrives) sum += drive.m_UpdateCounter;
    for (const auto& array : rig.m_Plugin.m_LogicalDrives) sum += array.m_UpdateCounter;
    return sum;
  };
  const unsigned long before = counters();
  const auto objects = Topology(rig.m_Plugin);
  EXPECT_EQ(counters(), before);
  std::vector<unsigned long> ids = {rig.m_Plugin.m_Plugin.m_ID, rig.m_Plugin.m_Adapter.m_ID};
  for (const auto& drive : rig.m_Plugin.m_PhysicalDrives) ids.push_back(drive.m_ID);
  for (const auto& array : rig.m_Plugin.m_LogicalDrives) ids.push_back(array.m_ID);
  ASSERT_EQ(objects.size(), ids.size());
  for (std::size_t at = 0; at < ids.size(); ++at) {
    SCOPED_TRACE(at);
    EXPECT_EQ(objects[at].m_ID, ids[at]);
    EXPECT_EQ(objects[at].m_Busy, ids[at] == rig.m_Plugin.Drive("sdb").m_ID);
    std::vector<PI::CProperty> properties;
    rig.m_Plugin.Execute(PI::CMD_GET_PROPERTIES, ids[at], &properties);
    EXPECT_EQ(IDs(objects[at].m_Properties), IDs(properties));
    std::vector<PI::COperation> operations;
    rig.m_Plugin.Execute(PI::CMD_GET_OPERATIONS, ids[at], &operations);
    EXPECT_EQ(objects[at].m_Operations.size(), operations.size());
    for (const PI::COperation& operation : objects[at].m_Operations)
      EXPECT_EQ(operation.m_Levels.size(), operation.m_Code == PI::OP_GET_RAID_LEVEL_INFORMATION ? 3U : 0U)
          << operation.m_Code;
  }
  EXPECT_EQ(objects.back().m_Children.size(), 3U);
  EXPECT_THAT(rig.m_Plugin.m_Adapter.m_Properties, IsEmpty()) << "the model's own lists stay empty";
  EXPECT_THAT(rig.m_Plugin.m_Adapter.m_Operations, IsEmpty());
  EXPECT_THAT(rig.m_Plugin.m_PhysicalDrives.front().m_Properties, IsEmpty());
}

TEST(PluginObject, HasFivePropertiesAndOneOperation) {
  CConfigFolder config;
  config.Write("PollInterval=42\n");
  CSimulatedMachine machine("{}");
  CTestInstance plugin(machine);
  std::vector<PI::CAdapterID> adapterIDs;
  plugin.Execute(PI::CMD_INITIALIZE, 0, &adapterIDs);
  std::vector<PI::CProperty> properties;
  ASSERT_EQ(plugin.Execute(PI::CMD_GET_PROPERTIES, plugin.m_Plugin.m_ID, &properties), PI::OK);
  const struct {
    unsigned int m_ID;
    const char* m_Text;
    unsigned int m_Label;
    unsigned int m_Unit;
    bool m_Writable;
  } expected[] = {
      {30137, "Plugin:ID=295", 0, 0, false}, {30007, "RVX-Plugin", 23320, 0, false},
      {30099, "6.4.3", 23325, 0, false},     {30003, "Linux", 23324, 0, false},
      {30005, "range", 23321, 21007, true},
  };
  ASSERT_EQ(properties.size(), std::size(expected));
  for (std::size_t at = 0; at < properties.size(); ++at) {
    const PI::CProperty& property = properties[at];
    SCOPED_TRACE(property.m_ID);
    EXPECT_EQ(property.m_ID, expected[at].m_ID);
    EXPECT_EQ(property.m_LabelTextID, expected[at].m_Label);
    EXPECT_EQ(property.m_UnitTextID, expected[at].m_Unit);
    EXPECT_EQ(property.m_Writable, expected[at].m_Writable);
    const auto* const text = std::get_if<std::string>(&property.m_Value);
    EXPECT_EQ(text != nullptr ? *text : "range", expected[at].m_Text);
  }
  const auto& range = std::get<PI::SRange>(properties.back().m_Value);
  EXPECT_THAT((std::vector{range.m_Value, range.m_Minimum, range.m_Maximum, static_cast<int>(range.m_Step)}),
              ElementsAre(42, 2, 255, 1));

  std::vector<PI::COperation> operations;
  ASSERT_EQ(plugin.Execute(PI::CMD_GET_OPERATIONS, plugin.m_Plugin.m_ID, &operations), PI::OK);
  ASSERT_EQ(operations.size(), 1U);
  EXPECT_EQ(operations[0].m_Code, 50002U);
  EXPECT_EQ(operations[0].m_SecondCode, 50002U);
  EXPECT_EQ(operations[0].m_Category, 6U);
  EXPECT_THAT(operations[0].m_Attributes, ElementsAre(1, 1, 1, 1, 0, 1));
  EXPECT_FALSE(operations[0].m_Flag);
}

TEST(PluginObject, TakesAPollIntervalWithinTheLimitsThatComeWithIt) {
  const struct {
    int m_Value, m_Minimum, m_Maximum;
    unsigned int m_Seconds;
  } cases[] = {{1, 2, 255, 2}, {1000, 2, 255, 255}, {60, 2, 255, 60},   {60, 5, 50, 50},
               {3, 5, 50, 5},  {9, 20, 8, 8},       {700, 0, 1000, 700}};  // raised first, then lowered
  SRig rig;
  rig.m_Config.Write("Other=kept\n");
  for (const auto& entry : cases) {
    const unsigned long counter = rig.m_Plugin.m_Plugin.m_UpdateCounter;
    PI::CProperty property(PI::PROP_POLL_INTERVAL);
    property.SetValue(entry.m_Value, entry.m_Minimum, entry.m_Maximum, 1);
    EXPECT_EQ(rig.m_Plugin.Execute(PI::CMD_SET_PROPERTY, rig.m_Plugin.m_Plugin.m_ID, &property), PI::OK);
    EXPECT_EQ(rig.m_Plugin.m_PollInterval, entry.m_Seconds);
    EXPECT_EQ(rig.m_Plugin.m_Plugin.m_UpdateCounter, counter + 1);
    EXPECT_EQ(rig.m_Plugin.m_PrivateEvent.Wait(0), KVT::Threading::WAIT_OK);
    EXPECT_THAT(rig.m_Config.Read(), testing::HasSubstr(Text("PollInterval=%d\n", entry.m_Seconds)));
  }
  EXPECT_THAT(rig.m_Config.Read(), testing::HasSubstr("Other=kept\n"));

  PI::CProperty text(PI::PROP_POLL_INTERVAL);
  text.SetValue("5");
  EXPECT_NE(rig.m_Plugin.Execute(PI::CMD_SET_PROPERTY, rig.m_Plugin.m_Plugin.m_ID, &text), PI::OK);
  PI::CProperty other(PI::PROP_NAME);
  other.SetValue(5, 2, 255, 1);
  EXPECT_EQ(rig.m_Plugin.Execute(PI::CMD_SET_PROPERTY, rig.m_Plugin.m_Plugin.m_ID, &other),
            PI::ERR_PROPERTY_NOT_SETTABLE);
  EXPECT_EQ(rig.m_Plugin.m_PollInterval, 700U);
  EXPECT_EQ(rig.m_Plugin.m_PrivateEvent.Wait(0), KVT::Threading::WAIT_TIMED_OUT);
}

TEST(PluginObject, APollIntervalThatCannotBeStoredIsInForceAllTheSame) {
  SRig rig;
  boost::filesystem::create_directory(rig.m_Config.File());  // no file can take its place
  PI::CProperty property(PI::PROP_POLL_INTERVAL);
  property.SetValue(77, 2, 255, 1);
  EXPECT_EQ(rig.m_Plugin.Execute(PI::CMD_SET_PROPERTY, rig.m_Plugin.m_Plugin.m_ID, &property),
            PI::ERR_DEVICE_IO);
  EXPECT_EQ(rig.m_Plugin.m_PollInterval, 77U);
  EXPECT_EQ(rig.m_Plugin.m_PrivateEvent.Wait(0), KVT::Threading::WAIT_OK);
}

TEST(BusyMarks, GoWhereTheNumbersPoint) {
  const struct {
    int m_All, m_Major, m_Minor, m_Array;
    const char* m_Marked;
  } cases[] = {
      {0, -1, -1, -1, "adapter "},
      {0, 8, 16, -1, "sdb "},
      {0, 8, 16, 1, "sdb "},
      {0, -1, -1, 1, "md_d1 "},
      {0, -1, -1, 9, ""},
      {0, 8, 17, 1, ""},
      {0, -1, 16, 1, ""},
      {0, 8, -1, 1, ""},
      {1, 8, 0, -1, "sda "},
      {-1, 8, 16, 1, "plug-in adapter sda sdb sdc sdd sde sdf sdg sdh md_d0 md_d1 "},
      {-1, -1, -1, -1, "plug-in adapter sda sdb sdc sdd sde sdf sdg sdh md_d0 md_d1 "},
  };
  SRig rig;
  const auto marked = [&] {
    std::string names;
    if (rig.m_Plugin.m_Plugin.m_Busy) names += "plug-in ";
    if (rig.m_Plugin.m_Adapter.m_Busy) names += "adapter ";
    for (const auto& drive : rig.m_Plugin.m_PhysicalDrives)
      if (drive.m_Busy) names += drive.m_KernelName + " ";
    for (const auto& array : rig.m_Plugin.m_LogicalDrives)
      if (array.m_Busy) names += array.m_KernelName + " ";
    return names;
  };
  for (const auto& entry : cases) {
    SCOPED_TRACE(Text("%d %d %d %d", entry.m_All, entry.m_Major, entry.m_Minor, entry.m_Array));
    EXPECT_EQ(rig.m_Plugin.LockObjects(entry.m_All, entry.m_Major, entry.m_Minor, entry.m_Array), PI::OK);
    EXPECT_EQ(marked(), entry.m_Marked);
    std::vector<PI::CProperty> properties;  // a mark refuses nobody
    EXPECT_EQ(rig.m_Plugin.Execute(PI::CMD_GET_PROPERTIES, rig.m_Plugin.Drive("sdb").m_ID, &properties),
              PI::OK);
    EXPECT_EQ(rig.m_Plugin.UnlockObjects(), PI::OK);
    EXPECT_EQ(marked(), "");
  }
}

}  // namespace
