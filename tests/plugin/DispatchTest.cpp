// The entries, the command table and the way of a request to its object.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "simulator/ForwardingMachine.h"
#include "tests/support/NoMemory.h"
#include "tests/support/TestInstance.h"

extern "C" {
CreateIfFunction createIf;
ReleaseIfFunction releaseIf;
}

using namespace NAMESPACE_piRVX;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

PI::_COMMAND Command(unsigned int number) { return static_cast<PI::_COMMAND>(number); }

/// One object of each kind.
struct DispatchTest : public testing::Test, public SRig {
  struct SObject {
    const char* m_Name;
    PI::CObject& m_Object;
  };
  std::vector<SObject> Objects() {
    return {{"plug-in", m_Plugin.m_Plugin},
            {"adapter", m_Plugin.m_Adapter},
            {"last drive", m_Plugin.m_PhysicalDrives.back()},
            {"last array", m_Plugin.m_LogicalDrives.back()}};
  }
  static constexpr unsigned long UNKNOWN_ID = 4711;
};

TEST_F(DispatchTest, UnknownCommandsTouchNothing) {
  for (const unsigned int command : {0U, 11U, 12U, 0xFFFFFFFFU}) {
    std::vector<PI::CProperty> data(1, PI::CProperty(PI::PROP_NAME));
    EXPECT_EQ(m_Plugin.Execute(Command(command), m_Plugin.m_Plugin.m_ID, &data), PI::COMMAND_ERROR);
    EXPECT_THAT(data, SizeIs(1));
    EXPECT_EQ(m_Plugin.Execute(Command(command), 0, nullptr), PI::COMMAND_ERROR);
  }
}

TEST_F(DispatchTest, UnknownObjectsAreRefusedByEveryRequest) {
  std::vector<PI::CProperty> properties(2, PI::CProperty(PI::PROP_NAME));
  std::vector<PI::COperation> operations(2);
  PI::CProperty property(PI::PROP_NAME);
  property.SetValue("mine");
  PI::COperation operation;
  operation.m_Events.resize(1);
  unsigned long id = UNKNOWN_ID;
  EXPECT_EQ(m_Plugin.GetProperties(id, properties), PI::INVALID_OBJECT_ID);
  EXPECT_EQ(m_Plugin.GetOperations(id, operations), PI::INVALID_OBJECT_ID);
  EXPECT_THAT(properties, SizeIs(2)) << "the request itself leaves the list alone";
  EXPECT_THAT(operations, SizeIs(2));
  EXPECT_EQ(m_Plugin.Execute(PI::CMD_GET_PROPERTIES, id, &properties), PI::INVALID_OBJECT_ID);
  EXPECT_EQ(m_Plugin.Execute(PI::CMD_GET_OPERATIONS, id, &operations), PI::INVALID_OBJECT_ID);
  EXPECT_THAT(properties, IsEmpty()) << "the entry empties it";
  EXPECT_THAT(operations, IsEmpty());
  EXPECT_EQ(m_Plugin.Execute(PI::CMD_GET_PROPERTY, id, &property), PI::INVALID_OBJECT_ID);
  EXPECT_EQ(m_Plugin.Execute(PI::CMD_SET_PROPERTY, id, &property), PI::INVALID_OBJECT_ID);
  EXPECT_EQ(std::get<std::string>(property.m_Value), "mine");
  EXPECT_EQ(m_Plugin.Execute(PI::CMD_CHECK_OPERATION, id, &operation), PI::INVALID_OBJECT_ID);
  EXPECT_EQ(m_Plugin.Execute(PI::CMD_EXECUTE_OPERATION, id, &operation), PI::INVALID_OBJECT_ID);
  EXPECT_THAT(operation.m_Events, SizeIs(1));
  EXPECT_TRUE(CTestInstance::IsFree(m_Plugin.m_DataLock));
}

TEST_F(DispatchTest, RequestsReachTheirObjectsHandlers) {
  const unsigned int setName[] = {PI::ERR_PROPERTY_NOT_SETTABLE, PI::OK, PI::ERR_PROPERTY_NOT_SETTABLE,
                                  PI::ERR_PROPERTY_NOT_SETTABLE};
  const PI::_PROPERTY_ID ownProperty[] = {PI::PROP_POLL_INTERVAL, PI::PROP_MAX_LOGICAL_DRIVES,
                                          PI::PROP_MEDIUM, PI::PROP_ARRAY_NUMBER};
  const PI::_OPERATION_CODE ownOperation[] = {PI::OP_GET_EVENTS, PI::OP_RESCAN_ADAPTER,
                                              PI::OP_CREATE_DEDICATED_HOTSPARE, PI::OP_START_REBUILD};
  for (std::size_t at = 0; const auto& [name, object] : Objects()) {
    SCOPED_TRACE(name);
    std::vector<PI::CProperty> properties;
    EXPECT_EQ(m_Plugin.Execute(PI::CMD_GET_PROPERTIES, object.m_ID, &properties), PI::OK);
    EXPECT_NE(Find(properties, ownProperty[at]), nullptr);
    std::vector<PI::COperation> operations;
    EXPECT_EQ(m_Plugin.Execute(PI::CMD_GET_OPERATIONS, object.m_ID, &operations), PI::OK);
    EXPECT_THAT(operations, testing::Contains(testing::Field(&PI::COperation::m_Code, ownOperation[at])));
    PI::CProperty property(PI::PROP_NAME);
    EXPECT_EQ(m_Plugin.Execute(PI::CMD_SET_PROPERTY, object.m_ID, &property), setName[at]);
    ++at;
  }
}

TEST_F(DispatchTest, ReadingOnePropertyCountsWhateverItGivesAndReadingAllDoesNot) {
  for (const auto& [name, object] : Objects()) {
    SCOPED_TRACE(name);
    const unsigned long counter = object.m_UpdateCounter;
    std::vector<PI::CProperty> all;
    EXPECT_EQ(m_Plugin.Execute(PI::CMD_GET_PROPERTIES, object.m_ID, &all), PI::OK);
    EXPECT_EQ(object.m_UpdateCounter, counter);

    PI::CProperty property(PI::PROP_DEVICE_KEY);
    if (Find(all, PI::PROP_DEVICE_KEY) != nullptr) {
      EXPECT_EQ(m_Plugin.Execute(PI::CMD_GET_PROPERTY, object.m_ID, &property), PI::OK);
      EXPECT_EQ(property.m_Value.index(), Find(all, PI::PROP_DEVICE_KEY)->m_Value.index());
    } else {
      EXPECT_EQ(m_Plugin.Execute(PI::CMD_GET_PROPERTY, object.m_ID, &property), PI::ERR_GENERAL);
    }
    EXPECT_EQ(object.m_UpdateCounter, counter + 1);

    PI::CProperty unknown(static_cast<PI::_PROPERTY_ID>(39999));
    unknown.SetValue("mine");
    EXPECT_EQ(m_Plugin.Execute(PI::CMD_GET_PROPERTY, object.m_ID, &unknown), PI::ERR_GENERAL);
    EXPECT_EQ(std::get<std::string>(unknown.m_Value), "mine");
    EXPECT_EQ(object.m_UpdateCounter, counter + 2);

    PI::CProperty first(PI::PROP_ALL);
    EXPECT_EQ(m_Plugin.Execute(PI::CMD_GET_PROPERTY, object.m_ID, &first), PI::OK);
    EXPECT_EQ(first.m_ID, all.front().m_ID);
    EXPECT_EQ(object.m_UpdateCounter, counter + 3);
  }
}

TEST_F(DispatchTest, ARefusedOperationKeepsItsRecord) {
  PI::COperation operation;
  operation.m_Code = 59999;
  operation.m_Events.resize(3);
  EXPECT_EQ(m_Plugin.Execute(PI::CMD_CHECK_OPERATION, m_Plugin.m_Plugin.m_ID, &operation), PI::OK);
  EXPECT_EQ(m_Plugin.Execute(PI::CMD_EXECUTE_OPERATION, m_Plugin.m_Plugin.m_ID, &operation),
            PI::ERR_OPERATION_NOT_SUPPORTED);
  EXPECT_THAT(operation.m_Events, SizeIs(3));
}

/// A machine whose clock breaks.
class CBrokenClock : public CForwardingMachine {
 public:
  using CForwardingMachine::CForwardingMachine;
  bool m_Broken{false};
  std::uint64_t Now() override {
    if (m_Broken) throw std::runtime_error("no clock");
    return CForwardingMachine::Now();
  }
};

TEST(Dispatch, AnExceptionReachesTheFrameworkWithoutTheLock) {
  const CConfigFolder config;
  CSimulatedMachine machine(CSimulatedMachine::DemoDescription());
  CBrokenClock door(machine);
  CTestInstance plugin(door);
  std::vector<PI::CAdapterID> adapterIDs;
  ASSERT_EQ(plugin.Execute(PI::CMD_INITIALIZE, 0, &adapterIDs), PI::OK);
  door.m_Broken = true;
  std::vector<PI::CProperty> properties;
  std::vector<PI::CObject> objects;
  EXPECT_THROW(plugin.Execute(PI::CMD_GET_PROPERTIES, plugin.m_PhysicalDrives.front().m_ID, &properties),
               std::runtime_error);
  EXPECT_THROW(plugin.Execute(PI::CMD_GET_TOPOLOGY, 0, &objects), std::runtime_error);
  EXPECT_TRUE(CTestInstance::IsFree(plugin.m_DataLock));
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
  EXPECT_EQ(second, nullptr);
  EXPECT_EQ(g_p_IPLUGINAPI_IMPL, plugin) << "a failed creation takes the instance away";

  UseMachine(nullptr);  // the construction throws
  second = plugin;
  EXPECT_THROW(createIf(&second), std::logic_error);
  EXPECT_EQ(second, plugin);
  EXPECT_EQ(g_p_IPLUGINAPI_IMPL, plugin);

  // A null pointer clears the global too, and so does every release.
  EXPECT_EQ(releaseIf(&(second = nullptr)), &g_p_IPLUGINAPI_IMPL);
  EXPECT_EQ(g_p_IPLUGINAPI_IMPL, nullptr);
  EXPECT_EQ(releaseIf(&plugin), &g_p_IPLUGINAPI_IMPL);
  EXPECT_EQ(plugin, nullptr);
}

TEST(Entries, RequestsBeforeTheInitialisationFindNoObject) {
  const CConfigFolder config;
  CSimulatedMachine machine(CSimulatedMachine::DemoDescription());
  CTestInstance plugin(machine);
  std::vector<PI::CProperty> properties;
  EXPECT_EQ(plugin.Execute(PI::CMD_GET_PROPERTIES, 295UL << 48, &properties), PI::INVALID_OBJECT_ID);
  EXPECT_TRUE(CTestInstance::IsFree(plugin.m_DataLock));
}

}  // namespace
