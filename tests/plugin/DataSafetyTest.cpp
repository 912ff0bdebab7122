// What could still hurt data: arrays that share a number, disks that were swapped, a model that lost its
// shape.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

#include "tests/support/Arrays.h"
#include "tests/support/NoMemory.h"
#include "tests/support/TraceCapture.h"

using namespace NAMESPACE_piRVX;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// A mirror md_d0 of sda and sdb; sdc, sdd and sde are free.
const std::string MIRROR = DisksOf({4096, 4096, 4096, 4096, 4096}, MirrorOfTwo("md_d0"));
constexpr char OTHER[] = R"({"add_array": {"name": "md0", "level": "raid1", "members": ["sdc", "sdd"]}})";

std::string Bytes(const SRig& rig, const std::string& disks) {
  std::string bytes;
  for (const char disk : disks) bytes += rig.m_Machine.DiskBytes(std::string("sd") + disk, 0, 4096UL * 1024);
  return bytes;
}

/// Names and identifiers of what the lists hold, and of what the adapter calls its children.
void ExpectSoundModel(CTestInstance& plugin) {
  std::multiset<unsigned long> ids;
  for (const auto& drive : plugin.m_PhysicalDrives) ids.insert(drive.m_ID);
  for (const auto& array : plugin.m_LogicalDrives) ids.insert(array.m_ID);
  const auto& children = plugin.m_Adapter.m_Children;
  EXPECT_EQ(ids, std::multiset<unsigned long>(children.begin(), children.end()));
  EXPECT_EQ(std::set<unsigned long>(ids.begin(), ids.end()).size(), ids.size())
      << "an identifier is there twice";
  EXPECT_THAT(plugin.m_Plugin.m_Children, ElementsAre(plugin.m_Adapter.m_ID));
}

std::multiset<std::string> Names(const CTestInstance& plugin) {
  std::multiset<std::string> names;
  for (const auto& drive : plugin.m_PhysicalDrives) names.insert(drive.m_KernelName);
  for (const auto& array : plugin.m_LogicalDrives) names.insert(array.m_KernelName);
  return names;
}

TEST(EqualNumbers, BothStandInTheModelAndEventsNameTheRightOne) {
  SRig rig(MIRROR);
  rig.Pass();
  const unsigned long first = rig.m_Plugin.Array("md_d0").m_ID;
  rig.m_Machine.Apply(OTHER);
  rig.m_Plugin.TakeEvents();
  for (int pass = 0; pass < 3; ++pass) rig.Pass();
  std::vector<std::string> added;
  for (const PI::CEvent& event : rig.m_Plugin.TakeEvents())
    if (event.m_Code == PI::EVT_LOGICALDRIVE_ADDED) added.push_back(event.m_PlaceHolder2);
  EXPECT_THAT(added, ElementsAre("md0"));
  EXPECT_EQ(rig.m_Plugin.Array("md_d0").m_ID, first);
  const unsigned long second = rig.m_Plugin.Array("md0").m_ID;
  EXPECT_NE(second, first);
  ExpectSoundModel(rig.m_Plugin);

  rig.m_Machine.Apply(R"({"fail_member": {"array": "md0", "disk": "sdd"}})");
  for (int pass = 0; pass < 2; ++pass) rig.Pass();
  std::vector<unsigned long> degraded;
  for (const PI::CEvent& event : rig.m_Plugin.TakeEvents())
    if (event.m_Code == PI::EVT_LOGICALDRIVE_DEGRADED) degraded.push_back(event.m_ObjectID);
  EXPECT_THAT(degraded, ElementsAre(second)) << "once, and of the one that is degraded";

  rig.m_Machine.Apply(R"({"stop_array": "md_d0"})");
  for (int pass = 0; pass < 2; ++pass) rig.Pass();  // the second looks whether the number is in use again
  const auto events = rig.m_Plugin.TakeEvents();
  const auto deleted = std::find_if(events.begin(), events.end(), [](const PI::CEvent& event) {
    return event.m_Code == PI::EVT_LOGICALDRIVE_DELETED;
  });
  ASSERT_NE(deleted, events.end());
  EXPECT_EQ(deleted->m_ObjectID, first);
  EXPECT_EQ(rig.m_Plugin.Array("md0").m_ID, second);
}

TEST(EqualNumbers, FoundAtStartTheyStayTwoObjects) {
  SRig rig(DisksOf({4096, 4096, 4096, 4096},
                   R"("arrays": [{"name": "md_d0", "level": "raid1", "members": ["sda", "sdb"]},
                                 {"name": "md0", "level": "raid0", "members": ["sdc", "sdd"]}])"));
  const unsigned long first = rig.m_Plugin.Array("md_d0").m_ID;
  const unsigned long second = rig.m_Plugin.Array("md0").m_ID;
  rig.Pass();
  EXPECT_EQ(rig.m_Plugin.Array("md_d0").m_ID, first);
  EXPECT_EQ(rig.m_Plugin.Array("md0").m_ID, second);
  EXPECT_EQ(rig.m_Plugin.Array("md0").m_RaidLevel, PI::LEVEL_RAID0);
}

TEST(EqualNumbers, AnArrayThatComesBackUnderItsOtherNameIsTheSame) {
  SRig rig(MIRROR);
  const unsigned long id = rig.m_Plugin.Array("md_d0").m_ID;
  rig.m_Machine.Apply(R"({"stop_array": "md_d0"})");
  rig.m_Machine.Apply(R"({"add_array": {"name": "md0", "level": "raid1", "members": ["sda", "sdb"]}})");
  rig.Pass();
  EXPECT_EQ(rig.m_Plugin.Array("md0").m_ID, id);
  EXPECT_EQ(rig.m_Plugin.m_LogicalDrives.size(), 1U);
}

TEST(EqualNumbers, DeletingOneTouchesTheOthersDisksNeitherAtOnceNorWhenItIsRepeated) {
  // Of the other one, running or stopped since the scan: then nothing but the plug-in protects its disks.
  for (const bool stopped : {false, true}) {
    SCOPED_TRACE(stopped);
    SRig rig(MIRROR);
    rig.m_Machine.Apply(OTHER);
    rig.Pass();
    const unsigned long id = rig.m_Plugin.Array("md_d0").m_ID;
    if (stopped) rig.m_Machine.Apply(R"({"stop_array": "md0"})");
    const std::string others = Bytes(rig, "cde");
    EXPECT_EQ(Execute(rig.m_Plugin, id, Operation(PI::OP_DELETE_LOGICAL_DRIVE)), PI::OK);
    EXPECT_FALSE(IsSuperBlock(SuperBlockOf(rig.m_Machine, rig.m_Plugin.Drive("sda"))));
    EXPECT_FALSE(IsSuperBlock(SuperBlockOf(rig.m_Machine, rig.m_Plugin.Drive("sdb"))));
    rig.Pass();
    EXPECT_EQ(Execute(rig.m_Plugin, id, Operation(PI::OP_DELETE_LOGICAL_DRIVE)), PI::INVALID_OBJECT_ID);
    EXPECT_EQ(Bytes(rig, "cde"), others);
  }
}

TEST(SwappedDisk, IsNotWrittenTo) {
  const struct {
    const char* m_What;
    std::vector<const char*> m_Changes;
  } cases[] = {
      {"a larger disk under the same name",
       {R"({"remove_disk": "sdd"})", R"({"add_disk": {"name": "sdd", "size": 8192, "controller": "sas"}})"}},
      {"the name leads to another disk's number",
       {R"({"remove_disk": "sdd"})",
        R"({"add_disk": {"name": "sdd", "device": "8:240", "size": 4096, "controller": "sas"}})"}}};
  for (const auto& entry : cases) {
    SCOPED_TRACE(entry.m_What);
    SRig rig(MIRROR);
    for (const char* const change : entry.m_Changes) rig.m_Machine.Apply(change);
    const CTraceCapture trace(TRACE_LIFECYCLE);
    EXPECT_EQ(Create(rig.m_Plugin, PI::LEVEL_RAID1, 0, {"sdc", "sdd"}), PI::ERR_DEVICE_IO);
    EXPECT_TRUE(
        trace.Shows("Src/piRVXAdapter", "WriteSuperBlock1() can't open /dev/sdd, No such device or address"));
    const std::string zeros(4096UL * 1024, '\0');
    EXPECT_TRUE(rig.m_Machine.DiskBytes("sdd", 0, zeros.size()) == zeros);
  }
  // A failed member that was replaced since the scan: the model still counts it to the array.
  SRig rig(MIRROR);
  rig.m_Machine.Apply(R"({"fail_member": {"array": "md_d0", "disk": "sdb"}})");
  rig.Pass();
  rig.m_Machine.Apply(R"({"remove_member": {"array": "md_d0", "disk": "sdb"}})");
  for (const char* const change :
       {R"({"remove_disk": "sdb"})", R"({"add_disk": {"name": "sdb", "size": 8192, "controller": "sas"}})"})
    rig.m_Machine.Apply(change);
  EXPECT_EQ(Execute(rig.m_Plugin, rig.m_Plugin.Array("md_d0").m_ID, Operation(PI::OP_DELETE_LOGICAL_DRIVE)),
            PI::ERR_DEVICE_IO);
  const std::string zeros(8192UL * 1024, '\0');
  EXPECT_TRUE(rig.m_Machine.DiskBytes("sdb", 0, zeros.size()) == zeros);
}

/// Keeps what is opened of /dev.
class COpenedDoor : public CForwardingMachine {
 public:
  using CForwardingMachine::CForwardingMachine;
  int Open(const std::string& path, int flags) override {
    if (path.starts_with("/dev/") && path != "/dev/urandom") m_Opened.push_back(path);
    return CForwardingMachine::Open(path, flags);
  }
  std::vector<std::string> m_Opened;
};

TEST(Devices, WhatIsNoBlockDeviceIsNotOpened) {
  SRigOf<COpenedDoor> rig(MIRROR);
  for (const char* const path : {"/dev/sdc", "/dev/md_d0", "/dev/md_d1"}) rig.m_Machine.SetFile(path, "");
  rig.m_Own.m_Opened.clear();
  rig.Pass();
  EXPECT_EQ(Create(rig.m_Plugin, PI::LEVEL_RAID1, 0, {"sdd", "sde"}), PI::ERR_OPEN_FAILED);
  EXPECT_EQ(Execute(rig.m_Plugin, rig.m_Plugin.Array("md_d0").m_ID, Operation(PI::OP_DELETE_LOGICAL_DRIVE)),
            PI::ERR_DEVICE_IO);
  EXPECT_THAT(rig.m_Own.m_Opened, ElementsAre("/dev/sda", "/dev/sdb", "/dev/sdd", "/dev/sde"));
}

/// Everything that a merge may change, as text.
std::string Everything(CTestInstance& plugin) {
  std::string text = Text("adapter %d %s:", plugin.m_Adapter.m_UpdateCounter, plugin.m_Adapter.m_Description);
  for (const unsigned long id : plugin.m_Adapter.m_Children) text += Text(" %d", id);
  for (auto& drive : plugin.m_PhysicalDrives)
    text += Text("\n%d %d %s %d", drive.m_ID, drive.m_UpdateCounter, drive.m_DisplayName, drive.m_Status);
  for (auto& array : plugin.m_LogicalDrives)
    text += Text("\n%d %d %s %d %d", array.m_ID, array.m_UpdateCounter, array.m_KernelName, array.m_Status,
                 array.m_Children.size());
  return text + Text("\nevents %d, estimates %d", plugin.m_EventQueue.size(), plugin.m_Estimators.size());
}

/// One array and one disk go, others come, one array changes.
void ChangeMachine(CSimulatedMachine& machine) {
  for (const char* const change :
       {R"({"stop_array": "md1"})", R"({"remove_disk": "sdd"})", R"({"remove_disk": "sdc"})",
        R"({"fail_member": {"array": "md_d0", "disk": "sdb"}})",
        R"({"add_disk": {"name": "sdx", "size": 4096, "controller": "sas"}})",
        R"({"add_array": {"name": "md7", "level": "raid0", "members": ["sde", "sdx"]}})"})
    machine.Apply(change);
}
const std::string CHANGING =
    DisksOf({4096, 4096, 4096, 4096, 4096},
            R"("arrays": [{"name": "md_d0", "level": "raid1", "members": ["sda", "sdb"]},
                          {"name": "md1", "level": "raid0", "members": ["sdc", "sdd"]}])");

TEST(Merge, RunningOutOfMemoryAnywhereLeavesTheModelAsItWas) {
  SRig rig(CHANGING);
  rig.Pass();
  rig.m_Plugin.TakeEvents();
  PI::CETR::Add(rig.m_Plugin.m_Estimators, rig.m_Plugin.Array("md1").m_ID, 10, 0, false);
  ChangeMachine(rig.m_Machine);
  CRVXAdapter adapter;
  std::vector<CRVXPhysicalDrive> drives;
  std::vector<CRVXLogicalDrive> arrays;
  ASSERT_EQ(rig.m_Plugin.ScanSystem(adapter, drives, arrays, false), PI::OK);
  rig.m_Plugin.TakeEvents();
  CTestInstance& p = rig.m_Plugin;
  const auto saved = std::tuple(p.m_Adapter, p.m_PhysicalDrives, p.m_LogicalDrives, p.m_Estimators);
  const std::string before = Everything(rig.m_Plugin);
  unsigned long failures = 0;
  for (bool failed = true; failed; ++failures) {
    rig.m_Plugin.TakeEvents();
    std::tie(p.m_Adapter, p.m_PhysicalDrives, p.m_LogicalDrives, p.m_Estimators) = saved;
    try {
      const CFailingAllocation failing(failures + 1);
      EXPECT_EQ(rig.m_Plugin.UpdateSystem(adapter, drives, arrays), PI::OK);
    } catch (const std::bad_alloc&) {
      ASSERT_EQ(Everything(rig.m_Plugin), before) << "allocation " << failures;
    }
    failed = CFailingAllocation::HasFailed();  // also where a formatted text was only cut short by it
  }
  EXPECT_GT(failures, 40U);
  EXPECT_THAT(Names(rig.m_Plugin), ElementsAre("md7", "md_d0", "sda", "sdb", "sde", "sdx"));
  EXPECT_THAT(rig.m_Plugin.TakeEventCodes(),
              ElementsAre(PI::EVT_PHYSICALDRIVE_REMOVED, PI::EVT_PHYSICALDRIVE_REMOVED,
                          PI::EVT_LOGICALDRIVE_DELETED));
  EXPECT_THAT(rig.m_Plugin.m_Estimators, IsEmpty()) << "an estimate goes with its array";
  ExpectSoundModel(rig.m_Plugin);
}

TEST(Merge, APassThatRanOutOfMemoryIsMadeUpForByTheNext) {
  unsigned long failures = 0;
  for (bool failed = true; failed && !testing::Test::HasFailure(); ++failures) {
    SCOPED_TRACE(failures + 1);
    SRig rig(CHANGING);
    ChangeMachine(rig.m_Machine);
    try {
      const CFailingAllocation failing(failures + 1);
      rig.Pass();
    } catch (const std::bad_alloc&) {
      // As the worker's loop takes it.
    }
    failed = CFailingAllocation::HasFailed();
    ExpectSoundModel(rig.m_Plugin);
    for (int pass = 0; failed && pass < 2; ++pass) rig.Pass();
    EXPECT_THAT(Names(rig.m_Plugin), ElementsAre("md7", "md_d0", "sda", "sdb", "sde", "sdx"));
    ExpectSoundModel(rig.m_Plugin);
  }
  EXPECT_GT(failures, 500U);
}

TEST(Pass, AStopInItsMiddleKeepsTheObjectsLinked) {
  SRig rig(MIRROR);
  rig.Pass();
  rig.m_Plugin.m_StopRequest.Set();
  rig.Pass();
  ExpectSoundModel(rig.m_Plugin);
}

TEST(Pass, AKnownDiskWithoutAStateFileCountsAsNewUnderItsOwnIdentifier) {
  SRig rig(MIRROR);
  rig.m_Machine.SetFile("/sys/block/sda/device/state", std::nullopt);
  rig.Pass();
  const auto events = rig.m_Plugin.TakeEvents();
  ASSERT_EQ(events.size(), 2U);
  EXPECT_EQ(events[0].m_Code, PI::EVT_PHYSICALDRIVE_ADDED);
  EXPECT_EQ(events[1].m_Code, PI::EVT_READY_DRIVE_OFFLINE);
  for (const PI::CEvent& event : events) EXPECT_EQ(event.m_ObjectID, rig.m_Plugin.Drive("sda").m_ID);
  EXPECT_THAT(rig.m_Plugin.Array("md_d0").m_Children,
              ElementsAre(rig.m_Plugin.Drive("sda").m_ID, rig.m_Plugin.Drive("sdb").m_ID));
  ExpectSoundModel(rig.m_Plugin);
}

TEST(Pass, AConfigurationDocumentThatChangesCounts) {
  SMdRig rig(MIRROR);
  const auto member = [](int number, int minor, int slot, int state) {
    return std::pair<const int, mdu_disk_info_t>{number, {number, 8, minor, slot, state}};
  };
  rig.m_Own.m_Disks = {member(0, 0, 0, DISK_ACTIVE | DISK_SYNC), member(1, 16, -1, DISK_FAULTY)};
  for (int pass = 0; pass < 2; ++pass) rig.Pass();
  const unsigned long counter = rig.m_Plugin.Array("md_d0").m_UpdateCounter;
  rig.Pass();
  EXPECT_EQ(rig.m_Plugin.Array("md_d0").m_UpdateCounter, counter);
  rig.m_Own.m_Disks = {member(0, 0, 0, DISK_ACTIVE | DISK_SYNC), member(1, 16, 1, DISK_FAULTY)};
  rig.m_Plugin.TakeEvents();
  rig.m_Plugin.LockObjects(-1, -1, -1, -1);
  rig.Pass();  // the failed member stands in a slot now: no spare of the document any more
  EXPECT_EQ(rig.m_Plugin.Array("md_d0").m_UpdateCounter, counter + 1);
  EXPECT_FALSE(rig.m_Plugin.m_Adapter.m_Busy);
}

}  // namespace
