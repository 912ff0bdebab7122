// Reading on a machine that fails: every call of the door in turn, then whole kinds of calls.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

#include "Src/piRVXTrace.h"
#include "tests/support/TestInstance.h"

using namespace NAMESPACE_piRVX;
using ECall = CFaultyMachine::ECall;

namespace {

/// A disk or array in one line, without its identifier.
std::string Describe(const CRVXPhysicalDrive& drive) {
  return Text("%s %d %d %d %d", drive.m_DisplayName, drive.m_Status, drive.m_SpareState, drive.m_IsMemberOf,
              drive.m_Medium);
}
std::string Describe(const CRVXLogicalDrive& array) {
  return Text("%s %d %d %d %d", array.m_KernelName, array.m_Status, array.m_RaidLevel, array.m_LogicalSize,
              array.m_Children.size());
}

/// A disk that came back stands at the end, so the order is left out.
std::multiset<std::string> ModelText(const CTestInstance& plugin) {
  std::multiset<std::string> lines;
  for (const auto& drive : plugin.m_PhysicalDrives) lines.insert(Describe(drive));
  for (const auto& array : plugin.m_LogicalDrives) lines.insert(Describe(array));
  return lines;
}

/// Command 1 on a machine with a failing door, and everything that only reads.
class CWalk {
 public:
  CWalk() {
    gSmartData.clear();  // the cache outlives instances
  }

  void Read() {
    std::vector<PI::CAdapterID> adapterIDs;
    // A scan that cannot read is an empty one, not a failed one.
    EXPECT_EQ(m_Plugin.Execute(PI::CMD_INITIALIZE, 0, &adapterIDs), PI::OK);
    EXPECT_EQ(adapterIDs.size(), 1U);
    std::vector<PI::CObject> objects;
    EXPECT_EQ(m_Plugin.Execute(PI::CMD_GET_TOPOLOGY, 0, &objects), PI::OK);
    EXPECT_EQ(objects.size(), 2 + m_Plugin.m_PhysicalDrives.size() + m_Plugin.m_LogicalDrives.size());
    std::set<unsigned long> ids;
    for (const PI::CObject& object : objects) ids.insert(object.m_ID);
    EXPECT_EQ(ids.size(), objects.size());
    for (const PI::CObject& object : objects) {
      for (const unsigned long child : object.m_Children) EXPECT_EQ(ids.count(child), 1U);
      ReadProperties(object);
    }
  }

  void ExpectNothingLeft() {
    EXPECT_EQ(m_Machine.OpenDescriptors(), 0U);
    EXPECT_TRUE(CTestInstance::IsFree(m_Plugin.m_DataLock));
    EXPECT_TRUE(CTestInstance::IsFree(m_Plugin.m_EventsLock));
    EXPECT_TRUE(m_Door.OpenedForWriting().empty()) << "reading opened something for writing";
  }

  /// The first pass after the failure: the model is what it would be without it.
  void ExpectRecovery() {
    m_Door.Clear();
    SWorkerState worker;
    m_Plugin.WorkerPass(worker);
    EXPECT_EQ(ModelText(m_Plugin), Expected());
  }

  CConfigFolder m_Config;
  CSimulatedMachine m_Machine{CSimulatedMachine::DemoDescription()};
  CFaultyMachine m_Door{m_Machine};
  CTestInstance m_Plugin{m_Door};

 private:
  static const std::multiset<std::string>& Expected() {
    static const auto lines = [] {
      SRig rig;
      rig.Pass();
      return ModelText(rig.m_Plugin);
    }();
    return lines;
  }

  void ReadProperties(const PI::CObject& object) {
    std::vector<PI::CProperty> properties;
    EXPECT_EQ(m_Plugin.Execute(PI::CMD_GET_PROPERTIES, object.m_ID, &properties), PI::OK);
    ASSERT_EQ(properties.size(), object.m_Properties.size());
    for (const PI::CProperty& listed : properties) {
      PI::CProperty property(listed.m_ID);
      EXPECT_EQ(m_Plugin.Execute(PI::CMD_GET_PROPERTY, object.m_ID, &property), PI::OK) << listed.m_ID;
      EXPECT_EQ(property.m_Value.index(), listed.m_Value.index()) << listed.m_ID;
    }
  }
};

TEST(FaultWalk, EverySingleCallMayFail) {
  for (const bool shortened : {false, true}) {
    std::uint64_t failures = 0;
    for (std::uint64_t n = 1;; ++n) {
      SCOPED_TRACE(testing::Message() << (shortened ? "short read " : "call ") << n);
      CWalk walk;
      if (shortened)
        walk.m_Door.ShortenAt(ECall::Read, n, 3);
      else
        walk.m_Door.FailAt(ECall::Any, n, n % 2 == 0 ? EIO : ENOMEM);
      walk.Read();
      walk.ExpectNothingLeft();
      if (walk.m_Door.Struck() == 0) break;
      ++failures;
      walk.ExpectRecovery();
      if (HasFailure()) return;  // one failure point tells enough
    }
    EXPECT_GT(failures, 80U) << "the walk did not reach the scan";
  }
}

TEST(FaultWalk, AWholeKindOfCallsMayFail) {
  const struct {
    ECall m_Kind;
    std::size_t m_Drives;
    std::size_t m_Arrays;
  } cases[] = {
      {ECall::Open, 0, 0},           {ECall::Read, 0, 0},           {ECall::Any, 0, 0},
      {ECall::GetCommandPath, 0, 2}, {ECall::ExecuteCommand, 0, 2}, {ECall::ReadLink, 0, 2},
      {ECall::Ioctl, 8, 2},          {ECall::Close, 8, 2},
  };
  for (const auto& entry : cases) {
    SCOPED_TRACE(static_cast<int>(entry.m_Kind));
    CWalk walk;
    walk.m_Door.FailAt(entry.m_Kind, 1, EIO, ~std::uint64_t{0} - 1000);
    walk.Read();
    EXPECT_GT(walk.m_Door.Struck(), 0U);
    EXPECT_EQ(walk.m_Plugin.m_PhysicalDrives.size(), entry.m_Drives);
    EXPECT_EQ(walk.m_Plugin.m_LogicalDrives.size(), entry.m_Arrays);
    walk.ExpectNothingLeft();
    walk.ExpectRecovery();
  }
}

}  // namespace
