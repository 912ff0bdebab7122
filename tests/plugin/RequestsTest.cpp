// The entries, the way of a request to its object, the topology, the plug-in object and busy marks.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Src/piRVXTrace.h"
#include "tests/support/Arrays.h"
#include "tests/support/NoMemory.h"

extern "C" {
CreateIfFunction createIf;
ReleaseIfFunction releaseIf;
}

using namespace NAMESPACE_piRVX;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

TEST(Dispatch, UnknownObjectsAreRefusedByEveryRequestAlsoBeforeCommand1) {
  SRig initialized;
  SBareRig bare;
  for (CTestInstance* plugin : {&initialized.m_Plugin, &bare.m_Plugin}) {
    std::vector<PI::CProperty> properties(2, PI::CProperty(PI::PROP_NAME));
    std::vector<PI::COperation> operations(2);
    PI::CProperty property(PI::PROP_NAME);
    property.SetValue("mine");
    PI::COperation operation;
    operation.m_Events.resize(1);
    unsigned long id = 4711;
    EXPECT_EQ(plugin->Execute(static_cast<PI::_COMMAND>(11), id, &properties), PI::COMMAND_ERROR);
    EXPECT_EQ(plugin->GetProperties(id, properties), PI::INVALID_OBJECT_ID);
    EXPECT_THAT(properties, SizeIs(2)) << "the request itself leaves the list alone";
    EXPECT_EQ(plugin->Execute(PI::CMD_GET_PROPERTIES, id, &properties), PI::INVALID_OBJECT_ID);
    EXPECT_EQ(plugin->Execute(PI::CMD_GET_OPERATIONS, id, &operations), PI::INVALID_OBJECT_ID);
    EXPECT_THAT(properties, IsEmpty()) << "the entry empties it";
    EXPECT_THAT(operations, IsEmpty());
    EXPECT_EQ(plugin->Execute(PI::CMD_GET_PROPERTY, id, &property), PI::INVALID_OBJECT_ID);
    EXPECT_EQ(plugin->Execute(PI::CMD_SET_PROPERTY, id, &property), PI::INVALID_OBJECT_ID);
    EXPECT_EQ(Shown(property), "mine");
    EXPECT_EQ(plugin->Execute(PI::CMD_CHECK_OPERATION, id, &operation), PI::INVALID_OBJECT_ID);
    EXPECT_EQ(plugin->Execute(PI::CMD_EXECUTE_OPERATION, id, &operation), PI::INVALID_OBJECT_ID);
    EXPECT_THAT(operation.m_Events, SizeIs(1));
  }
}

TEST(Dispatch, RequestsReachTheirObjectsAndReadingOnePropertyCounts) {
  SRig rig;
  const struct {
    PI::CObject& m_Object;
    PI::_PROPERTY_ID m_OwnProperty;
    unsigned int m_SetName;
  } objects[] = {{rig.m_Plugin.m_Plugin, PI::PROP_POLL_INTERVAL, PI::ERR_PROPERTY_NOT_SETTABLE},
                 {rig.m_Plugin.m_Adapter, PI::PROP_MAX_LOGICAL_DRIVES, PI::OK},
                 {rig.m_Plugin.m_PhysicalDrives.back(), PI::PROP_MEDIUM, PI::ERR_PROPERTY_NOT_SETTABLE},
                 {rig.m_Plugin.m_LogicalDrives.back(), PI::PROP_ARRAY_NUMBER, PI::ERR_PROPERTY_NOT_SETTABLE}};
  for (const auto& entry : objects) {
    SCOPED_TRACE(entry.m_OwnProperty);
    const unsigned long id = entry.m_Object.m_ID;
    const unsigned long counter = entry.m_Object.m_UpdateCounter;
    const auto all = rig.m_Plugin.Properties(id);
    EXPECT_NE(Find(all, entry.m_OwnProperty), nullptr);
    PI::CProperty property(PI::PROP_NAME);
    EXPECT_EQ(rig.m_Plugin.Execute(PI::CMD_SET_PROPERTY, id, &property), entry.m_SetName);
    EXPECT_EQ(entry.m_Object.m_UpdateCounter, counter);
    EXPECT_EQ(rig.m_Plugin.Property(id, entry.m_OwnProperty).m_ID, entry.m_OwnProperty);
    EXPECT_EQ(rig.m_Plugin.Property(id, PI::PROP_ALL).m_ID, all.front().m_ID);
    PI::CProperty unknown(static_cast<PI::_PROPERTY_ID>(39999));
    unknown.SetValue("mine");
    EXPECT_EQ(rig.m_Plugin.Execute(PI::CMD_GET_PROPERTY, id, &unknown), PI::ERR_GENERAL);
    EXPECT_EQ(Shown(unknown), "mine");
    EXPECT_EQ(entry.m_Object.m_UpdateCounter, counter + 3) << "whatever the reading gave";
  }
  PI::COperation operation;
  operation.m_Code = 59999;
  operation.m_Events.resize(3);
  const unsigned long id = rig.m_Plugin.m_Plugin.m_ID;
  EXPECT_EQ(rig.m_Plugin.Execute(PI::CMD_CHECK_OPERATION, id, &operation), PI::OK);
  EXPECT_EQ(rig.m_Plugin.Execute(PI::CMD_EXECUTE_OPERATION, id, &operation), PI::ERR_OPERATION_NOT_SUPPORTED);
  EXPECT_THAT(operation.m_Events, SizeIs(3)) << "a refused operation keeps its record";
}

TEST(Topology, ListsEveryObjectWithWhatTheRequestsGive) {
  SRig empty("{}");
  EXPECT_THAT(empty.m_Plugin.Topology(), SizeIs(2)) << "the plug-in and its adapter";
  SRig rig;
  const unsigned long counter = rig.m_Plugin.m_Adapter.m_UpdateCounter;
  const auto objects = rig.m_Plugin.Topology();
  EXPECT_EQ(rig.m_Plugin.m_Adapter.m_UpdateCounter, counter);
  std::vector<unsigned long> ids = {rig.m_Plugin.m_Plugin.m_ID, rig.m_Plugin.m_Adapter.m_ID};
  for (const auto& drive : rig.m_Plugin.m_PhysicalDrives) ids.push_back(drive.m_ID);
  for (const auto& array : rig.m_Plugin.m_LogicalDrives) ids.push_back(array.m_ID);
  ASSERT_EQ(objects.size(), ids.size());
  for (std::size_t at = 0; at < ids.size(); ++at) {
    SCOPED_TRACE(at);
    EXPECT_EQ(objects[at].m_ID, ids[at]);
    EXPECT_EQ(objects[at].m_Properties.size(), rig.m_Plugin.Properties(ids[at]).size());
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
}

TEST(PluginObject, TakesAPollIntervalWithinTheLimitsThatComeWithIt) {
  const struct {
    int m_Value, m_Minimum, m_Maximum;
    unsigned int m_Seconds;
  } cases[] = {{1000, 2, 255, 255},
               {3, 5, 50, 5},
               {9, 20, 8, 8},  // raised first, then lowered
               {60, 2, 255, 60}};
  SRig rig;
  const unsigned long id = rig.m_Plugin.m_Plugin.m_ID;
  rig.m_Config.Write("Other=kept\n");
  PI::CProperty property(PI::PROP_POLL_INTERVAL);
  for (const auto& entry : cases) {
    const unsigned long counter = rig.m_Plugin.m_Plugin.m_UpdateCounter;
    property.SetValue(entry.m_Value, entry.m_Minimum, entry.m_Maximum, 1);
    EXPECT_EQ(rig.m_Plugin.Execute(PI::CMD_SET_PROPERTY, id, &property), PI::OK);
    EXPECT_EQ(rig.m_Plugin.m_PollInterval, entry.m_Seconds);
    EXPECT_EQ(rig.m_Plugin.m_Plugin.m_UpdateCounter, counter + 1);
    EXPECT_TRUE(Take(rig.m_Plugin.m_PrivateEvent));
    EXPECT_THAT(rig.m_Config.Read(), testing::HasSubstr(Text("PollInterval=%d\n", entry.m_Seconds)));
  }
  EXPECT_THAT(rig.m_Config.Read(), testing::HasSubstr("Other=kept\n"));
  EXPECT_EQ(Shown(rig.m_Plugin.Property(id, PI::PROP_POLL_INTERVAL)), "60 of 2 to 255 by 1");
  EXPECT_EQ(Shown(rig.m_Plugin.Property(id, PI::PROP_DEVICE_KEY)), "Plugin:ID=295");

  property.SetValue("5");
  EXPECT_EQ(rig.m_Plugin.Execute(PI::CMD_SET_PROPERTY, id, &property), PI::ERR_WRONG_PARAMETER_TYPE);
  EXPECT_FALSE(Take(rig.m_Plugin.m_PrivateEvent));
  boost::filesystem::remove(rig.m_Config.File());
  boost::filesystem::create_directory(rig.m_Config.File());  // no file can take its place
  property.SetValue(77, 2, 255, 1);
  EXPECT_EQ(rig.m_Plugin.Execute(PI::CMD_SET_PROPERTY, id, &property), PI::ERR_DEVICE_IO);
  EXPECT_EQ(rig.m_Plugin.m_PollInterval, 77U) << "in force all the same";
  EXPECT_TRUE(Take(rig.m_Plugin.m_PrivateEvent));
}

TEST(BusyMarks, GoWhereTheNumbersPoint) {
  const struct {
    int m_All, m_Major, m_Minor, m_Array;
    const char* m_Marked;  ///< places in the topology
  } cases[] = {{0, -1, -1, -1, "1 "}, {0, 8, 16, 1, "3 "},
               {0, -1, -1, 1, "11 "}, {0, -1, -1, 9, ""},
               {0, 8, 17, 1, ""},     {0, -1, 16, 1, ""},
               {0, 8, -1, 1, ""},     {-1, 8, 16, 1, "0 1 2 3 4 5 6 7 8 9 10 11 "}};
  SRig rig;
  const auto marked = [&] {
    std::string places;
    const auto objects = rig.m_Plugin.Topology();
    for (std::size_t at = 0; at < objects.size(); ++at)
      if (objects[at].m_Busy) places += std::to_string(at) + " ";
    return places;
  };
  for (const auto& entry : cases) {
    EXPECT_EQ(rig.m_Plugin.LockObjects(entry.m_All, entry.m_Major, entry.m_Minor, entry.m_Array), PI::OK);
    EXPECT_EQ(marked(), entry.m_Marked);
    EXPECT_EQ(rig.m_Plugin.UnlockObjects(), PI::OK);
    EXPECT_EQ(marked(), "");
  }
}

TEST(Entries, MakeAndReleaseTheOneInstance) {
  const CConfigFolder config;
  CSimulatedMachine machine(CSimulatedMachine::DemoDescription());
  UseMachine(&machine);
  IPLUGINAPI* plugin = nullptr;
  ASSERT_EQ(createIf(&plugin), PI::OK);
  ASSERT_NE(plugin, nullptr);
  EXPECT_EQ(plugin->m_ModuleNumber, 295U);
  EXPECT_EQ(plugin->m_InterfaceVersion, 2U);
  EXPECT_EQ(g_p_IPLUGINAPI_IMPL, plugin);

  IPLUGINAPI* second = plugin;
  {
    const CNoMemory noMemory;
    EXPECT_EQ(createIf(&second), PI::ERR_OUT_OF_MEMORY);
  }
  EXPECT_EQ(second, nullptr) << "a failed creation takes the instance away";
  EXPECT_EQ(g_p_IPLUGINAPI_IMPL, plugin);

  // A null pointer clears the global too, and so does every release.
  EXPECT_EQ(releaseIf(&second), &g_p_IPLUGINAPI_IMPL);
  EXPECT_EQ(g_p_IPLUGINAPI_IMPL, nullptr);
  EXPECT_EQ(releaseIf(&plugin), &g_p_IPLUGINAPI_IMPL);
  EXPECT_EQ(plugin, nullptr);
}

}  // namespace
